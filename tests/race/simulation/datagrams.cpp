#include "tests/race/simulation/datagrams.hpp"

#include "Center/INet_Relay/EPoll/epoll.hpp"
#include "Reference_Host/inbox.hpp"
#include "tests/race/simulation/arriving_datagrams.hpp"
#include "tests/race/simulation/host.hpp"
#include "tests/race/simulation/leaving_datagrams.hpp"
#include "tests/race/simulation/node.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <span>
#include <string>

#include <sys/epoll.h>
#include <sys/socket.h>

namespace simulation {
namespace {

using Zolt::Reference_Host::get_center_inbox;

constexpr moment c_tick = 1000000;
/// A schedule may let a tick pass although somebody could go on; so many in a row it does not.
constexpr moment c_hastened_ticks = 6;
constexpr std::size_t c_roomy = 1U << 20; ///< bytes: more than is ever sent
constexpr std::size_t c_no_limit = ~std::size_t{0};

void for_a_while() {
    pass_time(1000 * scenario_dice().below(900));
}

/// A node with two served ports, its Center, and two peers.
class datagram_world {
public:
    datagram_world();
    ~datagram_world();
    datagram_world(datagram_world const&) = delete;
    datagram_world& operator=(datagram_world const&) = delete;

    /// Everything that was begun comes to its end, and each port still receives.
    void come_to_rest();
    void shut_down(bool was_at_rest);

    node the_node{c_served_ports};

private:
    void limit_sockets();
    void send_bursts(std::uint32_t peer);
    void send_burst(std::uint32_t peer);
    void speak(std::uint32_t speaker);
    void change_mood();
    void take_packets();
    void probe(std::uint16_t port);
    bool is_anything_unread() const;
    void settle(bool was_at_rest);

    std::array<kernel*, 2> hosts{&the_node.add_host(2), &the_node.add_host(3)};
    std::array<int, 2> sockets{};
    arriving_datagrams arriving;
    leaving_datagrams leaving{the_node.net, {hosts.begin(), hosts.end()}};
    bool is_roomy = scenario_dice().one_in(2); ///< no datagram finds a socket full
    bool is_stopping = false;
    actor taker = -1;
};

int relay_socket(std::uint16_t port) {
    return Zolt::Center::INet_Relay::EPoll::g_udp_map.at(port)->fd;
}

datagram_world::datagram_world() {
    limit_sockets();
    get_center_inbox().resume();
    taker = spawn("center", [this] { take_packets(); });
    the_node.spawn_peer("mood", [this] { change_mood(); });
    for (std::uint32_t const peer : {2U, 3U}) {
        sockets[peer - 2] = hosts[peer - 2]->socket(SOCK_DGRAM);
        the_node.spawn_peer("peer " + std::to_string(peer), [this, peer] { send_bursts(peer); });
    }
    for (std::uint32_t const speaker : {1U, 2U}) {
        the_node.spawn_peer("speaker " + std::to_string(speaker), [this, speaker] { speak(speaker); });
    }
}

datagram_world::~datagram_world() {
    get_center_inbox().set_high_mark(c_no_limit);
}

void datagram_world::limit_sockets() {
    constexpr std::array<std::size_t, 3> c_tight{1, 300, 2000};
    for (std::uint16_t const port : c_served_ports) {
        std::size_t const limit = is_roomy ? c_roomy : c_tight[scenario_dice().below(c_tight.size())];
        relay_kernel().set_buffers(relay_socket(port), limit, limit);
    }
}

void datagram_world::send_burst(std::uint32_t peer) {
    enum class mixture : std::size_t { whole, spoilt, both };
    auto const what = static_cast<mixture>(scenario_dice().below(3));
    for (std::size_t left = 1 + scenario_dice().below(6); left != 0; --left) {
        bool const is_whole = what == mixture::whole || (what == mixture::both && scenario_dice().one_in(2));
        auto const which = is_whole ? flaw::none : static_cast<flaw>(1 + scenario_dice().below(c_flaws - 1));
        std::uint16_t const port = c_served_ports[scenario_dice().below(c_served_ports.size())];
        point("peer sends");
        arriving.send(*hosts[peer - 2], sockets[peer - 2], peer, port, which);
    }
}

void datagram_world::send_bursts(std::uint32_t peer) {
    for (int i = 0; i < 3; ++i) {
        send_burst(peer);
        for_a_while();
    }
}

void datagram_world::speak(std::uint32_t speaker) {
    for (int i = 0; i < 3; ++i) {
        for (std::size_t left = 1 + scenario_dice().below(3); left != 0; --left) {
            leaving.hand_over(speaker);
        }
        for_a_while();
    }
}

/// The Center takes what comes, is busy, or refuses, and takes it again in the end.
void datagram_world::change_mood() {
    auto& inbox = get_center_inbox();
    for (int left = 4; left != 0; --left) {
        for_a_while();
        if (is_stopping) {
            return;
        }
        std::size_t const mood = left == 1 ? 0 : scenario_dice().below(3);
        inbox.set_high_mark(mood == 1 ? 0 : c_no_limit);
        mood == 2 ? inbox.stop() : inbox.resume();
    }
}

void datagram_world::take_packets() {
    auto& inbox = get_center_inbox();
    bool is_over = false;
    while (!is_over) {
        wait_for("inbox", [&] { return is_stopping || inbox.count().packets != 0; });
        is_over = is_stopping; // the relay is refused from then on
        Zolt::struct_token token;
        while (inbox.take(std::span(&token, 1), std::chrono::milliseconds(0)) == 1) {
            arriving.take(token);
            token.free();
            point("center takes");
        }
    }
}

bool datagram_world::is_anything_unread() const {
    return the_node.net.has_in_flight() ||
           std::any_of(c_served_ports.begin(), c_served_ports.end(),
                       [](std::uint16_t port) { return (relay_kernel().poll(relay_socket(port)) & EPOLLIN) != 0; });
}

void datagram_world::come_to_rest() {
    the_node.wait_for_peers();
    // One that is dropped after one that was taken makes what stands behind it wait for another tick.
    std::size_t const relapses = std::min(arriving.count_whole(), arriving.count_spoilt());
    moment const bound = c_tick * (2 + relapses + c_hastened_ticks);
    auto const is_at_rest = [this] { return !is_anything_unread() && leaving.are_all_released(); };
    if (!wait_until("rest", now() + bound, is_at_rest)) {
        fail(is_anything_unread() ? "a port has gone deaf" : "a packet of the Center is never sent");
    }
    for (std::uint16_t const port : c_served_ports) {
        probe(port);
    }
}

void datagram_world::probe(std::uint16_t port) {
    std::size_t const number = arriving.send(*hosts[0], sockets[0], 2, port, flaw::none);
    require(wait_until("probe", now() + c_tick * (2 + c_hastened_ticks), [&] { return arriving.has_arrived(number); }),
            "a port does not receive any more");
}

void datagram_world::shut_down(bool was_at_rest) {
    the_node.on_finalized = [this, was_at_rest] { settle(was_at_rest); };
    is_stopping = true;
    the_node.shut_down();
}

void datagram_world::settle(bool was_at_rest) {
    wait_for("center's end", [this] { return has_ended(taker); });
    while (the_node.net.has_in_flight()) {
        the_node.net.deliver_one(scenario_dice());
    }
    auto const printed = take_errors();
    arriving.check(printed, was_at_rest && is_roomy);
    leaving.settle(printed);
}

} // namespace

void run_datagrams() {
    datagram_world world;
    world.come_to_rest();
    world.shut_down(true);
}

void run_last_datagrams() {
    datagram_world world;
    std::size_t const points = scenario_dice().below(600);
    for (std::size_t i = 0; i < points; ++i) {
        point("the Center waits");
    }
    world.shut_down(false);
}

} // namespace simulation
