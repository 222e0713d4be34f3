// What the kernel knows of a socket of this process. Any thread. A descriptor that is none any more gives no facts.
#ifndef REFERENCE_CENTER_SOCKET_FACTS_HPP
#define REFERENCE_CENTER_SOCKET_FACTS_HPP

#include "Host/zolt_packet.hpp"

#include <cstdint>
#include <netinet/tcp.h>
#include <optional>

namespace Zolt::Reference_Center {

/// Never given twice while the system runs, unlike a descriptor's number; 0 for what is no socket.
std::uint64_t read_socket_cookie(int descriptor);
/// Of a listening socket, tcpi_unacked connections wait to be accepted, and tcpi_sacked may.
std::optional<::tcp_info> read_tcp_info(int descriptor);
bool is_listening(int descriptor);
std::optional<struct_node_addr> read_remote_address(int descriptor);
/// In host byte order; 0 when there is none.
std::uint16_t read_local_port(int descriptor);
/// The error that waits on the socket, which it forgets; 0 for none.
int take_socket_error(int descriptor);

} // namespace Zolt::Reference_Center

#endif
