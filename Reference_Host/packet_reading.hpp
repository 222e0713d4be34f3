// What a Center reads from a packet, and the few fields that it sets, beyond what Host/zolt_packet.hpp offers.
//
// Thread, locks, errors: as for the operations of struct_packet. Addresses in network byte order, ports in host order.
//
// Of a packet that arrived:
//   over TCP  the source is the peer's address and port as the relay's socket knows them, whatever the peer wrote,
//             and the destination is 127.0.0.1 with the port by which the peer knows this node
//   over UDP  the source address is the datagram's; the source port and the ids are what the sender wrote
#ifndef REFERENCE_HOST_PACKET_READING_HPP
#define REFERENCE_HOST_PACKET_READING_HPP

#include "Host/zolt_packet.hpp"
#include "Reference_Host/packet_layout.hpp"

#include <cstdint>

namespace Zolt::Reference_Host {

/// One end of a packet's way.
struct packet_end {
    std::uint32_t ip = 0;   ///< network byte order
    std::uint16_t port = 0; ///< host byte order
    std::uint16_t id = 0;   ///< node id

    /// Equal in every field.
    friend bool operator==(packet_end const&, packet_end const&) = default;
};

/// A number that is no packet_kind comes from a peer and is passed on as it is.
packet_kind get_kind(struct_packet const& packet);
void set_kind(struct_packet& packet, packet_kind kind);
bool is_control(struct_packet const& packet);
/// What a control packet tells; none for every other kind.
connection_event get_event(struct_packet const& packet);
/// The kind that an error reply had before it came back; any other packet's own kind.
packet_kind get_returned_kind(struct_packet const& packet);

/// The two ends; of a packet that arrived as the top of this file says.
packet_end get_source(struct_packet const& packet);
packet_end get_destination(struct_packet const& packet);
/// What stands in the header as it travelled: a peer may have written anything there.
packet_end get_source_as_sent(struct_packet const& packet);
packet_end get_destination_as_sent(struct_packet const& packet);
/// The address given to initialize_packet; it does not travel.
std::uint32_t get_local_ip(struct_packet const& packet);

/// Fields that travel as their names say; see docs/wire-format.md.
std::uint16_t get_flags(struct_packet const& packet);
void set_flags(struct_packet& packet, std::uint16_t flags);
std::uint32_t get_code(struct_packet const& packet);
void set_code(struct_packet& packet, std::uint32_t code);
std::uint64_t get_sequence(struct_packet const& packet);
void set_sequence(struct_packet& packet, std::uint64_t sequence);
std::uint32_t get_error(struct_packet const& packet);
/// True when the relay gave the packet up: it is an error now, or of a kind of which nobody is told.
bool was_turned_back(struct_packet const& packet);

/// Microseconds of the creator's clock; comparable only with other packets of the same creator.
std::uint64_t get_creation_clock(struct_packet const& packet);
/// lemon_cpu_clock counts of this node; 0 for a packet that did not arrive.
std::uint64_t get_arrival_clock(struct_packet const& packet);
/// Microseconds, c_timeout_never for no limit.
std::uint64_t get_timeout(struct_packet const& packet);
/// Seconds; 0 and less has passed at once, the largest double never passes.
void set_timeout(struct_packet& packet, double seconds);
/// Microseconds, as last brought up to date.
std::uint64_t get_elapsed(struct_packet const& packet);

/// References behind a token, for checks: what a copy, set_header, set_data and the frees have added and dropped.
struct token_counts {
    unsigned int header_handles = 0; ///< handle copies that will free the header part
    unsigned int header_nodes = 0;   ///< tokens that share the header part
    unsigned int data_nodes = 0;     ///< tokens that share the data part

    /// Equal in every field.
    friend bool operator==(token_counts const&, token_counts const&) = default;
};
/// The counts behind that token now.
token_counts count_references(struct_token const& token);

} // namespace Zolt::Reference_Host

#endif
