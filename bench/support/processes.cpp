#include "bench/support/processes.hpp"

#include "bench/support/clock.hpp"
#include "bench/support/futex.hpp"
#include "bench/support/sockets.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <new>
#include <utility>
#include <vector>

#include <malloc.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace relay_bench {

// --- shared memory ---------------------------------------------------------------------------------------------

void arrival_counter::add_and_tell() {
    // Stored before awaited is read, as wait_for writes awaited before it reads the count: one of the two sees the other.
    if (count.fetch_add(1, std::memory_order_seq_cst) + 1 == awaited.load(std::memory_order_seq_cst)) {
        turn.fetch_add(1, std::memory_order_release);
        futex_wake(turn);
    }
}

std::uint64_t arrival_counter::wait_for(std::uint64_t wanted, double seconds) {
    std::uint64_t const deadline = now_nanoseconds() + static_cast<std::uint64_t>(seconds * 1e9);
    for (;;) {
        std::uint32_t const turn_before = turn.load(std::memory_order_acquire);
        awaited.store(wanted, std::memory_order_seq_cst);
        std::uint64_t const arrived = count.load(std::memory_order_seq_cst);
        std::uint64_t const now = now_nanoseconds();
        if (arrived >= wanted || now >= deadline) {
            return arrived;
        }
        timespec const longest{static_cast<time_t>((deadline - now) / 1000000000),
                               static_cast<long>((deadline - now) % 1000000000)};
        futex_wait(turn, turn_before, &longest);
    }
}

shared_state& shared_state::make() {
    void* const memory =
        ::mmap(nullptr, sizeof(shared_state), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    must(memory != MAP_FAILED, "mmap");
    return *new (memory) shared_state;
}

// --- usage -----------------------------------------------------------------------------------------------------

namespace {

/// The sum of a field's numbers over all lines "field: number ..." of a file.
std::uint64_t sum_field(std::filesystem::path const& file, std::string const& field) {
    std::ifstream lines(file);
    std::string line;
    std::uint64_t sum = 0;
    while (std::getline(lines, line)) {
        if (line.starts_with(field)) {
            sum += std::stoull(line.substr(field.size()));
        }
    }
    return sum;
}

std::filesystem::path const c_tasks = "/proc/self/task";

std::filesystem::path task_folder(int thread) {
    return c_tasks / std::to_string(thread);
}

std::vector<int> threads_of_this_process() {
    std::vector<int> threads;
    for (auto const& task : std::filesystem::directory_iterator(c_tasks)) {
        threads.push_back(std::stoi(task.path().filename().string()));
    }
    return threads;
}

} // namespace

process_usage measure_usage(int ticking_thread) {
    struct mallinfo2 const heap = ::mallinfo2();
    process_usage usage{heap.uordblks + heap.hblkhd, 0, 0, 0};
    usage.resident_bytes = 1024 * sum_field("/proc/self/smaps_rollup", "Private_Dirty:");
    for (int const thread : threads_of_this_process()) {
        if (thread != ::getpid()) {
            usage.wakeups += sum_field(task_folder(thread) / "status", "voluntary_ctxt_switches:");
        }
    }
    std::ifstream(task_folder(ticking_thread) / "schedstat") >> usage.ticks_nanoseconds;
    return usage;
}

int newest_thread() {
    return std::ranges::max(threads_of_this_process());
}

double processor_seconds(pid_t process) {
    clockid_t clock{};
    timespec used{};
    must(::clock_getcpuclockid(process, &clock) == 0 && ::clock_gettime(clock, &used) == 0, "clock_gettime");
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

void bind_to_cores(placement cores, bool is_far) {
    if (cores == placement::free) {
        return;
    }
    cpu_set_t allowed;
    must(::sched_getaffinity(0, sizeof allowed, &allowed) == 0, "sched_getaffinity");
    int skip = cores == placement::two && is_far ? 1 : 0;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (!CPU_ISSET(cpu, &allowed) || skip-- > 0) {
            continue;
        }
        cpu_set_t chosen;
        CPU_ZERO(&chosen);
        CPU_SET(cpu, &chosen);
        must(::sched_setaffinity(0, sizeof chosen, &chosen) == 0, "sched_setaffinity");
        return;
    }
    throw unsupported("there is no second processor");
}

// --- channel and process ---------------------------------------------------------------------------------------

void channel::send(message const& what) {
    must(::send(fd, &what, sizeof what, MSG_NOSIGNAL) == sizeof what, "telling the other end");
}

void channel::send_text(message::what kind, std::string const& text) {
    message what;
    what.kind = kind;
    text.copy(what.text.data(), what.text.size() - 1);
    send(what);
}

message channel::receive(double seconds) {
    pollfd waited{fd, POLLIN, 0};
    int ready = 0;
    do {
        ready = ::poll(&waited, 1, static_cast<int>(seconds * 1000));
    } while (ready == -1 && errno == EINTR);
    if (ready != 1) {
        throw failure("the other end does not answer");
    }
    message what;
    if (::recv(fd, &what, sizeof what, 0) != sizeof what) {
        throw failure("the other end is gone");
    }
    if (what.kind == message::failed) {
        throw failure(std::string("far end: ") + what.text.data());
    }
    if (what.kind == message::refused) {
        throw unsupported(what.text.data());
    }
    return what;
}

namespace {

struct channel_ends {
    int near_end;
    int far_end;
};

channel_ends make_channel() {
    int ends[2];
    must(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
    return {ends[0], ends[1]};
}

[[noreturn]] void run_far(std::function<void(channel&)> const& body, int descriptor) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    channel link(descriptor);
    try {
        body(link);
    } catch (unsupported const& reason) {
        link.send_text(message::refused, reason.what());
    } catch (std::exception const& reason) {
        link.send_text(message::failed, reason.what());
    } catch (std::string const& reason) {
        link.send_text(message::failed, reason);
    }
    ::_exit(0);
}

std::pair<int, pid_t> start(std::function<void(channel&)> const& body) {
    channel_ends const ends = make_channel();
    pid_t const child = ::fork();
    must(child != -1, "fork");
    if (child == 0) {
        ::close(ends.near_end);
        run_far(body, ends.far_end);
    }
    ::close(ends.far_end);
    return {ends.near_end, child};
}

} // namespace

far_process::far_process(std::function<void(channel&)> const& body) : far_process(start(body)) {}

far_process::far_process(std::pair<int, pid_t> const& started) : near_link(started.first), child(started.second) {}

far_process::~far_process() {
    finish();
}

void far_process::finish() {
    if (child != -1) {
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
        child = -1;
    }
}

} // namespace relay_bench
