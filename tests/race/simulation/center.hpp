// The Center of the simulated node, and what it checks of everything the relay tells it.
//
//   notices    a peer's connections open and close in turn, never more closed than opened
//   packets    of one connection of a peer: numbered without a gap, each whole, none before the notice or after the end
//   returned   a packet that comes back was handed over, did not arrive, and comes back once
#ifndef TESTS_RACE_SIMULATION_CENTER_HPP
#define TESTS_RACE_SIMULATION_CENTER_HPP

#include "Host/zolt_packet.hpp"
#include "Reference_Host/packet_layout.hpp"
#include "tests/race/simulation/scheduler.hpp"

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <vector>

namespace simulation {

using Zolt::struct_node_addr;
using Zolt::Reference_Host::packet_kind;

enum class side { accepted, outgoing };

/// What a packet's data begins with; both directions, so that each end can check the other's.
struct serial {
    std::uint32_t sender = 0; ///< the peer's number; 0 is the Center
    std::uint32_t epoch = 0;  ///< which of its connections
    std::uint32_t number = 0; ///< counted from 0
    std::uint32_t size = 0;   ///< bytes of the whole data
};

/// Data of that many bytes, at least sizeof(serial), that says what it is in every byte.
std::vector<unsigned char> make_data(serial const& what);
/// False when a byte is not as make_data made it.
bool read_data(unsigned char const* data, std::size_t size, serial& what);

class center {
public:
    center();
    ~center();
    center(center const&) = delete;
    center& operator=(center const&) = delete;

    /// Begins to take what the relay offers.
    void open();
    /// Refuses from now on: the Center is about to stop the relay.
    void refuse();
    /// Takes what is left and ends.
    void close();

    /// Called by the Center's actor for each notice, outside all locks.
    std::function<void(side, struct_node_addr, bool is_connected)> on_notice;
    /// How many peers are connected now, of a side.
    int count_connected(side which) const;
    std::vector<struct_node_addr> list_connected(side which) const;

    /// Hands a packet to a peer. False when the relay does not know it.
    bool hand_over(side which, struct_node_addr peer, packet_kind kind, std::uint32_t size);
    /// The same packet to all accepted ones.
    void broadcast(std::uint32_t size);

private:
    struct peer_state {
        int open = 0;
        std::map<std::pair<std::uint32_t, std::uint32_t>, std::uint32_t> next_number;
    };
    using peer_name = std::pair<side, struct_node_addr>;

    static center* current; ///< there is one at a time

    void consume();
    void take(Zolt::struct_token& token);
    void take_notice(Zolt::struct_packet const& packet);
    void take_data(Zolt::struct_token& token);
    void take_returned(Zolt::struct_packet const& packet);
    side side_of(struct_node_addr peer) const;

    std::map<peer_name, peer_state> peers;
    std::set<std::uint64_t> out;                               ///< sequences handed over and not returned
    std::map<std::uint64_t, Zolt::struct_token> untaken_maybe; ///< outgoing: until the relay has let go of them
    std::uint64_t next_sequence = 1;
    bool closing = false;
    actor consumer = -1;
};

} // namespace simulation

#endif
