// Packets under way: each number ends once, whichever way.
#include "Reference_Center/bench_flights.hpp"

#include <gtest/gtest.h>
#include <limits>
#include <optional>

namespace {

using Zolt::Reference_Center::bench_time;
using Zolt::Reference_Center::flight_book;
using Zolt::Reference_Center::flight_counts;

constexpr std::uint64_t c_first = 1000;

flight_book book_with(std::size_t room, bench_time packets) {
    flight_book book(room, c_first);
    for (bench_time due = 1; due <= packets; ++due) {
        book.add(due);
    }
    return book;
}

TEST(bench_flights, end_once_and_tell_when_they_were_due) {
    flight_book book = book_with(4, 3);
    EXPECT_EQ(book.take(c_first + 1), std::optional<bench_time>(2));
    EXPECT_EQ(book.take(c_first + 1), std::nullopt);
    EXPECT_EQ(book.take(c_first), std::optional<bench_time>(1));
    EXPECT_EQ(book.take(c_first), std::nullopt);
    EXPECT_EQ(book.count(), 1U);
}

TEST(bench_flights, have_no_number_that_was_not_given) {
    flight_book book = book_with(4, 2);
    EXPECT_EQ(book.next_number(), c_first + 2);
    EXPECT_EQ(book.take(c_first - 1), std::nullopt);
    EXPECT_EQ(book.take(c_first + 2), std::nullopt);
    EXPECT_EQ(book.take(0), std::nullopt);
    EXPECT_EQ(book.take(std::numeric_limits<std::uint64_t>::max()), std::nullopt);
    EXPECT_EQ(book.count(), 2U);
}

TEST(bench_flights, keep_their_place_until_the_oldest_one_has_ended) {
    flight_book book = book_with(4, 4);
    EXPECT_FALSE(book.has_room());
    EXPECT_TRUE(book.take(c_first + 2));
    EXPECT_FALSE(book.has_room());
    EXPECT_TRUE(book.take(c_first));
    EXPECT_TRUE(book.has_room());
    book.add(5);
    EXPECT_FALSE(book.has_room());
    EXPECT_TRUE(book.take(c_first + 1));
    // The third had ended before: two places are free at once.
    book.add(6);
    EXPECT_TRUE(book.has_room());
    EXPECT_EQ(book.take(c_first + 4), std::optional<bench_time>(5));
    EXPECT_EQ(book.take(c_first + 5), std::optional<bench_time>(6));
    EXPECT_EQ(book.count(), 1U);
}

TEST(bench_flights, end_oldest_first_when_their_time_is_over) {
    flight_book book = book_with(8, 4);
    EXPECT_TRUE(book.take(c_first + 1));
    EXPECT_EQ(book.take_oldest(1), std::nullopt);
    EXPECT_EQ(book.take_oldest(4), std::optional<bench_time>(1));
    EXPECT_EQ(book.take_oldest(4), std::optional<bench_time>(3));
    EXPECT_EQ(book.take_oldest(4), std::nullopt);
    EXPECT_EQ(book.count(), 1U);
}

TEST(bench_flights, balance_only_when_each_one_is_in_one_figure) {
    flight_counts counts;
    counts.sent = 10;
    counts.answered = 4;
    counts.returned = 3;
    counts.lost = 2;
    EXPECT_FALSE(counts.balances());
    counts.not_finished = 1;
    EXPECT_TRUE(counts.balances());
    counts.add(counts);
    EXPECT_TRUE(counts.balances());
    EXPECT_EQ(counts.sent, 20U);
    ++counts.lost;
    EXPECT_FALSE(counts.balances());
}

} // namespace
