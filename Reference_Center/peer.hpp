// Who a Center talks to, and by which way.
#ifndef REFERENCE_CENTER_PEER_HPP
#define REFERENCE_CENTER_PEER_HPP

#include "Host/zolt_packet.hpp"

#include <cstdint>

namespace Zolt::Reference_Center {

/// The way that a packet came, or goes.
enum class way {
    udp,
    accepted, ///< over a connection that the peer opened
    outgoing, ///< over a connection that this node opened
};
char const* way_text(way via);

/// An accepted and an outgoing connection with one address are two peers.
struct peer {
    struct_node_addr address;
    way via = way::udp;

    friend bool operator==(peer const&, peer const&) = default;
    friend bool operator<(peer const& a, peer const& b) {
        return a.address == b.address ? a.via < b.via : a.address < b.address;
    }
};

struct traffic_counts {
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0; ///< of data

    void add(std::uint64_t size) {
        ++packets;
        bytes += size;
    }

    friend traffic_counts operator+(traffic_counts const& a, traffic_counts const& b) {
        return {a.packets + b.packets, a.bytes + b.bytes};
    }
    friend traffic_counts operator-(traffic_counts const& a, traffic_counts const& b) {
        return {a.packets - b.packets, a.bytes - b.bytes};
    }
    friend bool operator==(traffic_counts const&, traffic_counts const&) = default;
};

} // namespace Zolt::Reference_Center

#endif
