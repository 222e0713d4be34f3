// A day of a node in virtual time: fifty connections come and go, each second has its tick, and after each hour the
// node comes to rest and is looked at. Usage: soak [HOURS [SEED]]
//
// Of the connections thirty are accepted and twenty outgoing. In one second of four some peer leaves: closes, resets,
// half-closes, falls silent, or the Center withdraws its destination and adds it again; and every second packets go both
// ways, over TCP and UDP. At the end of an hour all fifty are there again. Then descriptors and what the Center counts
// must be as after the first hour, to the last one, and packet parts and heap no more than a fixed amount above.
// Status 0: so it was; 1: something grew, or stood still.

#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"
#include "Reference_Host/inbox.hpp"
#include "Reference_Host/ledger.hpp"
#include "Reference_Host/output_sink.hpp"
#include "Reference_Host/packet_building.hpp"
#include "Reference_Host/packet_reading.hpp"
#include "tests/soak/soak_peer.hpp"
#include "tests/soak/virtual_time.hpp"

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <random>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include <malloc.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace soak;
using namespace Zolt::Reference_Host;
namespace INet_Relay = Zolt::Center::INet_Relay;

constexpr std::size_t c_accepted = 30;
constexpr std::size_t c_outgoing = 20;
constexpr std::uint64_t c_hour = 3600;       ///< ticks
constexpr std::uint64_t c_longest_rest = 60; ///< ticks until all are connected again
constexpr std::size_t c_talking_turns = 4;   ///< each peer talks at every fourth tick
constexpr long c_heap_allowance = 512 << 10; ///< bytes
constexpr auto c_patience = std::chrono::seconds(30);

/// What must not grow.
struct measurement {
    std::size_t descriptors = 0;
    ledger_counts parts;
    std::size_t connected = 0; ///< as the Center counts
    long heap = 0;             ///< bytes in use
    long resident = 0;         ///< KiB
};

std::size_t count_descriptors() {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

long read_resident() {
    std::ifstream statm("/proc/self/statm");
    long total = 0;
    long resident = 0;
    statm >> total >> resident;
    return resident * (::sysconf(_SC_PAGESIZE) / 1024);
}

class soaked_node {
public:
    explicit soaked_node(std::uint64_t seed) : dice(seed) {}

    void start();
    void run_hour();
    measurement measure();
    /// Stops the node; the parts of packets that are left then.
    ledger_counts stop();

    std::uint64_t count_endings() const { return endings; }
    std::uint64_t count_packets() const { return received; }

private:
    void run_tick(bool is_busy);
    void talk(bool with_center);
    void talk_as_center();
    void end_one();
    bool is_full() const;
    void take_all(std::chrono::milliseconds longest = std::chrono::milliseconds(0));
    template <typename Condition>
    void await(char const* what, Condition const& condition);

    std::mt19937_64 dice;
    std::uint16_t port = 0;
    std::vector<std::unique_ptr<soak_peer>> peers;
    std::uint64_t endings = 0;
    std::uint64_t sent = 0; ///< by peers that did not leave in the same tick
    std::uint64_t received = 0;
    std::size_t connected = 0;
};

/// A port that is free now, over TCP and UDP.
std::uint16_t open_some_port() {
    for (int attempt = 0; attempt < 100; ++attempt) {
        int const probe = ::socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        socklen_t length = sizeof address;
        ::bind(probe, reinterpret_cast<sockaddr*>(&address), length);
        ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
        ::close(probe);
        std::uint16_t const port = ntohs(address.sin_port);
        if (INet_Relay::add_server(port) == 0) {
            return port;
        }
    }
    throw std::runtime_error("no port is free");
}

void soaked_node::start() {
    INet_Relay::initialize();
    port = open_some_port();
    INet_Relay::start();
    for (std::size_t i = 0; i < c_accepted; ++i) {
        peers.push_back(std::make_unique<soak_peer>(port));
    }
    for (std::size_t i = 0; i < c_outgoing; ++i) {
        peers.push_back(std::make_unique<soak_peer>());
        INet_Relay::add_client(htonl(INADDR_LOOPBACK), peers.back()->port());
    }
}

/// Everything that waits for the Center, or comes within that time when nothing does.
void soaked_node::take_all(std::chrono::milliseconds longest) {
    std::array<Zolt::struct_token, 64> tokens;
    while (std::size_t const count = get_center_inbox().take(tokens, longest)) {
        longest = std::chrono::milliseconds(0);
        for (Zolt::struct_token& token : std::span(tokens).first(count)) {
            connection_event const event = get_event(*token.get_header_packet());
            bool const begins =
                event == connection_event::connected_to_server || event == connection_event::connected_from_client;
            connected += begins ? 1 : 0;
            connected -= event != connection_event::none && !begins ? 1 : 0;
            received += token.has_data() ? 1 : 0;
            token.free();
        }
    }
}

template <typename Condition>
void soaked_node::await(char const* what, Condition const& condition) {
    auto const deadline = std::chrono::steady_clock::now() + c_patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error(what);
        }
        take_all(std::chrono::milliseconds(1));
    }
}

/// A call to one peer, and a datagram to the node itself.
void soaked_node::talk_as_center() {
    soak_peer const& peer = *peers[dice() % peers.size()];
    packet_plan plan;
    plan.kind = packet_kind::call_return;
    plan.destination = {htonl(INADDR_LOOPBACK), peer.port(), 0};
    std::array<unsigned char, 200> const data{};
    Zolt::struct_token call = make_packet(plan, data);
    auto const send = peer.is_destination() ? INet_Relay::send_tcp_client : INet_Relay::send_tcp_server;
    if (!peer.is_whole() || send({plan.destination.ip, peer.port()}, call, call.get_header_packet()) != 0) {
        call.free();
    }
    plan.kind = packet_kind::data;
    plan.destination.port = port;
    Zolt::struct_token datagram = make_packet(plan, data);
    INet_Relay::send_udp(datagram, datagram.get_header_packet());
    ++sent;
}

/// A fourth of the peers sends a packet, and perhaps the Center two; all for the Center must reach it before time goes on.
void soaked_node::talk(bool with_center) {
    if (with_center) {
        talk_as_center();
    }
    for (std::size_t i = count_ticks() % c_talking_turns; i < peers.size(); i += c_talking_turns) {
        sent += peers[i]->talk() ? 1 : 0;
    }
    await("a packet of a peer does not reach the Center", [this] { return received >= sent; });
}

void soaked_node::end_one() {
    soak_peer& chosen = *peers[dice() % peers.size()];
    if (!chosen.is_whole()) {
        return;
    }
    ++endings;
    if (chosen.is_destination() && dice() % 4 == 0) {
        INet_Relay::del_client(htonl(INADDR_LOOPBACK), chosen.port());
        INet_Relay::add_client(htonl(INADDR_LOOPBACK), chosen.port());
        // Nobody talks to it any more: what is handed to a connection that is being closed stays with who handed it over.
        chosen.leave(leaving::silence);
        return;
    }
    chosen.leave(static_cast<leaving>(dice() % c_leavings));
}

void soaked_node::run_tick(bool is_busy) {
    talk(is_busy);
    std::uint64_t const before = count_ticks();
    tick();
    for (auto& peer : peers) {
        // Connected since an earlier tick: the heartbeat of this one must come.
        if (peer->is_whole() && peer->connected_at() + 1 < before) {
            peer->await_packet();
        }
        peer->go_on();
    }
    if (is_busy && dice() % 4 == 0) {
        end_one();
    }
}

bool soaked_node::is_full() const {
    for (auto const& peer : peers) {
        if (!peer->is_whole()) {
            return false;
        }
    }
    return true;
}

void soaked_node::run_hour() {
    for (std::uint64_t i = 0; i < c_hour - c_longest_rest; ++i) {
        run_tick(true);
    }
    for (std::uint64_t i = 0; i < c_longest_rest; ++i) {
        run_tick(false);
    }
    if (!is_full()) {
        throw std::runtime_error("a peer does not come back");
    }
    await("the Center counts another number of connections", [this] { return connected == peers.size(); });
}

measurement soaked_node::measure() {
    measurement found;
    found.descriptors = count_descriptors();
    found.parts = count_live_parts();
    found.connected = connected;
    found.heap = static_cast<long>(::mallinfo2().uordblks);
    found.resident = read_resident();
    return found;
}

ledger_counts soaked_node::stop() {
    for (auto& peer : peers) {
        if (peer->is_destination()) {
            INet_Relay::del_client(htonl(INADDR_LOOPBACK), peer->port());
        }
    }
    peers.clear();
    await("a connection does not end", [this] { return tick(), take_all(), connected == 0; });
    get_center_inbox().stop();
    INet_Relay::stop();
    INet_Relay::finalize();
    release_offered(); // by this thread, which is the timer's too
    take_all();
    return count_live_parts();
}

bool is_flat(measurement const& first, measurement const& later) {
    return later.descriptors == first.descriptors && later.parts == first.parts && later.connected == first.connected &&
           later.heap <= first.heap + c_heap_allowance;
}

void print(std::uint64_t hour, soaked_node const& node, measurement const& found) {
    std::printf("hour %2llu  ticks %6llu  endings %6llu  packets %8llu  connected %zu  descriptors %zu  "
                "parts %zu+%zu+%zu  heap %ld KiB  resident %ld KiB\n",
                static_cast<unsigned long long>(hour), static_cast<unsigned long long>(count_ticks()),
                static_cast<unsigned long long>(node.count_endings()),
                static_cast<unsigned long long>(node.count_packets()), found.connected, found.descriptors,
                found.parts.nodes, found.parts.headers, found.parts.data, found.heap / 1024, found.resident);
    std::fflush(stdout);
}

bool run(std::uint64_t hours, std::uint64_t seed) {
    soaked_node node(seed);
    node.start();
    std::optional<measurement> first;
    for (std::uint64_t hour = 1; hour <= hours; ++hour) {
        node.run_hour();
        // The last connection that ended may still be on its way through a thread.
        measurement found = node.measure();
        auto const deadline = std::chrono::steady_clock::now() + c_patience;
        while (first && !is_flat(*first, found) && std::chrono::steady_clock::now() < deadline) {
            found = node.measure();
        }
        print(hour, node, found);
        if (first && !is_flat(*first, found)) {
            std::printf("something grew since the first hour\n");
            return false;
        }
        first = first ? first : found;
    }
    ledger_counts const left = node.stop();
    std::printf("parts left after the stop: %zu+%zu+%zu\n", left.nodes, left.headers, left.data);
    return left == ledger_counts{} && take_ledger_reports().empty();
}

std::uint64_t read_number(int count, char** arguments, int which, std::uint64_t fallback) {
    return which < count ? std::strtoull(arguments[which], nullptr, 10) : fallback;
}

} // namespace

int main(int count, char** arguments) {
    set_output_target([](output_line const&, void*) {}, nullptr);
    try {
        if (run(read_number(count, arguments, 1, 24), read_number(count, arguments, 2, 1))) {
            return 0;
        }
    } catch (std::exception const& error) {
        std::printf("tick %llu: %s\n", static_cast<unsigned long long>(count_ticks()), error.what());
    }
    // The node's threads still run; nothing may be taken down below them.
    std::fflush(stdout);
    ::_exit(1);
}
