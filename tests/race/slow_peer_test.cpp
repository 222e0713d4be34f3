// One peer of twenty never reads, with large packets queued for it: the others hardly notice, no tick waits, stop is prompt.

#include "tests/race/live_relay.hpp"

#include <algorithm>
#include <poll.h>
#include <sys/socket.h>
#include <thread>

namespace {

using namespace relay_test;
using clock_type = std::chrono::steady_clock;

constexpr int c_readers = 19;
constexpr int c_packets = 40;             // for each reader in one round
constexpr std::size_t c_small = 16 << 10; // bytes of data
constexpr std::size_t c_large = 4 << 20;
constexpr int c_rounds = 5;
constexpr int c_attempts = 4;
constexpr std::chrono::seconds c_promptly{10}; // also on a busy machine; who waits for the peer waits for ever

class slow_peer : public live_relay {
protected:
    bool is_recorded() const override { return false; }

    connection established() {
        connection made = begin(side::accepted);
        center.forget();
        EXPECT_TRUE(finish(made));
        return made;
    }

    void queue(connection const& to, std::size_t size) { EXPECT_TRUE(hand_over(to, {.data = bytes(size, 1)})); }

    /// Seconds until every reader has all its packets of one round.
    double run_round(std::vector<connection> const& readers) {
        auto const started = clock_type::now();
        for (connection const& reader : readers) {
            for (int i = 0; i < c_packets; ++i) {
                queue(reader, c_small);
            }
        }
        drain(readers);
        return std::chrono::duration<double>(clock_type::now() - started).count();
    }

private:
    void drain(std::vector<connection> const& readers) {
        std::vector<std::size_t> missing(readers.size(), c_packets * (c_small + header_size()));
        std::vector<::pollfd> watched;
        for (connection const& reader : readers) {
            watched.push_back({reader.peer.get(), POLLIN, 0});
        }
        std::vector<unsigned char> space(1 << 20);
        while (std::any_of(missing.begin(), missing.end(), [](std::size_t bytes) { return bytes != 0; })) {
            ASSERT_GT(::poll(watched.data(), watched.size(), 30000), 0) << "the readers get nothing any more";
            for (std::size_t i = 0; i < watched.size(); ++i) {
                ssize_t const got =
                    watched[i].revents == 0 ? 0 : ::recv(watched[i].fd, space.data(), space.size(), MSG_DONTWAIT);
                missing[i] -= got > 0 ? static_cast<std::size_t>(got) : 0;
            }
        }
    }
};

TEST_F(slow_peer, slows_nobody_else) {
    std::vector<connection> readers;
    for (int i = 0; i < c_readers; ++i) {
        readers.push_back(established());
    }
    double ratio = 0;
    connection stuck;
    for (int attempt = 0; attempt < c_attempts && ratio < 0.8; ++attempt) {
        double alone = 1e9;
        double beside = 1e9;
        for (int round = 0; round < c_rounds; ++round) {
            alone = std::min(alone, run_round(readers));
        }
        stuck = established();
        for (int round = 0; round < c_rounds; ++round) {
            queue(stuck, c_large);
            beside = std::min(beside, run_round(readers));
        }
        ratio = std::max(ratio, alone / beside);
        if (ratio < 0.8) {
            reset_connection(stuck.peer);
        }
    }
    EXPECT_GE(ratio, 0.8);

    auto const before_tick = clock_type::now();
    tick(EPoll::inet_timer);
    EXPECT_LT(clock_type::now() - before_tick, c_promptly) << "the tick waits for the peer";
    queue(stuck, c_large);
    auto const before_stop = clock_type::now();
    INet_Relay::stop();
    EXPECT_LT(clock_type::now() - before_stop, c_promptly);
}

} // namespace
