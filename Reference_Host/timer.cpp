#include "Host/tesk_os.hpp"
#include "Reference_Host/thread_starting.hpp"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

namespace Tesk::OS {

using std::chrono::steady_clock;

struct class_timer::timer_state {
    pthread_t thread{};
    class_timer* owner = nullptr;
    void (*callback)(class_timer*) = nullptr;
    steady_clock::duration period{};
    std::mutex lock;
    std::condition_variable stopped;
    bool stop_wanted = false;
    bool destroyed_by_callback = false;
    Zolt::Reference_Host::thread_name name = Zolt::Reference_Host::take_next_thread_name();

    /// The timer whose thread this is.
    static thread_local timer_state* t_running;

    static void* run(void* argument) {
        timer_state* const state = static_cast<timer_state*>(argument);
        t_running = state;
        Zolt::Reference_Host::wear_thread_name(state->name);
        state->tick_until_stopped();
        if (state->destroyed_by_callback) {
            delete state;
        }
        return nullptr;
    }

    void tick_until_stopped() {
        steady_clock::time_point next = steady_clock::now() + period;
        while (!waits_for_stop(next)) {
            callback(owner);
            next = find_next(next, steady_clock::now());
        }
    }

    /// True when the timer was stopped before the moment came.
    bool waits_for_stop(steady_clock::time_point until) {
        std::unique_lock<std::mutex> hold(lock);
        return stopped.wait_until(hold, until, [this] { return stop_wanted; });
    }

    /// The first moment after now on the timer's own grid: what a late callback missed is not made up for.
    steady_clock::time_point find_next(steady_clock::time_point last, steady_clock::time_point now) const {
        return now < last + period ? last + period : last + ((now - last) / period + 1) * period;
    }

    void request_stop() {
        std::lock_guard<std::mutex> const hold(lock);
        stop_wanted = true;
        stopped.notify_all();
    }
};

thread_local class_timer::timer_state* class_timer::timer_state::t_running = nullptr;

class_timer::class_timer() : state(nullptr) {}

class_timer::~class_timer() {
    proc_destroy();
}

int class_timer::eproc_create(double period, void (*callback)(class_timer*), void*) {
    constexpr double c_shortest_seconds = 1e-6;
    constexpr double c_longest_seconds = 1e8;
    if (state != nullptr) {
        return EBUSY;
    }
    if (!(period >= c_shortest_seconds && period <= c_longest_seconds) || callback == nullptr) {
        return EINVAL;
    }
    auto fresh = std::unique_ptr<timer_state>(new (std::nothrow) timer_state);
    if (fresh == nullptr) {
        return ENOMEM;
    }
    fresh->owner = this;
    fresh->callback = callback;
    fresh->period = std::chrono::duration_cast<steady_clock::duration>(std::chrono::duration<double>(period));
    // Before the thread runs: its callback may be the one that destroys the timer.
    state = fresh.get();
    int const error = Zolt::Reference_Host::start_thread(fresh->thread, &timer_state::run, fresh.get());
    if (error != 0) {
        state = nullptr;
        return error;
    }
    static_cast<void>(fresh.release());
    return 0;
}

int class_timer::proc_destroy() {
    timer_state* const ended = std::exchange(state, nullptr);
    if (ended == nullptr) {
        return 0;
    }
    if (ended == timer_state::t_running) {
        // From the callback itself: it cannot wait for its own end, so the thread cleans up when the callback returns.
        ended->destroyed_by_callback = true;
        ended->request_stop();
        return ::pthread_detach(::pthread_self());
    }
    ended->request_stop();
    int const error = ::pthread_join(ended->thread, nullptr);
    delete ended;
    return error;
}

} // namespace Tesk::OS
