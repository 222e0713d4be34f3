// What the simulated kernel does that no real one shows within a test: minutes that pass, hosts that end, cut networks.

#include "tests/race/simulation/kernel.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <sys/epoll.h>
#include <sys/socket.h>

namespace {

using namespace simulation;

constexpr moment c_second = 1000000;
constexpr std::uint32_t c_near_ip = 0x0100000A; ///< 10.0.0.1
constexpr std::uint32_t c_far_ip = 0x0200000A;
constexpr std::uint16_t c_port = 7000;
constexpr address c_far_address{c_far_ip, c_port};

/// Two hosts, and a network that carries what is under way.
class two_hosts {
public:
    two_hosts() : near(net, c_near_ip), far(std::make_unique<kernel>(net, c_far_ip)) {
        carrier = spawn("network", [this] {
            while (!is_over) {
                wait_until("network", net.next_in_flight(), [this] { return is_over || net.has_in_flight(); });
                net.deliver_one(scenario_dice());
            }
        });
    }
    ~two_hosts() {
        is_over = true;
        wait_for("the end", [this] { return has_ended(carrier); });
    }

    int listen(int backlog = 5) {
        int const fd = far->socket(SOCK_STREAM);
        far->bind(fd, {0, c_port});
        far->listen(fd, backlog);
        return fd;
    }
    int begin_connection(std::uint16_t from = 0) {
        int const fd = near.socket(SOCK_STREAM);
        if (from != 0) {
            near.bind(fd, {0, from});
        }
        near.set_nonblocking(fd, true);
        near.connect(fd, c_far_address);
        return fd;
    }
    /// A connection from that port, and the accepted end of it.
    std::pair<int, int> connect(int listening, std::uint16_t from = 0) {
        int const fd = begin_connection(from);
        near.set_nonblocking(fd, false);
        address peer;
        return {fd, far->accept(listening, peer)};
    }
    void settle() {
        wait_for("nothing is under way", [this] { return !net.has_in_flight(); });
    }
    bool wait_for_mask(int fd, std::uint32_t mask, moment most) {
        return wait_until("mask", now() + most, [this, fd, mask] { return near.poll(fd) == mask; });
    }

    network net;
    kernel near;
    std::unique_ptr<kernel> far;

private:
    actor carrier = -1;
    bool is_over = false;
};

/// Virtual time passes.
void pass_until(moment then) {
    wait_until("time passes", then, [] { return false; });
}

/// Plays on two hosts, with twenty seeds for the order and size of what arrives. Under strategy::replay the turns go round
/// and time passes only when nobody can go on.
void play(void (*what)(two_hosts&), strategy how = strategy::replay) {
    for (std::uint64_t seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE(seed);
        run_schedule({.seed = seed, .how = how}, [what] {
            two_hosts hosts;
            what(hosts);
        });
    }
}

std::string read_all(kernel& host, int fd) {
    std::string text;
    std::array<char, 64> piece{};
    for (long got = 0; (got = host.recv(fd, piece.data(), piece.size())) > 0;) {
        text.append(piece.data(), static_cast<std::size_t>(got));
    }
    return text;
}

TEST(simulated_kernel, keeps_a_left_address_for_a_minute) {
    play([](two_hosts& h) {
        auto const [client, server] = h.connect(h.listen(), 5000);
        h.near.close(client);
        h.far->close(server);
        h.settle();
        moment const left = now();
        int const again = h.near.socket(SOCK_STREAM);
        EXPECT_EQ(h.near.bind(again, {0, 5000}), -EADDRINUSE);
        pass_until(left + 59 * c_second);
        EXPECT_EQ(h.near.bind(again, {0, 5000}), -EADDRINUSE);
        pass_until(left + 60 * c_second);
        EXPECT_EQ(h.near.bind(again, {0, 5000}), 0);
    });
}

TEST(simulated_kernel, forgets_an_orphan_whose_peer_never_closes) {
    play([](two_hosts& h) {
        auto const [client, server] = h.connect(h.listen(), 5000);
        h.near.close(client);
        h.settle();
        int const again = h.near.socket(SOCK_STREAM);
        EXPECT_EQ(h.near.bind(again, {0, 5000}), -EADDRINUSE);
        pass_until(now() + 60 * c_second);
        EXPECT_EQ(h.near.bind(again, {0, 5000}), 0);
        EXPECT_EQ(h.far->send(server, "abc", 3), 3);
        h.settle();
        EXPECT_EQ(h.far->poll(server) & (EPOLLERR | EPOLLHUP), static_cast<std::uint32_t>(EPOLLERR | EPOLLHUP));
    });
}

TEST(simulated_kernel, answers_a_late_end_with_a_reset) {
    play([](two_hosts& h) {
        auto const [client, server] = h.connect(h.listen());
        h.near.close(client);
        h.settle();
        pass_until(now() + 60 * c_second);
        EXPECT_EQ(h.far->shutdown(server, SHUT_WR), 0);
        h.settle();
        EXPECT_EQ(h.far->poll(server), 0x201DU);
    });
}

TEST(simulated_kernel, tries_a_dropped_connect_again_and_gives_up) {
    play([](two_hosts& h) {
        h.listen();
        h.net.black_hole(c_far_address, true);
        moment const begun = now();
        int const fd = h.begin_connection();
        std::vector<moment> tries;
        moment next = 0;
        for (;;) {
            h.settle();
            next = h.net.next_in_flight();
            if (next == c_never) {
                break;
            }
            tries.push_back((next - begun + c_second / 2) / c_second);
            pass_until(next + 1000);
        }
        EXPECT_EQ(tries, (std::vector<moment>{1, 3, 7, 15, 31, 63, 127}));
        EXPECT_EQ(h.near.poll(fd), 0x201DU);
        std::array<char, 4> text{};
        EXPECT_EQ(h.near.recv(fd, text.data(), text.size()), -ETIMEDOUT);
    });
}

TEST(simulated_kernel, connects_at_the_next_try_when_the_host_answers_again) {
    play([](two_hosts& h) {
        h.listen();
        h.net.black_hole(c_far_address, true);
        moment const begun = now();
        int const fd = h.begin_connection();
        h.settle();
        EXPECT_FALSE(h.wait_for_mask(fd, EPOLLOUT, 2 * c_second));
        h.net.black_hole(c_far_address, false);
        EXPECT_TRUE(h.wait_for_mask(fd, EPOLLOUT, 10 * c_second));
        EXPECT_EQ((now() - begun + c_second / 2) / c_second, 3U);
    });
}

TEST(simulated_kernel, resets_both_ends_when_the_network_is_cut) {
    play([](two_hosts& h) {
        auto const [client, server] = h.connect(h.listen());
        h.near.send(client, "abc", 3);
        h.settle();
        h.net.reset_all();
        EXPECT_EQ(h.near.poll(client), 0x201DU);
        EXPECT_EQ(h.far->poll(server), 0x201DU);
        std::array<char, 4> text{};
        EXPECT_EQ(h.far->recv(server, text.data(), text.size()), 3);
        EXPECT_EQ(h.far->recv(server, text.data(), text.size()), -ECONNRESET);
    });
}

TEST(simulated_kernel, ends_the_connections_of_a_process_that_ends) {
    play([](two_hosts& h) {
        int const listening = h.listen();
        auto const [client, server] = h.connect(listening);
        int const other = h.connect(listening).first;
        int const waiting = h.begin_connection();
        EXPECT_TRUE(h.wait_for_mask(waiting, EPOLLOUT, c_second));
        h.near.send(other, "abc", 3);
        h.settle();
        EXPECT_EQ(h.far->send(server, "the last words", 14), 14);
        EXPECT_EQ(h.far->count_open(), 3);
        h.far.reset();
        EXPECT_EQ(read_all(h.near, client), "the last words");
        EXPECT_TRUE(h.wait_for_mask(client, 0x2005, c_second));
        EXPECT_TRUE(h.wait_for_mask(other, 0x201D, c_second)); // it left data unread
        EXPECT_TRUE(h.wait_for_mask(waiting, 0x201D, c_second));
        // The same host in its next life.
        h.far = std::make_unique<kernel>(h.net, c_far_ip);
        EXPECT_EQ(h.far->count_open(), 0);
        int const again = h.far->socket(SOCK_STREAM);
        EXPECT_EQ(h.far->bind(again, {0, c_port}), -EADDRINUSE);
        h.near.close(client);
        h.settle();
        EXPECT_EQ(h.far->bind(again, {0, c_port}), -EADDRINUSE) << "it closed first";
    });
}

TEST(simulated_kernel, replaces_a_connection_whose_reset_is_still_under_way) {
    play([](two_hosts& h) {
        int const listening = h.listen();
        auto const [client, server] = h.connect(listening, 5000);
        h.near.close_with_reset(client);
        auto const [next, accepted] = h.connect(listening, 5000);
        EXPECT_EQ(h.far->send(accepted, "n", 1), 1);
        std::array<char, 4> text{};
        EXPECT_EQ(h.far->recv(server, text.data(), text.size()), -ECONNRESET);
        EXPECT_EQ(h.near.recv(next, text.data(), text.size()), 1);
    });
}

TEST(simulated_kernel, keeps_the_order_of_one_direction) {
    play([](two_hosts& h) {
        auto const [client, server] = h.connect(h.listen());
        h.near.set_buffers(client, 100, 100);
        h.far->set_buffers(server, 100, 100);
        std::string sent;
        for (int i = 0; i < 500; ++i) {
            sent += static_cast<char>('a' + i % 26);
        }
        spawn("writer", [&h, fd = client, &sent] {
            EXPECT_EQ(h.near.send(fd, sent.data(), sent.size()), static_cast<long>(sent.size()));
            h.near.close(fd);
        });
        EXPECT_EQ(read_all(*h.far, server), sent);
    });
}

TEST(simulated_kernel, lets_a_call_inside_outlive_the_descriptor) {
    play([](two_hosts& h) {
        auto const [client, server] = h.connect(h.listen());
        bool is_inside = false;
        actor const reader = spawn("reader", [&h, &is_inside, fd = client] {
            std::array<char, 4> text{};
            is_inside = true;
            EXPECT_EQ(h.near.recv(fd, text.data(), text.size()), 1);
        });
        wait_for("reader", [&] { return is_inside; });
        h.near.close(client);
        EXPECT_EQ(h.near.count_open(), 0);
        EXPECT_EQ(h.far->send(server, "a", 1), 1);
        wait_for("reader's end", [&] { return has_ended(reader); });
        EXPECT_TRUE(wait_until("fin", now() + c_second, [&h, fd = server] { return h.far->poll(fd) == 0x2005; }));
    });
}

TEST(simulated_kernel, tells_what_is_open) {
    play([](two_hosts& h) {
        int const events = h.near.epoll_create1();
        int const fd = h.near.socket(SOCK_DGRAM);
        h.near.bind(fd, {0, 9000});
        h.near.epoll_ctl(events, EPOLL_CTL_ADD, fd, EPOLLIN, nullptr);
        EXPECT_EQ(h.near.list_open(), (std::vector<std::string>{"3 events, 1 registered", "4 udp 0.0.0.0:9000"}));
    });
}

/// The accepting host of the random calls.
struct served {
    int listening = -1;
    int events = -1;
};

void accept_one(two_hosts& h, served const& there) {
    address peer;
    int const accepted = h.far->accept(there.listening, peer);
    if (accepted >= 0) {
        h.far->set_nonblocking(accepted, true);
        h.far->epoll_ctl(there.events, EPOLL_CTL_ADD, accepted, EPOLLIN | EPOLLOUT | EPOLLONESHOT, nullptr);
    }
}

void call_on(two_hosts& h, kernel& host, int fd) {
    std::array<char, 5000> text{};
    switch (scenario_dice().below(8)) {
    case 0:
    case 1:
        host.send(fd, text.data(), scenario_dice().below(text.size()));
        break;
    case 2:
    case 3:
        host.recv(fd, text.data(), text.size());
        break;
    case 4:
        host.shutdown(fd, static_cast<int>(scenario_dice().below(3)));
        break;
    case 5:
        host.close(fd);
        break;
    case 6:
        host.close_with_reset(fd);
        break;
    default:
        if (scenario_dice().one_in(10)) {
            h.net.reset_all();
        }
    }
}

void call_anything(two_hosts& h, served const& there) {
    // The first descriptors are the listener and the instance.
    int const fd = 5 + static_cast<int>(scenario_dice().below(8));
    event found;
    switch (scenario_dice().below(6)) {
    case 0:
        h.begin_connection();
        break;
    case 1:
        accept_one(h, there);
        break;
    case 2:
        h.far->epoll_wait(there.events, found, 0);
        h.far->epoll_ctl(there.events, EPOLL_CTL_MOD, fd, EPOLLIN, nullptr);
        break;
    case 3:
        point("random calls");
        break;
    default:
        call_on(h, scenario_dice().one_in(2) ? h.near : *h.far, fd);
    }
}

TEST(simulated_kernel, keeps_nothing_after_any_order_of_calls) {
    auto const in_any_order = [](two_hosts& h) {
        served const there{h.listen(2), h.far->epoll_create1()};
        h.far->set_nonblocking(there.listening, true);
        for (int i = 0; i < 2000; ++i) {
            call_anything(h, there);
        }
        for (int fd = 3; fd < 2000; ++fd) {
            h.near.close(fd);
            h.far->close(fd);
        }
        EXPECT_EQ(h.near.count_open() + h.far->count_open(), 0);
        h.settle();
        pass_until(now() + 200 * c_second);
        EXPECT_EQ(h.net.next_in_flight(), c_never);
        int const again = h.far->socket(SOCK_STREAM);
        EXPECT_EQ(h.far->bind(again, {0, c_port}), 0) << "something still holds the port";
    };
    play(in_any_order, strategy::random);
}

} // namespace
