// Latencies: how exact their histogram is, and what the picture of it shows.
#include "Reference_Center/latency_histogram.hpp"
#include "Reference_Center/latency_plot.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using Zolt::Reference_Center::draw_latencies;
using Zolt::Reference_Center::latency_histogram;

constexpr double c_allowed_error = 0.01;

/// Values over all magnitudes, the same in every run.
std::vector<std::uint64_t> many_values(std::size_t count) {
    std::mt19937_64 source(7);
    std::vector<std::uint64_t> values(count);
    for (std::uint64_t& value : values) {
        std::uint64_t const bits = source();
        value = bits >> (bits % 61);
    }
    return values;
}

std::unique_ptr<latency_histogram> histogram_of(std::vector<std::uint64_t> const& values) {
    auto histogram = std::make_unique<latency_histogram>();
    for (std::uint64_t const value : values) {
        histogram->add(value);
    }
    return histogram;
}

std::uint64_t exact_at(std::vector<std::uint64_t> values, double share) {
    std::sort(values.begin(), values.end());
    auto const rank = static_cast<std::size_t>(std::ceil(share * static_cast<double>(values.size())));
    return values[std::clamp<std::size_t>(rank, 1, values.size()) - 1];
}

std::size_t count_of(std::string const& text, std::string const& wanted) {
    std::size_t count = 0;
    for (std::size_t at = text.find(wanted); at != std::string::npos; at = text.find(wanted, at + 1)) {
        ++count;
    }
    return count;
}

TEST(latency_histogram, answers_nothing_when_nothing_was_added) {
    latency_histogram const empty;
    EXPECT_EQ(empty.count(), 0U);
    EXPECT_EQ(empty.least(), 0U);
    EXPECT_EQ(empty.most(), 0U);
    EXPECT_EQ(empty.at_share(0.5), 0U);
}

TEST(latency_histogram, keeps_each_value_within_one_in_a_hundred) {
    for (std::uint64_t const value : many_values(20000)) {
        latency_histogram one;
        one.add(0);
        one.add(value);
        one.add(~std::uint64_t{0}); // neither the least nor the most, which are exact
        auto const told = static_cast<double>(one.at_share(0.5));
        ASSERT_NEAR(told, static_cast<double>(value), c_allowed_error * static_cast<double>(value)) << value;
    }
}

TEST(latency_histogram, keeps_small_values_as_they_are) {
    for (std::uint64_t value = 0; value < 128; ++value) {
        auto const one = histogram_of({0, value, 1000});
        ASSERT_EQ(one->at_share(0.5), value);
    }
}

TEST(latency_histogram, finds_percentiles_as_a_sorted_list_does) {
    auto const values = many_values(100000);
    auto const histogram = histogram_of(values);
    for (double const share : {0.0, 0.001, 0.25, 0.5, 0.9, 0.99, 0.999, 0.99999}) {
        auto const exact = static_cast<double>(exact_at(values, share));
        EXPECT_NEAR(static_cast<double>(histogram->at_share(share)), exact, c_allowed_error * exact) << share;
    }
}

TEST(latency_histogram, tells_values_of_one_bucket_apart_when_they_stand_evenly) {
    std::vector<std::uint64_t> values{0, ~std::uint64_t{0}};
    for (std::uint64_t value = 16384; value < 16640; ++value) {
        values.push_back(value);
    }
    auto const histogram = histogram_of(values);
    for (double const share : {0.1, 0.25, 0.5, 0.75, 0.9}) {
        EXPECT_NEAR(static_cast<double>(histogram->at_share(share)), static_cast<double>(exact_at(values, share)), 1)
            << share;
    }
}

TEST(latency_histogram, is_off_by_less_than_a_bucket_when_values_stand_at_its_edge) {
    std::vector<std::uint64_t> values(1000, 16384);
    values.insert(values.end(), {0, ~std::uint64_t{0}});
    auto const histogram = histogram_of(values);
    for (double const share : {0.01, 0.5, 0.99}) {
        EXPECT_NEAR(static_cast<double>(histogram->at_share(share)), 16384, 16384 / 64) << share;
    }
}

TEST(latency_histogram, rounds_a_rank_up) {
    auto const histogram = histogram_of({10, 20, 30, 40});
    EXPECT_EQ(histogram->at_share(0.5), 20U);
    EXPECT_EQ(histogram->at_share(0.51), 30U);
    EXPECT_EQ(histogram->at_share(0.76), 40U);
}

TEST(latency_histogram, knows_the_least_and_the_most_exactly) {
    auto const histogram = histogram_of({1234567891, 987654321, 5000000001});
    EXPECT_EQ(histogram->least(), 987654321U);
    EXPECT_EQ(histogram->most(), 5000000001U);
    EXPECT_EQ(histogram->at_share(0), 987654321U);
    EXPECT_EQ(histogram->at_share(1), 5000000001U);
}

TEST(latency_histogram, merges_into_what_one_would_have_been) {
    auto const values = many_values(3000);
    std::vector<std::uint64_t> const head(values.begin(), values.begin() + 1000);
    std::vector<std::uint64_t> const tail(values.begin() + 1000, values.end());
    auto const whole = histogram_of(values);
    auto const merged = histogram_of(head);
    merged->merge(*histogram_of(tail));
    merged->merge(latency_histogram());
    EXPECT_EQ(merged->count(), values.size());
    EXPECT_EQ(merged->least(), whole->least());
    EXPECT_EQ(merged->most(), whole->most());
    for (double share = 0; share <= 1; share += 0.01) {
        ASSERT_EQ(merged->at_share(share), whole->at_share(share)) << share;
    }
}

TEST(latency_plot, has_a_dot_with_its_time_for_each_percentile_that_is_known) {
    std::vector<std::uint64_t> values(1000, 120);
    std::fill_n(values.begin(), 50, 126);
    std::string const picture = draw_latencies(*histogram_of(values), "a title");
    // 50, 90, 99 and 99.9 % of a thousand.
    EXPECT_EQ(count_of(picture, "class=\"dot\""), 4U);
    EXPECT_EQ(count_of(picture, ">120 ns<"), 2U);
    EXPECT_EQ(count_of(picture, ">126 ns<"), 2U);
    EXPECT_EQ(count_of(picture, "a title"), 2U);
    EXPECT_EQ(count_of(picture, "prefers-color-scheme: dark"), 1U);
}

TEST(latency_plot, has_a_curve_that_rises_and_stays_in_its_frame) {
    std::string const picture = draw_latencies(*histogram_of(many_values(5000)), "any");
    std::string const begin = "points=\"";
    std::size_t at = picture.find(begin);
    ASSERT_NE(at, std::string::npos);
    std::string const points = picture.substr(at + begin.size(), picture.find('"', at + begin.size()) - at);
    double last_across = 0;
    double last_down = 420;
    int count = 0;
    for (at = 0; at < points.size() && points.find(',', at) != std::string::npos; at = points.find(' ', at) + 1) {
        double const across = std::stod(points.substr(at));
        double const down = std::stod(points.substr(points.find(',', at) + 1));
        ASSERT_GT(across, last_across);
        ASSERT_LE(down, last_down);
        ASSERT_GE(down, 56 - 0.1);
        ASSERT_LE(across, 736 + 0.1);
        last_across = across;
        last_down = down;
        ++count;
        if (points.find(' ', at) == std::string::npos) {
            break;
        }
    }
    EXPECT_GT(count, 100);
}

TEST(latency_plot, says_so_when_nothing_was_measured) {
    EXPECT_EQ(count_of(draw_latencies(latency_histogram(), "none"), "nothing was measured"), 1U);
}

TEST(latency_plot, writes_a_title_as_text) {
    EXPECT_EQ(count_of(draw_latencies(latency_histogram(), "a < b & c"), "a &lt; b &amp; c"), 2U);
}

} // namespace
