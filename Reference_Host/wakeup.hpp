// Where threads sleep until there is something to do; whoever brings it pays only when somebody sleeps. Private to
// Reference_Host/.
#ifndef REFERENCE_HOST_WAKEUP_HPP
#define REFERENCE_HOST_WAKEUP_HPP

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

namespace Zolt::Reference_Host {

class wakeup {
public:
    /// Sleeps until ready() or the moment has come. The last answer of ready().
    template <class Ready>
    bool sleep_until(std::chrono::steady_clock::time_point moment, Ready ready) {
        std::unique_lock<std::mutex> hold(lock);
        // Counted before ready() looks, and read by wake() after the work was laid down: one of the two sees the other.
        sleepers.fetch_add(1, std::memory_order_acq_rel);
        bool const found = arrived.wait_until(hold, moment, ready);
        sleepers.fetch_sub(1, std::memory_order_acq_rel);
        return found;
    }

    /// Call it after the change that makes ready() true. Never waits longer than a sleeper needs to look once.
    void wake() {
        if (sleepers.fetch_add(0, std::memory_order_acq_rel) != 0) {
            std::lock_guard<std::mutex> const hold(lock);
            arrived.notify_all();
        }
    }

private:
    std::mutex lock;
    std::condition_variable arrived;
    std::atomic<unsigned int> sleepers{0};
};

} // namespace Zolt::Reference_Host

#endif
