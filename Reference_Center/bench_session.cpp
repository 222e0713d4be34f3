#include "Reference_Center/bench_session.hpp"

#include "Reference_Center/addresses.hpp"
#include "Reference_Center/failure.hpp"
#include "Reference_Center/link_message.hpp"

#include <algorithm>
#include <fmt/format.h>

namespace Zolt::Reference_Center {
namespace {

using Reference_Host::packet_kind;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr bench_time c_look_every = 100'000'000;

way way_of(bench_kind kind) {
    switch (kind) {
    case bench_kind::tcp:
        return way::outgoing;
    case bench_kind::udp:
        return way::udp;
    case bench_kind::broadcast:
        break;
    }
    return way::accepted;
}

/// Writes a data part that is new here: memory that nobody has written to would be read without being there.
void touch(struct_token& token) {
    constexpr unsigned char c_touched = 0x5A;
    auto const data = Reference_Host::get_data_span(token);
    if (!data.empty() && (data.front() != c_touched || data.back() != c_touched)) {
        std::fill(data.begin(), data.end(), c_touched);
    }
}

} // namespace

bench_session::bench_session(bench_plan const& wanted, center_plan const& node_plan, stop_signals const& watched)
    : plan(wanted), signals(watched), node(node_plan, *this) {
    for (struct_node_addr const destination : plan.destinations) {
        peer const who{destination, way_of(plan.kind)};
        numbers.emplace(who, peers.size());
        peers.push_back({who});
    }
}

void bench_session::use(bench_load& wanted, bench_progress& shown) {
    load = &wanted;
    progress = &shown;
}

void bench_session::connect(milliseconds longest) {
    if (plan.kind == bench_kind::udp) {
        return;
    }
    auto const deadline = steady_clock::now() + longest;
    auto const wait_for = [&](std::size_t wanted) {
        while (connected < wanted && may_go_on() && steady_clock::now() < deadline) {
            serve(bench_now(), milliseconds(10));
        }
    };
    // One after the other: a relay accepts one connection for each time that it is told of any.
    for (std::size_t i = 0; i < peers.size() && may_go_on(); ++i) {
        node.connect(peers[i].who.address);
        wait_for(i + 1);
    }
    wait_for(plan.peers);
    if (connected < plan.peers) {
        throw failure(signals.is_requested() ? exit_code::interrupted : exit_code::unreachable,
                      !trouble.empty() ? trouble
                                       : fmt::format("{} of {} peers are connected after {} seconds", connected,
                                                     plan.peers, static_cast<double>(longest.count()) / 1000));
    }
}

std::string bench_session::name_of(std::size_t number) const {
    return address_text(peers[number].who.address);
}

bool bench_session::send(std::size_t to, std::uint64_t number, packet_kind kind, std::uint16_t flags) {
    peer const& who = peers[to].who;
    bool const is_taken = node.send(who, make(who.address, to, number, kind, flags));
    if (is_taken) {
        ++handed_over;
    } else {
        note_end(peers[to]); // its notice may still be on its way
    }
    return is_taken;
}

void bench_session::broadcast(std::uint64_t number) {
    node.send_to_all_accepted(make({}, 0, number, packet_kind::data, 0));
    handed_over += peers.size();
}

struct_token bench_session::make(struct_node_addr to, std::size_t code, std::uint64_t number, packet_kind kind,
                                 std::uint16_t flags) const {
    Reference_Host::packet_plan packet;
    packet.kind = kind;
    packet.destination = {to.ip, to.port, 0};
    packet.code = static_cast<std::uint32_t>(code);
    packet.sequence = number;
    packet.flags = flags;
    struct_token token = Reference_Host::make_packet(packet, plan.size);
    touch(token);
    return token;
}

void bench_session::serve(bench_time now, std::chrono::nanoseconds longest) {
    node.serve(longest);
    if (now >= look_due) {
        look_due = now + c_look_every;
        look_after(now);
    }
}

void bench_session::look_after(bench_time now) {
    if (progress != nullptr) {
        progress->show(now);
    }
    try {
        if (far != nullptr) {
            far->look();
        }
    } catch (failure const& reason) {
        trouble = reason.what();
        far = nullptr;
    }
}

void bench_session::stop() {
    rest();
    node.stop();
}

bench_session::bench_peer* bench_session::find(peer const& who) {
    auto const known = numbers.find(who);
    return known != numbers.end() ? &peers[known->second] : nullptr;
}

void bench_session::on_connected(peer const& who) {
    if (plan.kind == bench_kind::broadcast && who.via == way::accepted && peers.size() < plan.peers &&
        numbers.emplace(who, peers.size()).second) {
        peers.push_back({who});
    }
    if (bench_peer* const one = find(who); one != nullptr && !one->is_connected) {
        one->is_connected = true;
        ++connected;
    }
}

void bench_session::on_disconnected(peer const& who) {
    if (bench_peer* const one = find(who)) {
        note_end(*one);
    }
}

void bench_session::note_end(bench_peer& one) {
    one.has_ended = true;
    if (trouble.empty()) {
        trouble = fmt::format("the connection to {} has ended", address_text(one.who.address));
    }
}

/// Any number that is no peer's for a packet that is not of this load.
std::size_t bench_session::index_of(struct_packet const& header, struct_node_addr from) const {
    if (plan.kind != bench_kind::broadcast) {
        return Reference_Host::get_code(header);
    }
    auto const known = numbers.find({from, way::accepted});
    return known != numbers.end() ? known->second : peers.size();
}

void bench_session::on_packet(arrival const& packet) {
    bool const is_answer = packet.header.is_call_return_ack() || get_message(packet.header) == link_message::echo;
    std::size_t const from = index_of(packet.header, packet.from.address);
    if (load != nullptr && is_answer && from < peers.size()) {
        progress->count();
        load->on_answer(from, Reference_Host::get_sequence(packet.header));
    }
}

void bench_session::on_returned(struct_packet const& header) {
    auto const source = Reference_Host::get_source(header);
    std::size_t const from = index_of(header, {source.ip, source.port});
    if (load != nullptr && from < peers.size()) {
        load->on_returned(from, Reference_Host::get_sequence(header));
    }
}

} // namespace Zolt::Reference_Center
