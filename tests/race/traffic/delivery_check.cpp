#include "tests/race/traffic/delivery_check.hpp"

namespace traffic {
namespace {

/// A Center that is busy may hand over so many packets before it hears that their connection is gone.
constexpr std::uint32_t c_most_in_front = 20'000;
constexpr std::size_t c_most_faults = 20;

std::string text_of(Zolt::struct_node_addr const& peer) {
    return "peer " + std::to_string(peer.ip) + ":" + std::to_string(peer.port);
}

} // namespace

void delivery_check::connected(Zolt::struct_node_addr const& peer) {
    ++connections;
    if (!open.emplace(peer, connection_state{}).second) {
        found.push_back("connected twice: " + text_of(peer));
    }
}

void delivery_check::disconnected(Zolt::struct_node_addr const& peer) {
    if (open.erase(peer) == 0) {
        found.push_back("disconnected, yet never connected: " + text_of(peer));
    }
}

void delivery_check::packet(Zolt::struct_node_addr const& peer, std::optional<packet_stamp> const& stamp) {
    if (!stamp) {
        fault("not as it was sent", {});
        return;
    }
    auto const at = open.find(peer);
    if (at == open.end()) {
        fault("outside a connection of " + text_of(peer), *stamp);
        return;
    }
    if (stamp->may_be_dropped) {
        droppable_one(at->second, *stamp);
        return;
    }
    in_sequence(at->second, *stamp);
}

bool delivery_check::is_connected(Zolt::struct_node_addr const& peer) const {
    return open.contains(peer);
}

std::size_t delivery_check::count_connected() const {
    return open.size();
}

void delivery_check::in_sequence(connection_state& state, packet_stamp const& stamp) {
    ++delivered;
    std::vector<number_range>& of_stream = ranges[stamp.stream()];
    if (!state.has_packet) {
        state.range = of_stream.size();
        of_stream.push_back({stamp.number, stamp.number});
    } else if (stamp.stream() != state.stream) {
        fault("of another stream than the connection's", stamp);
        return;
    } else if (stamp.number != of_stream[state.range].last + 1) {
        fault("not the one that follows " + std::to_string(of_stream[state.range].last), stamp);
    }
    if (stamp.number == stamp.head) {
        state.has_head = true;
    } else if (state.has_packet && stamp.head != state.head) {
        fault("the connection's head is missing", stamp);
    }
    if (!state.has_head && ++state.in_front > c_most_in_front) {
        fault("too many in front of the connection's head", stamp);
    }
    of_stream[state.range].last = stamp.number;
    state.has_packet = true;
    state.stream = stamp.stream();
    state.head = stamp.head;
}

void delivery_check::droppable_one(connection_state& state, packet_stamp const& stamp) {
    ++droppable;
    if (stamp.number < state.next_droppable) {
        fault("again, or out of order", stamp);
    }
    state.next_droppable = stamp.number + 1;
}

void delivery_check::fault(std::string const& what, packet_stamp const& stamp) {
    if (found.size() < c_most_faults) {
        found.push_back(what + ": sender " + std::to_string(stamp.sender) + " flow " + std::to_string(stamp.flow) +
                        " head " + std::to_string(stamp.head) + " number " + std::to_string(stamp.number));
    }
}

} // namespace traffic
