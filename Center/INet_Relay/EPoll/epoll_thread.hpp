// The one loop of the five event threads. Each thread's source is its entry and its dispatch table.
#ifndef CENTER_INET_RELAY_EPOLL_EPOLL_THREAD_HPP
#define CENTER_INET_RELAY_EPOLL_EPOLL_THREAD_HPP

#include "Center/INet_Relay/EPoll/epoll.hpp"
#include "Center/INet_Relay/EPoll/epoll_overlapped.hpp"
#include "Host/tesk_os.hpp"
#include "Host/tesk_utility.hpp"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <string>

#include <sys/epoll.h>

namespace Zolt::Center::INet_Relay::EPoll {

// The entries: started by start, joined by stop. Argument ignored, result null. A std::string that reaches the loop is
// printed and ends the thread for good; any other exception is noted and the thread goes on.
void* epoll_thread_tcp_init_entry(Tesk::OS::class_thread* thread);
void* epoll_thread_tcp_recv_entry(Tesk::OS::class_thread* thread);
void* epoll_thread_tcp_send_entry(Tesk::OS::class_thread* thread);
void* epoll_thread_udp_recv_entry(Tesk::OS::class_thread* thread);
void* epoll_thread_udp_send_entry(Tesk::OS::class_thread* thread);

/// What distinguishes one event thread from another.
struct struct_event_thread {
    int instance;
    void (*dispatch)(struct_epoll_overlapped* record, std::uint32_t events);
    char const* ended_by;     ///< what stands before the text of the string that ended the thread
    char const* went_on_from; ///< the line for any other exception
};

inline bool is_error(std::uint32_t events) {
    return (events & c_error_events) != 0;
}

/// A write to a peer that has gone ends with EPIPE; the signal that comes with it would end the process.
[[gnu::visibility("hidden")]] inline void block_sigpipe() {
    sigset_t pipe;
    ::sigemptyset(&pipe);
    ::sigaddset(&pipe, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
}

/// Waits for one event and dispatches it. False when told to stop. Throws the std::string "epoll_wait" when waiting
/// fails, and whatever a handler throws.
[[gnu::visibility("hidden")]] inline bool serve_one_event(struct_event_thread const& thread) {
    ::epoll_event event{};
    int const count = ::epoll_wait(thread.instance, &event, 1, -1);
    if (count == -1 && errno == EINTR) {
        return true;
    }
    if (count <= 0) {
        throw std::string("epoll_wait");
    }
    auto* const record = static_cast<struct_epoll_overlapped*>(event.data.ptr);
    if (record == nullptr) {
        return false;
    }
    record->baton.load(std::memory_order_acquire);
    thread.dispatch(record, event.events);
    return true;
}

/// Serves events until told to stop. Throws only std::string.
[[gnu::visibility("hidden")]] inline void serve_events(struct_event_thread const& thread) {
    for (;;) {
        try {
            if (!serve_one_event(thread)) {
                return;
            }
        } catch (std::string const&) {
            throw;
        } catch (...) {
            Tesk::Utility::print_error(thread.went_on_from);
        }
    }
}

/// The body of an entry.
[[gnu::visibility("hidden")]] inline void* run_event_thread(struct_event_thread const& thread) {
    block_sigpipe();
    try {
        serve_events(thread);
    } catch (std::string const& text) {
        int const error = errno;
        std::string const line = thread.ended_by + text + " errno:" + std::to_string(error) + "\n";
        Tesk::Utility::print_error(line.c_str());
    }
    return nullptr;
}

} // namespace Zolt::Center::INet_Relay::EPoll

#endif
