#include "Reference_Center/latency_windows.hpp"

#include <gtest/gtest.h>

namespace Zolt::Reference_Center {
namespace {

TEST(latency_window, without_times_says_that_there_are_none) {
    latency_windows const windows;
    EXPECT_EQ(windows.summarize().count, 0U);
    EXPECT_EQ(windows.summarize().max, 0);
}

TEST(latency_window, is_exact_for_short_times) {
    latency_windows windows;
    for (std::uint64_t const time : {3U, 1U, 2U, 4U, 15U}) {
        windows.add(time);
    }
    latency_summary const told = windows.summarize();
    EXPECT_EQ(told.count, 5U);
    EXPECT_EQ(told.p50, 3);
    EXPECT_EQ(told.p90, 15);
    EXPECT_EQ(told.p99, 15);
    EXPECT_EQ(told.max, 15);
}

TEST(latency_window, is_off_by_a_sixteenth_at_most) {
    for (std::uint64_t time = 1; time < std::uint64_t{1} << 29; time += time / 7 + 1) {
        latency_windows windows;
        windows.add(time);
        windows.add(std::uint64_t{1} << 29); // so that the most does not bound the others
        double const exact = static_cast<double>(time);
        EXPECT_NEAR(windows.summarize().p50, exact, exact / 16) << time;
    }
}

TEST(latency_window, keeps_the_order_of_a_thousand_times) {
    latency_windows windows;
    for (std::uint64_t time = 1000; time > 0; --time) {
        windows.add(time);
    }
    latency_summary const told = windows.summarize();
    EXPECT_NEAR(told.p50, 500, 500 / 16.0);
    EXPECT_NEAR(told.p90, 900, 900 / 16.0);
    EXPECT_NEAR(told.p99, 990, 990 / 16.0);
    EXPECT_EQ(told.max, 1000);
}

TEST(latency_window, takes_times_beyond_its_last_step) {
    latency_windows windows;
    windows.add(~std::uint64_t{0});
    EXPECT_EQ(windows.summarize().count, 1U);
    EXPECT_EQ(windows.summarize().max, static_cast<double>(~std::uint64_t{0}));
}

TEST(latency_window, forgets_with_the_second_turn) {
    latency_windows windows;
    windows.add(5);
    windows.turn();
    windows.add(7);
    EXPECT_EQ(windows.summarize().count, 2U);
    windows.turn();
    EXPECT_EQ(windows.summarize().count, 1U);
    EXPECT_EQ(windows.summarize().max, 7);
    windows.turn();
    EXPECT_EQ(windows.summarize().count, 0U);
}

} // namespace
} // namespace Zolt::Reference_Center
