// Bounds what one connection has queued. Who sends enters, whoever takes a packet off the queue leaves.
#ifndef BENCH_SUPPORT_SEND_WINDOW_HPP
#define BENCH_SUPPORT_SEND_WINDOW_HPP

#include "bench/support/futex.hpp"

#include <atomic>
#include <cstdint>

namespace relay_bench {

class send_window {
public:
    /// Waits while that many are queued, until half of them are gone. Thread: one sender at a time.
    void enter(std::uint32_t window) {
        if (queued.load(std::memory_order_relaxed) >= window) {
            wait_until_half(window / 2);
        }
        queued.fetch_add(1, std::memory_order_relaxed);
    }

    /// Any thread.
    void leave() {
        // Counted before go_on_at is read, as the waiting sender writes go_on_at before it reads the count.
        std::uint32_t const left = queued.fetch_sub(1, std::memory_order_seq_cst) - 1;
        if (left == go_on_at.load(std::memory_order_seq_cst)) {
            futex_wake(queued);
        }
    }

private:
    static constexpr std::uint32_t c_nobody_waits = 0xFFFFFFFF;

    void wait_until_half(std::uint32_t half) {
        go_on_at.store(half, std::memory_order_seq_cst);
        for (std::uint32_t now = queued.load(std::memory_order_seq_cst); now > half; now = queued.load()) {
            futex_wait(queued, now);
        }
        go_on_at.store(c_nobody_waits, std::memory_order_relaxed);
    }

    std::atomic<std::uint32_t> queued{0};
    std::atomic<std::uint32_t> go_on_at{c_nobody_waits};
};

} // namespace relay_bench

#endif
