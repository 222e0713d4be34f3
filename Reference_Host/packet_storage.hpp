// The host's own types behind struct_packet and struct_token. Private to Reference_Host/.
//
//   handle copies -> node -> header part (envelope, wire header)
//                         -> data part   (envelope, wire header, data: one block)
//
// Counts: a node counts the handle copies that will free its header part; a part counts the nodes that share it.
// The data part of a node is given back once, by whichever copy does so. The node dies with its last part.
#ifndef REFERENCE_HOST_PACKET_STORAGE_HPP
#define REFERENCE_HOST_PACKET_STORAGE_HPP

#include "Host/zolt_packet.hpp"
#include "Reference_Host/packet_layout.hpp"

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace Zolt::Reference_Host {

/// What is known about a packet on this node and does not travel. An address or port of 0 is not set: the wire
/// header answers instead. What is stamped here before a receive survives it, so a peer cannot forge it (decision 22).
struct packet_envelope {
    std::uint64_t arrival_clock = 0; ///< lemon_cpu_clock counts
    std::uint64_t counted_clock = 0; ///< the elapsed time is counted up to here; 0: not running
    std::uint32_t local_ip = 0;
    std::uint32_t group_ip = 0; ///< multicast group or interface
    std::uint32_t source_ip = 0;
    std::uint32_t destination_ip = 0;
    std::uint16_t source_port = 0;
    std::uint16_t destination_port = 0;
    bool was_turned_back = false; ///< backward_error_switch was asked, whatever it answered
};

/// What every struct_packet really is. Assignment of packets copies envelope and wire, nothing else.
struct packet_storage : struct_packet {
    packet_storage() = default;

    packet_envelope envelope;
    unsigned char* attached = nullptr; ///< header part only: an array given to set_data, owned here
    std::uint64_t cookie = 0;          ///< header part only: told to the release observer unless 0
    unsigned char wire[c_header_size];
};

struct header_part {
    std::atomic<std::uint32_t> nodes{1};
    packet_storage storage;
};

/// The data follows this object without a gap, so that wire header and data are one block (decision 23).
struct data_part {
    std::atomic<std::uint32_t> nodes{1};
    std::uint32_t bin = 0; ///< the recycler's
    std::uint64_t size = 0;
    packet_storage storage;

    unsigned char* get_data() { return reinterpret_cast<unsigned char*>(this) + sizeof(data_part); }
};

static_assert(offsetof(packet_storage, wire) + c_header_size == sizeof(packet_storage));
static_assert(offsetof(data_part, storage) + sizeof(packet_storage) == sizeof(data_part));

inline packet_storage& storage_of(struct_packet* packet) {
    return *static_cast<packet_storage*>(packet);
}

inline packet_storage const& storage_of(struct_packet const& packet) {
    return static_cast<packet_storage const&>(packet);
}

} // namespace Zolt::Reference_Host

namespace Zolt {

struct struct_token_node {
    std::atomic<std::uint32_t> header_handles{0}; ///< handle copies that will free the header part
    bool lent =
        false; ///< the Center was given a share; freeing through a handle does nothing until the host takes it back
    Reference_Host::header_part* header = nullptr;
    Reference_Host::data_part* data = nullptr;
};

namespace Reference_Host {

/// A token is one pointer to its node: these two convert, counting nothing.
inline struct_token_node* node_of(struct_token const& token) {
    return std::bit_cast<struct_token_node*>(token);
}

inline struct_token token_of(struct_token_node* node) {
    return std::bit_cast<struct_token>(node);
}

/// Writes an empty header: magic, version, sizes, no time limit, all else 0.
void clear_wire(unsigned char* wire);

} // namespace Reference_Host
} // namespace Zolt

#endif
