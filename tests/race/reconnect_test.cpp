// Outgoing connections that cannot be made, or not yet: a peer that restarts, a port that nobody serves, a listener that
// answers nothing, and one that answers while its connect is being cancelled. The sockets and threads are real; the
// clock and the timer are in the test's hand.

#include "tests/race/answering_peer.hpp"
#include "tests/race/live_relay.hpp"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <random>

namespace {

using namespace relay_test;
using namespace std::chrono_literals;

constexpr std::uint32_t c_loopback = Zolt::c_local_host;
constexpr unsigned c_time_out = 8000; ///< lemon_clock ticks

/// The port may be served again while this socket, or what the kernel remembers of it, still has it.
void share_port(descriptor const& socket) {
    int const on = 1;
    ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
}

descriptor listen_on(std::uint16_t port) {
    descriptor listener(::socket(AF_INET, SOCK_STREAM, 0));
    share_port(listener);
    ::sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = c_loopback;
    EXPECT_EQ(::bind(listener.get(), reinterpret_cast<::sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(listener.get(), 16), 0);
    return listener;
}

/// A listener whose queue is full, so that the kernel drops what asks for a connection.
struct black_hole {
    descriptor listener = listen_loopback(0);
    descriptor filling = connect_loopback(local_port(listener));
};

class reconnect : public live_relay {
protected:
    /// Attempts so far: a connect each. The test's own connections are not counted.
    int attempts() const { return static_cast<int>(system.count("connect")); }

    static bool is_filed(EPoll::connection_map const& registry, std::uint16_t number) {
        Tesk::OS::class_locker const guard(&EPoll::g_client_lock, nullptr);
        return registry.contains({c_loopback, number});
    }
    /// Without a socket, until the next tick.
    static bool is_waiting(std::uint16_t number) { return is_filed(EPoll::g_connect_fail_map, number); }
    static bool is_established(std::uint16_t number) { return is_filed(EPoll::g_establish_client_map, number); }

    struct outgoing_counts {
        int living = 0;
        int with_socket = 0;
        int established = 0;
        bool operator==(outgoing_counts const&) const = default;
    };
    static outgoing_counts count_outgoing() {
        Tesk::OS::class_locker const guard(&EPoll::g_client_lock, nullptr);
        outgoing_counts counts;
        for (auto* rec = EPoll::g_outgoing.first; rec != nullptr; rec = EPoll::live_list::after(rec)) {
            ++counts.living;
            counts.with_socket += static_cast<int>(rec->fd != -1);
        }
        counts.established = static_cast<int>(EPoll::g_establish_client_map.size());
        return counts;
    }

    void withdraw(std::uint16_t number) {
        INet_Relay::del_client(c_loopback, number);
        EXPECT_TRUE(eventually([this] { return is_gone(); }));
    }
};

// --- a peer that restarts ----------------------------------------------------------------------------------------

enum class last_word { fin, reset, silence };

struct restart {
    last_word how;
    int ticks_away;
};

class restarted_peer : public reconnect, public ::testing::WithParamInterface<restart> {
protected:
    void go_away(connection& made) {
        share_port(made.peer);
        made.listener.close();
        switch (GetParam().how) {
        case last_word::fin:
            made.peer.close();
            break;
        case last_word::reset:
            reset_connection(made.peer);
            break;
        case last_word::silence:
            let_time_pass();
            break;
        }
        EXPECT_TRUE(eventually([this] { return center.disconnected.load() == 1; }));
        made.peer.close();
        for (int i = 0; i < GetParam().ticks_away; ++i) {
            tick(EPoll::inet_timer);
            EXPECT_TRUE(eventually([&] { return is_waiting(made.address.port); }));
        }
    }

    /// True when an attempt has come through to the listener; false when it failed.
    bool arrives_at(connection const& made) {
        ::pollfd arrival{made.listener.get(), POLLIN, 0};
        EXPECT_TRUE(eventually([&] { return ::poll(&arrival, 1, 0) == 1 || is_waiting(made.address.port); }));
        return ::poll(&arrival, 1, 0) == 1;
    }
};

TEST_P(restarted_peer, is_connected_again_within_two_ticks) {
    connection made = begin(side::outgoing);
    ASSERT_TRUE(finish(made));
    go_away(made);
    center.forget();
    made.listener = listen_on(made.address.port);
    int ticks = 0;
    do {
        tick(EPoll::inet_timer);
        ++ticks;
    } while (!arrives_at(made) && ticks < 10);
    EXPECT_LE(ticks, 2);
    made.peer = accept_loopback(made.listener);
    EXPECT_TRUE(finish(made));
    EXPECT_EQ(count_outgoing(), (outgoing_counts{1, 1, 1}));
    EXPECT_EQ(center.disconnected.load(), 0);
    made.peer.close();
    withdraw(made.address.port);
}

std::string name_of(::testing::TestParamInfo<restart> const& row) {
    static constexpr char const* words[] = {"fin", "reset", "silence"};
    return std::string(words[static_cast<int>(row.param.how)]) + "_and_" + std::to_string(row.param.ticks_away) +
           "_ticks_away";
}

INSTANTIATE_TEST_SUITE_P(after, restarted_peer,
                         ::testing::Values(restart{last_word::fin, 0}, restart{last_word::fin, 3},
                                           restart{last_word::reset, 0}, restart{last_word::reset, 3},
                                           restart{last_word::silence, 0}, restart{last_word::silence, 3}),
                         name_of);

// --- a port that nobody serves -----------------------------------------------------------------------------------

TEST_F(reconnect, to_a_port_that_nobody_serves_is_tried_exactly_once_a_tick) {
    constexpr int c_ticks = 25;
    std::uint16_t const nobody = unused_port();
    INet_Relay::add_client(c_loopback, nobody);
    for (int ticks = 0; ticks <= c_ticks && !HasFailure(); ++ticks) {
        EXPECT_TRUE(eventually([&] { return is_waiting(nobody); }));
        EXPECT_EQ(attempts(), 1 + ticks);
        EXPECT_EQ(count_outgoing(), (outgoing_counts{1, 0, 0}));
        tick(EPoll::inet_timer);
    }
    withdraw(nobody);
    EXPECT_EQ(center.connected.load() + center.disconnected.load(), 0);
}

// --- a listener that answers nothing -----------------------------------------------------------------------------

class black_holed : public reconnect {
protected:
    /// From an attempt that hangs to the next one: not before the time-out has passed, and then with the first or the
    /// second tick.
    void expect_next_attempt(std::uint16_t number) {
        int const before = attempts();
        advance_clock(c_time_out);
        tick(EPoll::inet_timer);
        EXPECT_EQ(system.count("shutdown"), static_cast<std::size_t>(before - 1)) << "cancelled before its time";
        EXPECT_EQ(count_outgoing(), (outgoing_counts{1, 1, 0}));
        advance_clock(1);
        tick(EPoll::inet_timer);
        EXPECT_EQ(system.count("shutdown"), static_cast<std::size_t>(before));
        EXPECT_TRUE(eventually([&] { return attempts() > before || is_waiting(number); }));
        if (attempts() == before) {
            tick(EPoll::inet_timer);
        }
        EXPECT_EQ(attempts(), before + 1);
    }
};

TEST_F(black_holed, is_cancelled_after_the_time_out_and_tried_again_for_ever) {
    constexpr int c_rounds = 12;
    black_hole hole;
    std::uint16_t const there = local_port(hole.listener);
    INet_Relay::add_client(c_loopback, there);
    EXPECT_EQ(attempts(), 1);
    for (int round = 0; round < c_rounds && !HasFailure(); ++round) {
        expect_next_attempt(there);
        EXPECT_EQ(count_outgoing(), (outgoing_counts{1, 1, 0}));
    }
    // The hole opens.
    accept_loopback(hole.listener).close();
    expect_next_attempt(there);
    connection made{side::outgoing, std::move(hole.listener), {}, {c_loopback, there}};
    made.peer = accept_loopback(made.listener);
    EXPECT_TRUE(finish(made));
    EXPECT_EQ(count_outgoing(), (outgoing_counts{1, 1, 1}));
    made.peer.close();
    made.listener.close();
    withdraw(there);
}

/// The withdrawn connect is cut for its age too, and the event of two shutdowns in one tick is nobody's.
TEST_F(black_holed, and_withdrawn_is_gone_with_the_second_tick_after_the_time_out) {
    black_hole const hole;
    INet_Relay::add_client(c_loopback, local_port(hole.listener));
    INet_Relay::del_client(c_loopback, local_port(hole.listener));
    EXPECT_EQ(count_outgoing().living, 1);
    let_time_pass();
    tick(EPoll::inet_timer);
    EXPECT_TRUE(eventually([this] { return is_gone(); }));
    EXPECT_EQ(attempts(), 1);
}

// --- one that answers late ---------------------------------------------------------------------------------------

class late_answer : public reconnect {
protected:
    void TearDown() override {
        let_go = true;
        reconnect::TearDown();
    }

    /// The set-up thread stands still in an accept until let go.
    descriptor hold_set_up_thread() {
        system.on("accept", [this](system_call const&) {
            is_held = true;
            EXPECT_TRUE(eventually([this] { return let_go.load(); }));
        });
        descriptor visitor = connect_loopback(port);
        EXPECT_TRUE(eventually([this] { return is_held.load(); }));
        return visitor;
    }

    std::atomic<bool> is_held{false};
    std::atomic<bool> let_go{false};
};

/// The kernel has completed the connect, the set-up thread has not heard of it, and the timer cancels.
TEST_F(late_answer, that_was_cancelled_before_it_was_seen_ends_in_one_working_connection) {
    descriptor visitor = hold_set_up_thread();
    connection made{side::outgoing, listen_loopback(), {}, {}};
    made.address = {c_loopback, local_port(made.listener)};
    INet_Relay::add_client(c_loopback, made.address.port);
    made.peer = accept_loopback(made.listener);
    let_time_pass();
    let_go = true;
    visitor.close();
    EXPECT_TRUE(is_closed_by_peer(made.peer));
    EXPECT_TRUE(eventually([&] {
        tick(EPoll::inet_timer);
        return is_waiting(made.address.port);
    }));
    // The old connection still holds the port that the next one binds: each tick fails, and leaves no socket.
    for (int i = 0; i < 3; ++i) {
        tick(EPoll::inet_timer);
        EXPECT_EQ(count_outgoing(), (outgoing_counts{1, 0, 0}));
    }
    EXPECT_EQ(attempts(), 1);
    reset_connection(made.peer);
    tick(EPoll::inet_timer);
    EXPECT_EQ(attempts(), 2);
    made.peer = accept_loopback(made.listener);
    EXPECT_TRUE(finish(made));
    EXPECT_EQ(count_outgoing(), (outgoing_counts{1, 1, 1}));
    made.peer.close();
    made.listener.close();
    withdraw(made.address.port);
}

/// Many holes that open before the kernel asks again.
class opened_holes : public late_answer {
protected:
    using clock_type = std::chrono::steady_clock;
    static constexpr int c_destinations = 60;
    static constexpr auto c_apart = 4ms;

    void SetUp() override {
        late_answer::SetUp();
        asked_again = measure_second_request();
    }

    /// From a connect to the moment at which a hole that has opened since is asked again: a second, and the clock's grain.
    static clock_type::duration measure_second_request() {
        black_hole const hole;
        descriptor const asking(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
        ::sockaddr_in address{};
        ::socklen_t length = sizeof address;
        ::getsockname(hole.listener.get(), reinterpret_cast<::sockaddr*>(&address), &length);
        auto const started = clock_type::now();
        ::connect(asking.get(), reinterpret_cast<::sockaddr*>(&address), sizeof address);
        accept_loopback(hole.listener).close();
        EXPECT_TRUE(wait_readable(hole.listener));
        return clock_type::now() - started;
    }

    static void wait_until(clock_type::time_point moment) {
        EXPECT_TRUE(eventually([=] { return clock_type::now() >= moment; }));
    }

    void connect_and_open(std::chrono::milliseconds early_or_late) {
        black_hole hole;
        ports.push_back(local_port(hole.listener));
        auto const now = clock_type::now();
        INet_Relay::add_client(c_loopback, ports.back());
        advance_clock(1); // the next one is due for cancellation a clock tick later
        cancellations.push_back(now + asked_again + early_or_late);
        accept_loopback(hole.listener).close();
        listeners.push_back(std::move(hole.listener));
        wait_until(now + c_apart);
    }

    /// Each connect is cancelled at about the moment at which it is answered, while the set-up thread lags behind. How many
    /// were cancelled and made again.
    int race();

    std::vector<std::uint16_t> ports;
    std::vector<descriptor> listeners;
    std::vector<clock_type::time_point> cancellations;
    clock_type::duration asked_again{};
    std::mt19937 random{20260731};
};

int opened_holes::race() {
    int const before = attempts();
    ports.clear();
    listeners.clear();
    cancellations.clear();
    for (int i = 0; i < c_destinations; ++i) {
        connect_and_open(std::chrono::milliseconds(random() % 25) - 12ms);
    }
    EXPECT_EQ(count_outgoing(), (outgoing_counts{c_destinations, c_destinations, 0})) << "the holes let nobody in";
    answering_peer const peer(std::move(listeners));
    system.on("getsockname", [](system_call const&) { ::poll(nullptr, 0, 3); });
    advance_clock(c_time_out - c_destinations);
    for (auto const moment : cancellations) {
        wait_until(moment);
        advance_clock(1);
        tick(EPoll::inet_timer);
    }
    system.on("getsockname", nullptr);
    EXPECT_TRUE(eventually([] {
        tick(EPoll::inet_timer);
        return count_outgoing() == outgoing_counts{c_destinations, c_destinations, c_destinations};
    }));
    EXPECT_TRUE(eventually([&] { return center.connected.load() - center.disconnected.load() == c_destinations; }));
    int const again = attempts() - before - c_destinations;
    for (std::uint16_t const there : ports) {
        INet_Relay::del_client(c_loopback, there);
    }
    EXPECT_TRUE(eventually([this] { return is_gone(); }));
    return again;
}

TEST_F(opened_holes, that_answer_while_they_are_cancelled_end_in_one_working_connection_each) {
    // On a machine that is busy with something else either side may win every time.
    constexpr int c_most_races = 4;
    int again = 0;
    for (int races = 0; races < c_most_races && (again == 0 || again == c_destinations); ++races) {
        again = race();
    }
    EXPECT_TRUE(0 < again && again < c_destinations) << again << " were cancelled: there was no race";
    EXPECT_EQ(center.connected.load(), center.disconnected.load());
}

} // namespace
