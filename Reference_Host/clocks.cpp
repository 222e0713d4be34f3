#include "Host/tesk_os.hpp"

#include <cerrno>
#include <ctime>
#include <sched.h>

namespace Tesk::OS {
namespace {

constexpr unsigned long c_nanoseconds_per_second = 1000000000;
constexpr unsigned long c_nanoseconds_per_millisecond = 1000000;
constexpr unsigned long c_nanoseconds_per_microsecond = 1000;

/// Nanoseconds of a clock that stands still while the machine is suspended (decision 27).
unsigned long read_monotonic(clockid_t clock = CLOCK_MONOTONIC) {
    timespec now{};
    ::clock_gettime(clock, &now);
    return static_cast<unsigned long>(now.tv_sec) * c_nanoseconds_per_second + static_cast<unsigned long>(now.tv_nsec);
}

} // namespace

unsigned long lemon_clock() {
    // The time of the kernel's last tick, at most 10 ms ago, is near enough for seconds and costs a quarter.
    return read_monotonic(CLOCK_MONOTONIC_COARSE) / c_nanoseconds_per_millisecond;
}

unsigned long lemon_cpu_clock() {
    return read_monotonic() / c_nanoseconds_per_microsecond;
}

void rtsleep(double seconds) {
    constexpr double c_longest_seconds = 1e9;
    if (!(seconds > 0.0)) {
        return;
    }
    // Until a moment, not for a time: signals that interrupt it again and again do not make it longer.
    double const wanted = seconds < c_longest_seconds ? seconds : c_longest_seconds;
    unsigned long const end = read_monotonic() + static_cast<unsigned long>(wanted * 1e9);
    timespec moment{};
    moment.tv_sec = static_cast<time_t>(end / c_nanoseconds_per_second);
    moment.tv_nsec = static_cast<long>(end % c_nanoseconds_per_second);
    while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &moment, nullptr) == EINTR) {
    }
}

void thread_yield() {
    ::sched_yield();
}

} // namespace Tesk::OS
