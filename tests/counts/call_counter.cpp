#include "tests/counts/call_counter.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <vector>

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

// The one place from which calls reach the kernel: the number and its six arguments, as in the C library's own.
asm(R"(
    .pushsection .text
    .globl counts_enter_kernel
    .globl counts_entered
    .type counts_enter_kernel, @function
counts_enter_kernel:
    mov %rdi, %rax
    mov %rsi, %rdi
    mov %rdx, %rsi
    mov %rcx, %rdx
    mov %r8, %r10
    mov %r9, %r8
    mov 8(%rsp), %r9
    syscall
counts_entered:
    ret
    .size counts_enter_kernel, . - counts_enter_kernel
    .popsection
)");

extern "C" long counts_enter_kernel(long number, long a, long b, long c, long d, long e, long f);
extern "C" char const counts_entered[];

namespace counts {
namespace {

constexpr std::size_t c_most_threads = 64;
constexpr std::size_t c_most_numbers = 512;

struct thread_counts {
    std::array<std::atomic<std::uint64_t>, c_most_numbers> calls;
    std::atomic<std::uint64_t> allocations;
    std::atomic<char const*> role;
    std::atomic<int> instance; ///< it waits on, and 1: 0 is none
};

struct instance_role {
    int instance;
    char const* role;
};

constinit std::array<thread_counts, c_most_threads> g_threads{};
constinit std::atomic<std::size_t> g_threads_used{0};
std::vector<instance_role> g_instance_roles;
constinit thread_local thread_counts* t_counts = nullptr;

/// A place that nobody has. Those beyond the most share one.
thread_counts& take_place() {
    std::size_t const place = g_threads_used.fetch_add(1, std::memory_order_relaxed);
    return g_threads[std::min(place, c_most_threads - 1)];
}

/// Of the calling thread.
thread_counts& mine() {
    if (t_counts == nullptr) {
        t_counts = &take_place();
    }
    return *t_counts;
}

std::string role_of(thread_counts const& thread) {
    int const instance = thread.instance.load(std::memory_order_relaxed) - 1;
    for (instance_role const& known : g_instance_roles) {
        if (known.instance == instance) {
            return known.role;
        }
    }
    char const* const role = thread.role.load(std::memory_order_relaxed);
    return role != nullptr ? role : "other";
}

std::string kind_of(std::size_t number) {
    static std::map<std::size_t, std::string> const names{{SYS_epoll_wait, "epoll_wait"},
                                                          {SYS_epoll_pwait, "epoll_wait"},
                                                          {SYS_epoll_ctl, "epoll_ctl"},
                                                          {SYS_recvfrom, "recv"},
                                                          {SYS_sendto, "send"},
                                                          {SYS_futex, "futex"},
                                                          {SYS_brk, "brk"},
                                                          {SYS_mmap, "mmap"},
                                                          {SYS_munmap, "munmap"},
                                                          {SYS_madvise, "madvise"},
                                                          {SYS_sched_yield, "sched_yield"},
                                                          {SYS_clock_gettime, "clock_gettime"},
                                                          {SYS_clock_nanosleep, "clock_nanosleep"},
                                                          {SYS_write, "write"},
                                                          {SYS_read, "read"},
                                                          {SYS_setsockopt, "setsockopt"}};
    auto const named = names.find(number);
    return named != names.end() ? named->second : "call_" + std::to_string(number);
}

template <class Take>
void for_each_thread(Take const& take) {
    std::size_t const used = std::min(g_threads_used.load(std::memory_order_relaxed), c_most_threads);
    for (std::size_t i = 0; i < used; ++i) {
        take(g_threads[i]);
    }
}

void count_and_make(int, siginfo_t*, void* context) {
    greg_t* const registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
    auto const number = registers[REG_RAX];
    thread_counts& thread = mine();
    thread.calls[static_cast<std::size_t>(number) % c_most_numbers].fetch_add(1, std::memory_order_relaxed);
    if (number == SYS_epoll_wait || number == SYS_epoll_pwait) {
        thread.instance.store(static_cast<int>(registers[REG_RDI]) + 1, std::memory_order_relaxed);
    }
    registers[REG_RAX] = counts_enter_kernel(number, registers[REG_RDI], registers[REG_RSI], registers[REG_RDX],
                                             registers[REG_R10], registers[REG_R8], registers[REG_R9]);
    if (number == SYS_rt_sigprocmask) {
        // The handler's return would set the mask of before. Whoever blocks all signals, as a thread that starts another
        // one does, would be killed by its next call.
        sigset_t* const mask = &static_cast<ucontext_t*>(context)->uc_sigmask;
        counts_enter_kernel(SYS_rt_sigprocmask, SIG_BLOCK, 0, reinterpret_cast<long>(mask), _NSIG / 8, 0, 0);
        ::sigdelset(mask, SIGSYS);
    }
}

constexpr auto load_word(std::size_t offset) {
    return sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(offset));
}
constexpr auto unless_equal_skip(std::uint32_t value, std::uint8_t skipped) {
    return sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, skipped);
}
constexpr auto answer(std::uint32_t verdict) {
    return sock_filter BPF_STMT(BPF_RET | BPF_K, verdict);
}

/// Lets through what comes from the one place, and what a handler cannot make for its thread.
std::vector<sock_filter> make_filter() {
    auto const place = reinterpret_cast<std::uintptr_t>(counts_entered);
    constexpr std::size_t c_place = offsetof(seccomp_data, instruction_pointer);
    std::vector<sock_filter> filter{
        load_word(c_place),        unless_equal_skip(static_cast<std::uint32_t>(place), 3),
        load_word(c_place + 4),    unless_equal_skip(static_cast<std::uint32_t>(place >> 32), 1),
        answer(SECCOMP_RET_ALLOW), load_word(offsetof(seccomp_data, nr))};
    for (long const number : {SYS_rt_sigreturn, SYS_clone, SYS_clone3, SYS_vfork, SYS_exit, SYS_exit_group}) {
        filter.push_back(unless_equal_skip(static_cast<std::uint32_t>(number), 1));
        filter.push_back(answer(SECCOMP_RET_ALLOW));
    }
    filter.push_back(answer(SECCOMP_RET_TRAP));
    return filter;
}

/// True when a call of the C library is counted once and answered.
bool counts_one() {
    std::uint64_t const before = mine().calls[SYS_getppid].load();
    long const parent = counts_enter_kernel(SYS_getppid, 0, 0, 0, 0, 0, 0);
    return ::getppid() == parent && mine().calls[SYS_getppid].load() == before + 1;
}

} // namespace

bool count_calls() {
    struct sigaction action {};
    action.sa_sigaction = count_and_make;
    // Not blocked inside: the mask that the handler finds is then the thread's own.
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    std::vector<sock_filter> filter = make_filter();
    sock_fprog const program{static_cast<unsigned short>(filter.size()), filter.data()};
    return ::sigaction(SIGSYS, &action, nullptr) == 0 && ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0 && counts_one();
}

void yield_uncounted() {
    counts_enter_kernel(SYS_sched_yield, 0, 0, 0, 0, 0, 0);
}

void set_role(char const* role) {
    thread_counts* place = nullptr;
    for_each_thread([&](thread_counts& known) {
        if (char const* const name = known.role.load(); name != nullptr && std::strcmp(name, role) == 0) {
            place = &known;
        }
    });
    t_counts = place != nullptr ? place : &take_place();
    t_counts->role.store(role);
}

void set_role_of_instance(int instance, char const* role) {
    g_instance_roles.push_back({instance, role});
}

std::map<std::string, std::uint64_t> read_counts() {
    std::map<std::string, std::uint64_t> all;
    for_each_thread([&](thread_counts const& thread) {
        std::string const role = role_of(thread) + ".";
        for (std::size_t number = 0; number < c_most_numbers; ++number) {
            if (std::uint64_t const made = thread.calls[number].load(std::memory_order_relaxed)) {
                all[role + kind_of(number)] += made;
            }
        }
        all[role + "memory"] += thread.allocations.load(std::memory_order_relaxed);
    });
    return all;
}

std::uint64_t count_waits(std::string const& role) {
    std::uint64_t waits = 0;
    for_each_thread([&](thread_counts const& thread) {
        if (role_of(thread) == role) {
            waits += thread.calls[SYS_epoll_wait].load() + thread.calls[SYS_epoll_pwait].load();
        }
    });
    return waits;
}

void note_allocation() {
    mine().allocations.fetch_add(1, std::memory_order_relaxed);
}

} // namespace counts
