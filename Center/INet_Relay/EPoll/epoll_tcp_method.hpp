// TCP records and what both sides of TCP share: registries, destruction, delivery to the Center, and the steps of the
// receive path, the send path and the exchange, which take the facts of a side as one row.
//
// Included by the client and server methods, the event threads, the timer, the public operations; by udp for delivery.
#ifndef CENTER_INET_RELAY_EPOLL_EPOLL_TCP_METHOD_HPP
#define CENTER_INET_RELAY_EPOLL_EPOLL_TCP_METHOD_HPP

#include "Center/INet_Relay/EPoll/epoll.hpp"
#include "Center/INet_Relay/EPoll/epoll_overlapped.hpp"
#include "Center/INet_Relay/EPoll/epoll_trace.hpp"

namespace Zolt::Center::INet_Relay::EPoll {

// --- the two sides ---------------------------------------------------------------------------------------------

/// In what the accepting and the outgoing side differ. The rows stand in the sources of the sides.
struct struct_tcp_side {
    connection_map* established;
    Tesk::OS::class_thread_lock* registry_lock;
    bool keeps_acknowledgements; ///< true: keeps calls until acknowledged; false: acknowledges the calls it receives
    bool marker_deletes;         ///< the close marker ends the record; false: the receive side goes on with it
    bool refuses_when_closing;   ///< close_requested turns packets of the Center away
    bool (struct_packet::*dropped_while_busy)(); ///< which packets do not wait behind others

    int (*request_recv_header)(struct_epoll_overlapped_tcp*);
    int (*request_recv_data)(struct_epoll_overlapped_tcp*);
    int (*completed_recv_header)(struct_epoll_overlapped_tcp*);
    int (*completed_recv_data)(struct_epoll_overlapped_tcp*);
    void (*end)(struct_epoll_overlapped_tcp*); ///< what a failed read leads to; the record may be gone afterwards

    char const* recv_failed;
    char const* arm_header_failed;
    char const* arm_data_failed;
    char const* arm_exchange_failed;
    char const* heartbeat_received;
    char const* heartbeat_queued;
    char const* shut_down_silent; ///< format: now, last receive (both 32 bits), address
    char const* handed_over;
    struct_trace_site hand_over_site;
    struct_trace_site sending_site;
};

extern struct_tcp_side const c_client_side;
extern struct_tcp_side const c_server_side;

constexpr char const* c_text_send_request_failed = "epoll.epoll_tcp_send 요청 에러\n";
constexpr char const* c_text_send_arm_failed = "epoll.out 등록 에러\n";
constexpr char const* c_text_received_piece = "success_receive_client_init - size %d , remain size %d";
constexpr unsigned long c_init_block_size = sizeof(struct_tcp_header);

// --- arming ----------------------------------------------------------------------------------------------------

/// Registers a record's socket in an instance, or changes its registration; the only place that fills an epoll_event
/// for a record. Passes the baton on: on success another thread may already be at work on the record.
/// Any thread. Locks: those that the caller needs to own the record. Result: epoll_ctl's.
int arm(struct_epoll_overlapped* rec, int instance, int operation, std::uint32_t mask);

/// The same, printing the text when it fails.
int arm_or_print(struct_epoll_overlapped_tcp* rec, int instance, int operation, std::uint32_t mask, char const* text);

/// Arms the send thread for an established record and notes that it did; prints the text when that fails.
void arm_send(struct_epoll_overlapped_tcp* rec, char const* text) HOST_REQUIRES(rec->send_lock);

/// FD_CLOEXEC: a program that the host starts inherits no socket.
void keep_from_children(int fd);

/// A write to a peer that does not read gives up after about a millisecond with what it could place, so that no peer
/// can hold the send thread or those who wait for a send_lock. Failure is ignored: the write then blocks.
void bound_writes(int fd);

/// TCP_NODELAY; prints when refused.
void switch_nagle_off(int fd);

/// Stores the socket's own address in the record: address, port, and the port as gate port too.
void learn_local_address(struct_epoll_overlapped_tcp* rec);

// --- registries of the outgoing side ---------------------------------------------------------------------------

/// A fresh outgoing record without a socket, listed among those that live. Throws std::bad_alloc.
struct_epoll_overlapped_tcp* new_outgoing(struct_node_addr destination) HOST_REQUIRES(g_client_lock);

/// Files a record in the registry of the phase; an existing entry stays and the record waits in its shadow until that
/// entry goes. Without memory for an entry it waits in the shadow of none. False when the place is another's.
bool file_outgoing(struct_epoll_overlapped_tcp* rec, outgoing_phase phase) HOST_REQUIRES(g_client_lock);
/// Files those that wait in the shadow of none.
void file_shadowed() HOST_REQUIRES(g_client_lock);
/// The live record of a destination that waits in the shadow for a place in the registry of the phase, or null.
struct_epoll_overlapped_tcp* find_shadowed(outgoing_phase phase, struct_node_addr const& destination)
    HOST_REQUIRES(g_client_lock);

/// Erases the record's destination from the registry of the phase, whichever record it names; a record of the same
/// destination that waits in the shadow takes the place, this one excepted.
void erase_destination(outgoing_phase phase, struct_epoll_overlapped_tcp* rec) HOST_REQUIRES(g_client_lock);

/// Erases every entry that names this record, lets shadowed ones take its place, and gives the record no phase.
/// True when it stood among the established, by entry or in the shadow of one.
bool unfile_outgoing(struct_epoll_overlapped_tcp* rec) HOST_REQUIRES(g_client_lock);

/// Puts a record among those that the timer cuts when they are not gone within the time-out.
void begin_ending(ending_list& list, struct_epoll_overlapped_tcp* rec);

/// Takes a record out of the receive instance when the timer has armed it there, with whatever event is due (decision 50).
/// Thread: the receive thread, for a record that it has just unfiled. Locks: the registry lock of the record's side is held.
void take_back_timers_event(struct_epoll_overlapped_tcp* rec);

// --- records ---------------------------------------------------------------------------------------------------

/// Empties the send queue; packets come back to the Center as errors where one is due.
/// Thread: who owns the record. Locks: takes send_lock, also again, and offers to the Center under it. Deliberate:
/// nothing is queued on the record while it is emptied.
void clear_send_q(struct_epoll_overlapped_tcp* rec);

/// The send thread's answer to an error event of an established record: no write is under way any more. A doomed record
/// is destroyed. Locks: takes send_lock. Result: 0.
int failed_send(struct_epoll_overlapped_tcp* rec);

/// Destroys every record of a registry, smallest key first, and those of its side that no registry names any more.
/// Thread: the Center's, after stop and finalize. Locks: none. Result: 0.
int clear_establish_map(connection_map& map);
int clear_connect_map(connection_map& map);

/// Destroys a record at run time: erases the entries that name it, waits for a write in flight, returns queued packets,
/// closes the socket. Packets that wait for an acknowledgement are freed without notice.
/// Thread: whoever owns the record for good. Locks: none of the record's; takes the registry lock of its side, then
/// send_lock. Result: 0. The record is gone on return.
int delete_overlapped(struct_epoll_overlapped_tcp* rec);

/// Takes the socket out of the three TCP instances, closes it and marks the record closed. Harmless without a socket.
/// Locks: the registry lock before establishment; afterwards the record is in no registry.
void close_descriptor(struct_epoll_overlapped_tcp* rec);

// --- delivery to the Center ------------------------------------------------------------------------------------

/// Offers a packet until the Center takes it, refuses it, or its time-out passes; sleeps 0.01 s while the Center is busy.
/// Thread: any, which it may hold for as long as the Center stays busy. Locks: none taken; only the purge of a record
/// that is in no registry calls it under a send_lock. Result: 0 when taken, -1 when given up. Owner: the Center when taken, otherwise
/// the parts are freed here; the caller forgets its handle either way.
int send_center(struct_token token, struct_packet* pkt);

/// One offer of a datagram; a refused one is freed. Result: the Center's answer as it came.
int send_center_from_udp(struct_token token, struct_packet* pkt);

/// Keeps a further reference to the header of a call or signal until its acknowledgement arrives; other packets are not
/// kept. Locks: takes ack_lock; may be called under send_lock.
void wait_ack(struct_epoll_overlapped_tcp* rec, struct_token& token, struct_packet* pkt);

/// Tell the Center of a connection: control packets that never time out, offered by send_center.
/// Thread: the record's owner. Locks: no registry lock may be held. Result: 0, whatever the Center answered.
int eproc_send_connected_to_server_msg_to_center(struct_epoll_overlapped_tcp* rec);
int eproc_send_disconnected_from_server_msg_to_center(struct_epoll_overlapped_tcp* rec);
int eproc_send_connected_from_client_msg_to_center(struct_epoll_overlapped_tcp* rec);
int eproc_send_disconnected_from_client_msg_to_center(struct_epoll_overlapped_tcp* rec);

/// Frees an undeliverable packet. True when an error reply with the code is due: it stands in reply, the caller offers it.
bool return_as_error(struct_token& token, std::uint32_t error, struct_token& reply);

// --- receive path: thread tcp_recv, no lock held, result 0 or a failing epoll_ctl's --------------------------------

int request_recv_header(struct_tcp_side const& side, struct_epoll_overlapped_tcp* rec);
int request_recv_data(struct_tcp_side const& side, struct_epoll_overlapped_tcp* rec);
/// One read; what it completes is classified and delivered. A failed read prints and ends the connection: result 0.
int recv_step(struct_tcp_side const& side, struct_epoll_overlapped_tcp* rec);
int completed_recv_header(struct_tcp_side const& side, struct_epoll_overlapped_tcp* rec);
int completed_recv_data(struct_tcp_side const& side, struct_epoll_overlapped_tcp* rec);

// --- send path -------------------------------------------------------------------------------------------------

/// Appends a packet to the queue; into an idle queue it is also made the one in progress and the send thread is armed.
/// Prints when arming fails; the packet stays queued. Owner: the queue.
void start_or_queue(struct_epoll_overlapped_tcp* rec, struct_token const& token, struct_packet* pkt)
    HOST_REQUIRES(rec->send_lock);

/// Appends the close marker and, in an idle queue, makes it the next thing the send thread meets.
void start_or_queue_close_marker(struct_epoll_overlapped_tcp* rec) HOST_REQUIRES(rec->send_lock);

/// Thread: tcp_send. One write of the front packet, or the close marker. Locks: takes send_lock. Result: 0. The record
/// may be gone on return: a marker that deletes, or a doomed record for which nothing is armed any more.
int send_step(struct_tcp_side const& side, struct_epoll_overlapped_tcp* rec);

// --- exchange --------------------------------------------------------------------------------------------------

/// Makes the block that this side sends and the count of bytes to send.
void prepare_init_block(struct_epoll_overlapped_tcp* rec, struct_tcp_header& block);
/// One write of the block at the offset that send_remain tells. Result: bytes left, or -1 after a failed write.
long send_init_block(struct_epoll_overlapped_tcp* rec, struct_tcp_header& block);
/// One read into the block at the offset that recv_remain tells. Result: bytes read; 0 or less: failed.
long recv_init_block(struct_epoll_overlapped_tcp* rec, struct_tcp_header& block);
/// Starts reading a block: first registration with the receive instance. Prints when that fails; result epoll_ctl's.
int request_recv_init(struct_tcp_side const& side, struct_epoll_overlapped_tcp* rec);

} // namespace Zolt::Center::INet_Relay::EPoll

#endif
