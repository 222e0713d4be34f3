// The relay, as a Center drives it.
//
// Order of calls: initialize; add_server and add_client as needed; start; everything else while running; stop; finalize.
// Nothing guards against another order. A process may go through this more than once. The four lifecycle operations and
// add_server come from one controlling thread, the others from any thread of the Center's except that no operation may
// be called from send_zolt_center. Addresses are IPv4 in network byte order, ports in host byte order.
#ifndef CENTER_INET_RELAY_EPOLL_INET_RELAY_EPOLL_HPP
#define CENTER_INET_RELAY_EPOLL_INET_RELAY_EPOLL_HPP

#include "Host/lock_annotations.hpp"
#include "Host/zolt_packet.hpp"

#include <map>

namespace Zolt::Center::INet_Relay {

/// Builds the heartbeat, reads "../Config/zolt.ini", creates the five epoll instances. Result: 0.
/// Throws a std::string when an instance cannot be created, after printing it; those created before stay.
int initialize();
/// Starts the five event threads and the timer. Result: 0, also when one could not be started.
int start();
/// Stops the timer, wakes and joins the threads one after the other. Result: 0. Prints what fails and goes on.
int stop();
/// Closes instances, UDP and listening sockets, frees the heartbeat. Result: 0. Prints what fails and goes on.
/// Established connections stay as they are.
int finalize();

/// Serves a port over UDP and TCP, on all addresses. Call it before start. Result: 0, or the error number of the step that
/// failed, -1 when the listening socket could not be watched. Prints failures; a taken TCP port also raises the alert.
/// Deliberate: a listening failure closes the UDP sockets of all ports.
int add_server(unsigned short port);

/// Keeps a connection to a destination open until it is withdrawn as often as it was added. Result: 0 in every case; the
/// Center hears of the connection by a control packet. Takes g_client_lock.
int add_client(unsigned int ip, unsigned short port);
/// Withdraws a destination; at the last withdrawal its connection is closed after what is queued. Result: 0 in every case.
/// Deliberate: an unknown destination is counted as -1, so that the next add_client only brings it to 0.
int del_client(unsigned int ip, unsigned short port);

/// Queues a packet for a peer that connected to this node, or to which this node connected; pkt is the token's header.
/// Result: 0, or -1 when there is no such connection. Owner: on 0 the relay, which frees it once written, at once when it is
/// of the kind that does not wait behind others; on -1 the caller. Deliberate: a client connection that is being closed
/// answers 0 and leaves the token to the caller.
int send_tcp_server(struct_node_addr peer, struct_token& token, struct_packet* pkt);
int send_tcp_client(struct_node_addr peer, struct_token& token, struct_packet* pkt);
/// Queues a copy for every peer that connected to this node; the data part is shared. Result: 0. Owner of the token: the caller.
int send_tcp_broadcast(struct_token& token, struct_packet* pkt);

/// Queues a packet as one datagram from the served port that equals its destination port, to the same port of its
/// destination address. Result: 0, or epoll_ctl's, printed. Owner: the relay; without such a port, still the caller.
int send_udp(struct_token& token, struct_packet* pkt);

/// Joins, or leaves, a source-specific multicast group on the socket of a port; each address in the low 32 bits, network
/// order. Unknown ports are ignored; prints when the kernel refuses.
void add_membership(unsigned long const& group_ip, unsigned long const& interface_ip, unsigned long const& source_ip,
                    unsigned short const& port);
void drop_membership(unsigned long const& group_ip, unsigned long const& interface_ip, unsigned long const& source_ip,
                     unsigned short const& port);

/// The port by which the peer of the established outgoing connection to addr knows this node, or 0.
unsigned short get_gate_port_of_local(struct_node_addr addr);

// --- what stands when the relay has been finalised ---------------------------------------------------------------

namespace EPoll {

struct struct_epoll_overlapped_tcp;

extern std::map<struct_node_addr, struct_epoll_overlapped_tcp*> g_connect_map;
extern std::map<struct_node_addr, struct_epoll_overlapped_tcp*> g_connect_fail_map;
extern std::map<struct_node_addr, struct_epoll_overlapped_tcp*> g_establish_client_map;
extern std::map<struct_node_addr, struct_epoll_overlapped_tcp*> g_establish_server_map;

int clear_establish_map(std::map<struct_node_addr, struct_epoll_overlapped_tcp*>& map);
int clear_connect_map(std::map<struct_node_addr, struct_epoll_overlapped_tcp*>& map);

} // namespace EPoll

/// Closes and frees the connections that the relay left to its host. Only after finalize, from one thread; what was
/// queued for them is offered to the Center as errors.
inline void clear_leftovers() HOST_NO_LOCK_ANALYSIS {
    EPoll::clear_establish_map(EPoll::g_establish_server_map);
    EPoll::clear_establish_map(EPoll::g_establish_client_map);
    EPoll::clear_connect_map(EPoll::g_connect_map);
    EPoll::clear_connect_map(EPoll::g_connect_fail_map);
}

} // namespace Zolt::Center::INet_Relay

#endif
