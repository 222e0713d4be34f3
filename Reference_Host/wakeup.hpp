// Where threads sleep until there is something to do; whoever brings it pays only when somebody sleeps. Private to
// Reference_Host/.
#ifndef REFERENCE_HOST_WAKEUP_HPP
#define REFERENCE_HOST_WAKEUP_HPP

#include "Reference_Host/futex.hpp"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <ctime>

namespace Zolt::Reference_Host {

/// Nothing is locked: whoever is woken runs on at once, also on the core of the one who woke it.
class wakeup {
public:
    /// Sleeps until ready() or the moment has come. The last answer of ready().
    template <class Ready>
    bool sleep_until(std::chrono::steady_clock::time_point moment, Ready ready) {
        for (bool is_due = false; !ready(); is_due = wait_until(moment)) {
            if (is_due) {
                return false;
            }
            // Said before ready() looks once more, and read by wake() after the work was laid down: one of the two sees
            // the other.
            state.exchange(c_somebody_sleeps, std::memory_order_acq_rel);
            if (ready()) {
                return true;
            }
        }
        return true;
    }

    /// Call it after the change that makes ready() true. Wakes all who sleep; the first call after that costs, the others
    /// do not.
    void wake() {
        if (state.fetch_add(0, std::memory_order_acq_rel) == c_somebody_sleeps &&
            state.exchange(c_all_awake, std::memory_order_acq_rel) == c_somebody_sleeps) {
            wake_all(state);
        }
    }

private:
    static constexpr std::uint32_t c_all_awake = 0;
    static constexpr std::uint32_t c_somebody_sleeps = 1;

    /// Returns when woken, at the moment, or for no reason. True when the moment has come; the steady clock is
    /// CLOCK_MONOTONIC here.
    bool wait_until(std::chrono::steady_clock::time_point moment) {
        auto const nanoseconds =
            std::chrono::duration_cast<std::chrono::nanoseconds>(moment.time_since_epoch()).count();
        timespec const until{static_cast<time_t>(nanoseconds / 1000000000),
                             static_cast<long>(nanoseconds % 1000000000)};
        return wait_while_equal_until(state, c_somebody_sleeps, until) == -1 && errno != EAGAIN && errno != EINTR;
    }

    std::atomic<std::uint32_t> state{c_all_awake};
};

} // namespace Zolt::Reference_Host

#endif
