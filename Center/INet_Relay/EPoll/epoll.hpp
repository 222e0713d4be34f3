// The engine's state: registries, locks, threads, the five epoll instances, configuration, event masks, the timer.
#ifndef CENTER_INET_RELAY_EPOLL_EPOLL_HPP
#define CENTER_INET_RELAY_EPOLL_EPOLL_HPP

#include "Center/INet_Relay/EPoll/epoll_overlapped.hpp"
#include "Host/lock_annotations.hpp"
#include "Host/tesk_os.hpp"
#include "Host/zolt_packet.hpp"

#include <atomic>
#include <cstdint>
#include <map>

#include <sys/epoll.h>

namespace Zolt::Center::INet_Relay::EPoll {

// --- event masks -----------------------------------------------------------------------------------------------

constexpr std::uint32_t c_recv_mask = EPOLLIN | EPOLLONESHOT;                        // 0x40000001
constexpr std::uint32_t c_send_mask = EPOLLOUT | EPOLLONESHOT | EPOLLET;             // 0xC0000004
constexpr std::uint32_t c_cancel_mask = EPOLLIN | EPOLLOUT | EPOLLONESHOT | EPOLLET; // 0xC0000005
constexpr std::uint32_t c_arrival_mask = EPOLLIN | EPOLLET;                          // 0x80000001
constexpr std::uint32_t c_drain_mask = EPOLLIN;                                      // 0x00000001, until one is taken
constexpr std::uint32_t c_udp_send_idle_mask = EPOLLERR | EPOLLET;                   // 0x80000008

/// An event with one of these reports an error or a hang-up.
constexpr std::uint32_t c_error_events = EPOLLERR | EPOLLHUP;

// --- time ------------------------------------------------------------------------------------------------------

constexpr std::uint64_t c_connection_timeout = 8000; ///< lemon_clock ticks: connect, exchange, silence
constexpr double c_timer_period = 1.0;               ///< seconds

// --- registries ------------------------------------------------------------------------------------------------

using connection_map = std::map<struct_node_addr, struct_epoll_overlapped_tcp*>;

/// Threads of one kind that the relay has room for; only the first of each array is started.
constexpr int c_thread_slots = 8;

// epoll.cpp defines them in their required order of construction; unloading destroys them in reverse.
extern std::map<unsigned short, int> g_server_map; ///< listening port to socket, -1 after a failed listen
extern Tesk::OS::class_thread epoll_thread_udp_recv;
extern Tesk::OS::class_thread epoll_thread_udp_send;
extern Tesk::OS::class_thread epoll_thread_tcp_init;
extern Tesk::OS::class_thread epoll_thread_tcp_recv[c_thread_slots];
extern Tesk::OS::class_thread epoll_thread_tcp_send[c_thread_slots];
extern std::map<unsigned short, struct_epoll_overlapped_ex*> g_udp_map;
extern Tesk::OS::class_thread_lock g_client_lock;
extern connection_map g_connect_map HOST_GUARDED_BY(g_client_lock);          ///< connecting or in the exchange
extern connection_map g_connect_fail_map HOST_GUARDED_BY(g_client_lock);     ///< failed, waiting for the next tick
extern connection_map g_establish_client_map HOST_GUARDED_BY(g_client_lock); ///< outgoing, established
extern Tesk::OS::class_thread_lock g_establish_server_map_lock;
extern connection_map g_establish_server_map HOST_GUARDED_BY(g_establish_server_map_lock); ///< accepted, established
extern std::map<struct_node_addr, int> g_remote_server_map HOST_GUARDED_BY(g_client_lock); ///< registrations
extern Tesk::OS::class_timer inet_timer;
extern struct_token heartbeat_token; ///< the one heartbeat packet that all connections share
extern struct_packet* heartbeat_pkt; ///< its header

// --- lists that no stated registry covers ----------------------------------------------------------------------

/// Intrusive list of records; trivially constructed and destroyed, touched under the registry lock of its side.
template <struct_record_hook struct_epoll_overlapped_tcp::*Hook>
struct struct_record_list {
    struct_epoll_overlapped_tcp* first = nullptr;

    static struct_epoll_overlapped_tcp* after(struct_epoll_overlapped_tcp* rec) { return (rec->*Hook).next; }

    /// Adds the record at the front; a record that is in a list already stays where it is.
    void link(struct_epoll_overlapped_tcp* rec) {
        struct_record_hook& hook = rec->*Hook;
        if (hook.back != nullptr) {
            return;
        }
        hook = {first, &first};
        if (first != nullptr) {
            (first->*Hook).back = &hook.next;
        }
        first = rec;
    }

    /// Takes the record out of whichever list of this hook it is in; harmless on one that is in none.
    static void unlink(struct_epoll_overlapped_tcp* rec) {
        struct_record_hook& hook = rec->*Hook;
        if (hook.back == nullptr) {
            return;
        }
        *hook.back = hook.next;
        if (hook.next != nullptr) {
            (hook.next->*Hook).back = hook.back;
        }
        hook = {};
    }
};

using live_list = struct_record_list<&struct_epoll_overlapped_tcp::listed>;
using ending_list = struct_record_list<&struct_epoll_overlapped_tcp::ending>;

extern live_list g_outgoing HOST_GUARDED_BY(g_client_lock);          ///< every outgoing record that lives
extern ending_list g_outgoing_ending HOST_GUARDED_BY(g_client_lock); ///< doomed, or withdrawn while established
extern int g_outgoing_shadowed HOST_GUARDED_BY(g_client_lock);       ///< how many outgoing records are shadowed
extern live_list g_accepted_exchanging HOST_GUARDED_BY(g_establish_server_map_lock); ///< accepted, not yet established
extern live_list g_accepted_unfiled HOST_GUARDED_BY(g_establish_server_map_lock);    ///< established, place taken
extern ending_list g_accepted_ending HOST_GUARDED_BY(g_establish_server_map_lock);   ///< doomed

/// A listening or UDP socket, which reports arrivals by edges: an arrival that failed would else never be seen again.
struct struct_arrivals {
    struct_epoll_overlapped* record;
    struct_arrivals* next;
    std::atomic<std::uint32_t> look_again{0}; ///< mask by which the timer is to arm it; 0: not at all
};
extern struct_arrivals* g_arrivals; ///< changed by add_server and finalize only, while no thread of the relay runs

/// Puts a socket's record among those that the timer looks at again, or takes it out; harmless when it is not there.
/// Thread: add_server's and finalize's. The first throws std::bad_alloc.
void expect_arrivals(struct_epoll_overlapped* record);
void forget_arrivals(struct_epoll_overlapped* record);

/// What failed is still at the front of the socket's queue: the timer looks once. Thread: the one that has the event.
void note_kept_arrival(struct_epoll_overlapped const* record);
/// What failed is gone, and more may wait behind it: the timer has the queue gone through until one is taken.
void note_dropped_arrival(struct_epoll_overlapped const* record);

// --- instances and configuration: written before the threads start or after they are joined ----------------------

extern int epoll_tcp_init; ///< 0 before initialize, -1 after finalize; so are the next four
extern int epoll_tcp_recv;
extern int epoll_tcp_send;
extern int epoll_udp_recv;
extern int epoll_udp_send;

extern bool g_auto_disconnect;     ///< the timer shuts silent connections down
extern bool g_server_socket_reuse; ///< kept, without effect; so are the linger settings
extern int g_listen_backlog;
extern bool g_server_linger_use;
extern int g_server_linger_time;
extern bool g_server_nagle_off_use; ///< accepted connections get TCP_NODELAY
extern bool g_client_linger_use;
extern int g_client_linger_time;
extern bool g_client_nagle_off_use; ///< outgoing connections get TCP_NODELAY

// --- maintenance timer -----------------------------------------------------------------------------------------

/// The timer's callback: reads the clock once and runs the jobs below in their order.
/// Thread: the timer's. Locks: each of the first four takes one registry lock and holds it while it lasts. The argument
/// is ignored.
void timer_inet(Tesk::OS::class_timer* timer);

/// Shuts down each connect and exchange that has lasted longer than the time-out and arms it again, so that the set-up
/// thread sees it fail. Arming fails, unnoticed, for a connection past its connect: its error event comes elsewhere.
void timer_cancel_connect(std::uint64_t now);

/// Queues a heartbeat on each accepted connection that was heard from within the time-out; shuts a silent one down when
/// configured so and returns what waits for its acknowledgement to the Center as errors, after the lock is released.
/// Also cuts accepted connections that do not finish their exchange, and doomed ones that do not come to their end.
void timer_shutdown_server(std::uint64_t now);

/// The same for outgoing connections. Deliberate: what waits for an acknowledgement is left alone here; the close path
/// deals with it when it destroys the record.
void timer_shutdown_client(std::uint64_t now);

/// Tries every failed destination once; those whose attempt fails at once stay booked.
void timer_reconnect_client();

/// Arms the sockets again whose last arrival failed. A full queue raises no edge any more, so that nobody would ever look
/// at what waits there (decision 52).
void timer_look_again();

/// Queues the shared heartbeat on one connection and arms an idle one. Deliberate: named so.
/// Thread: the timer's. Locks: the registry lock of the record is held; takes send_lock. Result: 0.
/// Prints when arming fails; the heartbeat stays queued.
int request_send_hearbeat(struct_epoll_overlapped_tcp* rec);

} // namespace Zolt::Center::INet_Relay::EPoll

#endif
