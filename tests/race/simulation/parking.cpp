#include "tests/race/simulation/parking.hpp"

#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace simulation {
namespace {

long futex(std::atomic<std::uint32_t>& word, int operation, std::uint32_t value) {
    return ::syscall(SYS_futex, &word, operation, value, nullptr, nullptr, 0);
}

struct worker {
    parking_place place;
    std::function<void()> work;
};

/// Threads that have nothing to do. Never destroyed: they end with the process.
struct worker_pool {
    std::mutex guard;
    std::vector<worker*> idle;
};

worker_pool& pool() {
    static auto* const the_pool = new worker_pool;
    return *the_pool;
}

void run_worker(worker* self) {
    for (;;) {
        self->place.park();
        // The next schedule may begin as soon as the work has passed its turn on; this thread then has not come back yet.
        std::exchange(self->work, nullptr)();
        std::lock_guard const hold(pool().guard);
        pool().idle.push_back(self);
    }
}

worker* take_idle() {
    std::lock_guard const hold(pool().guard);
    if (pool().idle.empty()) {
        return nullptr;
    }
    worker* const found = pool().idle.back();
    pool().idle.pop_back();
    return found;
}

} // namespace

void parking_place::park() {
    while (is_woken.exchange(0, std::memory_order_acquire) == 0) {
        futex(is_woken, FUTEX_WAIT_PRIVATE, 0);
    }
}

void parking_place::wake() {
    is_woken.store(1, std::memory_order_release);
    futex(is_woken, FUTEX_WAKE_PRIVATE, 1);
}

void run_on_a_worker(std::function<void()> work) {
    worker* chosen = take_idle();
    if (chosen == nullptr) {
        chosen = new worker;
        std::thread(run_worker, chosen).detach();
    }
    chosen->work = std::move(work);
    chosen->place.wake();
}

} // namespace simulation
