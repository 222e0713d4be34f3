#include "tests/support/scripted_threads.hpp"

#include "tests/support/journal.hpp"
#include "tests/support/scripted_host.hpp"

#include <atomic>
#include <deque>
#include <map>
#include <mutex>
#include <utility>

#include <sched.h>

namespace relay_test {
namespace {

constexpr unsigned long c_first_clock = 100000;
constexpr unsigned long c_first_cpu_clock = 500000;

struct clock_state {
    std::mutex guard;
    std::function<void(double)> rtsleep_hook;
    std::function<void()> yield_hook;
    std::deque<int> create_results;
};

clock_state& clocks() {
    static auto* const the_state = new clock_state;
    return *the_state;
}

constinit std::atomic<unsigned long> g_clock{c_first_clock};
constinit std::atomic<unsigned long> g_cpu_clock{c_first_cpu_clock};
constinit std::atomic<bool> g_start_threads{false};
constinit std::atomic<int> g_returned_threads{0};

template <class hook>
hook current_hook(hook clock_state::*which) {
    std::lock_guard const hold(clocks().guard);
    return clocks().*which;
}

int next_create_result() {
    clock_state& s = clocks();
    std::lock_guard const hold(s.guard);
    if (s.create_results.empty()) {
        return 0;
    }
    int const next = s.create_results.front();
    s.create_results.pop_front();
    return next;
}

} // namespace

void set_clock(unsigned long ticks) {
    g_clock.store(ticks);
}
void advance_clock(unsigned long ticks) {
    g_clock.fetch_add(ticks);
}
void set_cpu_clock(unsigned long count) {
    g_cpu_clock.store(count);
}
void start_threads(bool on) {
    g_start_threads.store(on);
}
int returned_threads() {
    return g_returned_threads.load();
}

void on_rtsleep(std::function<void(double)> hook) {
    std::lock_guard const hold(clocks().guard);
    clocks().rtsleep_hook = std::move(hook);
}

void on_thread_yield(std::function<void()> hook) {
    std::lock_guard const hold(clocks().guard);
    clocks().yield_hook = std::move(hook);
}

void script_create_results(std::vector<int> next) {
    std::lock_guard const hold(clocks().guard);
    clocks().create_results.assign(next.begin(), next.end());
}

void reset_threads() {
    on_rtsleep(nullptr);
    on_thread_yield(nullptr);
    script_create_results({});
    set_clock(c_first_clock);
    set_cpu_clock(c_first_cpu_clock);
    start_threads(false);
    g_returned_threads.store(0);
}

} // namespace relay_test

namespace Tesk::OS {

using namespace relay_test;

namespace {

struct thread_record {
    pthread_t thread{};
    bool running = false;
};

struct timer_record {
    void (*callback)(class_timer*) = nullptr;
};

// What runs, by object: the states are private to their classes.
struct running_book {
    std::mutex guard;
    std::map<void const*, timer_record*> timers;
    std::map<void const*, thread_record*> threads;
};

running_book& running() {
    static auto* const the_book = new running_book;
    return *the_book;
}

std::string name_of(void const* object, char const* type) {
    std::string const known = known_object_name(object);
    return known.empty() ? std::string(type) : known;
}

struct thread_start {
    void* (*entry)(class_thread*);
    class_thread* object;
    std::string name;
};

void* run_thread(void* argument) {
    auto* const start = static_cast<thread_start*>(argument);
    set_thread_name(start->name);
    void* const result = start->entry(start->object);
    g_returned_threads.fetch_add(1);
    delete start;
    return result;
}

} // namespace

struct class_thread::thread_state : thread_record {};
struct class_timer::timer_state : timer_record {};

class_thread::class_thread() : state(new thread_state) {
    note_object(this, "class_thread", "class_thread");
    std::lock_guard const hold(running().guard);
    running().threads[this] = state;
}

class_thread::~class_thread() {
    note_object(this, "class_thread", "~class_thread");
    if (state->running) {
        report_failure("a running thread's object was destroyed");
    }
    std::lock_guard const hold(running().guard);
    running().threads.erase(this);
    delete state;
}

int class_thread::eproc_create(void* (*entry)(class_thread*), void* argument) {
    errno_guard const keep;
    std::string const name = name_of(this, "class_thread");
    note(about::thread, name, "eproc_create", object_name(reinterpret_cast<void const*>(entry)), argument);
    int const result = next_create_result();
    if (result != 0 || !g_start_threads.load()) {
        return result;
    }
    auto* const start = new thread_start{entry, this, name};
    std::lock_guard const hold(running().guard);
    state->running = ::pthread_create(&state->thread, nullptr, run_thread, start) == 0;
    return 0;
}

int class_thread::proc_wait_exit(void** result) {
    errno_guard const keep;
    note(about::thread, name_of(this, "class_thread"), "proc_wait_exit", static_cast<void const*>(result));
    std::unique_lock hold(running().guard);
    bool const was_running = std::exchange(state->running, false);
    hold.unlock();
    if (was_running) {
        ::pthread_join(state->thread, result);
    }
    return 0;
}

class_timer::class_timer() : state(new timer_state) {
    note_object(this, "class_timer", "class_timer");
    std::lock_guard const hold(running().guard);
    running().timers[this] = state;
}

class_timer::~class_timer() {
    note_object(this, "class_timer", "~class_timer");
    std::lock_guard const hold(running().guard);
    running().timers.erase(this);
    delete state;
}

int class_timer::eproc_create(double period, void (*callback)(class_timer*), void* argument) {
    errno_guard const keep;
    note(about::thread, name_of(this, "class_timer"), "eproc_create", period,
         object_name(reinterpret_cast<void const*>(callback)), argument);
    int const result = next_create_result();
    std::lock_guard const hold(running().guard);
    state->callback = result == 0 ? callback : nullptr;
    return result;
}

int class_timer::proc_destroy() {
    errno_guard const keep;
    note(about::thread, name_of(this, "class_timer"), "proc_destroy");
    std::lock_guard const hold(running().guard);
    state->callback = nullptr;
    return 0;
}

unsigned long lemon_clock() {
    note(about::clock, "", "lemon_clock");
    return g_clock.load(std::memory_order_relaxed);
}

unsigned long lemon_cpu_clock() {
    note(about::clock, "", "lemon_cpu_clock");
    return g_cpu_clock.load(std::memory_order_relaxed);
}

void rtsleep(double seconds) {
    errno_guard const keep;
    note(about::pause, "", "rtsleep", seconds);
    if (auto const hook = current_hook(&clock_state::rtsleep_hook)) {
        hook(seconds);
    }
}

void thread_yield() {
    errno_guard const keep;
    note(about::pause, "", "thread_yield");
    if (auto const hook = current_hook(&clock_state::yield_hook)) {
        hook();
    }
    ::sched_yield();
}

} // namespace Tesk::OS

namespace relay_test {

bool is_running(Tesk::OS::class_thread const& thread) {
    std::lock_guard const hold(Tesk::OS::running().guard);
    return Tesk::OS::running().threads.at(&thread)->running;
}

bool is_running(Tesk::OS::class_timer const& timer) {
    std::lock_guard const hold(Tesk::OS::running().guard);
    return Tesk::OS::running().timers.at(&timer)->callback != nullptr;
}

void tick(Tesk::OS::class_timer& timer) {
    void (*callback)(Tesk::OS::class_timer*) = nullptr;
    {
        std::lock_guard const hold(Tesk::OS::running().guard);
        callback = Tesk::OS::running().timers.at(&timer)->callback;
    }
    if (callback == nullptr) {
        report_failure("tick of a timer that is not running");
        return;
    }
    callback(&timer);
}

} // namespace relay_test
