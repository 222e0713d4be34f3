#include "bench/support/stubbed_kernel.hpp"

#include "bench/support/packet_bytes.hpp"

#include "Host/tesk_os.hpp"

#include <array>
#include <cstring>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace relay_bench::stubbed {
namespace {

using Tesk::OS::class_thread;
using Tesk::OS::class_timer;
using thread_entry = void* (*)(class_thread*);

struct started_entry {
    thread_entry body = nullptr;
    class_thread* thread = nullptr;
};
std::array<started_entry, static_cast<std::size_t>(entry::count)> g_entries;
std::size_t g_started = 0;

/// A registration, as the relay made it last.
struct registration {
    int instance = -1;
    epoll_event event{};
};

bool g_without_kernel = false;
bool g_is_armed = false;
registration g_write; ///< what is armed for writing
registration g_read;  ///< what was armed for reading, in the kernel or since

std::uint64_t g_writes = 0;
std::uint64_t g_reads_left = 0; ///< events that the reading entry still gets
unsigned char g_header[c_header_size];

void note(int instance, epoll_event const& event) {
    ((event.events & EPOLLIN) != 0 ? g_read : g_write) = {instance, event};
}

int report(registration const& what, std::uint32_t ready, epoll_event* events) {
    g_is_armed = false;
    *events = what.event;
    events->events = ready;
    return 1;
}

/// The event that tells an entry to return.
int report_end(epoll_event* events) {
    *events = {};
    return 1;
}

int wait_without_kernel(int instance, epoll_event* events) {
    if (g_is_armed && instance == g_write.instance) {
        return report(g_write, EPOLLOUT, events);
    }
    if (g_is_armed && instance == g_read.instance && g_reads_left != 0) {
        --g_reads_left;
        return report(g_read, EPOLLIN, events);
    }
    return report_end(events);
}

} // namespace

void run(entry which) {
    started_entry const& started = g_entries[static_cast<std::size_t>(which)];
    started.body(started.thread);
}

void leave_kernel() {
    g_without_kernel = true;
}

void return_to_kernel() {
    g_without_kernel = false;
    g_is_armed = false;
}

std::uint64_t run_writes() {
    g_writes = 0;
    run(entry::tcp_send);
    return g_writes;
}

void run_reads(std::uint64_t packets, std::uint32_t size) {
    write_header(g_header, size);
    g_reads_left = packets * (size == 0 ? 1 : 2);
    g_is_armed = true;
    run(entry::tcp_recv);
}

} // namespace relay_bench::stubbed

using namespace relay_bench::stubbed;

// --- in the place of the host's --------------------------------------------------------------------------------

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names for what is wrapped
extern "C" int __wrap__ZN4Tesk2OS12class_thread12eproc_createEPFPvPS1_ES2_(class_thread* thread, thread_entry body,
                                                                           void*) {
    g_entries.at(g_started++) = {body, thread};
    return 0;
}

extern "C" int __wrap__ZN4Tesk2OS11class_timer12eproc_createEdPFvPS1_EPv(class_timer*, double, void (*)(class_timer*),
                                                                         void*) {
    return 0;
}
// NOLINTEND(bugprone-reserved-identifier)

// --- in the place of the C library's ---------------------------------------------------------------------------

extern "C" int epoll_wait(int instance, epoll_event* events, int most, int) {
    if (g_without_kernel) {
        return wait_without_kernel(instance, events);
    }
    auto const count = static_cast<int>(::syscall(SYS_epoll_wait, instance, events, most, 0));
    return count == 0 ? report_end(events) : count;
}

extern "C" int epoll_ctl(int instance, int operation, int fd, epoll_event* event) noexcept {
    if (operation != EPOLL_CTL_DEL) {
        note(instance, *event);
    }
    if (g_without_kernel) {
        g_is_armed = true;
        return 0;
    }
    return static_cast<int>(::syscall(SYS_epoll_ctl, instance, operation, fd, event));
}

extern "C" ssize_t send(int fd, void const* bytes, std::size_t size, int flags) {
    if (!g_without_kernel) {
        return ::syscall(SYS_sendto, fd, bytes, size, flags, nullptr, nullptr);
    }
    ++g_writes;
    return static_cast<ssize_t>(size);
}

extern "C" ssize_t recv(int fd, void* bytes, std::size_t size, int flags) {
    if (!g_without_kernel) {
        return ::syscall(SYS_recvfrom, fd, bytes, size, flags, nullptr, nullptr);
    }
    if (size == relay_bench::c_header_size) {
        std::memcpy(bytes, g_header, size);
    }
    return static_cast<ssize_t>(size);
}
