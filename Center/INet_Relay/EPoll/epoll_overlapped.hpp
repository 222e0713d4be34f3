// The records: one per socket that the relay owns, found from an epoll event by its user data.
//
// Who may touch what, and when
//   A record is worked on by the thread that fetched its event ("holds the baton"); the right passes on with each arming.
//   Everybody else touches a record only between finding it in a registry or list and releasing the lock of that
//   registry or list. Tokens may leave such a hold, records never.
//
//   field                                       guarded by
//   fd, phase, cancelled, shadowed, silence,
//   reap_clock, the hooks                       the registry lock of the record's side
//   send_*, sending*, doomed                    send_lock (send_remain of an accepted exchange: the baton)
//   close_requested                             written under g_client_lock and send_lock, read under either
//   ack_q                                       ack_lock
//   recv_token, recv_ptr, recv_remain           the receive thread
//   recv_clock, send_clock                      relaxed atomic access, see clock_of and stamp
//   everything else                             written before the baton is passed on, then read only
#ifndef CENTER_INET_RELAY_EPOLL_EPOLL_OVERLAPPED_HPP
#define CENTER_INET_RELAY_EPOLL_EPOLL_OVERLAPPED_HPP

#include "Host/lock_annotations.hpp"
#include "Host/tesk_os.hpp"
#include "Host/zolt_packet.hpp"

#include <atomic>
#include <cstdint>
#include <deque>

namespace Zolt::Center::INet_Relay::EPoll {

/// What a record is and how far it has come; the event threads dispatch on it.
enum : int {
    c_kind_udp = 0,                ///< a bound UDP port
    c_kind_listen = 1,             ///< a listening socket
    c_kind_accepted = 2,           ///< accepted, exchange pending
    c_kind_connecting = 3,         ///< outgoing, connecting or exchange pending
    c_kind_established_server = 4, ///< accepted and established
    c_kind_established_client = 5, ///< outgoing and established
};

/// Base of all records; the record of a listening socket is exactly this.
struct struct_epoll_overlapped {
    int fd = -1; ///< -1 once closed
    int kind = c_kind_udp;
    std::uint32_t local_ip = 0;   ///< network order
    std::uint16_t local_port = 0; ///< host order

    /// Orders what one thread wrote before it armed the record with what the next one reads after its event: the kernel
    /// hands the record over, but neither the language nor a race detector knows that.
    std::atomic<std::uint16_t> baton{0};
};

// A node keeps thousands of records at rest, so what decides over them stands where there is room: in the rest of a lock's
// last word and in gaps between the fields.

/// Record of one bound UDP port.
struct struct_epoll_overlapped_ex : struct_epoll_overlapped {
    ~struct_epoll_overlapped_ex();

    struct_token recv_token;                                    ///< the packet being received into
    std::deque<struct_token> send_q HOST_GUARDED_BY(send_lock); ///< the front one is being sent
    [[no_unique_address]] Tesk::OS::class_thread_lock send_lock{0};
    bool sending HOST_GUARDED_BY(send_lock) = false;              ///< a write is under way and armed
    std::uint64_t recv_clock = 0;                                 ///< lemon_clock of the last successful read
    unsigned char* recv_ptr = nullptr;                            ///< where the next bytes go
    unsigned long recv_remain = 0;                                ///< bytes missing of the current piece
    std::uint64_t send_clock = 0;                                 ///< lemon_clock of the last write or connect
    unsigned char* send_ptr HOST_GUARDED_BY(send_lock) = nullptr; ///< null while the close marker is at the front
    unsigned long send_remain = 0;                                ///< bytes left of the current piece
};

struct struct_epoll_overlapped_tcp;

/// Place of a record in one intrusive list; see struct_record_list in epoll.hpp.
struct struct_record_hook {
    struct_epoll_overlapped_tcp* next = nullptr;
    struct_epoll_overlapped_tcp** back = nullptr; ///< the pointer that names this record; null: in no list
};

/// The registry in which an outgoing record belongs.
enum class outgoing_phase : unsigned char { none, connecting, established, waiting };

/// What the timer has done about a peer that is silent.
enum class timer_silence : unsigned char {
    none,
    shut_down, ///< the socket, on an earlier tick
    armed,     ///< and it may have given the receive thread an event more than that one armed itself
};

/// Record of one TCP connection, accepted or outgoing.
struct struct_epoll_overlapped_tcp : struct_epoll_overlapped_ex {
    std::uint32_t remote_ip = 0;                            ///< network order
    std::uint16_t remote_port = 0;                          ///< host order
    std::uint16_t gate_port = 0;                            ///< the port by which the peer knows this node
    struct_tcp_header server_init_header;                   ///< block that the accepting side sends
    struct_tcp_header client_init_header;                   ///< block that the connecting side sends
    bool sending_header HOST_GUARDED_BY(send_lock) = false; ///< the current piece is a header, not data
    bool close_requested = false;                           ///< the Center has withdrawn the destination

    // What decides who destroys the record, and when.
    bool send_armed HOST_GUARDED_BY(send_lock) = false; ///< an event for the send thread is due or on its way
    bool doomed HOST_GUARDED_BY(send_lock) = false;     ///< the receive thread is done; the send thread destroys
    timer_silence silence = timer_silence::none;
    outgoing_phase phase = outgoing_phase::none;
    bool cancelled = false; ///< timer, and request_connect under its lock: the connect was shut down on an earlier tick
    bool shadowed = false;  ///< another record of the same destination holds this one's place in the registry

    std::deque<struct_token> ack_q HOST_GUARDED_BY(ack_lock); ///< sent, waiting for an acknowledgement
    [[no_unique_address]] Tesk::OS::class_thread_lock ack_lock{0};
    std::uint32_t reap_clock = 0; ///< low bits of lemon_clock when the record was accepted, doomed or withdrawn
    struct_record_hook listed;    ///< outgoing: all that live; accepted: those in their exchange, or unfiled
    struct_record_hook ending;    ///< those that must be gone within the time-out
};

/// Time stamps are read by the timer while an event thread writes them.
inline std::uint64_t clock_of(std::uint64_t& stamp) {
    return std::atomic_ref<std::uint64_t>(stamp).load(std::memory_order_relaxed);
}
inline void stamp(std::uint64_t& where, std::uint64_t now) {
    std::atomic_ref<std::uint64_t>(where).store(now, std::memory_order_relaxed);
}

inline struct_node_addr peer_of(struct_epoll_overlapped_tcp const* rec) {
    return {rec->remote_ip, rec->remote_port};
}

} // namespace Zolt::Center::INet_Relay::EPoll

#endif
