// The runtime services of the reference host: locks, threads, the timer, clocks, descriptor flags, address text.
#include "Host/tesk_inet.hpp"
#include "Host/tesk_os.hpp"
#include "Host/tesk_utility.hpp"
#include "Host/zolt_global.hpp"
#include "Host/zolt_packet.hpp"
#include "tests/unit/reference_host_fixtures.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <future>
#include <limits>
#include <memory>
#include <sched.h>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <type_traits>
#include <unistd.h>

namespace {
std::atomic<int> g_yields{0};
}

// Replaces the C library's for the whole program.
extern "C" int sched_yield() noexcept {
    ++g_yields;
    return static_cast<int>(::syscall(SYS_sched_yield));
}

namespace reference_host_test {
namespace {

using namespace Tesk::OS;

// Results do not enter a symbol, so nothing but the compiler would notice another one.
static_assert(std::is_same_v<decltype(&lemon_clock), unsigned long (*)()>);
static_assert(std::is_same_v<decltype(&lemon_cpu_clock), unsigned long (*)()>);
static_assert(std::is_same_v<decltype(&rtsleep), void (*)(double)>);
static_assert(std::is_same_v<decltype(&Tesk::OS::thread_yield), void (*)()>);
static_assert(
    std::is_same_v<decltype(&class_thread::eproc_create), int (class_thread::*)(void* (*)(class_thread*), void*)>);
static_assert(std::is_same_v<decltype(&class_thread::proc_wait_exit), int (class_thread::*)(void**)>);
static_assert(
    std::is_same_v<decltype(&class_timer::eproc_create), int (class_timer::*)(double, void (*)(class_timer*), void*)>);
static_assert(std::is_same_v<decltype(&class_timer::proc_destroy), int (class_timer::*)()>);
static_assert(std::is_same_v<decltype(&Tesk::INet::str_from_ip), char const* (*)(unsigned int)>);
static_assert(std::is_same_v<decltype(&Common::Global::send_zolt_center), int (*)(struct_token&)>);
static_assert(
    std::is_same_v<decltype(&Common::Global::zolt_debug_not_send),
                   int (*)(char const&, struct_token const&, char const* const&, int const&, char const*, ...)>);

/// What the relay's globals do while it is being loaded, before any other static object of this program is made.
struct early_user {
    class_thread_lock lock{0U};
    class_thread thread;
    class_timer timer;
    struct_token token;
    bool could_lock = false;
    bool could_make_a_packet = false;

    early_user() {
        class_locker const hold(&lock, nullptr);
        could_lock = true;
        token.alloc_header_force();
        could_make_a_packet = token.has_header() && token.alloc_data(10) == 0;
        token.free();
    }
};
__attribute__((init_priority(101))) early_user g_early_user;

TEST(loading, host_objects_work_before_the_other_static_objects_are_made) {
    EXPECT_TRUE(g_early_user.could_lock);
    EXPECT_TRUE(g_early_user.could_make_a_packet);
    EXPECT_FALSE(g_early_user.token.has_header());
}

/// A lock that can be tried from another thread.
struct open_lock : class_thread_lock {
    open_lock() : class_thread_lock(0U) {}

    bool is_free_for_others() {
        return std::async(std::launch::async,
                          [this] {
                              std::uint32_t expected = 0;
                              bool const taken = words.state.compare_exchange_strong(expected, 1);
                              if (taken) {
                                  words.state = 0;
                              }
                              return taken;
                          })
            .get();
    }
};

TEST(lock, is_held_from_construction_to_destruction_of_the_guard_in_both_forms) {
    open_lock lock;
    EXPECT_TRUE(lock.is_free_for_others());
    {
        class_locker const by_reference(lock, nullptr);
        EXPECT_FALSE(lock.is_free_for_others());
    }
    EXPECT_TRUE(lock.is_free_for_others());
    {
        class_locker const by_pointer(&lock, nullptr);
        EXPECT_FALSE(lock.is_free_for_others());
    }
    EXPECT_TRUE(lock.is_free_for_others());
}

TEST(lock, is_reentrant_and_needs_as_many_unlocks_as_locks) {
    open_lock lock;
    {
        class_locker const outer(lock, nullptr);
        {
            class_locker const inner(&lock, nullptr);
            EXPECT_FALSE(lock.is_free_for_others());
        }
        EXPECT_FALSE(lock.is_free_for_others());
    }
    EXPECT_TRUE(lock.is_free_for_others());
}

TEST(lock, is_given_back_while_an_unlocker_lives) {
    open_lock lock;
    class_locker const hold(lock, nullptr);
    {
        class_unlocker const pause(&lock);
        EXPECT_TRUE(lock.is_free_for_others());
    }
    EXPECT_FALSE(lock.is_free_for_others());
}

TEST(lock, keeps_threads_apart) {
    constexpr int c_threads = 4;
    constexpr int c_rounds = 2000;
    class_thread_lock lock(0U);
    int count = 0;
    thread_group(c_threads, [&](unsigned int) {
        for (int round = 0; round < c_rounds; ++round) {
            class_locker const hold(lock, nullptr);
            ++count;
        }
    }).join();
    EXPECT_EQ(count, c_threads * c_rounds);
}

/// Whether that thread of this process waits in the kernel.
bool is_asleep(::pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string stat;
    std::getline(file, stat);
    std::size_t const name_end = stat.rfind(") ");
    return name_end != std::string::npos && stat.substr(name_end + 2, 1) == "S";
}

TEST(lock, wakes_all_who_sleep_for_it_one_after_the_other) {
    class_thread_lock lock(0U);
    std::array<std::atomic<::pid_t>, 3> sleepers{};
    std::atomic<int> served{0};
    auto held = std::make_unique<class_locker>(lock, nullptr);
    thread_group waiting(sleepers.size(), [&](unsigned int number) {
        sleepers.at(number) = ::gettid();
        class_locker const hold(lock, nullptr);
        ++served;
    });
    EXPECT_TRUE(comes_true(
        [&] { return std::ranges::all_of(sleepers, [](auto const& each) { return each != 0 && is_asleep(each); }); }));
    EXPECT_EQ(served, 0);
    held.reset();
    EXPECT_TRUE(comes_true([&] { return served == 3; }));
    waiting.join();
}

TEST(lock, leaves_errno_alone_also_when_a_signal_interrupts_who_sleeps_for_it) {
    static std::atomic<int> interruptions;
    interruptions = 0;
    struct sigaction counting {};
    struct sigaction before {};
    counting.sa_handler = [](int) { ++interruptions; };
    ASSERT_EQ(::sigaction(SIGUSR1, &counting, &before), 0);
    class_thread_lock lock(0U);
    std::atomic<::pid_t> sleeper{0};
    int found = 0;
    auto held = std::make_unique<class_locker>(lock, nullptr);
    std::thread waiting([&] {
        sleeper = ::gettid();
        errno = E2BIG;
        class_locker const hold(lock, nullptr);
        found = errno;
    });
    auto const sleeps = [&] { return sleeper != 0 && is_asleep(sleeper); };
    EXPECT_TRUE(comes_true(sleeps));
    EXPECT_EQ(::pthread_kill(waiting.native_handle(), SIGUSR1), 0);
    EXPECT_TRUE(comes_true([&] { return interruptions == 1 && sleeps(); }));
    held.reset();
    waiting.join();
    EXPECT_EQ(found, E2BIG);
    ::sigaction(SIGUSR1, &before, nullptr);
}

TEST(lock, may_be_destroyed_as_soon_as_the_thread_before_has_let_go) {
    for (int round = 0; round < 200; ++round) {
        auto lock = std::make_unique<class_thread_lock>(0U);
        std::atomic<bool> held{false};
        std::thread before([&held, raw = lock.get()] {
            class_locker const hold(raw, nullptr);
            held = true;
        });
        ASSERT_TRUE(comes_true([&] { return held.load(); }));
        { class_locker const hold(lock.get(), nullptr); }
        lock.reset();
        before.join();
    }
}

/// What an entry saw. Entries get only the thread object, so this stands in the program's statics.
struct entry_view {
    static inline class_thread* object = nullptr;
    static inline char name[16] = {};
    static inline sigset_t blocked = {};

    static void* look(class_thread* self) {
        object = self;
        ::pthread_getname_np(::pthread_self(), name, sizeof name);
        ::pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        return &object;
    }

    static unsigned long run_and_read_number() {
        class_thread thread;
        EXPECT_EQ(thread.eproc_create(&entry_view::look, nullptr), 0);
        EXPECT_EQ(thread.proc_wait_exit(nullptr), 0);
        EXPECT_EQ(std::string(name).rfind("relay-", 0), 0U) << name;
        return std::stoul(std::string(name).substr(6));
    }
};

TEST(thread, calls_the_entry_with_its_object_and_hands_the_result_back) {
    class_thread thread;
    ASSERT_EQ(thread.eproc_create(&entry_view::look, nullptr), 0);
    void* result = nullptr;
    EXPECT_EQ(thread.proc_wait_exit(&result), 0);
    EXPECT_EQ(entry_view::object, &thread);
    EXPECT_EQ(result, &entry_view::object);
}

TEST(thread, is_named_by_its_running_number) {
    unsigned long const first = entry_view::run_and_read_number();
    EXPECT_EQ(entry_view::run_and_read_number(), first + 1);
}

TEST(thread, has_asynchronous_signals_blocked_and_faults_open) {
    entry_view::run_and_read_number();
    for (int const signal : {SIGINT, SIGTERM, SIGHUP, SIGALRM, SIGCHLD, SIGPIPE, SIGUSR1, SIGRTMIN}) {
        EXPECT_EQ(::sigismember(&entry_view::blocked, signal), 1) << signal;
    }
    for (int const fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) {
        EXPECT_EQ(::sigismember(&entry_view::blocked, fault), 0) << fault;
    }
    sigset_t own;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &own);
    EXPECT_EQ(::sigismember(&own, SIGTERM), 0) << "the starting thread keeps its own mask";
}

TEST(thread, that_never_ran_or_was_waited_for_is_not_waited_for) {
    class_thread thread;
    EXPECT_EQ(thread.proc_wait_exit(nullptr), 0);
    ASSERT_EQ(thread.eproc_create(&entry_view::look, nullptr), 0);
    EXPECT_EQ(thread.proc_wait_exit(nullptr), 0);
    EXPECT_EQ(thread.proc_wait_exit(nullptr), 0);
}

/// An entry that runs until the gate opens.
struct gated_entry {
    static inline std::atomic<bool> open{false};
    static inline std::atomic<int> ended{0};

    static void* wait(class_thread*) {
        EXPECT_TRUE(comes_true([] { return open.load(); }));
        ++ended;
        return nullptr;
    }
};

TEST(thread, runs_once_at_a_time_and_may_run_again) {
    gated_entry::open = false;
    class_thread thread;
    ASSERT_EQ(thread.eproc_create(&gated_entry::wait, nullptr), 0);
    EXPECT_EQ(thread.eproc_create(&gated_entry::wait, nullptr), EBUSY);
    gated_entry::open = true;
    EXPECT_EQ(thread.proc_wait_exit(nullptr), 0);
    EXPECT_EQ(thread.eproc_create(&gated_entry::wait, nullptr), 0);
    EXPECT_EQ(thread.proc_wait_exit(nullptr), 0);
}

TEST(thread, whose_object_ends_first_runs_on) {
    gated_entry::open = false;
    int const ended_before = gated_entry::ended;
    {
        class_thread thread;
        ASSERT_EQ(thread.eproc_create(&gated_entry::wait, nullptr), 0);
    }
    EXPECT_EQ(gated_entry::ended, ended_before);
    gated_entry::open = true;
    EXPECT_TRUE(comes_true([&] { return gated_entry::ended == ended_before + 1; }));
}

/// A timer's callback and what it counts; callbacks get only the timer object.
class timer : public ::testing::Test {
protected:
    void SetUp() override {
        calls = 0;
        gate_closed = false;
        inside = false;
        last_object = nullptr;
    }

    static void tick(class_timer* object) {
        last_object = object;
        ++calls;
        inside = true;
        EXPECT_TRUE(comes_true([] { return !gate_closed; }));
        inside = false;
    }

    static void destroy_from_inside(class_timer* object) {
        EXPECT_EQ(object->proc_destroy(), 0);
        ++calls;
    }

    static inline std::atomic<int> calls{0};
    static inline std::atomic<bool> gate_closed{false};
    static inline std::atomic<bool> inside{false};
    static inline std::atomic<class_timer*> last_object{nullptr};
};

TEST_F(timer, calls_back_again_and_again_until_destroyed) {
    class_timer periodic;
    ASSERT_EQ(periodic.eproc_create(0.001, &timer::tick, nullptr), 0);
    EXPECT_TRUE(comes_true([] { return calls >= 3; }));
    EXPECT_EQ(periodic.proc_destroy(), 0);
    EXPECT_EQ(last_object, &periodic);
    int const at_the_end = calls;
    unsigned long const start = lemon_clock();
    EXPECT_TRUE(comes_true([&] { return lemon_clock() > start + 5; }));
    EXPECT_EQ(calls, at_the_end);
}

TEST_F(timer, waits_one_period_before_the_first_call) {
    class_timer periodic;
    ASSERT_EQ(periodic.eproc_create(1000.0, &timer::tick, nullptr), 0);
    EXPECT_EQ(periodic.proc_destroy(), 0);
    EXPECT_EQ(calls, 0);
}

TEST_F(timer, loses_the_ticks_that_a_late_callback_missed) {
    constexpr unsigned long c_period = 5000; // microseconds
    class_timer periodic;
    gate_closed = true;
    ASSERT_EQ(periodic.eproc_create(0.005, &timer::tick, nullptr), 0);
    ASSERT_TRUE(comes_true([] { return inside.load(); }));
    unsigned long const held_from = lemon_cpu_clock();
    ASSERT_TRUE(comes_true([&] { return lemon_cpu_clock() >= held_from + 20 * c_period; }));
    unsigned long const open_from = lemon_cpu_clock();
    gate_closed = false;
    EXPECT_TRUE(comes_true([] { return calls >= 4; }));
    EXPECT_EQ(periodic.proc_destroy(), 0);
    auto const periods = static_cast<int>((lemon_cpu_clock() - open_from) / c_period);
    EXPECT_LE(calls, 1 + periods + 1) << "the first one, one a period since, and the one on the grid right after";
}

TEST_F(timer, destroying_waits_for_the_callback_that_runs) {
    class_timer periodic;
    gate_closed = true;
    ASSERT_EQ(periodic.eproc_create(0.001, &timer::tick, nullptr), 0);
    ASSERT_TRUE(comes_true([] { return inside.load(); }));
    auto destroyed = std::async(std::launch::async, [&] {
        periodic.proc_destroy();
        return inside.load();
    });
    EXPECT_EQ(destroyed.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    gate_closed = false;
    EXPECT_FALSE(destroyed.get()) << "the callback was still running when proc_destroy had returned";
}

TEST_F(timer, may_be_destroyed_by_its_callback) {
    class_timer periodic;
    ASSERT_EQ(periodic.eproc_create(0.001, &timer::destroy_from_inside, nullptr), 0);
    EXPECT_TRUE(comes_true([] { return calls == 1; }));
    EXPECT_EQ(periodic.proc_destroy(), 0);
    EXPECT_EQ(calls, 1);
}

TEST_F(timer, may_be_destroyed_when_it_never_ran_and_started_anew_afterwards) {
    class_timer periodic;
    EXPECT_EQ(periodic.proc_destroy(), 0);
    for (int round = 1; round <= 2; ++round) {
        ASSERT_EQ(periodic.eproc_create(0.001, &timer::tick, nullptr), 0);
        EXPECT_EQ(periodic.eproc_create(0.001, &timer::tick, nullptr), EBUSY);
        EXPECT_TRUE(comes_true([&] { return calls >= round; }));
        EXPECT_EQ(periodic.proc_destroy(), 0);
        EXPECT_EQ(periodic.proc_destroy(), 0);
    }
}

TEST_F(timer, refuses_a_period_that_is_none) {
    class_timer periodic;
    for (double const period : {0.0, -1.0, std::numeric_limits<double>::quiet_NaN(), 1e300}) {
        EXPECT_EQ(periodic.eproc_create(period, &timer::tick, nullptr), EINVAL) << period;
    }
    EXPECT_EQ(periodic.eproc_create(1.0, nullptr, nullptr), EINVAL);
}

unsigned long read_kernel_nanoseconds(clockid_t clock = CLOCK_MONOTONIC) {
    timespec now{};
    ::clock_gettime(clock, &now);
    return static_cast<unsigned long>(now.tv_sec) * 1000000000UL + static_cast<unsigned long>(now.tv_nsec);
}

struct clock_row {
    unsigned long (*read)();
    clockid_t clock; // of the kernel
    unsigned long nanoseconds;
};

TEST(clocks, count_milliseconds_and_microseconds_of_the_monotonic_clock) {
    constexpr clock_row c_rows[] = {{&lemon_clock, CLOCK_MONOTONIC_COARSE, 1000000},
                                    {&lemon_cpu_clock, CLOCK_MONOTONIC, 1000}};
    for (auto const& [read, clock, nanoseconds] : c_rows) {
        unsigned long const before = read_kernel_nanoseconds(clock) / nanoseconds;
        unsigned long const told = read();
        unsigned long const after = read_kernel_nanoseconds(clock) / nanoseconds;
        EXPECT_LE(before, told);
        EXPECT_LE(told, after);
    }
}

TEST(rtsleep, lasts_as_long_as_asked) {
    unsigned long const before = read_kernel_nanoseconds();
    rtsleep(0.01);
    EXPECT_GE(read_kernel_nanoseconds() - before, 10000000UL);
}

TEST(rtsleep, of_nothing_returns_at_once) {
    unsigned long const before = lemon_clock();
    for (double const seconds : {0.0, -5.0, std::numeric_limits<double>::quiet_NaN()}) {
        rtsleep(seconds);
    }
    EXPECT_LT(lemon_clock() - before, 5000U);
}

TEST(rtsleep, goes_on_after_a_signal) {
    struct sigaction ignore_by_handler = {};
    ignore_by_handler.sa_handler = [](int) {};
    struct sigaction before = {};
    ::sigaction(SIGUSR1, &ignore_by_handler, &before);
    std::atomic<bool> done{false};
    std::atomic<unsigned long> slept{0};
    std::thread sleeper([&] {
        unsigned long const start = read_kernel_nanoseconds();
        rtsleep(0.03);
        slept = read_kernel_nanoseconds() - start;
        done = true;
    });
    EXPECT_TRUE(comes_true([&] {
        if (!done) {
            ::pthread_kill(sleeper.native_handle(), SIGUSR1);
        }
        return done.load();
    }));
    sleeper.join();
    ::sigaction(SIGUSR1, &before, nullptr);
    EXPECT_GE(slept, 30000000UL);
}

TEST(thread_yield, gives_the_processor_up_once) {
    int const before = g_yields;
    Tesk::OS::thread_yield();
    EXPECT_EQ(g_yields, before + 1);
}

TEST(descriptor_flags, are_set_and_cleared_alone) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    int const before = ::fcntl(ends[0], F_GETFL);
    EXPECT_EQ(Tesk::Utility::fflag_on(ends[0], O_NONBLOCK), 0);
    EXPECT_EQ(::fcntl(ends[0], F_GETFL), before | O_NONBLOCK);
    EXPECT_EQ(Tesk::Utility::fflag_off(ends[0], O_NONBLOCK), 0);
    EXPECT_EQ(::fcntl(ends[0], F_GETFL), before);
    ::close(ends[0]);
    ::close(ends[1]);
    errno = 0;
    EXPECT_EQ(Tesk::Utility::fflag_on(-1, O_NONBLOCK), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(address_text, is_dotted_decimal_of_an_address_as_it_lies) {
    constexpr std::pair<std::array<unsigned char, 4>, char const*> c_rows[] = {
        {{127, 0, 0, 1}, "127.0.0.1"}, {{255, 255, 255, 255}, "255.255.255.255"}, {{0, 0, 0, 0}, "0.0.0.0"}};
    for (auto const& [bytes, text] : c_rows) {
        unsigned int ip = 0;
        std::memcpy(&ip, bytes.data(), sizeof ip);
        EXPECT_STREQ(Tesk::INet::str_from_ip(ip), text);
    }
}

TEST(address_text, of_several_addresses_fits_one_message_and_no_other_thread_disturbs_it) {
    char const* const first = Tesk::INet::str_from_ip(0x04030201);
    char const* const second = Tesk::INet::str_from_ip(0x08070605);
    std::thread([] { Tesk::INet::str_from_ip(0); }).join();
    EXPECT_STREQ(first, "1.2.3.4");
    EXPECT_STREQ(second, "5.6.7.8");
}

} // namespace
} // namespace reference_host_test
