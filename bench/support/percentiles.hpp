// Durations of a run, and what they say about it.
#ifndef BENCH_SUPPORT_PERCENTILES_HPP
#define BENCH_SUPPORT_PERCENTILES_HPP

#include "bench/support/figures.hpp"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace relay_bench {

class durations {
public:
    /// Takes the memory for that many, so that adding one touches no fresh page. More than that are not kept.
    explicit durations(std::size_t room);

    void add(std::uint64_t nanoseconds) {
        if (count < kept.size()) {
            kept[count] = static_cast<std::uint32_t>(nanoseconds < c_longest ? nanoseconds : c_longest);
            ++count;
        }
    }
    /// Writes p50_ns to p99_9_ns, min_ns and max_ns.
    void write(figures& to);

private:
    static constexpr std::uint64_t c_longest = 0xFFFFFFFF;

    std::vector<std::uint32_t> kept;
    std::size_t count = 0;
};

} // namespace relay_bench

#endif
