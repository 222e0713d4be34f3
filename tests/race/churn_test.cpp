// Thousands of connections that come and go at random, and destinations that are withdrawn and added again at once.

#include "tests/race/answering_peer.hpp"
#include "tests/race/live_relay.hpp"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdlib>
#include <fstream>
#include <random>
#include <thread>
#include <unistd.h>

namespace {

using namespace relay_test;

constexpr std::uint32_t c_loopback = Zolt::c_local_host;
constexpr unsigned c_seed = 20260731;

int count_connections() {
    char const* const asked = std::getenv("CHURN_CONNECTIONS");
    return asked != nullptr ? std::atoi(asked) : CHURN_CONNECTIONS;
}

/// Resident memory in bytes.
long resident_bytes() {
    long all = 0;
    long resident = 0;
    std::ifstream("/proc/self/statm") >> all >> resident;
    return resident * ::sysconf(_SC_PAGESIZE);
}

class churn : public live_relay {
protected:
    bool is_recorded() const override { return false; }

    /// A peer with an address of its own, so that ports do not run out; established, and known to the Center.
    descriptor join(int number);
    void act(descriptor& peer);
    void leave(descriptor& peer);

    std::mt19937 random{c_seed};
};

descriptor churn::join(int number) {
    descriptor peer(::socket(AF_INET, SOCK_STREAM, 0));
    ::sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(0x7F000002u + static_cast<unsigned>(number % 200));
    EXPECT_EQ(::bind(peer.get(), reinterpret_cast<::sockaddr*>(&address), sizeof address), 0);
    address.sin_addr.s_addr = c_loopback;
    address.sin_port = htons(port);
    EXPECT_EQ(::connect(peer.get(), reinterpret_cast<::sockaddr*>(&address), sizeof address), 0);
    write_bytes(peer, bytes(c_init_block, 0));
    EXPECT_EQ(read_bytes(peer, c_init_block).size(), c_init_block);
    return peer;
}

/// Some packets each way; the peer does not read all that comes.
void churn::act(descriptor& peer) {
    Zolt::struct_node_addr name{};
    ::sockaddr_in own{};
    ::socklen_t length = sizeof own;
    ::getsockname(peer.get(), reinterpret_cast<::sockaddr*>(&own), &length);
    name = {own.sin_addr.s_addr, ntohs(own.sin_port)};
    for (unsigned i = random() % 4; i > 0; --i) {
        auto token = make_token({.call = random() % 2 == 0, .data = bytes(random() % 2000, 3)});
        if (INet_Relay::send_tcp_server(name, token, token.get_header_packet()) != 0) {
            token.free();
        }
    }
    for (unsigned i = random() % 4; i > 0; --i) {
        write_bytes(peer, packet_bytes({.call_ack = random() % 3 == 0, .data = bytes(random() % 300, 5)}));
    }
}

void churn::leave(descriptor& peer) {
    switch (random() % 3) {
    case 0:
        peer.close();
        return;
    case 1:
        reset_connection(peer);
        return;
    default:
        ::shutdown(peer.get(), SHUT_WR);
        peer.close();
        return;
    }
}

TEST_F(churn, leaves_nothing_and_takes_no_memory_for_good) {
    constexpr int c_together = 20;
    int const count = count_connections();
    long after_first_part = 0;
    std::vector<descriptor> here;
    for (int number = 0; number < count && !HasFailure(); ++number) {
        here.push_back(join(number));
        act(here.back());
        if (here.size() == c_together) {
            leave(here.front());
            here.erase(here.begin());
        }
        if (number == count / 4) {
            after_first_part = resident_bytes();
        }
    }
    for (descriptor& peer : here) {
        leave(peer);
    }
    here.clear();
    EXPECT_TRUE(eventually([&] { return is_gone(); }));
    EXPECT_EQ(center.connected.load(), count);
    EXPECT_EQ(center.disconnected.load(), count);
    if (CHURN_MEMORY_SHOWS) { // a sanitizer keeps freed memory back
        EXPECT_LT(resident_bytes() - after_first_part, 8 << 20) << "seed " << c_seed;
    }
}

class withdrawing : public churn {
protected:
    static int count_established() {
        Tesk::OS::class_locker const guard(&EPoll::g_client_lock, nullptr);
        return static_cast<int>(EPoll::g_establish_client_map.size());
    }
    static int count_living() {
        Tesk::OS::class_locker const guard(&EPoll::g_client_lock, nullptr);
        int living = 0;
        for (auto* rec = EPoll::g_outgoing.first; rec != nullptr; rec = EPoll::live_list::after(rec)) {
            ++living;
        }
        return living;
    }
};

TEST_F(withdrawing, and_adding_at_once_ends_with_one_working_connection) {
    answering_peer const peer;
    for (int round = 0; round < WITHDRAWALS && !HasFailure(); ++round) {
        INet_Relay::add_client(c_loopback, peer.port());
        if (random() % 2 == 0) {
            EXPECT_TRUE(eventually([] { return count_established() == 1; }));
        }
        INet_Relay::del_client(c_loopback, peer.port());
        INet_Relay::add_client(c_loopback, peer.port());
        EXPECT_TRUE(eventually([] {
            tick(EPoll::inet_timer);
            return count_living() == 1 && count_established() == 1;
        })) << "round "
            << round;
        INet_Relay::del_client(c_loopback, peer.port());
        EXPECT_TRUE(eventually([&] { return is_gone(); })) << "round " << round;
    }
    EXPECT_EQ(center.connected.load(), center.disconnected.load());
}

/// Like a Center whose own thread answers "disconnected" with a withdrawal, while another registers and withdraws too.
TEST_F(withdrawing, from_the_thread_that_hears_of_the_end_brings_nothing_back) {
    answering_peer const peer;
    for (int round = 0; round < WITHDRAWALS && !HasFailure(); ++round) {
        int const heard_before = center.disconnected.load();
        INet_Relay::add_client(c_loopback, peer.port());
        EXPECT_TRUE(eventually([] { return count_established() == 1; }));
        std::thread consumer([&] {
            EXPECT_TRUE(eventually([&] { return center.disconnected.load() > heard_before; }));
            INet_Relay::del_client(c_loopback, peer.port());
        });
        {
            Tesk::OS::class_locker const guard(&EPoll::g_client_lock, nullptr);
            for (auto const& [destination, rec] : EPoll::g_establish_client_map) {
                ::shutdown(rec->fd, SHUT_RDWR);
            }
        }
        if (round % 2 == 0) {
            tick(EPoll::inet_timer); // a retry may be under way when the withdrawal comes
        }
        consumer.join();
        EXPECT_TRUE(eventually([&] { return is_gone(); })) << "round " << round;
    }
    EXPECT_EQ(center.connected.load(), center.disconnected.load());
}

} // namespace
