#include "tests/race/simulation/center.hpp"

#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"
#include "Reference_Host/inbox.hpp"
#include "Reference_Host/packet_building.hpp"
#include "Reference_Host/packet_limits.hpp"
#include "Reference_Host/packet_reading.hpp"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <span>
#include <string>
#include <utility>

namespace simulation {

namespace INet_Relay = Zolt::Center::INet_Relay;
using namespace Zolt::Reference_Host;
using Zolt::struct_packet;
using Zolt::struct_token;

namespace {

unsigned char filler(serial const& what, std::size_t at) {
    return static_cast<unsigned char>(what.sender * 31 + what.epoch * 17 + what.number * 7 + at);
}

std::string text_of(struct_node_addr peer) {
    return std::to_string(peer.ip >> 24) + ":" + std::to_string(peer.port);
}

} // namespace

std::vector<unsigned char> make_data(serial const& what) {
    serial written = what;
    written.size = std::max<std::uint32_t>(what.size, sizeof written);
    std::vector<unsigned char> data(written.size);
    std::memcpy(data.data(), &written, sizeof written);
    for (std::size_t at = sizeof written; at < data.size(); ++at) {
        data[at] = filler(written, at);
    }
    return data;
}

bool read_data(unsigned char const* data, std::size_t size, serial& what) {
    if (size < sizeof what) {
        return false;
    }
    std::memcpy(&what, data, sizeof what);
    for (std::size_t at = sizeof what; at < size; ++at) {
        if (data[at] != filler(what, at)) {
            return false;
        }
    }
    return what.size == size;
}

center* center::current = nullptr;

center::center() {
    current = this;
    set_release_observer([](std::uint64_t sequence, struct_packet const&) { current->untaken_maybe.erase(sequence); });
}

center::~center() {
    set_release_observer(nullptr);
}

void center::open() {
    get_center_inbox().resume();
    consumer = spawn("center", [this] { consume(); });
}

void center::refuse() {
    get_center_inbox().stop();
}

void center::close() {
    closing = true;
    wait_for("center's end", [this] { return has_ended(consumer); });
    get_center_inbox().stop();
    // A packet for a connection that is being withdrawn is answered like one that was taken, and is not (known limit).
    for (auto& [sequence, token] : std::exchange(untaken_maybe, {})) {
        token.free();
    }
}

int center::count_connected(side which) const {
    return static_cast<int>(std::count_if(peers.begin(), peers.end(), [which](auto const& entry) {
        return entry.first.first == which && entry.second.open != 0;
    }));
}

std::vector<struct_node_addr> center::list_connected(side which) const {
    std::vector<struct_node_addr> found;
    for (auto const& [name, peer] : peers) {
        if (name.first == which && peer.open != 0) {
            found.push_back(name.second);
        }
    }
    return found;
}

bool center::hand_over(side which, struct_node_addr peer, packet_kind kind, std::uint32_t size) {
    packet_plan plan;
    plan.kind = kind;
    plan.destination = {peer.ip, peer.port, 0};
    plan.sequence = next_sequence++;
    auto const data = make_data({0, 0, static_cast<std::uint32_t>(plan.sequence), size});
    struct_token token = make_packet(plan, std::span(data.data(), size == 0 ? 0 : data.size()));
    out.insert(plan.sequence);
    if (which == side::outgoing) {
        set_cookie(*token.get_header_packet(), plan.sequence);
        untaken_maybe.emplace(plan.sequence, token);
    }
    auto const send = which == side::accepted ? INet_Relay::send_tcp_server : INet_Relay::send_tcp_client;
    if (send(peer, token, token.get_header_packet()) == 0) {
        return true;
    }
    out.erase(plan.sequence);
    untaken_maybe.erase(plan.sequence);
    token.free();
    return false;
}

void center::broadcast(std::uint32_t size) {
    auto const data = make_data({0, 0, 0, size});
    struct_token token = make_packet({}, data);
    INet_Relay::send_tcp_broadcast(token, token.get_header_packet());
    token.free();
}

void center::consume() {
    using std::chrono::milliseconds;
    for (;;) {
        wait_for("inbox", [this] { return closing || get_center_inbox().count().packets != 0; });
        struct_token token;
        if (get_center_inbox().take(std::span(&token, 1), milliseconds(0)) == 1) {
            take(token);
            token.free();
        } else if (closing) {
            return;
        }
    }
}

void center::take(struct_token& token) {
    struct_packet const& packet = *token.get_header_packet();
    if (is_control(packet)) {
        take_notice(packet);
    } else if (get_kind(packet) == packet_kind::error) {
        take_returned(packet);
    } else if (token.has_data()) {
        take_data(token);
    }
}

void center::take_notice(struct_packet const& packet) {
    connection_event const event = get_event(packet);
    bool const is_outgoing =
        event == connection_event::connected_to_server || event == connection_event::disconnected_from_server;
    bool const is_connected =
        event == connection_event::connected_to_server || event == connection_event::connected_from_client;
    packet_end const end = get_source(packet);
    side const which = is_outgoing ? side::outgoing : side::accepted;
    struct_node_addr const name{end.ip, end.port};
    peer_state& peer = peers[{which, name}];
    peer.open += is_connected ? 1 : -1;
    note("center: " + text_of(name) + (is_connected ? " connected" : " disconnected"));
    require(peer.open >= 0, "a connection was told to have ended that had not begun");
    if (on_notice) {
        on_notice(which, name, is_connected);
    }
}

side center::side_of(struct_node_addr peer) const {
    return peers.contains({side::outgoing, peer}) ? side::outgoing : side::accepted;
}

void center::take_data(struct_token& token) {
    packet_end const end = get_source(*token.get_header_packet());
    struct_node_addr const name{end.ip, end.port};
    std::span<unsigned char> const data = get_data_span(token);
    serial what;
    require(read_data(data.data(), data.size(), what), "a packet arrived damaged");
    peer_state& peer = peers[{side_of(name), name}];
    require(peer.open > 0, "a packet arrived of a peer that is not connected");
    std::uint32_t& expected = peer.next_number[{what.sender, what.epoch}];
    if (what.number != expected) {
        fail("a packet is missing, twice or out of order: " + std::to_string(what.number) + " where " +
             std::to_string(expected) + " was due");
    }
    ++expected;
}

void center::take_returned(struct_packet const& packet) {
    // Copies of a broadcast carry no number of their own.
    if (get_sequence(packet) != 0) {
        require(out.erase(get_sequence(packet)) == 1, "a packet came back twice, or was never handed over");
    }
}

} // namespace simulation
