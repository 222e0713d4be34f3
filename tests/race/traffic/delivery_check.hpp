// What a receiver checks of all that its relay brings, as a Center sees it.
//
//   - notices "connected" and "disconnected" alternate for each peer, and each packet lies between those of its connection
//   - over one connection the packets of a stream come without a gap, none twice, none out of order
//   - a connection begins with the first packet that the sender handed over once it had heard of the connection. What
//     it handed over before hearing that the last connection was gone may go in front
//
// That no packet comes over two connections is seen in the ranges: none of a stream may meet another. The last packets of
// an ended connection may come after the first of its successor, which for the accepting side is another peer.
#ifndef TESTS_RACE_TRAFFIC_DELIVERY_CHECK_HPP
#define TESTS_RACE_TRAFFIC_DELIVERY_CHECK_HPP

#include "Host/zolt_packet.hpp"
#include "tests/race/traffic/stamped_packet.hpp"

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace traffic {

/// Numbers that follow each other, both included.
struct number_range {
    std::uint32_t first = 0;
    std::uint32_t last = 0;
};

class delivery_check {
public:
    void connected(Zolt::struct_node_addr const& peer);
    void disconnected(Zolt::struct_node_addr const& peer);
    /// Nothing: the packet was not whole.
    void packet(Zolt::struct_node_addr const& peer, std::optional<packet_stamp> const& stamp);

    bool is_connected(Zolt::struct_node_addr const& peer) const;
    std::size_t count_connected() const;
    /// How often a connection has begun.
    std::uint64_t count_connections() const { return connections; }
    /// Packets of the kind that is never dropped.
    std::uint64_t count_delivered() const { return delivered; }
    /// Those of the other kind.
    std::uint64_t count_droppable() const { return droppable; }
    /// What has arrived, by stream; one range a connection.
    std::map<stream_id, std::vector<number_range>> const& received() const { return ranges; }
    /// What was wrong, the first twenty.
    std::vector<std::string> const& faults() const { return found; }

private:
    /// What has come over one connection so far.
    struct connection_state {
        bool has_packet = false;
        bool has_head = false;
        stream_id stream{};
        std::size_t range = 0; ///< its place among those of the stream
        std::uint32_t head = 0;
        std::uint32_t in_front = 0; ///< packets before the head
        std::uint32_t next_droppable = 0;
    };

    void in_sequence(connection_state& state, packet_stamp const& stamp);
    void droppable_one(connection_state& state, packet_stamp const& stamp);
    void fault(std::string const& what, packet_stamp const& stamp);

    std::map<Zolt::struct_node_addr, connection_state> open;
    std::map<stream_id, std::vector<number_range>> ranges;
    std::vector<std::string> found;
    std::uint64_t connections = 0;
    std::uint64_t delivered = 0;
    std::uint64_t droppable = 0;
};

} // namespace traffic

#endif
