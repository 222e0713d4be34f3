// The accepting side of TCP: listening, acceptance, exchange, establishment, teardown.
//
// When all goes well: request_listen opens a port; the set-up thread takes one connection per event in accept; the receive
// thread reads the peer's block in recv_server_init, the send thread answers in send_server_init, the record becomes
// established, the Center is told, packets are read.
// When something fails: during the exchange the record is destroyed and the Center hears nothing; afterwards
// shutdown_server tells the Center and leaves the rest to the send thread, after what is already queued.
#ifndef CENTER_INET_RELAY_EPOLL_EPOLL_TCP_METHOD_SERVER_HPP
#define CENTER_INET_RELAY_EPOLL_EPOLL_TCP_METHOD_SERVER_HPP

#include "Center/INet_Relay/EPoll/epoll_overlapped.hpp"
#include "Host/zolt_packet.hpp"

namespace Zolt::Center::INet_Relay::EPoll {

/// Opens a listening socket on all addresses. Thread: the Center's. Locks: none.
/// Result: 0; the errno of a failure, printed and, for a taken port, shown to the operator; or epoll_ctl's -1, which
/// leaves the socket open and filed. Owner: the engine; the record lives until free_listening_records.
int request_listen(unsigned short port);
/// Frees the records of all listening sockets. Thread: the Center's, after the event threads and their instances are gone.
void free_listening_records();
/// Thread: set-up. Deliberate: takes exactly one connection per event; the others wait for the next one. Result: 0 or -1,
/// printed.
int accept(struct_epoll_overlapped* listening);
/// Thread: set-up. Nagle off where configured, bounded writes, local address.
void set_server_option(struct_epoll_overlapped_tcp* rec);

/// Thread: set-up. Result: 0, or the failing epoll_ctl's, printed; the connection then stays open and unserved.
int request_recv_server_init(struct_epoll_overlapped_tcp* rec);
/// Thread: receive. Result: 0; anything else ends the receive thread. Throws a char const* when it cannot arm again.
int recv_server_init(struct_epoll_overlapped_tcp* rec);
/// Thread: receive. Result: 0, or the failing epoll_ctl's, printed.
int request_send_server_init(struct_epoll_overlapped_tcp* rec);
/// Thread: send. Result: 0 or a failing epoll_ctl's.
int send_server_init(struct_epoll_overlapped_tcp* rec);
/// Thread: send. Files the record unless its peer is filed already, then tells the Center. Locks: takes
/// g_establish_server_map_lock. Result: 0, or -1 when the Center could not be told; the connection goes on, unlisted.
int establish_accept(struct_epoll_overlapped_tcp* rec);
/// Thread: receive. Takes the peer out of the established ones, whichever record is filed, then tells the Center.
/// Result: 0, or the trace's when the Center could not be told.
int unestablish_accept(struct_epoll_overlapped_tcp* rec);
/// Threads: receive, send. Destroys a record whose exchange failed. Result: delete_overlapped's.
int failed_server_init(struct_epoll_overlapped_tcp* rec);
/// Thread: receive. Ends an accepted connection: tells the Center, then the send thread closes and destroys it after what
/// is queued; here only when the send thread cannot be reached. Locks: the registry lock, then send_lock.
void shutdown_server(struct_epoll_overlapped_tcp* rec);

// The receive path on this side: thread receive; contracts with the shared steps.
int request_recv_server_header(struct_epoll_overlapped_tcp* rec);
int request_recv_server_data(struct_epoll_overlapped_tcp* rec);
int recv_server(struct_epoll_overlapped_tcp* rec);
int completed_recv_server_header(struct_epoll_overlapped_tcp* rec);
int completed_recv_server_data(struct_epoll_overlapped_tcp* rec);
/// Thread: send.
int send_server(struct_epoll_overlapped_tcp* rec);

} // namespace Zolt::Center::INet_Relay::EPoll

#endif
