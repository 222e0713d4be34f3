// Runtime services of the second host, on the standard library, and its Center: an inbox without bound.
#include "Host/tesk_inet.hpp"
#include "Host/tesk_os.hpp"
#include "Host/tesk_utility.hpp"
#include "Host/zolt_global.hpp"
#include "tests/second_host/center.hpp"

#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>

#include <fcntl.h>
#include <signal.h>

namespace {

using namespace std::chrono_literals;

std::mutex inbox_lock;
std::condition_variable inbox_changed;

std::vector<Zolt::struct_token>& inbox() {
    static std::vector<Zolt::struct_token> tokens;
    return tokens;
}

std::vector<std::string>& lines() {
    static std::vector<std::string> texts;
    return texts;
}

void note(std::string text) {
    std::scoped_lock hold(inbox_lock);
    lines().push_back(std::move(text));
    inbox_changed.notify_all();
}

template <typename Things>
std::size_t wait_for(Things const& things, std::size_t count) {
    std::unique_lock hold(inbox_lock);
    inbox_changed.wait_for(hold, 10s, [&things, count] { return things.size() >= count; });
    return things.size();
}

// Starts a thread in which no asynchronous signal is delivered.
template <typename Body>
std::thread quiet_thread(Body body) {
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread started(std::move(body));
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return started;
}

template <typename Unit>
unsigned long count_since_start() {
    static auto const start = std::chrono::steady_clock::now() - 1h;
    return static_cast<unsigned long>(
        std::chrono::duration_cast<Unit>(std::chrono::steady_clock::now() - start).count());
}

int change_flags(int fd, int set, int clear) {
    int const now = ::fcntl(fd, F_GETFL);
    return now == -1 ? -1 : ::fcntl(fd, F_SETFL, (now | set) & ~clear);
}

} // namespace

namespace second_host {

std::size_t wait_for_packets(std::size_t count) {
    return wait_for(inbox(), count);
}

std::size_t wait_for_lines(std::size_t count) {
    return wait_for(lines(), count);
}

Zolt::struct_token packet(std::size_t index) {
    std::scoped_lock hold(inbox_lock);
    return inbox().at(index);
}

std::vector<std::string> printed() {
    std::scoped_lock hold(inbox_lock);
    return lines();
}

void forget() {
    std::scoped_lock hold(inbox_lock);
    for (Zolt::struct_token& token : inbox()) {
        token.free();
    }
    inbox().clear();
    lines().clear();
}

} // namespace second_host

namespace Zolt::Common::Global {

int send_zolt_center(struct_token& offered) {
    std::scoped_lock hold(inbox_lock);
    inbox().push_back(offered);
    inbox_changed.notify_all();
    return static_cast<int>(c_zolt_err_none);
}

int zolt_debug_not_send(char const&, struct_token const&, char const* const&, int const&, char const*, ...) {
    return 0;
}

} // namespace Zolt::Common::Global

namespace Tesk::INet {

char const* str_from_ip(unsigned int ip) {
    static thread_local std::array<char, 16> text;
    std::array<unsigned char, 4> part{};
    static_assert(sizeof part == sizeof ip);
    for (unsigned int i = 0; i < part.size(); i++) {
        part[i] = static_cast<unsigned char>(ip >> (8 * i));
    }
    std::snprintf(text.data(), text.size(), "%u.%u.%u.%u", part[0], part[1], part[2], part[3]);
    return text.data();
}

} // namespace Tesk::INet

namespace Tesk::Utility {

int get_integer_from_ini_file(char const*, char const*, char const*, int otherwise) {
    return otherwise;
}
char const* get_lwr_string_from_ini_file(char const*, char const*, char const*, char const* otherwise) {
    return otherwise;
}

void print_error(char const* text) {
    note(text);
}
void print_error(char const* where, int line) {
    note(std::string(where) + ':' + std::to_string(line));
}
void alert(char const* text, char const* heading) {
    note(std::string(heading) + ": " + text);
}

int fflag_on(int fd, int bits) {
    return change_flags(fd, bits, 0);
}
int fflag_off(int fd, int bits) {
    return change_flags(fd, 0, bits);
}

} // namespace Tesk::Utility

namespace Tesk::OS {

class_lock::~class_lock() = default;

class_thread_lock::class_thread_lock(unsigned int const& spins) : spin_count(spins) {}
class_thread_lock::~class_thread_lock() = default;

void class_thread_lock::enter() {
    for (unsigned int i = 0; i < spin_count; i++) {
        if (gate.try_lock()) {
            return;
        }
    }
    gate.lock();
}
void class_thread_lock::leave() {
    gate.unlock();
}

class_locker::class_locker(class_lock& what, unsigned char* remark) : left_note(remark), taken(what) {
    taken.enter();
}
class_locker::class_locker(class_lock* what, unsigned char* remark) : class_locker(*what, remark) {}
class_locker::~class_locker() {
    taken.leave();
    if (left_note != nullptr) {
        *left_note = 0;
    }
}

class_unlocker::class_unlocker(class_lock* what) : lent(*what) {
    lent.leave();
}
class_unlocker::~class_unlocker() {
    lent.enter();
}

class_thread::class_thread() : outcome(nullptr) {}
class_thread::~class_thread() = default;

int class_thread::eproc_create(void* (*body)(class_thread*), void*) {
    worker = quiet_thread([this, body] { outcome = body(this); });
    return 0;
}

int class_thread::proc_wait_exit(void** answer) {
    if (!worker.joinable()) {
        return 0;
    }
    worker.join();
    if (answer != nullptr) {
        *answer = outcome;
    }
    return 0;
}

class_timer::class_timer() : ending(false) {}
class_timer::~class_timer() = default;

int class_timer::eproc_create(double seconds, void (*tick)(class_timer*), void*) {
    ending = false;
    worker = quiet_thread([this, seconds, tick] {
        std::unique_lock hold(guard);
        while (!wake.wait_for(hold, std::chrono::duration<double>(seconds), [this] { return ending; })) {
            hold.unlock();
            tick(this);
            hold.lock();
        }
    });
    return 0;
}

int class_timer::proc_destroy() {
    if (!worker.joinable()) {
        return 0;
    }
    {
        std::scoped_lock hold(guard);
        ending = true;
    }
    wake.notify_all();
    worker.join();
    return 0;
}

unsigned long lemon_clock() {
    return count_since_start<std::chrono::milliseconds>();
}
unsigned long lemon_cpu_clock() {
    return count_since_start<std::chrono::nanoseconds>();
}
void rtsleep(double seconds) {
    auto const whole = static_cast<time_t>(seconds);
    timespec pause{whole, static_cast<long>((seconds - static_cast<double>(whole)) * 1e9)};
    while (::clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, &pause) == EINTR) {
    }
}
void thread_yield() {
    std::this_thread::yield();
}

} // namespace Tesk::OS
