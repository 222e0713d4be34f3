// A packet of the test traffic: who sent it, where it stands in its stream, and a checksum over all of it.
#ifndef TESTS_RACE_TRAFFIC_STAMPED_PACKET_HPP
#define TESTS_RACE_TRAFFIC_STAMPED_PACKET_HPP

#include "Reference_Host/packet_building.hpp"

#include <cstdint>
#include <optional>
#include <utility>

namespace traffic {

/// A sender and its number of a peer.
using stream_id = std::pair<std::uint16_t, std::uint8_t>;

/// Place of a packet in what one node sends over the connections to one peer.
struct packet_stamp {
    std::uint16_t sender = 0;
    std::uint8_t flow = 0;       ///< the sender's number of the peer, below c_most_flows
    bool may_be_dropped = false; ///< of the kind that does not wait behind others; numbered by itself
    std::uint32_t head = 0;      ///< number of the first packet handed over after the sender had heard "connected"
    std::uint32_t number = 0;

    stream_id stream() const { return {sender, flow}; }
};

inline constexpr std::uint8_t c_most_flows = 64;

/// The packet with that stamp; kind and size follow from its number. Owner: the caller.
Zolt::struct_token make_stamped(packet_stamp const& stamp, bool is_outgoing);
/// One that has no place in a flow. Owner: the caller.
Zolt::struct_token make_ballast(std::uint32_t size);
/// The stamp of a packet that arrived whole; nothing when sender, place, size or a byte of the data is not as it was made.
std::optional<packet_stamp> read_stamp(Zolt::struct_token& token);
/// The stamp of a packet that came back as an error: its data is gone, so it is not checked.
packet_stamp read_returned_stamp(Zolt::struct_packet const& packet);

} // namespace traffic

#endif
