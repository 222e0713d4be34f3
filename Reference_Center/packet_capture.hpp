// Writes what a Center hands to the relay and takes from it into a capture file, as Wireshark reads it.
//
// A Center sees packets and not segments, so the headers of IP, TCP and UDP around them are made up: with the addresses and
// ports that the relay tells (of datagrams not this node's address, which is 0.0.0.0 there), sequence numbers that fit
// together, and checksums of 0. A connection's begin and end, as the relay told them, stand as SYN and FIN. What the relay
// sends and takes by itself is not there: opening blocks, heartbeats, acknowledgements by the connecting side.
//
// Thread: the Center's own one.
#ifndef REFERENCE_CENTER_PACKET_CAPTURE_HPP
#define REFERENCE_CENTER_PACKET_CAPTURE_HPP

#include "Host/zolt_packet.hpp"
#include "Reference_Center/peer.hpp"

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

namespace Zolt::Reference_Center {

class packet_capture {
public:
    using bytes = std::vector<unsigned char>;

    /// Empties the file; without a name there is none, and nothing is done. Limit: bytes of the file, beyond which it is not
    /// written any more. Throws failure.
    packet_capture(std::string const& file, std::uint64_t limit);
    ~packet_capture();
    packet_capture(packet_capture const&) = delete;
    packet_capture& operator=(packet_capture const&) = delete;

    /// Here: this node's end of the connection.
    void note_connected(peer const& who, struct_node_addr here);
    void note_disconnected(peer const& who);
    void note_arrival(peer const& from, struct_token& token);
    /// The packet as it is before the hand-over, for note_hand_over; the relay may free the token with it.
    bytes copy(struct_token& token) const;
    void note_hand_over(peer const& to, bytes const& packet);

private:
    /// What stands in the next segment of either direction; 0 is this node's.
    struct line {
        struct_node_addr here;
        std::uint32_t next[2] = {0, 0};
    };
    enum class direction { out, in };

    void note(peer const& who, direction to, struct_node_addr here, std::span<unsigned char const> packet);
    void write_segment(peer const& who, line& of, direction to, unsigned int flags,
                       std::span<unsigned char const> data);
    /// An IP packet: protocol header, then data.
    void write_packet(unsigned int protocol, peer const& who, direction to, struct_node_addr here, bytes const& header,
                      std::span<unsigned char const> data);
    void write(bytes const& record);
    void end(std::string const& reason);

    std::string const name;
    std::uint64_t const most;
    std::uint64_t written = 0;
    int fd = -1;
    std::map<peer, line> lines;
    std::uint32_t first = 0; ///< where the newest connection's numbers begin; another with the same ends needs others
};

} // namespace Zolt::Reference_Center

#endif
