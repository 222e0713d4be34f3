// The thresholds of docs/known-limits.md, measured on real sockets with the relay's threads at work. The clock and the
// timer are in the test's hand. Each test prints what it measured and asserts the bound that the page gives.
#include "tests/race/live_relay.hpp"
#include "tests/support/real_calls.hpp"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iostream>
#include <list>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>

namespace {

using namespace relay_test;
using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

using seconds = std::chrono::duration<double>;

template <class figure>
void tell(char const* what, figure const& measured) {
    std::cout << "measured: " << measured << ' ' << what << '\n';
}

/// Open in this process; the look itself takes one.
long open_descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}) - 1;
}

// --- connections that arrive together ----------------------------------------------------------------------------

class limits_of_arrivals : public live_relay {
protected:
    void TearDown() override {
        let_go = true;
        peers.clear();
        EXPECT_TRUE(eventually([this] { return is_gone(); }));
        live_relay::TearDown();
    }

    /// The set-up thread stands still before it takes a first visitor, until let go.
    void hold_set_up_thread() {
        system.on("accept", [this](system_call const&) {
            is_held = true;
            EXPECT_TRUE(eventually([this] { return let_go.load(); }));
        });
        arrive();
        EXPECT_TRUE(eventually([this] { return is_held.load(); }));
    }

    void arrive() { peers.push_back(connect_loopback(port)); }

    /// Begins to connect; whether that comes true at once, as it does on the loopback when there is room.
    bool arrives_at_once() {
        peers.emplace_back(__real_socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
        sockaddr_in there{};
        there.sin_family = AF_INET;
        there.sin_port = htons(port);
        there.sin_addr.s_addr = Zolt::c_local_host;
        __real_connect(peers.back().get(), reinterpret_cast<sockaddr*>(&there), sizeof there);
        pollfd connected{peers.back().get(), POLLOUT, 0};
        return ::poll(&connected, 1, 0) == 1 && connected.revents == POLLOUT;
    }

    int listener() const { return EPoll::g_server_map.at(port); }

    /// Connections that the kernel holds for the relay.
    std::size_t waiting() const {
        tcp_info info{};
        socklen_t length = sizeof info;
        EXPECT_EQ(::getsockopt(listener(), IPPROTO_TCP, TCP_INFO, &info, &length), 0);
        return info.tcpi_unacked;
    }

    /// An accept failed, and the next tick will see to it.
    static bool is_look_due() {
        auto const* arrivals = EPoll::g_arrivals;
        while (arrivals->record->kind != EPoll::c_kind_listen) {
            arrivals = arrivals->next;
        }
        return arrivals->look_again.load() != 0;
    }

    bool comes_to_wait(std::size_t count) const {
        return eventually([&] { return waiting() == count; });
    }

    std::vector<descriptor> peers;
    std::atomic<bool> is_held{false};
    std::atomic<bool> let_go{false};
};

TEST_F(limits_of_arrivals, of_200_connects_before_a_wake_up_one_is_taken_and_one_more_with_each_later_one) {
    constexpr std::size_t c_burst = 200;
    constexpr std::size_t c_later = 50;
    ASSERT_EQ(__real_listen(listener(), 1024), 0);
    hold_set_up_thread();
    for (std::size_t i = 0; i < c_burst; ++i) {
        arrive();
    }
    ASSERT_EQ(waiting(), 1 + c_burst);
    let_go = true;
    ASSERT_TRUE(comes_to_wait(c_burst - 1));
    for (std::size_t later = 1; later <= c_later; ++later) {
        arrive();
        ASSERT_TRUE(comes_to_wait(c_burst - 1)) << "each one brings one in";
        EXPECT_EQ(system.count("accept"), 2 + later);
    }
    tell("connections of a burst of 200 taken with its wake-up", c_burst - waiting());
}

TEST_F(limits_of_arrivals, with_the_default_backlog_six_wait_and_the_seventh_is_not_connected) {
    ASSERT_EQ(EPoll::g_listen_backlog, 5);
    hold_set_up_thread();
    for (std::size_t count = 2; count <= 6; ++count) {
        EXPECT_TRUE(arrives_at_once());
        EXPECT_EQ(waiting(), count);
    }
    EXPECT_FALSE(arrives_at_once());
    tell("connections wait with a backlog of 5", waiting());
    EXPECT_EQ(waiting(), 6u);
}

/// No descriptor is free for as long as it lives.
class full_table {
public:
    full_table() {
        ::getrlimit(RLIMIT_NOFILE, &before);
        descriptor const lowest(__real_socket(AF_INET, SOCK_STREAM, 0));
        rlimit const full{static_cast<rlim_t>(lowest.get()), before.rlim_max};
        EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &full), 0);
    }
    ~full_table() { ::setrlimit(RLIMIT_NOFILE, &before); }
    full_table(full_table const&) = delete;
    full_table& operator=(full_table const&) = delete;

private:
    rlimit before{};
};

TEST_F(limits_of_arrivals, without_a_free_descriptor_a_connection_waits_and_is_taken_with_the_tick_after_there_is_one) {
    hold_set_up_thread();
    {
        full_table const full;
        let_go = true;
        EXPECT_TRUE(eventually(is_look_due));
        tick(EPoll::inet_timer);
        EXPECT_TRUE(eventually([this] { return system.count("accept") == 2 && is_look_due(); })) << "one look a tick";
    }
    EXPECT_EQ(waiting(), 1u);
    tick(EPoll::inet_timer);
    EXPECT_TRUE(comes_to_wait(0));
}

// --- descriptors -------------------------------------------------------------------------------------------------

class limits_of_descriptors : public relay_fixture {};

TEST_F(limits_of_descriptors, a_node_takes_five_and_two_for_a_port_and_one_more_to_stop) {
    long const before = open_descriptors();
    ASSERT_EQ(INet_Relay::initialize(), 0);
    EXPECT_EQ(open_descriptors() - before, 5);
    for (long ports = 1; ports <= 3; ++ports) {
        ASSERT_TRUE(eventually([] { return INet_Relay::add_server(unused_port()) == 0; }));
        EXPECT_EQ(open_descriptors() - before, 5 + 2 * ports);
    }
    start_threads(true);
    INet_Relay::start();
    std::atomic<long> while_stopping{0};
    system.on("epoll_ctl", [&](system_call const&) { while_stopping = open_descriptors() - before; });
    INet_Relay::stop();
    tell("descriptors of a node with three ports that stops", while_stopping.load());
    EXPECT_EQ(while_stopping, 5 + 2 * 3 + 1);
    INet_Relay::finalize();
    EXPECT_EQ(open_descriptors(), before);
}

// --- one connection, made by either side -------------------------------------------------------------------------

class limits_of_connections : public live_relay {
protected:
    void TearDown() override {
        made.peer.close();
        made.listener.close();
        if (made.which == side::outgoing) {
            INet_Relay::del_client(made.address.ip, made.address.port);
        }
        EXPECT_TRUE(eventually([this] { return is_gone(); }));
        live_relay::TearDown();
    }

    void establish(side which) {
        made = begin(which);
        ASSERT_TRUE(finish(made));
    }

    connection made;
};

class limits_of_either_side : public limits_of_connections, public ::testing::WithParamInterface<side> {};

INSTANTIATE_TEST_SUITE_P(sides, limits_of_either_side, ::testing::Values(side::accepted, side::outgoing),
                         [](auto const& given) { return given.param == side::accepted ? "accepted" : "outgoing"; });

TEST_P(limits_of_either_side, silence_of_8000_ticks_brings_a_heartbeat_and_of_8001_the_end) {
    establish(GetParam());
    advance_clock(8000);
    tick(EPoll::inet_timer);
    EXPECT_EQ(read_bytes(made.peer, header_size()).size(), header_size());
    EXPECT_TRUE(with_record(made, [](tcp_record*) {}));
    made.listener.close();
    advance_clock(1);
    tick(EPoll::inet_timer);
    EXPECT_TRUE(is_closed_by_peer(made.peer));
    EXPECT_TRUE(eventually([this] { return center.disconnected.load() == 1; }));
}

TEST_P(limits_of_either_side, a_connection_takes_one_descriptor) {
    long const before = open_descriptors();
    establish(GetParam());
    long const of_the_peer = GetParam() == side::accepted ? 1 : 2;
    EXPECT_EQ(open_descriptors() - before - of_the_peer, 1);
}

TEST_P(limits_of_either_side, a_write_to_a_peer_that_does_not_read_waits_a_few_milliseconds) {
    constexpr int c_writes = 51;
    establish(GetParam());
    descriptor own; // another one for the relay's socket, which the relay may close meanwhile
    ASSERT_TRUE(with_record(made, [&](tcp_record* rec) { own = descriptor(::dup(rec->fd)); }));
    bytes const large(1 << 20);
    std::vector<seconds> waits;
    while (waits.size() < c_writes) {
        auto const before = clock_type::now();
        ssize_t const taken = __real_send(own.get(), large.data(), large.size(), 0);
        seconds const waited = clock_type::now() - before;
        ASSERT_LT(waited, 10s); // also on a busy machine
        if (taken == -1) {      // else there was room, which grows at first
            ASSERT_EQ(errno, EAGAIN);
            waits.push_back(waited);
        }
    }
    std::ranges::sort(waits);
    tell("seconds, the median write to a peer that does not read", waits[c_writes / 2].count());
    tell("seconds, the longest", waits.back().count());
    EXPECT_GE(waits.front(), 1ms);
    EXPECT_LT(waits[c_writes / 2], 20ms);
}

// --- a Center that is busy ---------------------------------------------------------------------------------------

class limits_of_a_busy_center : public live_relay {
protected:
    bool is_recorded() const override { return false; }

    void SetUp() override {
        live_relay::SetUp();
        on_offer([this](packet_fields const& packet) {
            was_asked = true;
            return is_busy ? c_center_busy : center.note(packet);
        });
    }

    void TearDown() override {
        is_busy = false;
        peers.clear();
        EXPECT_TRUE(eventually([this] { return is_gone(); }));
        live_relay::TearDown();
    }

    connection& join() {
        peers.push_back(begin(side::accepted));
        center.forget();
        EXPECT_TRUE(finish(peers.back()));
        return peers.back();
    }

    std::list<connection> peers;
    std::atomic<bool> is_busy{false};
    std::atomic<bool> was_asked{false};
};

TEST_F(limits_of_a_busy_center, after_8001_ticks_peers_are_cut_that_talked_all_the_time) {
    connection const& first = join();
    connection const& second = join();
    is_busy = true;
    was_asked = false;
    write_bytes(first.peer, packet_bytes({}));
    EXPECT_TRUE(eventually([this] { return was_asked.load(); }));
    write_bytes(second.peer, packet_bytes({}));
    advance_clock(8000);
    tick(EPoll::inet_timer);
    for (connection const* peer : {&first, &second}) {
        EXPECT_EQ(read_bytes(peer->peer, header_size()).size(), header_size()) << "a heartbeat";
    }
    advance_clock(1);
    tick(EPoll::inet_timer);
    EXPECT_TRUE(is_closed_by_peer(second.peer));
}

// --- the retry that binds its old port -----------------------------------------------------------------------------

class limits_of_a_retry : public limits_of_connections {
protected:
    /// The peer never answers in the exchange, and the relay ends it first. The kernel remembers its port.
    void let_relay_end_first() {
        made = begin(side::outgoing);
        ASSERT_EQ(read_bytes(made.peer, c_init_block).size(), c_init_block);
        // The block may be read before the relay has stamped its write with the time.
        ASSERT_TRUE(eventually([this] {
            let_time_pass();
            return is_waiting();
        }));
        ASSERT_TRUE(is_closed_by_peer(made.peer));
    }

    bool is_waiting() const {
        Tesk::OS::class_locker const guard(&EPoll::g_client_lock, nullptr);
        return EPoll::g_connect_fail_map.contains(made.address);
    }

    bool connects_with_a_tick() {
        tick(EPoll::inet_timer);
        return system.count("connect") == 2;
    }
};

TEST_F(limits_of_a_retry, is_refused_with_each_tick_while_the_kernel_has_the_old_connection_and_no_longer) {
    let_relay_end_first();
    std::size_t const before = system.count("bind");
    for (std::size_t ticks = 1; ticks <= 20; ++ticks) {
        EXPECT_FALSE(connects_with_a_tick());
        EXPECT_EQ(system.count("bind"), before + ticks) << "one attempt a tick";
    }
    reset_connection(made.peer); // ends what the kernel remembers
    EXPECT_TRUE(connects_with_a_tick());
    made.peer = accept_loopback(made.listener);
}

class limits_long : public limits_of_a_retry {};

TEST_F(limits_long, a_retry_is_refused_for_a_minute_after_this_side_closed_first) {
    let_relay_end_first();
    made.peer.close();
    auto const closed = clock_type::now();
    seconds refused{};
    while (!connects_with_a_tick() && refused < 70s) {
        refused = clock_type::now() - closed;
        ::poll(nullptr, 0, 50);
    }
    tell("seconds refused", refused.count());
    EXPECT_GT(refused, 59s);
    EXPECT_LT(refused, 63s); // the kernel rounds its minute up
    made.peer = accept_loopback(made.listener);
}

} // namespace
