#include "Reference_Center/center.hpp"

#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"
#include "Reference_Center/configuration.hpp"
#include "Reference_Center/error_description.hpp"
#include "Reference_Center/failure.hpp"
#include "Reference_Center/output.hpp"
#include "Reference_Center/port_holder.hpp"
#include "Reference_Host/inbox.hpp"
#include "Reference_Host/output_sink.hpp"
#include "Reference_Host/packet_limits.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <future>
#include <span>
#include <thread>
#include <unistd.h>

namespace Zolt::Reference_Center {
namespace {

using Reference_Host::connection_event;
using Reference_Host::get_center_inbox;
using Reference_Host::packet_kind;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds c_port_retry{200};
constexpr milliseconds c_drain_time{1000};

/// Waits until the port can be served, for as long as the plan says. Throws failure.
void wait_for_port(std::uint16_t port, steady_clock::time_point deadline, stop_signals const* signals) {
    port_trouble trouble = try_port(port);
    if (trouble.error == EADDRINUSE && steady_clock::now() < deadline) {
        log_event("waiting for port " + std::to_string(port) + ", which is taken");
    }
    while (trouble.error != 0) {
        if (signals != nullptr && signals->is_requested()) {
            throw failure(exit_code::interrupted, describe(port, trouble));
        }
        if (steady_clock::now() >= deadline || trouble.error != EADDRINUSE) {
            throw failure(exit_code::port_unavailable, describe(port, trouble));
        }
        std::this_thread::sleep_for(c_port_retry);
        trouble = try_port(port);
    }
}

void serve_port(std::uint16_t port) {
    int const error = Center::INet_Relay::add_server(port);
    if (error != 0) {
        throw failure(exit_code::port_unavailable,
                      fmt::format("port {} cannot be served: {}", port, describe_error(error)));
    }
}

/// The acknowledgement of a call or signal, addressed back.
struct_token make_acknowledgement(struct_packet& call) {
    Reference_Host::packet_plan answer;
    answer.kind = call.is_call_return() ? packet_kind::call_return_ack : packet_kind::signal_return_ack;
    answer.source = Reference_Host::get_destination(call);
    answer.destination = Reference_Host::get_source(call);
    answer.code = Reference_Host::get_code(call);
    answer.flags = Reference_Host::get_flags(call);
    answer.sequence = Reference_Host::get_sequence(call);
    return Reference_Host::make_packet(answer);
}

struct_node_addr source_of(struct_packet const& header) {
    auto const source = Reference_Host::get_source(header);
    return {source.ip, source.port};
}

struct_node_addr destination_of(struct_packet const& header) {
    auto const destination = Reference_Host::get_destination(header);
    return {destination.ip, destination.port};
}

/// Packets out of the inbox, freed whatever happens to them in between.
class packet_batch {
public:
    packet_batch(std::span<struct_token> room, std::chrono::nanoseconds longest)
        : tokens(room.first(get_center_inbox().take(room, longest))) {}
    ~packet_batch() {
        for (struct_token& token : tokens) {
            token.free();
        }
    }
    packet_batch(packet_batch const&) = delete;
    packet_batch& operator=(packet_batch const&) = delete;

    std::span<struct_token> const tokens;
};

} // namespace

char const* way_text(way via) {
    switch (via) {
    case way::udp:
        return "udp";
    case way::accepted:
        return "accepted";
    case way::outgoing:
        return "outgoing";
    }
    return "";
}

center::center(center_plan const& wanted, center_user& of)
    : plan(wanted), user(of), known(wanted.ports, wanted.max_queue_bytes),
      capture(wanted.capture, wanted.capture_limit) {
    use_configuration(plan.configuration);
    auto const deadline = steady_clock::now() + plan.wait_for_ports;
    for (std::uint16_t const port : plan.ports) {
        wait_for_port(port, deadline, plan.signals);
    }
    Reference_Host::set_max_data_size(plan.max_packet);
    open_hand_over_book();
    get_center_inbox().resume();
    start();
}

void center::start() {
    try {
        Center::INet_Relay::initialize();
        for (std::uint16_t const port : plan.ports) {
            serve_port(port);
        }
    } catch (std::string const& text) {
        Center::INet_Relay::finalize();
        throw failure(exit_code::failed, "the relay could not start: " + text);
    } catch (...) {
        Center::INet_Relay::finalize();
        throw;
    }
    Center::INet_Relay::start();
    runs = true;
    watch();
}

void center::watch() {
    milliseconds period{1000};
    if (plan.manager != nullptr && plan.manager->patience()) {
        // Half of the manager's patience: one late time is no reason to end the process.
        period = std::clamp(std::chrono::floor<milliseconds>(*plan.manager->patience() / 2), milliseconds(1), period);
    }
    known.note_running(std::make_unique<node_watch>(known.observer().take_listening(), period, [this] {
        if (known.tick() && plan.manager != nullptr) {
            plan.manager->tell_alive();
        }
    }));
}

center::~center() {
    stop();
}

void center::stop() {
    if (!runs) {
        return;
    }
    runs = false;
    known.note_stopping();
    get_center_inbox().stop();
    std::promise<void> stopped;
    std::future<void> const end = stopped.get_future();
    std::thread stopper([&stopped] {
        Center::INet_Relay::stop();
        Center::INet_Relay::finalize();
        // What is queued now counts as queued; that it is freed below is no outcome.
        close_hand_over_book();
        Center::INet_Relay::clear_leftovers();
        stopped.set_value();
    });
    if (end.wait_for(plan.stop_timeout) != std::future_status::ready) {
        write_error_line("zolt-center: the relay did not stop in time; the process is cut off");
        ::_exit(static_cast<int>(exit_code::failed));
    }
    stopper.join();
    while (!packet_batch(taken, milliseconds(0)).tokens.empty()) {
    }
    known.note_stopped();
    // The relay's last lines tell of datagrams that failed.
    Reference_Host::drain_output(c_drain_time);
}

void center::serve(std::chrono::nanoseconds longest) {
    packet_batch const batch(taken, longest);
    for (struct_token& token : batch.tokens) {
        dispatch(token);
    }
}

bool center::serve_until(steady_clock::time_point deadline, std::function<bool()> const& condition) {
    while (!condition()) {
        milliseconds longest = c_look_around;
        if (deadline != steady_clock::time_point::max()) {
            auto const now = steady_clock::now();
            if (now >= deadline) {
                return false;
            }
            longest = std::min(longest, std::chrono::ceil<milliseconds>(deadline - now));
        }
        serve(longest);
    }
    return true;
}

void center::dispatch(struct_token& token) {
    struct_packet& header = *token.get_header_packet();
    // Only what the relay itself made has no arrival clock: its notices, and this node's packets on their way back.
    if (Reference_Host::get_arrival_clock(header) != 0) {
        receive(token, header);
    } else if (Reference_Host::is_control(header)) {
        notice(header);
    } else {
        user.on_returned(header);
    }
}

void center::notice(struct_packet const& header) {
    connection_event const event = Reference_Host::get_event(header);
    bool const is_accepted =
        event == connection_event::connected_from_client || event == connection_event::disconnected_from_client;
    peer const who{source_of(header), is_accepted ? way::accepted : way::outgoing};
    if (event == connection_event::connected_from_client || event == connection_event::connected_to_server) {
        connected[who] = Reference_Host::get_destination(header).port;
        known.note_connected(who);
        capture.note_connected(who, {Reference_Host::get_local_ip(header), connected[who]});
        user.on_connected(who);
    } else {
        if (known.note_disconnected(who, end_of(header))) {
            connected.erase(who);
        }
        capture.note_disconnected(who);
        user.on_disconnected(who);
    }
}

void center::receive(struct_token& token, struct_packet& header) {
    // The relay stamps this on datagrams only.
    bool const is_datagram = header.get_mct_ip() == c_local_host;
    peer const from{source_of(header), is_datagram ? way::udp : find_way(header)};
    known.note_arrival(from, Reference_Host::get_data_span(token).size());
    capture.note_arrival(from, token);
    if (from.via == way::accepted && (header.is_call_return() || header.is_signal_return())) {
        send(from, make_acknowledgement(header));
    }
    user.on_packet({token, header, from});
}

way center::find_way(struct_packet const& header) const {
    auto const accepted = connected.find({source_of(header), way::accepted});
    if (accepted == connected.end()) {
        return way::outgoing;
    }
    bool const is_both = connected.contains({accepted->first.address, way::outgoing});
    // Of two connections with one address, each has the port by which the peer knows this node.
    return is_both && accepted->second != Reference_Host::get_destination(header).port ? way::outgoing : way::accepted;
}

void center::connect(struct_node_addr destination) {
    {
        connection_observer::adding const adds(known.observer(), destination);
        Center::INet_Relay::add_client(destination.ip, destination.port);
    }
    known.note_destination(destination);
}

void center::withdraw(struct_node_addr destination) {
    bool const is_last = known.observer().withdraw(destination);
    Center::INet_Relay::del_client(destination.ip, destination.port);
    if (is_last) {
        known.note_withdrawn(destination);
    }
}

bool center::may_hand_over(peer const& to, struct_token& token) const {
    // The relay takes nothing for a connection that was withdrawn, and does not say so.
    if (to.via == way::outgoing && !known.is_wanted(to.address)) {
        note_not_connected();
        return false;
    }
    if (!known.has_room(to, travelling_size(token))) {
        note_refused_by_limit();
        return false;
    }
    return true;
}

bool center::send(peer const& to, struct_token token, std::uint32_t number) {
    if (!may_hand_over(to, token)) {
        token.free();
        return false;
    }
    struct_packet* const header = token.get_header_packet();
    std::uint64_t const size = header->get_data_size();
    packet_capture::bytes const copy = capture.copy(token);
    std::shared_ptr<peer_counts> const& counts = known.find_counts(to);
    hand_over const mark(token, number, counts);
    int result = 0;
    switch (to.via) {
    case way::udp:
        Center::INet_Relay::send_udp(token, header);
        break;
    case way::accepted:
        result = Center::INet_Relay::send_tcp_server(to.address, token, header);
        break;
    case way::outgoing:
        result = Center::INet_Relay::send_tcp_client(to.address, token, header);
        break;
    }
    if (result == 0) {
        known.note_hand_over(to.via, *counts, size);
        capture.note_hand_over(to, copy);
        return true;
    }
    hand_over::was_refused(token);
    token.free();
    return false;
}

bool center::send_to_all_accepted(struct_token token) {
    bool const has_room = std::all_of(connected.begin(), connected.end(), [&](auto const& entry) {
        return entry.first.via != way::accepted || known.has_room(entry.first, travelling_size(token));
    });
    if (has_room) {
        packet_capture::bytes const bytes = capture.copy(token);
        std::vector<peer> reached;
        known.observer().mark_copies([&](struct_token& copy) {
            peer const& to = reached.emplace_back(peer{destination_of(*copy.get_header_packet()), way::accepted});
            mark_handed_over(copy, 0, known.find_counts(to));
        });
        Center::INet_Relay::send_tcp_broadcast(token, token.get_header_packet());
        known.observer().mark_copies({});
        for (peer const& to : reached) {
            known.note_hand_over(to.via, *known.find_counts(to), token.get_header_packet()->get_data_size());
            capture.note_hand_over(to, bytes);
        }
    } else {
        note_refused_by_limit();
    }
    token.free();
    return has_room;
}

} // namespace Zolt::Reference_Center
