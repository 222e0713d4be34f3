#include "tests/race/simulation/scenarios.hpp"

#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"
#include "tests/race/simulation/datagrams.hpp"
#include "tests/race/simulation/host.hpp"
#include "tests/race/simulation/node.hpp"
#include "tests/race/simulation/peer.hpp"

#include <array>
#include <string>

#include <sys/socket.h>

namespace simulation {
namespace {

namespace INet_Relay = Zolt::Center::INet_Relay;

constexpr std::uint16_t c_peer_port = 7000;

// --- what peers do ---------------------------------------------------------------------------------------------------

bool talk(conversation& with, std::size_t steps) {
    for (std::size_t i = 0; i < steps; ++i) {
        switch (scenario_dice().below(4)) {
        case 0:
            if (!with.send_packet(packet_kind::data, any_size())) {
                return false;
            }
            break;
        case 1:
            if (!with.send_packet(packet_kind::call_return, any_size())) {
                return false;
            }
            break;
        case 2:
            pass_time(1000 * scenario_dice().below(700));
            break;
        default:
            if (!with.read_waiting()) {
                return false;
            }
        }
    }
    return true;
}

/// The whole block, or now and then less of it.
std::size_t any_block() {
    return scenario_dice().one_in(5) ? scenario_dice().below(1024) : 1024;
}

/// This peer's block, or a part of it and good-bye. False when the connection ends with it.
bool give_block(conversation& with) {
    std::size_t const bytes = any_block();
    if (with.send_block(bytes) && bytes == 1024) {
        return true;
    }
    with.leave(choose_farewell());
    return false;
}

/// The exchange as the side that connects.
bool exchange_as_visitor(conversation& with) {
    return give_block(with) && with.receive_block();
}

/// The exchange as the side that was connected to.
bool exchange_as_host(conversation& with) {
    if (scenario_dice().one_in(8)) {
        with.leave(choose_farewell());
        return false;
    }
    return with.receive_block() && give_block(with);
}

/// A peer that connects to the relay, again and again.
void visit(kernel& host, std::uint32_t number, std::uint32_t visits, std::size_t steps) {
    for (std::uint32_t epoch = 0; epoch < visits; ++epoch) {
        int const fd = open_connection(host, relay_address());
        if (fd < 0) {
            return;
        }
        conversation with(host, fd, number, epoch);
        if (exchange_as_visitor(with) && talk(with, steps)) {
            with.leave(choose_farewell());
        }
    }
}

/// A peer that is connected to: it listens, serves so many connections one after the other, and listens no more.
class listening_peer {
public:
    listening_peer(kernel& on, std::uint32_t peer_number) : host(on), number(peer_number) {
        fd = host.socket(SOCK_STREAM);
        host.bind(fd, {0, c_peer_port});
        host.listen(fd, 5);
    }
    ~listening_peer() { host.close(fd); }
    listening_peer(listening_peer const&) = delete;
    listening_peer& operator=(listening_peer const&) = delete;

    /// True when a connection came before the deadline.
    bool serve_one(std::uint32_t epoch, std::size_t steps, moment deadline) {
        if (!wait_until("peer accepts", deadline, [this] { return host.poll(fd) != 0; })) {
            return false;
        }
        address from;
        conversation with(host, host.accept(fd, from), number, epoch);
        if (exchange_as_host(with) && talk(with, steps)) {
            with.leave(choose_farewell());
        }
        return true;
    }

private:
    kernel& host;
    std::uint32_t number;
    int fd;
};

void serve(kernel& host, std::uint32_t number, std::uint32_t connections, std::size_t steps) {
    listening_peer peer(host, number);
    for (std::uint32_t epoch = 0; epoch < connections; ++epoch) {
        if (!peer.serve_one(epoch, steps, now() + 40000000)) {
            return;
        }
    }
}

// --- what the Center's threads do --------------------------------------------------------------------------------------

/// Hands packets to whoever is connected.
void speak(node& n, std::size_t steps) {
    for (std::size_t i = 0; i < steps; ++i) {
        for (side const which : {side::accepted, side::outgoing}) {
            for (struct_node_addr const peer : n.the_center.list_connected(which)) {
                if (scenario_dice().one_in(2)) {
                    n.the_center.hand_over(which, peer, any_kind(), any_size());
                }
            }
        }
        pass_time(1000 * scenario_dice().below(200));
    }
}

void finish(node& n) {
    n.wait_for_peers();
    n.come_to_rest();
    n.shut_down();
}

// --- the scenarios -------------------------------------------------------------------------------------------------------

void run_accepting() {
    node n;
    for (std::uint32_t number = 2; number < 4; ++number) {
        kernel& host = n.add_host(number);
        n.spawn_peer("peer " + std::to_string(number), [&host, number] { visit(host, number, 2, 4); });
    }
    n.spawn_peer("speaker", [&n] { speak(n, 4); });
    finish(n);
}

void run_connecting() {
    node n;
    for (std::uint32_t number = 2; number < 4; ++number) {
        kernel& host = n.add_host(number);
        n.spawn_peer("peer " + std::to_string(number), [&host, number] { serve(host, number, 2, 4); });
        INet_Relay::add_client(ip_of(number), c_peer_port);
    }
    n.spawn_peer("speaker", [&n] { speak(n, 4); });
    n.wait_for_peers();
    for (std::uint32_t number = 2; number < 4; ++number) {
        INet_Relay::del_client(ip_of(number), c_peer_port);
    }
    finish(n);
}

/// Adds and withdraws one destination again and again; it is withdrawn in the end.
void add_and_withdraw(std::uint32_t number, std::size_t rounds) {
    for (std::size_t i = 0; i < rounds; ++i) {
        INet_Relay::add_client(ip_of(number), c_peer_port);
        // Within the connect and the exchange, or at any time of the connection's life.
        pass_time(scenario_dice().one_in(2) ? scenario_dice().below(120) : 1000 * scenario_dice().below(1200));
        INet_Relay::del_client(ip_of(number), c_peer_port);
    }
}

void run_withdrawing() {
    node n;
    kernel& host = n.add_host(2);
    bool is_done = false;
    n.spawn_peer("peer", [&host, &is_done] {
        listening_peer peer(host, 2);
        std::uint32_t epoch = 0;
        while (!is_done) {
            peer.serve_one(epoch++, 2, now() + 3000000);
        }
    });
    int running = 2;
    for (char const* const name : {"first thread", "second thread"}) {
        n.spawn_peer(name, [&] {
            add_and_withdraw(2, 3);
            is_done = --running == 0;
        });
    }
    n.spawn_peer("speaker", [&n] { speak(n, 4); });
    finish(n);
}

/// The Center answers "disconnected" by withdrawing the destination, from the thread that handles the notice.
void run_answering() {
    node n;
    kernel& host = n.add_host(2);
    bool is_registered = true;
    n.the_center.on_notice = [&](side which, struct_node_addr, bool is_connected) {
        if (which == side::outgoing && !is_connected && is_registered) {
            is_registered = false;
            INet_Relay::del_client(ip_of(2), c_peer_port);
        }
    };
    n.spawn_peer("peer", [&host] { serve(host, 2, 2, 3); });
    INet_Relay::add_client(ip_of(2), c_peer_port);
    n.wait_for_peers();
    if (is_registered) {
        is_registered = false;
        INet_Relay::del_client(ip_of(2), c_peer_port);
    }
    finish(n); // a destination that came back would not come to rest
}

void run_broadcasting() {
    node n;
    for (std::uint32_t number = 2; number < 5; ++number) {
        kernel& host = n.add_host(number);
        n.spawn_peer("peer " + std::to_string(number), [&host, number] { visit(host, number, 1, 4); });
    }
    n.spawn_peer("speaker", [&n] {
        for (int i = 0; i < 4; ++i) {
            n.the_center.broadcast(any_size());
            pass_time(1000 * scenario_dice().below(300));
        }
    });
    finish(n);
}

/// A peer that never reads while large packets wait for it, beside one that is served all the same.
void run_not_reading() {
    node n;
    kernel& deaf = n.add_host(2);
    kernel& other = n.add_host(3);
    bool is_served = false;
    n.spawn_peer("deaf peer", [&] {
        int const fd = open_connection(deaf, relay_address());
        deaf.set_buffers(fd, 4096, 4096);
        conversation with(deaf, fd, 2, 0);
        if (with.send_block() && with.receive_block()) {
            wait_for("the other is served", [&] { return is_served; });
            with.leave(choose_farewell());
        }
    });
    wait_for("deaf peer", [&n] { return n.the_center.count_connected(side::accepted) == 1; });
    for (int i = 0; i < 3; ++i) {
        n.the_center.hand_over(side::accepted, n.the_center.list_connected(side::accepted).front(), packet_kind::data,
                               30000);
    }
    n.spawn_peer("other peer", [&] {
        conversation with(other, open_connection(other, relay_address()), 3, 0);
        require(with.send_block() && with.receive_block(), "a peer is not served because another does not read");
        moment const begun = now();
        while (with.packets_received() == 0) {
            wait_until("a packet", now() + 1000, [] { return false; });
            require(with.read_waiting(), "the connection of a peer ended because another does not read");
            require(now() - begun < 3000000, "a peer waits because another does not read");
        }
        is_served = true;
    });
    n.spawn_peer("speaker", [&] {
        while (!is_served) {
            for (struct_node_addr const peer : n.the_center.list_connected(side::accepted)) {
                if (peer.ip == ip_of(3)) {
                    n.the_center.hand_over(side::accepted, peer, packet_kind::data, 40);
                }
            }
            pass_time(100000);
        }
    });
    finish(n);
}

/// The Center stops the relay at any moment.
void run_stopping() {
    node n;
    kernel& visitor = n.add_host(2);
    kernel& listener = n.add_host(3);
    n.spawn_peer("peer 2", [&visitor] { visit(visitor, 2, 2, 4); });
    n.spawn_peer("peer 3", [&listener] { serve(listener, 3, 1, 4); });
    INet_Relay::add_client(ip_of(3), c_peer_port);
    n.spawn_peer("speaker", [&n] { speak(n, 2); });
    std::size_t const points = scenario_dice().below(600);
    for (std::size_t i = 0; i < points; ++i) {
        point("the Center waits");
    }
    n.shut_down();
}

/// Nobody listens, or nobody answers, and then somebody does.
void run_refusing() {
    node n;
    kernel& host = n.add_host(2);
    bool const is_hole = scenario_dice().one_in(2);
    n.net.black_hole({ip_of(2), c_peer_port}, is_hole);
    INet_Relay::add_client(ip_of(2), c_peer_port);
    pass_time(1000000 * (1 + scenario_dice().below(12)));
    n.net.black_hole({ip_of(2), c_peer_port}, false);
    n.spawn_peer("peer", [&host] { serve(host, 2, 1, 3); });
    n.wait_for_peers();
    INet_Relay::del_client(ip_of(2), c_peer_port);
    finish(n);
}

/// Every connection is cut from outside, twice.
void run_cutting() {
    node n;
    kernel& visitor = n.add_host(2);
    kernel& listener = n.add_host(3);
    n.spawn_peer("peer 2", [&visitor] { visit(visitor, 2, 3, 3); });
    n.spawn_peer("peer 3", [&listener] { serve(listener, 3, 2, 3); });
    INet_Relay::add_client(ip_of(3), c_peer_port);
    n.spawn_peer("speaker", [&n] { speak(n, 3); });
    n.spawn_peer("cutter", [&n] {
        for (int i = 0; i < 2; ++i) {
            pass_time(1000 * scenario_dice().below(1500));
            n.net.reset_all();
        }
    });
    n.wait_for_peers();
    INet_Relay::del_client(ip_of(3), c_peer_port);
    finish(n);
}

constexpr std::array<scenario, 11> c_scenarios{{
    {"accepting", "peers connect, talk and leave in every way", run_accepting},
    {"connecting", "destinations are connected to, lost and connected to again", run_connecting},
    {"withdrawing", "two threads add and withdraw one destination", run_withdrawing},
    {"answering", "the Center withdraws a destination when it hears that it disconnected", run_answering},
    {"broadcasting", "one packet for all, while they come and go", run_broadcasting},
    {"not_reading", "a peer never reads while large packets wait for it", run_not_reading},
    {"stopping", "the Center stops the relay at any moment", run_stopping},
    {"refusing", "nobody listens or nobody answers, and then somebody does", run_refusing},
    {"cutting", "every connection is reset from outside", run_cutting},
    {"datagrams", "datagrams both ways, bad ones among them, until all have come to their end", run_datagrams},
    {"last_datagrams", "the same, and the Center stops the relay at any moment", run_last_datagrams},
}};

} // namespace

std::span<scenario const> all_scenarios() {
    return c_scenarios;
}

} // namespace simulation
