// The inbox: the three answers, who owns what after each, and how a Center takes packets out.
#include "tests/unit/reference_host_fixtures.hpp"

#include "Host/zolt_global.hpp"
#include "Reference_Host/packet_storage.hpp"
#include "tests/support/allocations.hpp"

#include <array>
#include <atomic>
#include <future>

namespace reference_host_test {
namespace {

using std::chrono::milliseconds;

class inbox_of_four : public accounted_test {
protected:
    inbox_of_four() : box(4) { box.set_high_mark(4); }

    void TearDown() override {
        take_all();
        accounted_test::TearDown();
    }

    /// Offers a packet and lets go of it in the way that its answer asks for.
    int offer(std::string_view data) {
        struct_token one = make(packet_kind::data, data);
        int const answer = box.offer(one);
        if (answer == c_offer_taken) {
            one.reset();
        } else {
            one.free();
        }
        return answer;
    }

    /// The data of the packets that wait, oldest first.
    std::vector<std::string> take_all() {
        std::vector<std::string> texts;
        std::array<struct_token, 8> tokens;
        std::size_t const count = box.take(tokens, milliseconds(0));
        for (std::size_t i = 0; i < count; ++i) {
            texts.push_back(text_of(tokens[i]));
            tokens[i].free();
        }
        return texts;
    }

    inbox box;
};

TEST_F(inbox_of_four, takes_in_order) {
    EXPECT_EQ(offer("a"), 0);
    EXPECT_EQ(offer("b"), 0);
    EXPECT_EQ(box.count().packets, 2U);
    EXPECT_EQ(take_all(), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(box.count().packets, 0U);
    EXPECT_EQ(box.count().taken, 2U);
}

TEST_F(inbox_of_four, counts_how_long_it_was_busy) {
    for (char const* const data : {"a", "b", "c", "d"}) {
        ASSERT_EQ(offer(data), c_offer_taken);
    }
    EXPECT_EQ(box.count_busy_time().count(), 0);
    auto const begin = std::chrono::steady_clock::now();
    ASSERT_EQ(offer("e"), c_offer_busy);
    while (box.count_busy_time() <= milliseconds(1)) {
        ASSERT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30));
    }
    take_all();
    ASSERT_EQ(offer("e"), c_offer_taken);
    auto const whole = box.count_busy_time();
    EXPECT_GT(whole, milliseconds(1));
    EXPECT_LE(whole, std::chrono::steady_clock::now() - begin);
    take_all();
    ASSERT_EQ(offer("f"), c_offer_taken);
    EXPECT_EQ(box.count_busy_time(), whole);
}

TEST_F(inbox_of_four, is_busy_above_the_high_mark) {
    box.set_high_mark(2);
    EXPECT_EQ(offer("a"), 0);
    EXPECT_EQ(offer("b"), 0);
    EXPECT_EQ(offer("c"), 0x40000008);
    EXPECT_EQ(box.count().busy, 1U);
    EXPECT_EQ(take_all(), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(offer("c"), 0);
}

TEST_F(inbox_of_four, is_busy_when_full_whatever_the_high_mark) {
    box.set_high_mark(1000);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(offer("x"), 0);
    }
    EXPECT_EQ(offer("x"), 0x40000008);
}

TEST_F(inbox_of_four, is_busy_above_the_high_mark_in_bytes_but_takes_one_packet_of_any_size) {
    box.set_high_mark_bytes(3);
    EXPECT_EQ(offer("large"), 0);
    EXPECT_EQ(box.count().bytes, 5U);
    EXPECT_EQ(offer("x"), 0x40000008);
    take_all();
    EXPECT_EQ(box.count().bytes, 0U);
    EXPECT_EQ(offer("x"), 0);
}

TEST_F(inbox_of_four, refuses_after_stop_until_resumed_and_keeps_what_waits) {
    EXPECT_EQ(offer("before"), 0);
    box.stop();
    EXPECT_TRUE(box.is_stopped());
    EXPECT_EQ(offer("after"), 0x40000007);
    EXPECT_EQ(box.count().refused, 1U);
    EXPECT_EQ(take_all(), (std::vector<std::string>{"before"}));
    box.resume();
    EXPECT_EQ(offer("again"), 0);
}

TEST_F(inbox_of_four, refuses_a_token_without_a_header) {
    struct_token empty;
    EXPECT_EQ(box.offer(empty), 0x40000007);
}

TEST_F(inbox_of_four, an_offer_that_is_not_taken_stays_with_its_owner) {
    box.set_high_mark(0);
    struct_token one = make(packet_kind::data, "mine");
    EXPECT_EQ(box.offer(one), 0x40000008);
    EXPECT_EQ(count_references(one), (token_counts{1, 1, 1}));
    box.stop();
    EXPECT_EQ(box.offer(one), 0x40000007);
    EXPECT_EQ(count_references(one), (token_counts{1, 1, 1}));
    one.free();
}

TEST_F(inbox_of_four, without_memory_it_is_busy_and_nothing_changes) {
    for (bool const attached : {false, true}) {
        int answer = c_offer_busy;
        int failures = 0;
        for (int nth = 1; answer == c_offer_busy; ++nth) {
            struct_token one = make(packet_kind::data, attached ? "" : "mine");
            if (attached) {
                one.get_header_packet()->set_data_size(4);
                one.get_header_packet()->set_data(new unsigned char[4]{'m', 'i', 'n', 'e'});
            }
            relay_test::fail_allocation(nth);
            answer = box.offer(one);
            relay_test::fail_allocation(0);
            EXPECT_EQ(text_of(one), "mine");
            EXPECT_EQ(count_references(one).header_handles, 1U);
            failures += answer == c_offer_busy ? 1 : 0;
            one.free();
        }
        EXPECT_EQ(answer, c_offer_taken);
        EXPECT_EQ(failures, attached ? 3 : 2);
        EXPECT_EQ(take_all(), (std::vector<std::string>{"mine"}));
    }
}

TEST_F(inbox_of_four, the_center_gets_a_header_of_its_own_and_a_share_of_the_data) {
    struct_token offered = make(packet_kind::data, "shared");
    struct_packet* const header = offered.get_header_packet();
    ASSERT_EQ(box.offer(offered), 0);
    std::array<struct_token, 1> taken;
    ASSERT_EQ(box.take(taken, milliseconds(0)), 1U);
    EXPECT_NE(taken[0].get_header_packet(), header);
    EXPECT_EQ(taken[0].get_data(), offered.get_data());
    EXPECT_EQ(count_references(taken[0]), (token_counts{1, 1, 2}));
    EXPECT_FALSE(header->update_packet_time_and_return_timeout());
    offered.reset();
    taken[0].free();
}

TEST_F(inbox_of_four, what_was_taken_stays_readable_until_the_next_offer_even_when_it_is_freed) {
    struct_token offered = make(packet_kind::data, "readable");
    struct_packet* const header = offered.get_header_packet();
    unsigned char const* const data = offered.get_data();
    ASSERT_EQ(box.offer(offered), 0);
    EXPECT_EQ(take_all(), (std::vector<std::string>{"readable"}));

    struct_token copy = offered;
    copy.free();
    offered.free_data();
    offered.free_header();
    EXPECT_TRUE(header->is_right_version());
    EXPECT_EQ(data[0], 'r');
    offered.free();
    EXPECT_EQ(count_live_parts(), (ledger_counts{1, 1, 1}));

    EXPECT_EQ(offer("next"), 0);
    take_all();
    EXPECT_EQ(count_live_parts(), (ledger_counts{1, 1, 1})) << "the first one is given back, the next one is kept";
    release_offered();
    EXPECT_EQ(count_live_parts(), ledger_counts{});
}

TEST_F(inbox_of_four, a_handle_of_what_was_taken_starts_anew_when_it_is_given_parts) {
    struct_token offered = make(packet_kind::data, "first");
    ASSERT_EQ(box.offer(offered), 0);
    offered.reset_data();
    EXPECT_TRUE(offered.has_data());
    offered.alloc_header_force();
    EXPECT_FALSE(offered.has_data());
    EXPECT_EQ(take_all(), (std::vector<std::string>{"first"}));
    offered.free();
}

TEST_F(inbox_of_four, the_same_token_may_be_offered_again) {
    struct_token offered = make(packet_kind::data, "twice");
    ASSERT_EQ(box.offer(offered), 0);
    ASSERT_EQ(box.offer(offered), 0);
    offered.reset();
    EXPECT_EQ(take_all(), (std::vector<std::string>{"twice", "twice"}));
}

TEST_F(inbox_of_four, the_end_of_a_thread_gives_back_what_it_offered_last) {
    std::thread([this] { EXPECT_EQ(offer("from a thread"), 0); }).join();
    take_all();
    EXPECT_EQ(count_live_parts(), ledger_counts{});
}

TEST_F(inbox_of_four, an_attached_array_reaches_the_center) {
    struct_token offered = make(packet_kind::data);
    offered.get_header_packet()->set_data_size(2);
    offered.get_header_packet()->set_data(new unsigned char[2]{'h', 'i'});
    ASSERT_EQ(box.offer(offered), 0);
    offered.reset();
    EXPECT_EQ(take_all(), (std::vector<std::string>{"hi"}));
}

TEST_F(inbox_of_four, packets_that_nobody_took_end_with_the_inbox) {
    {
        inbox short_lived(4);
        struct_token one = make(packet_kind::data, "left");
        ASSERT_EQ(short_lived.offer(one), 0);
        one.reset();
    }
    release_offered();
    EXPECT_EQ(count_live_parts(), ledger_counts{});
}

/// A take that waits on another thread.
class waiting_take : public inbox_of_four {
protected:
    std::future<std::size_t> start_take() {
        auto started = std::make_shared<std::promise<void>>();
        std::future<void> running = started->get_future();
        auto answer = std::async(std::launch::async, [this, started] {
            started->set_value();
            std::size_t const count = box.take(taken, c_patience);
            for (std::size_t i = 0; i < count; ++i) {
                taken[i].free();
            }
            return count;
        });
        running.wait();
        return answer;
    }

    std::array<struct_token, 4> taken;
};

TEST_F(waiting_take, ends_with_a_packet) {
    auto answer = start_take();
    EXPECT_EQ(offer("here"), 0);
    EXPECT_EQ(answer.get(), 1U);
}

TEST_F(waiting_take, ends_with_wake) {
    auto answer = start_take();
    // A wake before the take has begun to wait is not remembered: call until it has ended.
    EXPECT_TRUE(comes_true([&] {
        box.wake();
        return answer.wait_for(milliseconds(0)) == std::future_status::ready;
    }));
    EXPECT_EQ(answer.get(), 0U);
}

TEST_F(waiting_take, ends_with_stop_and_does_not_wait_after_it) {
    auto answer = start_take();
    box.stop();
    EXPECT_EQ(answer.get(), 0U);
    EXPECT_EQ(box.take(taken, c_patience), 0U);
}

TEST_F(waiting_take, ends_when_the_time_is_over) {
    EXPECT_EQ(box.take(taken, milliseconds(1)), 0U);
    EXPECT_EQ(box.take({}, c_patience), 0U);
}

TEST_F(accounted_test, many_threads_offer_and_take_without_loss_and_in_order_of_each) {
    constexpr std::uint32_t c_givers = 3;
    constexpr std::uint64_t c_each = 3000;
    inbox box(64);
    box.set_high_mark(64);
    std::uint64_t taken = 0;
    thread_group givers(c_givers, [&box](unsigned int giver) {
        for (std::uint64_t i = 1; i <= c_each; ++i) {
            packet_plan plan;
            plan.code = giver;
            plan.sequence = i;
            struct_token one = make_packet(plan, 16U);
            EXPECT_TRUE(comes_true([&] { return box.offer(one) == c_offer_taken; }));
            one.reset();
        }
    });
    std::array<std::uint64_t, c_givers> last{};
    std::array<struct_token, 16> tokens;
    while (taken < c_givers * c_each) {
        std::size_t const count = box.take(tokens, c_patience);
        ASSERT_NE(count, 0U);
        for (std::size_t i = 0; i < count; ++i) {
            struct_packet const& packet = *tokens[i].get_header_packet();
            EXPECT_EQ(get_sequence(packet), ++last.at(get_code(packet)));
            tokens[i].free();
        }
        taken += count;
    }
    givers.join();
    EXPECT_EQ(box.count().bytes, 0U);
    EXPECT_EQ(box.count().taken, taken);
}

TEST_F(accounted_test, the_relay_offers_to_the_center_inbox) {
    struct_token one = make(packet_kind::data, "for the Center");
    EXPECT_EQ(Common::Global::send_zolt_center(one), 0);
    one.reset();
    std::array<struct_token, 2> tokens;
    ASSERT_EQ(get_center_inbox().take(tokens, milliseconds(0)), 1U);
    EXPECT_EQ(text_of(tokens[0]), "for the Center");
    tokens[0].free();
}

} // namespace
} // namespace reference_host_test
