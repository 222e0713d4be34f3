// SIGINT and SIGTERM, taken from a descriptor instead of by a handler.
#ifndef REFERENCE_CENTER_STOP_SIGNALS_HPP
#define REFERENCE_CENTER_STOP_SIGNALS_HPP

#include "Reference_Center/event_descriptor.hpp"

#include <atomic>
#include <chrono>
#include <thread>

namespace Zolt::Reference_Center {

/// Both signals blocked for the calling thread and those that it starts from now on; each one that arrives makes the
/// descriptor readable. Throws failure.
class blocked_signals {
public:
    blocked_signals();
    ~blocked_signals();
    blocked_signals(blocked_signals const&) = delete;
    blocked_signals& operator=(blocked_signals const&) = delete;

    int descriptor() const { return signal_fd; }
    /// Takes one signal that has arrived; false when there is none.
    bool take() const;

private:
    int signal_fd;
};

/// Watches the signals on a thread of its own. The first one wakes whoever waits for the Center's inbox; a later one
/// ends the process at once. Make it before any other thread.
class stop_signals {
public:
    stop_signals();
    ~stop_signals();
    stop_signals(stop_signals const&) = delete;
    stop_signals& operator=(stop_signals const&) = delete;

    bool is_requested() const { return requested.load(std::memory_order_acquire); }

private:
    void watch();
    void note_signal();

    blocked_signals const signals;
    event_descriptor end;
    std::atomic<bool> requested{false};
    std::chrono::steady_clock::time_point first_at; ///< the watcher's
    std::thread watcher;
};

} // namespace Zolt::Reference_Center

#endif
