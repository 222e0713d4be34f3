#include "tests/fault/matrix_scenarios.hpp"

#include "tests/fault/fault.hpp"

#include <algorithm>
#include <stdexcept>

namespace relay_test {
namespace {

using tells = matrix_scenario::tells;
using step = matrix_scenario::step;

constexpr std::size_t c_cut = 30; ///< bytes of a packet that come first when it comes in two pieces

bytes packet_with_data() {
    return packet_bytes({.data = bytes(10, 5)});
}

// --- set-ups ---------------------------------------------------------------------------------------------------

void nothing(matrix_stage&) {}
void opened(matrix_stage& s) {
    s.open();
}
void started(matrix_stage& s) {
    s.initialize_and_start();
}
void stopped(matrix_stage& s) {
    s.open();
    INet_Relay::stop();
    s.is_started = false;
}
void with_accepted(matrix_stage& s) {
    s.open();
    s.accepted_peer();
}
void with_served(matrix_stage& s) {
    s.open();
    s.established_accepted();
}
void with_listening(matrix_stage& s) {
    s.open();
    s.listening();
}
void with_connecting(matrix_stage& s) {
    s.open();
    s.connecting_peer();
}
void with_established(matrix_stage& s) {
    s.open();
    s.established_outgoing();
}

/// What the next write moves, so that a piece is left.
void first_write_is_short(matrix_stage& s) {
    s.system.cap("send", 1, c_short_transfer);
}
template <step Before>
void then_a_short_write(matrix_stage& s) {
    Before(s);
    first_write_is_short(s);
}

void port_taken_by_another(matrix_stage& s) {
    s.initialize_and_start();
    s.listening();
    s.port = s.subject().address.port;
}

/// A receive registration that fired and could not be armed again; the time-out has passed, and one tick with it.
template <step Before>
void deaf_and_shut(matrix_stage& s) {
    Before(s);
    {
        injection const fails(s.system, {"epoll_ctl MOD tcp_recv", 1, "ENOMEM", false});
        s.subject().put(packet_bytes({.sequence = 1}));
        s.serve_until([&] { return fails.hits() == 1; }, 1000);
    }
    s.let_time_pass();
    s.serve();
    s.errors.clear();
    s.center.clear();
}

/// A packet handed over and not yet written when the peer's end is read.
void with_a_send_due(matrix_stage& s) {
    with_established(s);
    s.hand_over(outgoing(), s.subject(), {});
}

// --- steps -----------------------------------------------------------------------------------------------------

void initialize(matrix_stage& s) {
    s.is_initialized = true;
    try {
        s.returned = std::to_string(INet_Relay::initialize());
    } catch (std::string const& thrown) {
        s.returned = "throws " + words_of_error({thrown, 0, "", ""});
    }
}

void stop(matrix_stage& s) {
    s.is_started = false;
    s.returned = std::to_string(INet_Relay::stop());
}

void finalize(matrix_stage& s) {
    s.is_initialized = false;
    s.returned = std::to_string(INet_Relay::finalize());
}

void add_server(matrix_stage& s) {
    if (s.port == 0) {
        s.port = unused_port();
    }
    int const result = INet_Relay::add_server(s.port);
    s.returned = result > 0 ? errno_name(result) : std::to_string(result);
}

void close_udp(matrix_stage& s) {
    s.returned = std::to_string(EPoll::udp_finalize());
}

template <auto Change>
void change_membership(matrix_stage& s) {
    unsigned long const group = address_of("232.1.1.1");
    unsigned long const local = Zolt::c_local_host;
    Change(group, local, local, s.port);
}

void choose_interface(matrix_stage& s) {
    unsigned long const local = Zolt::c_local_host;
    EPoll::set_multicast_if(local, s.port);
}

void peer_connects(matrix_stage& s) {
    s.knock();
}
void peer_sends_block(matrix_stage& s) {
    s.subject().put(stage::block());
}
void peer_sends_packet(matrix_stage& s) {
    s.subject().put(packet_with_data());
}
void peer_sends_call(matrix_stage& s) {
    s.subject().put(packet_bytes({.call = true}));
}
void peer_hangs_up(matrix_stage& s) {
    s.subject().hang_up();
}

void in_two_pieces(matrix_stage& s, bytes const& whole) {
    s.subject().put({whole.begin(), whole.begin() + c_cut});
    s.serve();
    s.subject().put({whole.begin() + c_cut, whole.end()});
}
void peer_sends_block_in_two(matrix_stage& s) {
    in_two_pieces(s, stage::block());
}
void peer_sends_packet_in_two(matrix_stage& s) {
    in_two_pieces(s, packet_with_data());
}

void returned_by(matrix_stage& s, int result) {
    s.returned = std::to_string(result);
}
void hand_over_accepted(matrix_stage& s) {
    returned_by(s, s.hand_over(accepted(), s.subject(), {.data = bytes(10, 5)}));
}
void hand_over_outgoing(matrix_stage& s) {
    returned_by(s, s.hand_over(outgoing(), s.subject(), {.data = bytes(10, 5)}));
}
void hand_over_two_accepted(matrix_stage& s) {
    hand_over_accepted(s);
    hand_over_accepted(s);
}
void hand_over_two_outgoing(matrix_stage& s) {
    hand_over_outgoing(s);
    hand_over_outgoing(s);
}
void broadcast(matrix_stage& s) {
    auto token = make_token({.data = bytes(10, 5)});
    returned_by(s, INet_Relay::send_tcp_broadcast(token, token.get_header_packet()));
    token.free();
}
void withdraw(matrix_stage& s) {
    returned_by(s, INet_Relay::del_client(s.subject().address.ip, s.subject().address.port));
}
void add_client(matrix_stage& s) {
    returned_by(s, INet_Relay::add_client(s.subject().address.ip, s.subject().address.port));
}
void add_unreachable_client(matrix_stage& s) {
    returned_by(s, INet_Relay::add_client(address_of("224.0.0.1"), 7000));
}

/// The kernel has connected; the time-out passes before the event is served.
void connect_times_out(matrix_stage& s) {
    INet_Relay::add_client(s.subject().address.ip, s.subject().address.port);
    s.let_time_pass();
}
void ticks(matrix_stage& s) {
    s.tick_timer();
}
void time_passes(matrix_stage& s) {
    s.let_time_pass();
}

void datagram_comes(matrix_stage& s) {
    s.throw_datagram(s.port, packet_with_data());
}
void wrong_datagram_comes(matrix_stage& s) {
    s.throw_datagram(s.port, packet_bytes({.version = 1}));
}
void hand_over_datagram(matrix_stage& s, packet_fields fields) {
    fields.dst_ip = Zolt::c_local_host;
    returned_by(s, s.hand_over_udp(s.port, std::move(fields)));
}
void hand_over_one_datagram(matrix_stage& s) {
    hand_over_datagram(s, {});
}
void hand_over_two_datagrams(matrix_stage& s) {
    hand_over_datagram(s, {});
    hand_over_datagram(s, {});
}
void hand_over_multicast(matrix_stage& s) {
    hand_over_datagram(s, {.information_udp = true, .mct_ip = Zolt::c_local_host});
}

struct named_scenario {
    char const* name;
    matrix_scenario scenario;
};

constexpr named_scenario c_scenarios[] = {
    {"initialize", {nothing, initialize, "", tells::instances, true}},
    {"stop", {opened, stop, "", tells::connections, true}},
    {"finalize", {stopped, finalize, "", tells::instances, true}},
    {"udp_open", {started, add_server, "udp_initialize", tells::udp_ports, true}},
    {"udp_close", {stopped, close_udp, "", tells::udp_ports, true}},
    {"join", {opened, change_membership<INet_Relay::add_membership>, "", tells::udp_ports}},
    {"leave", {opened, change_membership<INet_Relay::drop_membership>, "", tells::udp_ports}},
    {"choose_interface", {opened, choose_interface, "", tells::udp_ports}},
    {"listen", {started, add_server, "", tells::udp_ports, true}},
    {"listen_on_taken_port", {port_taken_by_another, add_server, "", tells::udp_ports, true}},
    {"accept", {opened, peer_connects, "accept"}},
    {"accepted_block", {with_accepted, peer_sends_block, "recv_server_init"}},
    {"accepted_block_in_two", {with_accepted, peer_sends_block_in_two, "recv_server_init"}},
    {"accepted_reply", {with_accepted, peer_sends_block, "send_server_init"}},
    {"accepted_reply_in_two", {then_a_short_write<with_accepted>, peer_sends_block, "send_server_init"}},
    {"accepted_packet", {with_served, peer_sends_packet, "recv_server"}},
    {"accepted_packet_in_two", {with_served, peer_sends_packet_in_two, "recv_server"}},
    {"outgoing_packet", {with_established, peer_sends_packet, "recv_client"}},
    {"outgoing_packet_in_two", {with_established, peer_sends_packet_in_two, "recv_client"}},
    {"outgoing_call", {with_established, peer_sends_call, "recv_client"}},
    {"accepted_hand_over", {with_served, hand_over_accepted}},
    {"outgoing_hand_over", {with_established, hand_over_outgoing}},
    {"broadcast", {with_served, broadcast}},
    {"accepted_heartbeat", {with_served, ticks}},
    {"outgoing_heartbeat", {with_established, ticks}},
    {"withdraw", {with_established, withdraw}},
    {"accepted_send", {with_served, hand_over_accepted, "send_server"}},
    {"accepted_send_in_two", {then_a_short_write<with_served>, hand_over_accepted, "send_server"}},
    {"accepted_send_two", {with_served, hand_over_two_accepted, "send_server"}},
    {"accepted_marker", {with_served, peer_hangs_up, "send_server"}},
    {"outgoing_send", {with_established, hand_over_outgoing, "send_client"}},
    {"outgoing_send_in_two", {then_a_short_write<with_established>, hand_over_outgoing, "send_client"}},
    {"outgoing_send_two", {with_established, hand_over_two_outgoing, "send_client"}},
    {"outgoing_marker", {with_established, withdraw, "send_client"}},
    {"connect", {with_listening, add_client, "request_connect"}},
    {"connect_unreachable", {opened, add_unreachable_client, "request_connect"}},
    {"connect_completes", {with_listening, add_client, "completed_connect"}},
    {"outgoing_block", {with_listening, add_client, "send_client_init"}},
    {"outgoing_block_in_two", {then_a_short_write<with_listening>, add_client, "send_client_init"}},
    {"outgoing_answer", {with_connecting, peer_sends_block, "recv_client_init"}},
    {"outgoing_answer_in_two", {with_connecting, peer_sends_block_in_two, "recv_client_init"}},
    {"connect_times_out", {with_listening, connect_times_out}},
    {"accepted_silence", {with_served, time_passes}},
    {"outgoing_silence", {with_established, time_passes}},
    {"accepted_silence_again", {deaf_and_shut<with_served>, ticks}},
    {"outgoing_silence_again", {deaf_and_shut<with_established>, ticks}},
    {"block_never_comes", {with_accepted, time_passes}},
    {"accepted_exchange_ends", {with_accepted, peer_hangs_up, "recv_server_init"}},
    {"accepted_ends", {with_served, peer_hangs_up, "recv_server"}},
    {"outgoing_ends_with_a_send_due", {with_a_send_due, peer_hangs_up, "recv_client"}},
    {"udp_packet", {opened, datagram_comes, "recv_udp", tells::udp_ports}},
    {"udp_wrong_packet", {opened, wrong_datagram_comes, "recv_udp", tells::udp_ports}},
    {"udp_hand_over", {opened, hand_over_one_datagram, "", tells::udp_ports}},
    {"udp_send", {opened, hand_over_one_datagram, "send_udp", tells::udp_ports}},
    {"udp_send_two", {opened, hand_over_two_datagrams, "send_udp", tells::udp_ports}},
    {"udp_multicast", {opened, hand_over_multicast, "send_udp", tells::udp_ports}},
    {"loop_accept", {opened, peer_connects}},
    {"loop_packet", {with_served, peer_sends_packet}},
    {"loop_send", {with_served, hand_over_accepted}},
    {"loop_datagram", {opened, datagram_comes, "", tells::udp_ports}},
    {"loop_udp_send", {opened, hand_over_one_datagram, "", tells::udp_ports}}};

} // namespace

matrix_scenario const& scenario_named(std::string const& name) {
    auto const* const found = std::ranges::find(c_scenarios, name, &named_scenario::name);
    if (found == std::end(c_scenarios)) {
        throw std::runtime_error("no scenario is called " + name);
    }
    return found->scenario;
}

} // namespace relay_test
