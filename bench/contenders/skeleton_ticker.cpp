#include "bench/contenders/skeleton_ticker.hpp"

#include "bench/contender.hpp"

#include <chrono>
#include <utility>

#include <pthread.h>
#include <unistd.h>

namespace relay_bench::skeleton {

ticker::ticker(std::uint64_t moment, std::function<void()> work)
    : from(moment), tick(std::move(work)), ticking([this](std::stop_token const& ended) { run(ended); }) {
    first.wait();
}

void ticker::run(std::stop_token const& ended) {
    using clock = std::chrono::steady_clock; // that of now_nanoseconds()
    constexpr auto c_period = std::chrono::duration_cast<clock::duration>(std::chrono::duration<double>(c_tick_period));
    ::pthread_setname_np(::pthread_self(), "skeleton-tick");
    number = ::gettid();
    tick();
    first.count_down();
    std::unique_lock<std::mutex> hold(lock);
    for (clock::time_point next{std::chrono::nanoseconds(from)};; next += c_period) {
        awake.wait_until(hold, ended, next, [] { return false; });
        if (ended.stop_requested()) {
            return;
        }
        tick();
    }
}

} // namespace relay_bench::skeleton
