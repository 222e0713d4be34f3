// How a Center makes a packet of its own. Any thread; takes no lock.
#ifndef REFERENCE_HOST_PACKET_BUILDING_HPP
#define REFERENCE_HOST_PACKET_BUILDING_HPP

#include "Host/zolt_packet.hpp"
#include "Reference_Host/packet_reading.hpp"

#include <cstdint>
#include <limits>
#include <span>

namespace Zolt::Reference_Host {

/// What a Center says about a packet; everything has a use as it stands.
struct packet_plan {
    packet_kind kind = packet_kind::data; ///< what it is
    packet_end source;                    ///< over TCP the relay fills in the port
    packet_end destination;               ///< over TCP the connection decides; a datagram needs address and port
    std::uint16_t flags = 0;              ///< see c_flag_broadcast and what follows it
    std::uint32_t code = 0;               ///< the application's own number
    std::uint64_t sequence = 0;           ///< the sender's running number
    double timeout = std::numeric_limits<double>::max(); ///< seconds
    std::uint32_t multicast_interface = 0;               ///< information datagrams leave by it; network byte order
};

/// A token with header part, created now, and a data part of that many undefined bytes; none for 0.
/// Throws std::bad_alloc, also above the limit of set_max_data_size. Owner: the caller, who frees it or hands it on.
struct_token make_packet(packet_plan const& plan, std::uint32_t data_size);
/// The same with a copy of the bytes as data.
struct_token make_packet(packet_plan const& plan, std::span<unsigned char const> data = {});

/// The data of a token, as long as its header says and at most as long as its data part; empty when it has none.
std::span<unsigned char> get_data_span(struct_token& token);

} // namespace Zolt::Reference_Host

#endif
