// How long packets took, of those of the last while, in a memory of fixed size: counts of times, in steps of an eighth of
// the time or finer. Any thread adds; one turns; any reads.
#ifndef REFERENCE_CENTER_LATENCY_WINDOWS_HPP
#define REFERENCE_CENTER_LATENCY_WINDOWS_HPP

#include <array>
#include <atomic>
#include <cstddef>
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
    static constexpr unsigned int c_step_bits = 3; ///< steps to each power of two, as a power of two
    static constexpr unsigned int c_largest_power = 30;
    static constexpr std::size_t c_steps = (c_largest_power - c_step_bits + 1) << c_step_bits;

    struct window {
        std::array<std::atomic<std::uint32_t>, c_steps> counts{};
        std::atomic<std::uint64_t> max{0};
    };

    static std::size_t step_of(std::uint64_t microseconds);
    static double middle_of(std::size_t step);

    std::array<window, 2> windows;
    std::atomic<unsigned int> current{0};
};

} // namespace Zolt::Reference_Center

#endif
