// The exchange of blocks, on either side: any block, whole or in part or with more behind it, cut anywhere, sent before or
// after the node's, while the Center may withdraw the destination.
//
//   a whole block      one connection: the Center hears of it, with the port that the block carries, and of its end
//   less than a block  no connection: the Center hears nothing, and the node ends it within the time-out
//   the node's block   the two ports and nothing else, whatever the peer sent

#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"
#include "tests/fuzz/fuzzed_link.hpp"
#include "tests/fuzz/raw_center.hpp"
#include "tests/fuzz/simulated_run.hpp"
#include "tests/fuzz/target.hpp"

#include <algorithm>
#include <span>
#include <vector>

namespace {

using namespace fuzz;
using namespace simulation;
using Zolt::Reference_Host::connection_event;
using Zolt::Reference_Host::packet_kind;

constexpr std::size_t c_most_bytes = c_block_size + 80; ///< a whole header may follow the block

/// What one input says.
struct block_plan {
    explicit block_plan(input_reader& input)
        : side(input.take_below(2) == 0 ? stream_side::accepted : stream_side::outgoing),
          reads_first(input.take_below(2) == 0), stays(input.take_below(4) == 0),
          how(static_cast<leaving>(input.take_below(c_leavings))), withdrawn_at(input.take_below(5)),
          piece(input.take_number() % (c_block_size + 2)), pause(moment{1000} * input.take_byte()) {
        std::size_t const size = input.take_number() % c_most_bytes;
        std::uint8_t const filler = input.take_byte();
        auto const given = input.take_bytes(size);
        bytes.assign(given.begin(), given.end());
        bytes.resize(size, filler);
    }

    bool is_whole() const { return bytes.size() >= c_block_size; }
    std::uint16_t gate_port() const { return static_cast<std::uint16_t>(bytes[2] << 8 | bytes[3]); }

    stream_side side;
    bool reads_first;
    bool stays; ///< and does not leave by itself
    leaving how;
    std::size_t withdrawn_at; ///< after which step, of the outgoing side; the first and the last: not at all
    std::size_t piece;
    moment pause;
    std::vector<unsigned char> bytes;
};

class block_run {
public:
    explicit block_run(input_reader& input) : plan(input), link(plan.side), peer(link.peer()) {}

    void run() {
        withdraw_at(1);
        if (plan.reads_first) {
            peer.read_until(plan.side == stream_side::accepted ? 0 : c_block_size);
        }
        std::size_t const half = plan.bytes.size() / 2;
        bool all_sent = peer.write(std::span(plan.bytes).first(half), plan.piece);
        pass_time(plan.pause);
        withdraw_at(2);
        all_sent = all_sent && peer.write(std::span(plan.bytes).subspan(half), plan.piece);
        withdraw_at(3);
        bool const is_clean = all_sent && part() && was_young && plan.withdrawn_at % 4 == 0;
        link.end();
        link.check_block_of_node();
        check_notices(is_clean);
    }

private:
    void withdraw_at(std::size_t step) {
        if (plan.withdrawn_at == step) {
            link.withdraw();
        }
    }
    bool part();
    void check_notices(bool is_clean);

    block_plan plan;
    fuzzed_link link;
    raw_peer& peer;
    bool was_young = false;
};

/// True when the peer left so that the node must have read everything.
bool block_run::part() {
    if (!plan.stays && !peer.is_over()) {
        peer.leave(plan.how);
    } else if (plan.is_whole()) {
        // Heard of for the last time now, and cut when it has been silent for long enough.
        peer.read_until(c_block_size);
    }
    require(peer.read_to_end(now() + 40 * 1000000ULL), "the node does not end a connection or an exchange");
    was_young = link.is_young();
    return plan.stays || plan.how == leaving::half_close;
}

void block_run::check_notices(bool is_clean) {
    int connected = 0;
    int disconnected = 0;
    for (arrival const& one : list_arrivals()) {
        if (one.kind != packet_kind::control || one.source != link.name()) {
            continue;
        }
        bool const begins =
            one.event == connection_event::connected_from_client || one.event == connection_event::connected_to_server;
        bool const ends = one.event == connection_event::disconnected_from_client ||
                          one.event == connection_event::disconnected_from_server;
        require(plan.is_whole(), "the Center was told of a connection without a block");
        require(one.gate_port == plan.gate_port(), "a notice carries another port than the block");
        connected += begins ? 1 : 0;
        disconnected += ends ? 1 : 0;
    }
    if (plan.bytes.size() < c_block_size + Zolt::Reference_Host::c_header_size) {
        require(connected <= 1 && connected == disconnected, "the notices of a connection do not match");
        require(!is_clean || connected == (plan.is_whole() ? 1 : 0), "the Center was not told of a connection");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    input_reader input({data, size});
    run_simulated(input, [&input] { block_run(input).run(); });
    return 0;
}
