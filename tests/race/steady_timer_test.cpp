// A node with its real timer, and peers that are plain sockets: one of them never reads, with large packets queued for it.
// The heartbeats that the others get show each tick.

#include "tests/race/traffic/node_process.hpp"
#include "tests/support/loopback.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

#include <poll.h>
#include <sys/socket.h>

namespace {

using namespace relay_test;
using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

constexpr std::size_t c_block = 1024;
constexpr ssize_t c_heartbeat = 72; // bytes of a header
constexpr int c_readers = 5;
constexpr int c_ticks = 4;
constexpr unsigned c_attempts = 4;
constexpr int c_patience_ms = 30000;

descriptor joined(std::uint16_t port) {
    descriptor peer = connect_loopback(port);
    write_bytes(peer, bytes(c_block, 0));
    EXPECT_EQ(read_bytes(peer, c_block).size(), c_block);
    return peer;
}

/// Reads what has come, nothing but whole heartbeats; true when there was one.
bool hears_a_beat(descriptor const& peer) {
    unsigned char space[c_block];
    ssize_t const got = ::recv(peer.get(), space, sizeof space, MSG_DONTWAIT);
    EXPECT_TRUE(got == -1 || (got > 0 && got % c_heartbeat == 0)) << got;
    return got > 0;
}

class steady_timer : public ::testing::Test {
protected:
    void SetUp() override {
        for (int i = 0; i < c_readers; ++i) {
            readers.push_back(joined(node.port()));
        }
    }

    /// How much later than it should have been the latest of the next ticks' beats came.
    clock_type::duration latest_beat(descriptor const& stuck) {
        auto const first = next_beat(stuck);
        clock_type::duration latest{};
        for (int tick = 1; tick <= c_ticks; ++tick) {
            latest = std::max(latest, next_beat(stuck) - first - tick * 1s);
        }
        return latest;
    }

    /// Feeds the stuck one, waits for a beat at every reader, and returns when the last one came.
    clock_type::time_point next_beat(descriptor const& stuck) {
        std::vector<bool> heard(readers.size(), false);
        auto const deadline = clock_type::now() + std::chrono::milliseconds(c_patience_ms);
        node.ask("stuff " + std::to_string(local_port(stuck)) + " 4 4194304");
        while (std::ranges::count(heard, false) != 0 && clock_type::now() < deadline) {
            ::pollfd first{readers.front().get(), POLLIN, 0};
            ::poll(&first, 1, 20);
            for (std::size_t i = 0; i < readers.size(); ++i) {
                heard[i] = heard[i] || hears_a_beat(readers[i]);
            }
        }
        EXPECT_EQ(std::ranges::count(heard, false), 0) << "readers hear nothing any more";
        return clock_type::now();
    }

    traffic::node_process node{1};
    std::vector<descriptor> readers;
};

TEST_F(steady_timer, misses_no_tick_beside_a_peer_that_never_reads) {
    descriptor const stuck = joined(node.port());
    ::pollfd beat{stuck.get(), POLLIN, 0}; // only who is established gets one
    ASSERT_EQ(::poll(&beat, 1, c_patience_ms), 1);
    clock_type::duration late = 1s;
    unsigned attempts = 0;
    for (; late >= 500ms && attempts < c_attempts; ++attempts) { // the machine may have been busy elsewhere
        late = latest_beat(stuck);
    }
    EXPECT_LT(late, 500ms) << "the next one on the timer's grid is a second later";
    auto const figures = node.ask("report").figures;
    EXPECT_EQ(figures.at("stuffed"), attempts * 4u * (c_ticks + 1)) << "the peer had nothing to read";
    auto const left = node.ask("stop").figures;
    EXPECT_LT(left.at("stopped_ms"), 10000u); // also on a busy machine
    EXPECT_EQ(node.finish(), 0);
}

} // namespace
