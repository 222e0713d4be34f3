// How long packets took, of those of the last while, in a memory of fixed size: counts of times, in buckets of an eighth
// of the time or finer. Any thread adds; one turns; any reads.
#ifndef REFERENCE_CENTER_LATENCY_WINDOWS_HPP
#define REFERENCE_CENTER_LATENCY_WINDOWS_HPP

#include "Reference_Center/latency_buckets.hpp"

#include <array>
#include <atomic>
#include <cstdint>

namespace Zolt::Reference_Center {

/// In microseconds; with a count of 0 the figures say nothing.
struct latency_summary {
    std::uint64_t count = 0;
    double p50 = 0;
    double p90 = 0;
    double p99 = 0;
    double max = 0; ///< exact
};

class latency_windows {
public:
    void add(std::uint64_t microseconds);
    /// Forgets what was added before the turn before this one.
    void turn();
    latency_summary summarize() const;

private:
    /// Up to 18 minutes.
    using buckets = latency_buckets<3, 30>;

    struct window {
        std::array<std::atomic<std::uint32_t>, buckets::c_buckets> counts{};
        std::atomic<std::uint64_t> max{0};
    };

    std::array<window, 2> windows;
    std::atomic<unsigned int> current{0};
};

} // namespace Zolt::Reference_Center

#endif
