// Latencies, counted in buckets whose width grows with the value: fixed memory however many are added.
#ifndef REFERENCE_CENTER_LATENCY_HISTOGRAM_HPP
#define REFERENCE_CENTER_LATENCY_HISTOGRAM_HPP

#include <array>
#include <cstddef>
#include <cstdint>

namespace Zolt::Reference_Center {

/// Thread: one at a time. What it answers is off by less than one in a hundred; the count, the least and the most are
/// exact. Values are nanoseconds, any of 64 bits.
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
    /// A power of two is divided into that many buckets; below twice that number a bucket is one value.
    static constexpr unsigned int c_part_bits = 6;
    static constexpr std::size_t c_parts = std::size_t{1} << c_part_bits;
    static constexpr std::size_t c_buckets = (64 - c_part_bits + 1) * c_parts;

    static std::size_t bucket_of(std::uint64_t value);
    /// The middle of a bucket.
    static std::uint64_t value_of(std::size_t bucket);

    std::array<std::uint64_t, c_buckets> buckets{};
    std::uint64_t total = 0;
    std::uint64_t smallest = ~std::uint64_t{0};
    std::uint64_t largest = 0;
};

} // namespace Zolt::Reference_Center

#endif
