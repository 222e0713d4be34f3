#include "Reference_Center/closed_connections.hpp"

#include <gtest/gtest.h>

namespace Zolt::Reference_Center {
namespace {

closed_report report_of(way via, std::uint32_t ip, std::uint16_t port, close_reason reason, double lasted_s = 0) {
    closed_report report;
    report.who = {{ip, port}, via};
    report.reason = reason;
    report.lasted_s = lasted_s;
    return report;
}

TEST(closed_connection, is_told_newest_first) {
    closed_connections ring;
    for (std::uint16_t port = 1; port <= 3; ++port) {
        ring.add(report_of(way::accepted, 1, port, close_reason::peer_closed, 1));
    }
    auto const told = ring.take();
    ASSERT_EQ(told.size(), 3U);
    EXPECT_EQ(told[0].who.address.port, 3);
    EXPECT_EQ(told[2].who.address.port, 1);
    EXPECT_GE(told[0].closed_unix_ms, told[2].closed_unix_ms);
}

TEST(closed_connection, is_forgotten_after_a_thousand_others) {
    closed_connections ring;
    for (std::uint16_t port = 1; port <= 1002; ++port) {
        ring.add(report_of(way::outgoing, 1, port, close_reason::reset, 1));
    }
    auto const told = ring.take();
    ASSERT_EQ(told.size(), closed_connections::c_most);
    EXPECT_EQ(told.front().who.address.port, 1002);
    EXPECT_EQ(told.back().who.address.port, 3);
}

TEST(closed_connection, that_never_was_is_counted_with_the_one_before) {
    closed_connections ring;
    ring.add(report_of(way::outgoing, 1, 1, close_reason::refused));
    ring.add(report_of(way::outgoing, 1, 2, close_reason::refused));
    ring.add(report_of(way::outgoing, 1, 1, close_reason::refused));
    auto const told = ring.take();
    ASSERT_EQ(told.size(), 2U);
    EXPECT_EQ(told[0].who.address.port, 1);
    EXPECT_EQ(told[0].times, 2U);
    EXPECT_EQ(told[1].times, 1U);
}

TEST(closed_connection, that_never_was_and_was_accepted_is_counted_by_its_node) {
    closed_connections ring;
    ring.add(report_of(way::accepted, 1, 1, close_reason::init_failed));
    ring.add(report_of(way::accepted, 1, 2, close_reason::init_failed));
    ring.add(report_of(way::accepted, 2, 3, close_reason::init_failed));
    auto const told = ring.take();
    ASSERT_EQ(told.size(), 2U);
    EXPECT_EQ(told[1].times, 2U);
    EXPECT_EQ(told[1].who.address.port, 2);
}

TEST(closed_connection, is_an_entry_of_its_own_for_another_reason_or_after_it_was_established) {
    closed_connections ring;
    ring.add(report_of(way::outgoing, 1, 1, close_reason::refused));
    ring.add(report_of(way::outgoing, 1, 1, close_reason::connect_timeout));
    ring.add(report_of(way::outgoing, 1, 1, close_reason::reset, 2));
    ring.add(report_of(way::outgoing, 1, 1, close_reason::reset, 3));
    ring.add(report_of(way::outgoing, 1, 1, close_reason::refused));
    EXPECT_EQ(ring.take().size(), 5U);
}

} // namespace
} // namespace Zolt::Reference_Center
