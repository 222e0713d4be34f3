// A node and one connection of it, whose other end the target holds.
#ifndef TESTS_FUZZ_FUZZED_LINK_HPP
#define TESTS_FUZZ_FUZZED_LINK_HPP

#include "Host/zolt_packet.hpp"
#include "tests/fuzz/raw_peer.hpp"
#include "tests/fuzz/stream_model.hpp"
#include "tests/race/simulation/node.hpp"

#include <optional>

namespace fuzz {

/// Before that much silence the timer ends no connection and no exchange.
inline constexpr simulation::moment c_shortest_silence = 8000000;

class fuzzed_link {
public:
    /// The peer connects to the node, or the node to the peer. Nothing of the exchange has been sent by the peer.
    explicit fuzzed_link(stream_side which);
    fuzzed_link(fuzzed_link const&) = delete;
    fuzzed_link& operator=(fuzzed_link const&) = delete;

    raw_peer& peer() { return *other_end; }
    /// The peer's name in the node's registries.
    Zolt::struct_node_addr name() const { return peer_name; }
    /// False once so much time has passed that the timer may have ended the connection.
    bool is_young() const { return simulation::now() - began_at < c_shortest_silence; }
    /// Withdraws the destination, of the outgoing side; once.
    void withdraw();
    /// Fails when the bytes are not the block that the node sends, or the first part of it.
    void check_block_of_node() const;
    /// Waits until nothing is left of the connection and the Center was told everything, then ends the node.
    void end();

private:
    stream_side side;
    simulation::node the_node;
    simulation::kernel& host;
    std::optional<raw_peer> other_end;
    Zolt::struct_node_addr peer_name;
    simulation::moment began_at = 0;
    bool is_registered = false;
};

} // namespace fuzz

#endif
