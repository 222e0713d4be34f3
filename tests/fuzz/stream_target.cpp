// A TCP stream: after the exchange a peer sends what the input says, cut where the input says, while the Center sends too.
//
//   delivered   the Center gets what the stream means, byte for byte and in order; all of it when the peer half-closes
//   sent        the peer gets what the Center handed over, in order; with what came back to the Center, each once
//   notices     connected before the first packet, disconnected after the last, once each
//
// FUZZED_SIDE is the side of the node: accepted or outgoing.

#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"
#include "Reference_Host/packet_building.hpp"
#include "tests/fuzz/fuzzed_link.hpp"
#include "tests/fuzz/raw_center.hpp"
#include "tests/fuzz/raw_peer.hpp"
#include "tests/fuzz/simulated_run.hpp"
#include "tests/fuzz/stream_model.hpp"
#include "tests/fuzz/target.hpp"

#include <iterator>
#include <set>
#include <span>
#include <vector>

namespace {

using namespace fuzz;
using namespace simulation;
using namespace Zolt::Reference_Host;
namespace INet_Relay = Zolt::Center::INet_Relay;

constexpr auto c_side = stream_side::FUZZED_SIDE;
constexpr bool c_is_accepted = c_side == stream_side::accepted;
constexpr std::uint16_t c_gate_port = 7001;

class stream_run {
public:
    explicit stream_run(input_reader& bytes)
        : input(bytes), how(static_cast<leaving>(bytes.take_below(c_leavings))), link(c_side), peer(link.peer()) {}

    void run() {
        if (make_exchange()) {
            while (!input.is_over() && !peer.is_over()) {
                act();
            }
            part();
        }
        link.end();
        link.check_block_of_node();
        if (peer.received().size() >= c_block_size) {
            check();
        }
    }

private:
    bool make_exchange();
    void act();
    void send_packet();
    void hand_over();
    void part();
    void check();
    void check_delivered(stream_meaning const& meaning);
    void check_received(stream_meaning const& meaning);

    input_reader& input;
    leaving how;
    fuzzed_link link;
    raw_peer& peer;
    std::size_t piece = 0;
    bool must_be_all = false;      ///< nothing may be lost on either way
    std::uint64_t handed_over = 0; ///< packets, numbered from 1
    std::set<std::uint64_t> returned;
};

/// The connecting side sends its block first.
bool stream_run::make_exchange() {
    auto const block = make_block(c_peer_port, c_gate_port);
    if (c_is_accepted) {
        peer.write(block);
    }
    peer.read_until(c_block_size);
    if (peer.received().size() < c_block_size) {
        // A starved thread may have taken so long that the timer cut the exchange.
        require(peer.is_over() || !link.is_young(), "the node does not send its block");
        return false;
    }
    if (!c_is_accepted) {
        peer.write(block);
    }
    return true;
}

void stream_run::send_packet() {
    std::uint8_t const kind = input.take_byte();
    std::size_t const size = input.take_number() % (c_largest_data + 100);
    peer.write(make_packet_bytes(kind, std::vector<unsigned char>(size, input.take_byte())), piece);
}

/// Of a kind that is never dropped because others wait.
void stream_run::hand_over() {
    constexpr packet_kind c_kinds[] = {packet_kind::data, packet_kind::call_return, packet_kind::signal_return};
    packet_plan plan;
    plan.kind = c_kinds[input.take_below(std::size(c_kinds))];
    plan.destination = {link.name().ip, link.name().port, 0};
    plan.sequence = handed_over + 1;
    Zolt::struct_token token = make_packet(plan, std::vector<unsigned char>(input.take_number() % c_largest_data, 7));
    auto const send = c_is_accepted ? INet_Relay::send_tcp_server : INet_Relay::send_tcp_client;
    if (send(link.name(), token, token.get_header_packet()) == 0) {
        ++handed_over;
    } else {
        token.free();
    }
}

void stream_run::act() {
    unsigned const what = input.take_byte();
    switch (what % 8) {
    case 0:
    case 1:
        peer.write(input.take_bytes(1 + what / 8), piece);
        return;
    case 2:
    case 3:
        send_packet();
        return;
    case 4:
        hand_over();
        return;
    case 5:
        piece = std::size_t{what} / 8 * (what / 8); // 0: uncut, then 1 to 961 bytes
        return;
    case 6:
        peer.read_available();
        return;
    default:
        pass_time(simulation::moment{100} * (what / 8) * (what / 8));
    }
}

void stream_run::part() {
    bool const was_over = peer.is_over();
    if (!was_over) {
        peer.leave(how);
    }
    bool const is_told = peer.read_to_end(now() + 30 * 1000000ULL);
    require(is_told, "the node does not end a connection that its peer has ended");
    // Everything must have gone both ways unless somebody cut the connection before.
    must_be_all = !was_over && how == leaving::half_close && link.is_young();
}

void stream_run::check() {
    stream_meaning const meaning = read_stream(c_side, std::span(peer.sent()).subspan(c_block_size), c_largest_data);
    must_be_all = must_be_all && !meaning.is_stopped;
    require(count_refused_parts() <= (meaning.is_stopped ? 1 : 0), "a data part was refused that nobody announced");
    check_delivered(meaning);
    check_received(meaning);
}

void stream_run::check_delivered(stream_meaning const& meaning) {
    std::size_t next = 0;
    int connected = 0;
    int disconnected = 0;
    for (arrival const& one : list_arrivals()) {
        bool const is_of_peer = next < meaning.delivered.size() && one.bytes == meaning.delivered[next];
        if (is_of_peer) {
            require(connected == 1 && disconnected == 0, "a packet arrived outside its connection");
            require(one.has_data == (one.bytes.size() > c_header_size), "a packet carries another one's data");
            require(one.source == link.name() && one.gate_port == c_gate_port,
                    "a packet arrived with a forged address");
            ++next;
        } else if (one.kind == packet_kind::control) {
            bool const begins = one.event == connection_event::connected_from_client ||
                                one.event == connection_event::connected_to_server;
            ++(begins ? connected : disconnected);
        } else {
            require(one.kind == packet_kind::error, "the Center got a packet that nobody sent, or out of order");
            require(returned.insert(one.sequence).second, "a packet came back twice");
        }
    }
    require(next == meaning.delivered.size() || !must_be_all, "a packet of the peer did not arrive");
    require(connected <= 1 && connected == disconnected, "the notices of a connection do not match");
    require(connected == 1 || !must_be_all, "the Center was not told of a connection");
}

void stream_run::check_received(stream_meaning const& meaning) {
    auto bytes = std::span(peer.received()).subspan(c_block_size);
    std::uint64_t expected = 0;
    std::size_t answers = 0;
    while (bytes.size() >= c_header_size &&
           bytes.size() >= c_header_size + load<header_field::data_size>(bytes.data())) {
        auto const kind = static_cast<packet_kind>(load<header_field::kind>(bytes.data()));
        if (kind == packet_kind::call_return_ack || kind == packet_kind::signal_return_ack) {
            ++answers;
        } else if (kind != packet_kind::heartbeat) {
            ++expected;
            require(load<header_field::sequence>(bytes.data()) == expected, "the peer got a packet out of order");
        }
        bytes = bytes.subspan(c_header_size + load<header_field::data_size>(bytes.data()));
    }
    require(answers <= meaning.answers, "the node answered what nobody asked");
    require(expected <= handed_over, "the peer got more packets than were handed over");
    require(!must_be_all || expected + returned.size() == handed_over, "a packet was neither written nor returned");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    input_reader input({data, size});
    run_simulated(input, [&input] { stream_run(input).run(); });
    return 0;
}
