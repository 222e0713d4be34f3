// Latencies, counted in buckets whose width grows with the value: fixed memory however many are added.
#ifndef REFERENCE_CENTER_LATENCY_HISTOGRAM_HPP
#define REFERENCE_CENTER_LATENCY_HISTOGRAM_HPP

#include "Reference_Center/latency_buckets.hpp"

#include <cstdint>

namespace Zolt::Reference_Center {

/// Thread: one at a time. What it answers is off by less than one in 64, and by much less where values stand evenly; the
/// count, the least and the most are exact. Values are nanoseconds, any of 64 bits.
class latency_histogram {
public:
    void add(std::uint64_t value);
    /// As if everything that was added to the other had been added here.
    void merge(latency_histogram const& other);

    std::uint64_t count() const { return total; }
    std::uint64_t least() const { return total != 0 ? smallest : 0; }
    std::uint64_t most() const { return largest; }
    /// The smallest value that at least that share of all, from 0 to 1, does not exceed; 0 when there is none.
    std::uint64_t at_share(double share) const;

private:
    using buckets = latency_buckets<6, 64>;

    buckets::counts counts{};
    std::uint64_t total = 0;
    std::uint64_t smallest = ~std::uint64_t{0};
    std::uint64_t largest = 0;
};

} // namespace Zolt::Reference_Center

#endif
