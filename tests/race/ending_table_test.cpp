// Every way a connection can end, at every moment of its life, on both sides: nothing is left, the Center hears of it
// once, and each packet that was handed over was written or came back.

#include "tests/race/live_relay.hpp"

#include <sys/socket.h>

#include <cstdlib>
#include <ostream>
#include <tuple>

namespace {

using namespace relay_test;

enum class cause { fin, reset, silence, withdrawal, killed, half_close };
enum class moment { idle, partly_sent, marker_queued, unacknowledged, exchanging };

constexpr int c_packets = 3;
constexpr std::size_t c_data_size = 100'000;

char const* name_of(side which) {
    return which == side::accepted ? "accepted" : "outgoing";
}
char const* name_of(cause why) {
    static constexpr char const* names[] = {"fin", "reset", "silence", "withdrawal", "killed", "half_close"};
    return names[static_cast<int>(why)];
}
char const* name_of(moment when) {
    static constexpr char const* names[] = {"idle", "partly_sent", "marker_queued", "unacknowledged", "exchanging"};
    return names[static_cast<int>(when)];
}

int repetitions() {
    char const* const asked = std::getenv("ENDING_REPETITIONS");
    return asked != nullptr ? std::atoi(asked) : ENDING_REPETITIONS;
}

using table_row = std::tuple<side, cause, moment>;

class ending_table : public live_relay, public ::testing::WithParamInterface<table_row> {
protected:
    side which() const { return std::get<side>(GetParam()); }
    cause why() const { return std::get<cause>(GetParam()); }
    moment when() const { return std::get<moment>(GetParam()); }

    void run_once();

private:
    void bring_to_moment(connection& made);
    void queue_more_than_fits(connection& made);
    void queue_marker(connection& made);
    void end(connection& made);
    void shut_from_outside(connection& made);
    void wait_until_gone(connection& made);
    int written_packets() const;

    int handed = 0;
    bool is_withdrawn = false;
};

/// The socket's buffers are small, so the first packet is written in part and the others wait.
void ending_table::queue_more_than_fits(connection& made) {
    ASSERT_TRUE(with_record(made, [](tcp_record* rec) {
        int const small = 4096;
        ::setsockopt(rec->fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    }));
    for (int i = 0; i < c_packets; ++i) {
        handed += hand_over(made, {.sequence = static_cast<std::uint32_t>(i), .data = bytes(c_data_size, 7)});
    }
    EXPECT_EQ(read_bytes(made.peer, header_size()).size(), header_size());
}

/// The marker of the accepting side comes with the peer's end of stream, that of the outgoing side with the withdrawal.
void ending_table::queue_marker(connection& made) {
    queue_more_than_fits(made);
    if (which() == side::accepted) {
        ::shutdown(made.peer.get(), SHUT_WR);
        EXPECT_TRUE(eventually([&] { return !with_record(made, [](tcp_record*) {}); }));
        return;
    }
    made.listener.close();
    INet_Relay::del_client(made.address.ip, made.address.port);
    is_withdrawn = true;
}

void ending_table::bring_to_moment(connection& made) {
    if (when() == moment::exchanging) {
        write_bytes(made.peer, bytes(500, 0));
        EXPECT_TRUE(eventually([&] { return with_exchanging(made, [](tcp_record*) {}); }));
        return;
    }
    ASSERT_TRUE(finish(made));
    switch (when()) {
    case moment::partly_sent:
        queue_more_than_fits(made);
        return;
    case moment::marker_queued:
        queue_marker(made);
        return;
    case moment::unacknowledged:
        if (which() == side::accepted) {
            handed += hand_over(made, {.call = true, .sequence = 9, .data = {1}});
            EXPECT_EQ(read_bytes(made.peer, header_size() + 1).size(), header_size() + 1);
        } else {
            queue_more_than_fits(made);
            write_bytes(made.peer, packet_bytes({.call = true, .sequence = 9}));
            EXPECT_TRUE(eventually([&] { return center.delivered.load() == 1; }));
        }
        return;
    default:
        return;
    }
}

void ending_table::shut_from_outside(connection& made) {
    auto const shut = [](tcp_record* rec) { ::shutdown(rec->fd, SHUT_RDWR); };
    if (when() == moment::exchanging) {
        EXPECT_TRUE(with_exchanging(made, shut));
    } else if (!with_record(made, shut)) {
        // On its way out already, named by the list of those that must be gone.
        Tesk::OS::class_locker const guard(&EPoll::g_establish_server_map_lock, nullptr);
        if (EPoll::g_accepted_ending.first != nullptr) {
            shut(EPoll::g_accepted_ending.first);
        }
    }
}

void ending_table::end(connection& made) {
    made.listener.close();
    switch (why()) {
    case cause::fin:
        made.peer.close();
        return;
    case cause::reset:
        reset_connection(made.peer);
        return;
    case cause::silence:
        let_time_pass();
        return;
    case cause::killed:
        shut_from_outside(made);
        return;
    case cause::half_close:
        ::shutdown(made.peer.get(), SHUT_WR);
        return;
    case cause::withdrawal:
        if (which() == side::outgoing && !is_withdrawn) {
            INet_Relay::del_client(made.address.ip, made.address.port);
            is_withdrawn = true;
        } else {
            // A peer that was withdrawn at its own Center: its write side first, the rest when this side has answered.
            ::shutdown(made.peer.get(), SHUT_WR);
        }
        return;
    }
}

/// Ends what the cause alone does not: the booked retry, and a peer that neither reads nor goes.
void ending_table::wait_until_gone(connection& made) {
    if (which() == side::outgoing && !is_withdrawn) {
        int const told = when() == moment::exchanging ? 0 : 1;
        EXPECT_TRUE(eventually([&] { return center.disconnected.load() == told; }));
        INet_Relay::del_client(made.address.ip, made.address.port);
    }
    int looks = 0;
    EXPECT_TRUE(eventually([&] {
        if (++looks % 60 == 0) {
            let_time_pass();
        }
        return is_gone();
    }));
}

/// Packets of the Center that went out whole: they are first in the queue, and all of one size.
int ending_table::written_packets() const {
    long total = 0;
    for (system_call const& call : system.calls("send")) {
        total += call.result > 0 ? call.result : 0;
    }
    auto const one = static_cast<long>(header_size() + (handed == 1 ? 1 : c_data_size));
    long const exchanged = static_cast<long>(c_init_block);
    return static_cast<int>(std::min<long>(handed, (total - exchanged) / one));
}

void ending_table::run_once() {
    handed = 0;
    is_withdrawn = false;
    center.forget();
    clear_journal();
    system.clear();
    connection made = begin(which());
    bring_to_moment(made);
    end(made);
    wait_until_gone(made);
    int const times = when() == moment::exchanging ? 0 : 1;
    EXPECT_EQ(center.connected.load(), times);
    EXPECT_EQ(center.disconnected.load(), times);
    if (handed != 0) {
        EXPECT_EQ(written_packets() + center.unsent.load(), handed);
    }
    take_errors();
    take_traces();
    take_offers();
}

TEST_P(ending_table, leaves_nothing_and_tells_once) {
    for (int i = 0; i < repetitions() && !HasFailure(); ++i) {
        run_once();
    }
}

INSTANTIATE_TEST_SUITE_P(all, ending_table,
                         ::testing::Combine(::testing::Values(side::accepted, side::outgoing),
                                            ::testing::Values(cause::fin, cause::reset, cause::silence,
                                                              cause::withdrawal, cause::killed, cause::half_close),
                                            ::testing::Values(moment::idle, moment::partly_sent, moment::marker_queued,
                                                              moment::unacknowledged, moment::exchanging)),
                         [](auto const& row) {
                             return std::string(name_of(std::get<side>(row.param))) + "_" +
                                    name_of(std::get<cause>(row.param)) + "_" + name_of(std::get<moment>(row.param));
                         });

} // namespace
