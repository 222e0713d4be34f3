// The one clock of the bench.
#ifndef BENCH_SUPPORT_CLOCK_HPP
#define BENCH_SUPPORT_CLOCK_HPP

#include <cstdint>
#include <ctime>

namespace relay_bench {

/// Monotonic nanoseconds; read without entering the kernel.
inline std::uint64_t now_nanoseconds() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000000 + static_cast<std::uint64_t>(now.tv_nsec);
}

} // namespace relay_bench

#endif
