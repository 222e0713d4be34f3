#include "tests/race/traffic/traffic_center.hpp"

#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"
#include "Reference_Host/inbox.hpp"
#include "Reference_Host/packet_limits.hpp"
#include "Reference_Host/packet_reading.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <span>

namespace traffic {
namespace {

namespace relay = Zolt::Center::INet_Relay;
namespace host = Zolt::Reference_Host;

constexpr std::size_t c_batch = 256;
constexpr std::uint64_t c_window = 1024; ///< packets queued for one peer
constexpr std::uint32_t c_droppable_each = 64;

/// How the packets of one flow ended; the cookie of a packet is its flow's number and 1.
struct flow_ends {
    std::atomic<std::uint64_t> written{0};
    std::atomic<std::uint64_t> returned{0};
    std::atomic<std::uint64_t> dropped{0};
};

constinit std::array<flow_ends, c_most_flows> g_ends;
thread_local bool t_hands_over = false;

/// A packet that ends inside the hand-over was dropped there: no other thread is given a packet of this kind.
void note_end(std::uint64_t cookie, Zolt::struct_packet const& packet) {
    flow_ends& ends = g_ends[cookie - 1];
    if (t_hands_over) {
        ends.dropped.fetch_add(1, std::memory_order_relaxed);
    } else if (host::get_error(packet) != Zolt::c_zolt_err_none) {
        ends.returned.fetch_add(1, std::memory_order_relaxed);
    } else {
        ends.written.fetch_add(1, std::memory_order_relaxed);
    }
}

auto operation_for(bool is_outgoing) {
    return is_outgoing ? relay::send_tcp_client : relay::send_tcp_server;
}

/// True when the relay took the packet; else it is freed.
bool give_to_relay(Zolt::struct_node_addr const& peer, bool is_outgoing, Zolt::struct_token& token) {
    t_hands_over = true;
    bool const is_taken = operation_for(is_outgoing)(peer, token, token.get_header_packet()) == 0;
    t_hands_over = false;
    if (!is_taken) {
        host::set_cookie(*token.get_header_packet(), 0);
        token.free();
    }
    return is_taken;
}

void append(std::vector<number_range>& ranges, std::uint32_t number) {
    if (!ranges.empty() && number == ranges.back().last + 1) {
        ranges.back().last = number;
    } else {
        ranges.push_back({number, number});
    }
}

Zolt::struct_node_addr source_of(Zolt::struct_packet const& packet) {
    host::packet_end const source = host::get_source(packet);
    return {source.ip, source.port};
}

} // namespace

traffic_center::traffic_center(std::uint16_t number) : sender(number) {
    host::set_release_observer(note_end);
    worker = std::thread([this] { work(); });
}

traffic_center::~traffic_center() {
    is_over = true;
    host::get_center_inbox().wake();
    worker.join();
}

void traffic_center::send(bool on) {
    is_sending = on;
    host::get_center_inbox().wake();
}

void traffic_center::stuff(Zolt::struct_node_addr const& peer, int count, std::uint32_t size) {
    std::lock_guard const hold(guard);
    for (int i = 0; i < count; ++i) {
        Zolt::struct_token token = make_ballast(size);
        stuffed += give_to_relay(peer, false, token);
    }
}

void traffic_center::work() {
    std::array<Zolt::struct_token, c_batch> tokens;
    while (!is_over) {
        std::size_t const count = host::get_center_inbox().take(tokens, std::chrono::milliseconds(1));
        std::lock_guard const hold(guard);
        for (Zolt::struct_token& token : std::span(tokens).first(count)) {
            take(token);
            token.free();
        }
        for (std::uint8_t number = 0; number < flows.size() && is_sending; ++number) {
            fill(number);
        }
    }
}

void traffic_center::take(Zolt::struct_token& token) {
    Zolt::struct_packet const& packet = *token.get_header_packet();
    switch (host::get_kind(packet)) {
    case host::packet_kind::control:
        take_notice(packet);
        return;
    case host::packet_kind::error:
        take_returned(packet);
        return;
    default:
        check.packet(source_of(packet), read_stamp(token));
    }
}

void traffic_center::take_notice(Zolt::struct_packet const& notice) {
    host::connection_event const event = host::get_event(notice);
    Zolt::struct_node_addr const peer = source_of(notice);
    bool const is_outgoing = event == host::connection_event::connected_to_server ||
                             event == host::connection_event::disconnected_from_server;
    if (event == host::connection_event::connected_to_server ||
        event == host::connection_event::connected_from_client) {
        check.connected(peer);
        open_flow(peer, is_outgoing);
    } else {
        check.disconnected(peer);
        close_flow(peer, is_outgoing);
    }
}

void traffic_center::take_returned(Zolt::struct_packet const& packet) {
    packet_stamp const stamp = read_returned_stamp(packet);
    ++came_back;
    if (!stamp.may_be_dropped) {
        append(flows.at(stamp.flow).returned, stamp.number);
    }
}

void traffic_center::open_flow(Zolt::struct_node_addr const& peer, bool is_outgoing) {
    // A destination keeps its flow; one that connected here comes from another port each time and takes over a closed one.
    auto const place = std::ranges::find_if(flows, [&](flow_state const& flow) {
        return flow.is_outgoing == is_outgoing && !flow.is_open && (!is_outgoing || flow.peer == peer);
    });
    flow_state& flow = place != flows.end() ? *place : flows.emplace_back();
    flow.peer = peer;
    flow.is_outgoing = is_outgoing;
    flow.is_open = true;
    flow.head = flow.next;
}

void traffic_center::close_flow(Zolt::struct_node_addr const& peer, bool is_outgoing) {
    for (flow_state& flow : flows) {
        if (flow.is_outgoing == is_outgoing && flow.peer == peer) {
            flow.is_open = false;
        }
    }
}

void traffic_center::fill(std::uint8_t number) {
    flow_state& flow = flows[number];
    std::uint32_t const first = flow.next;
    while (flow.is_open && flow.next - first < c_batch && queued(number) < c_window) {
        if (!hand_over(number, false)) {
            return;
        }
        if (flow.next % c_droppable_each == 0) {
            hand_over(number, true);
        }
    }
}

bool traffic_center::hand_over(std::uint8_t number, bool may_be_dropped) {
    flow_state& flow = flows[number];
    std::uint32_t& next = may_be_dropped ? flow.next_droppable : flow.next;
    Zolt::struct_token token = make_stamped({sender, number, may_be_dropped, flow.head, next}, flow.is_outgoing);
    host::set_cookie(*token.get_header_packet(), std::uint64_t{number} + 1);
    if (!give_to_relay(flow.peer, flow.is_outgoing, token)) {
        ++refused;
        return false;
    }
    ++next;
    ++flow.handed;
    return true;
}

std::uint64_t traffic_center::queued(std::uint8_t number) const {
    flow_ends const& ends = g_ends[number];
    return flows[number].handed - ends.written - ends.returned - ends.dropped;
}

std::vector<std::string> traffic_center::report() {
    std::lock_guard const hold(guard);
    std::vector<std::string> lines;
    auto const figure = [&](std::string const& name, std::uint64_t value) {
        lines.push_back("figure " + name + " " + std::to_string(value));
    };
    auto const range = [&](std::string const& name, stream_id stream, number_range of) {
        lines.push_back(name + " " + std::to_string(stream.first) + " " + std::to_string(stream.second) + " " +
                        std::to_string(of.first) + " " + std::to_string(of.last));
    };
    hand_over_counts all;
    for (std::uint8_t number = 0; number < flows.size(); ++number) {
        flow_state const& flow = flows[number];
        all.handed += flow.handed;
        all.written += g_ends[number].written;
        all.returned += g_ends[number].returned;
        all.dropped += g_ends[number].dropped;
        if (flow.is_open && flow.next != flow.head) {
            range("under_way", {sender, number}, {flow.head, flow.next - 1});
        }
        for (number_range const& back : flow.returned) {
            range("returned", {sender, number}, back);
        }
    }
    for (auto const& [stream, runs] : check.received()) {
        for (number_range const& run : runs) {
            range("received", stream, run);
        }
    }
    figure("handed", all.handed);
    figure("written", all.written);
    figure("returned", all.returned);
    figure("dropped", all.dropped);
    figure("queued", all.queued());
    figure("refused", refused);
    figure("stuffed", stuffed);
    figure("came_back", came_back);
    figure("delivered", check.count_delivered());
    figure("droppable", check.count_droppable());
    figure("connections", check.count_connections());
    figure("connected", check.count_connected());
    for (std::string const& fault : check.faults()) {
        lines.push_back("fault " + fault);
    }
    return lines;
}

} // namespace traffic
