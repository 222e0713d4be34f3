// The book of packets handed over, without a relay: what takes a packet and frees it is the test.
#include "Reference_Center/hand_over_book.hpp"
#include "Reference_Host/inbox.hpp"
#include "Reference_Host/packet_building.hpp"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>
#include <new>
#include <thread>
#include <vector>

namespace {
std::atomic<long> g_blocks{0}; ///< that new gave and delete did not get back
}

void* operator new(std::size_t size) {
    void* const block = std::malloc(size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    ++g_blocks;
    return block;
}

void operator delete(void* block) noexcept {
    g_blocks -= block != nullptr ? 1 : 0;
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept {
    operator delete(block);
}

namespace Zolt::Reference_Center {
namespace {

using std::chrono::steady_clock;

constexpr std::uint32_t c_data = 100;

class hand_over_book : public ::testing::Test {
protected:
    static void SetUpTestSuite() { open_hand_over_book(); }
    static void TearDownTestSuite() { close_hand_over_book(); }

    static struct_token make() { return Reference_Host::make_packet({}, c_data); }

    /// As a relay takes a packet; it is freed later, by any thread.
    struct_token hand_over_one(std::uint32_t number = 0) {
        struct_token token = make();
        hand_over const mark(token, number, peer);
        return token;
    }

    /// Since the test began.
    hand_over_counts counted() const {
        hand_over_counts now = count_hand_overs();
        now.handed_over -= before.handed_over;
        now.written -= before.written;
        now.dropped -= before.dropped;
        now.not_connected -= before.not_connected;
        return now;
    }

    std::shared_ptr<peer_counts> const peer = std::make_shared<peer_counts>();
    hand_over_counts const before = count_hand_overs();
};

TEST_F(hand_over_book, has_a_packet_queued_until_it_is_freed) {
    struct_token token = hand_over_one();
    std::uint64_t const size = travelling_size(token);
    EXPECT_GT(size, c_data);
    EXPECT_EQ(peer->queued.read(), (traffic_counts{1, size}));
    EXPECT_EQ(counted().handed_over, 1U);
    EXPECT_EQ(counted().queued, 1U);
    EXPECT_EQ(counted().queued_bytes, size);
    std::thread([&token] { token.free(); }).join();
    EXPECT_EQ(peer->queued.read(), traffic_counts{});
    EXPECT_EQ(counted().handed_over, 1U);
    EXPECT_EQ(counted().queued, 0U);
    EXPECT_EQ(counted().queued_bytes, 0U);
    EXPECT_EQ(counted().written, 1U);
    EXPECT_EQ(peer->latency.summarize().count, 1U);
}

TEST_F(hand_over_book, forgets_a_packet_that_was_refused) {
    struct_token token = make();
    {
        hand_over const mark(token, 0, peer);
        hand_over::was_refused(token);
    }
    token.free();
    EXPECT_EQ(peer->queued.read(), traffic_counts{});
    EXPECT_EQ(counted().handed_over, 0U);
    EXPECT_EQ(counted().queued, 0U);
    EXPECT_EQ(counted().queued_bytes, 0U);
    EXPECT_EQ(counted().not_connected, 1U);
    EXPECT_EQ(counted().written + counted().dropped, 0U);
    EXPECT_EQ(peer.use_count(), 1);
}

TEST_F(hand_over_book, calls_what_ends_inside_the_hand_over_dropped) {
    struct_token token = make();
    {
        hand_over const mark(token, 0, peer);
        token.free();
    }
    EXPECT_EQ(counted().dropped, 1U);
    EXPECT_EQ(counted().written, 0U);
    EXPECT_TRUE(count_hand_overs().balances());
}

TEST_F(hand_over_book, knows_how_the_newest_numbered_packet_ended) {
    std::uint32_t const number = take_packet_number();
    struct_token token = hand_over_one(number);
    EXPECT_FALSE(find_end(number));
    token.free();
    ASSERT_TRUE(find_end(number));
    EXPECT_TRUE(find_end(number)->written);
}

TEST_F(hand_over_book, wakes_who_waits_for_less_to_be_queued) {
    constexpr std::chrono::seconds c_long{20};
    std::atomic<bool> is_woken{false};
    steady_clock::duration waited{};
    std::thread waiter([&] {
        std::array<struct_token, 1> none;
        auto const began = steady_clock::now();
        Reference_Host::get_center_inbox().take(none, c_long);
        waited = steady_clock::now() - began;
        is_woken = true;
    });
    // Again and again: it may not be waiting yet.
    while (!is_woken) {
        std::array<struct_token, 3> tokens{hand_over_one(), hand_over_one(), hand_over_one()};
        wake_when_queue_is_below(1'000'000, 1);
        for (struct_token& token : tokens) {
            token.free();
        }
    }
    waiter.join();
    EXPECT_LT(waited, c_long);
}

TEST_F(hand_over_book, keeps_few_marks_of_many) {
    constexpr std::size_t c_many = 4000;
    constexpr long c_most_kept = 1024;
    std::vector<struct_token> tokens(c_many);
    auto const fill_and_free = [&](auto const& make_one) {
        for (struct_token& token : tokens) {
            token = make_one();
        }
        for (struct_token& token : tokens) {
            token.free();
        }
    };
    fill_and_free([] { return make(); }); // the host keeps some of its own
    long const blocks = g_blocks;
    fill_and_free([&] { return hand_over_one(); });
    EXPECT_LE(g_blocks - blocks, c_most_kept);
    fill_and_free([&] { return hand_over_one(); });
    EXPECT_LE(g_blocks - blocks, 2 * c_most_kept); // those at hand and those that came back
}

} // namespace
} // namespace Zolt::Reference_Center
