// UDP: one socket per served port, one packet per datagram.
#ifndef CENTER_INET_RELAY_EPOLL_EPOLL_UDP_METHOD_HPP
#define CENTER_INET_RELAY_EPOLL_EPOLL_UDP_METHOD_HPP

#include "Center/INet_Relay/EPoll/epoll_overlapped.hpp"
#include "Host/zolt_packet.hpp"

namespace Zolt::Center::INet_Relay::EPoll {
/// Opens, configures, files and registers the UDP socket of a port (host order). Thread: the Center's, before start.
/// Locks: none. Result: 0, the errno of a failure, printed, or the second registration's -1.
int udp_initialize(unsigned short port);
/// Closes and destroys every UDP record. Thread: the Center's, while the UDP threads do not run. Locks: none. Result: 0.
/// Owner: packets still queued are not freed; a packet half received is.
int udp_finalize();
/// Chooses the interface (low 32 bits, network order) for multicast sent from a port. Unknown ports are ignored; prints
/// when the kernel refuses.
void set_multicast_if(unsigned long const& interface_ip, unsigned short const& port);
/// Thread: udp_recv. Reads one datagram and hands it to the Center. Result: the re-arming's, 0 when there was no room for
/// it, -1 after printing why it was dropped.
int recv_udp(struct_epoll_overlapped_ex* rec);
/// Thread: udp_send. Sends one datagram. Locks: takes send_lock around the queue only. Result: 0, or -1 when there was none.
int send_udp(struct_epoll_overlapped_ex* rec);

} // namespace Zolt::Center::INet_Relay::EPoll

#endif
