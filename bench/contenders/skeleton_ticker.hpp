// The skeleton's tick: a thread of its own that works once a period.
#ifndef BENCH_CONTENDERS_SKELETON_TICKER_HPP
#define BENCH_CONTENDERS_SKELETON_TICKER_HPP

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <latch>
#include <mutex>
#include <thread>

namespace relay_bench::skeleton {

class ticker {
public:
    /// Ticks once before it returns, so that what is measured later is no first time, and then at that moment of
    /// now_nanoseconds() and once a period from there. The tick must not throw.
    ticker(std::uint64_t from, std::function<void()> tick);
    /// Waits for a tick that is under way.
    ~ticker() = default;
    ticker(ticker const&) = delete;
    ticker& operator=(ticker const&) = delete;

    /// The kernel's number of the thread.
    int thread() const { return number; }

private:
    void run(std::stop_token const& ended);

    std::uint64_t const from;
    std::function<void()> const tick;
    std::mutex lock;
    std::condition_variable_any awake;
    std::latch first{1};
    int number = 0;
    std::jthread ticking; ///< last: it uses the others
};

} // namespace relay_bench::skeleton

#endif
