// The outgoing side of TCP: connect, exchange, establishment, teardown.
//
// When all goes well: add_client makes a record and request_connect starts a non-blocking connect; the set-up thread
// meets completed_connect, which starts sending this node's block; the send thread ends it in send_client_init and asks
// for the answer; the receive thread has it whole in recv_client_init, the record becomes established, the Center is told.
// When something fails: before establishment everything leads to failed_connect_init, which books the same record for the
// next tick; afterwards to close_client, which books a fresh one. A withdrawn destination is never booked again.
#ifndef CENTER_INET_RELAY_EPOLL_EPOLL_TCP_METHOD_CLIENT_HPP
#define CENTER_INET_RELAY_EPOLL_EPOLL_TCP_METHOD_CLIENT_HPP

#include "Center/INet_Relay/EPoll/epoll_overlapped.hpp"
#include "Host/zolt_packet.hpp"

namespace Zolt::Center::INet_Relay::EPoll {

/// Starts a connect. Threads: the Center's, the timer's. Locks: takes g_client_lock, also again.
/// Result: 0 when it is under way, the record then belongs to the set-up thread; else the errno, printed, and the record,
/// without a socket, is still the caller's to file.
int request_connect(struct_epoll_overlapped_tcp* rec);
/// Thread: set-up. Result: 0, or that of the step that failed, after which failed_connect_init has had the record.
int completed_connect(struct_epoll_overlapped_tcp* rec);
/// Thread: set-up. Erases the destination from the connecting ones, then as failed_connect_init.
int failed_connect(struct_epoll_overlapped_tcp* rec);
/// Threads: set-up, send, receive, whichever holds the record. Closes the socket and books the record for the next tick, or
/// destroys it when its destination was withdrawn or is booked already. Locks: takes g_client_lock. Result: 0.
int failed_connect_init(struct_epoll_overlapped_tcp* rec);
/// Thread: set-up. Nagle off where configured, bounded writes, local address, blocking mode.
void set_client_option(struct_epoll_overlapped_tcp* rec);

/// Thread: set-up. Result: 0, or the failing epoll_ctl's, printed.
int request_send_client_init(struct_epoll_overlapped_tcp* rec);
/// Thread: send. Result: 0 or a failing epoll_ctl's; failures print and lead to failed_connect_init.
int send_client_init(struct_epoll_overlapped_tcp* rec);
/// Thread: send. Result: 0, or the failing epoll_ctl's, printed.
int request_recv_client_init(struct_epoll_overlapped_tcp* rec);
/// Thread: receive. Result: 0; anything else ends the receive thread.
int recv_client_init(struct_epoll_overlapped_tcp* rec);
/// Thread: receive. Files the record as established, then tells the Center. Locks: takes g_client_lock. Result: 0, or -1
/// when the Center could not be told; the record is then in no registry.
int establish_connect(struct_epoll_overlapped_tcp* rec);
/// Thread: receive. Takes the destination out of the established ones, then tells the Center. Result: 0.
int unestablish_connect(struct_epoll_overlapped_tcp* rec);
/// Thread: receive. Ends an outgoing connection and books a fresh record, unless its destination was withdrawn or is
/// booked already. Tells the Center when nobody has. Locks: takes g_client_lock, then send_lock. Result: 0.
/// The record is destroyed here, or by the send thread when that still has an event due.
int close_client(struct_epoll_overlapped_tcp* rec);

// The receive path on this side: thread receive; contracts with the shared steps.
int request_recv_client_header(struct_epoll_overlapped_tcp* rec);
int request_recv_client_data(struct_epoll_overlapped_tcp* rec);
int recv_client(struct_epoll_overlapped_tcp* rec);
int completed_recv_client_header(struct_epoll_overlapped_tcp* rec);
int completed_recv_client_data(struct_epoll_overlapped_tcp* rec);
/// Thread: send.
int send_client(struct_epoll_overlapped_tcp* rec);

} // namespace Zolt::Center::INet_Relay::EPoll

#endif
