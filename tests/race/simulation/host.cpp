#include "tests/race/simulation/host.hpp"

#include "Host/tesk_os.hpp"
#include "Host/tesk_utility.hpp"
#include "Host/zolt_global.hpp"
#include "Reference_Host/inbox.hpp"
#include "tests/race/simulation/memory.hpp"
#include "tests/race/simulation/scheduler.hpp"

#include <cstdarg>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include <fcntl.h>
#include <sys/socket.h>

namespace simulation {
namespace {

using lock_words = Tesk::OS::struct_lock_words;

kernel* g_kernel = nullptr;
std::vector<std::string> g_errors;
long g_locks = 0;
std::map<std::string, int> g_integers;

void print(std::string line) {
    while (!line.empty() && line.back() == '\n') {
        line.pop_back();
    }
    note("prints: " + line);
    // The event threads' own lines tell of a thread that ended or of an exception nobody expected.
    if (line.starts_with("epoll_")) {
        fail("the relay printed: " + line);
    }
    g_errors.push_back(std::move(line));
}

// --- locks -------------------------------------------------------------------------------------------------------

constexpr std::uint32_t c_live_lock = 0x4C4F434BU;
constexpr std::uint32_t c_nobody = 0;

/// The name of an actor as a lock keeps it; never c_nobody.
std::uint32_t owner_of(actor who) {
    return static_cast<std::uint32_t>(who) + 3;
}

/// A lock that lives bears a mark in its state.
lock_words& live(lock_words& words) {
    require(words.state == c_live_lock, "a lock is used that does not live");
    return words;
}

void acquire(lock_words& words) {
    std::uint32_t const self = owner_of(current_actor());
    if (live(words).owner != self) {
        wait_for("lock", [&] { return live(words).owner == c_nobody; });
        words.owner = self;
    }
    ++words.depth;
}

void give_back(lock_words& words) {
    require(live(words).owner == owner_of(current_actor()), "a lock is given back by an actor that does not hold it");
    if (--words.depth == 0) {
        words.owner = c_nobody;
        point("unlock");
    }
}

/// Whether the schedule has begun: the relay's own locks are made before.
bool is_inside = false;

} // namespace

void set_relay_kernel(kernel* k) {
    g_kernel = k;
    is_inside = k != nullptr;
}

kernel& relay_kernel() {
    return *g_kernel;
}

std::vector<std::string> take_errors() {
    return std::exchange(g_errors, {});
}

long count_locks() {
    return g_locks;
}

void set_integer(std::string const& key, int value) {
    g_integers[key] = value;
}

} // namespace simulation

namespace Tesk::OS {

using namespace simulation;

class_thread_lock::class_thread_lock(unsigned int const&) {
    words.state = c_live_lock;
    ++g_locks;
}

class_thread_lock::~class_thread_lock() {
    if (is_inside) {
        require(live(words).owner == c_nobody, "a lock is destroyed while it is held");
    }
    words.state = 0;
    --g_locks;
}

class_locker::class_locker(class_lock& lock, unsigned char*) : held(&lock) {
    acquire(held->words);
}
class_locker::class_locker(class_lock* lock, unsigned char*) : held(lock) {
    acquire(held->words);
}
class_locker::~class_locker() {
    give_back(held->words);
}

class_unlocker::class_unlocker(class_lock* lock) : released(lock) {
    give_back(released->words);
}
class_unlocker::~class_unlocker() {
    acquire(released->words);
}

// --- threads and the timer -----------------------------------------------------------------------------------------

struct class_thread::thread_state {
    actor who;
    void* result = nullptr;
};

class_thread::class_thread() : state(nullptr) {}
class_thread::~class_thread() {
    delete state;
}

namespace {

int g_threads_named = 0;

/// The relay starts its threads in this order.
char const* next_thread_name() {
    constexpr char const* c_names[] = {"udp receive", "udp send", "set-up", "receive", "send"};
    return c_names[g_threads_named++ % 5];
}

} // namespace

int class_thread::eproc_create(void* (*entry)(class_thread*), void*) {
    state = new thread_state;
    thread_state* const mine = state;
    mine->who = spawn(next_thread_name(), [this, mine, entry] {
        mine->result = entry(this);
        Zolt::Reference_Host::release_offered();
    });
    return 0;
}

int class_thread::proc_wait_exit(void** result) {
    if (state == nullptr) {
        return 0;
    }
    wait_for("join", [this] { return has_ended(state->who); });
    if (result != nullptr) {
        *result = state->result;
    }
    delete std::exchange(state, nullptr);
    return 0;
}

struct class_timer::timer_state {
    actor who;
    bool stop_wanted = false;
};

class_timer::class_timer() : state(nullptr) {}
class_timer::~class_timer() {
    delete state;
}

int class_timer::eproc_create(double period, void (*callback)(class_timer*), void*) {
    auto const step = static_cast<moment>(period * 1e6);
    state = new timer_state;
    timer_state* const mine = state;
    mine->who = spawn("timer", [this, mine, step, callback] {
        moment next = now() + step;
        while (!wait_until("tick", next, [&] { return mine->stop_wanted; })) {
            callback(this);
            next += ((now() - next) / step + 1) * step;
        }
        Zolt::Reference_Host::release_offered();
    });
    return 0;
}

int class_timer::proc_destroy() {
    if (state == nullptr) {
        return 0;
    }
    state->stop_wanted = true;
    wait_for("timer's end", [this] { return has_ended(state->who); });
    delete std::exchange(state, nullptr);
    return 0;
}

unsigned long lemon_clock() {
    return now() / 1000;
}
unsigned long lemon_cpu_clock() {
    return now();
}
void rtsleep(double seconds) {
    pass_time(static_cast<moment>(seconds * 1e6));
}
void thread_yield() {
    yield("yield");
}

} // namespace Tesk::OS

// --- output and configuration ---------------------------------------------------------------------------------------

namespace Tesk::Utility {

int get_integer_from_ini_file(char const*, char const*, char const* key, int fallback) {
    auto const entry = simulation::g_integers.find(key);
    return entry == simulation::g_integers.end() ? fallback : entry->second;
}

char const* get_lwr_string_from_ini_file(char const*, char const*, char const*, char const* fallback) {
    return fallback;
}

void print_error(char const* message) {
    int const error = errno;
    simulation::print(message);
    errno = error;
}

void print_error(char const* file, int line) {
    simulation::fail("the relay printed a position: " + std::string(file) + ":" + std::to_string(line));
}

void alert(char const* message, char const*) {
    simulation::fail("the relay raised an alert: " + std::string(message));
}

int fflag_on(int descriptor, int) {
    return simulation::relay_kernel().set_nonblocking(descriptor, true);
}

int fflag_off(int descriptor, int) {
    return simulation::relay_kernel().set_nonblocking(descriptor, false);
}

} // namespace Tesk::Utility

namespace Zolt::Common::Global {

int zolt_debug_not_send(char const& letter, struct_token const&, char const* const&, int const& line,
                        char const* format, ...) {
    if (simulation::is_telling()) {
        simulation::note(std::string("traces: ") + letter + " " + std::to_string(line) + " " + format);
    }
    return 0;
}

} // namespace Zolt::Common::Global
