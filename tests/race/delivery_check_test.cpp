// The check that the traffic tests rely on: it lets pass what is right and finds each thing that is wrong.

#include "tests/race/traffic/delivery_check.hpp"

#include <gtest/gtest.h>

namespace {

using namespace traffic;

constexpr Zolt::struct_node_addr c_peer{1, 2};

packet_stamp numbered(std::uint32_t number, std::uint32_t head = 0) {
    return {.sender = 1, .flow = 3, .head = head, .number = number};
}

class delivery : public ::testing::Test {
protected:
    void SetUp() override { check.connected(c_peer); }

    void bring(std::initializer_list<packet_stamp> packets) {
        for (packet_stamp const& stamp : packets) {
            check.packet(c_peer, stamp);
        }
    }
    void reconnect() {
        check.disconnected(c_peer);
        check.connected(c_peer);
    }
    /// The only fault begins like this.
    void expect_fault(std::string const& text) {
        ASSERT_EQ(check.faults().size(), 1u);
        EXPECT_EQ(check.faults().front().substr(0, text.size()), text);
    }

    delivery_check check;
};

TEST_F(delivery, of_two_connections_in_order_is_right) {
    bring({numbered(0), numbered(1)});
    reconnect();
    bring({numbered(4, 4), numbered(5, 4)});
    EXPECT_EQ(check.faults(), std::vector<std::string>());
    EXPECT_EQ(check.count_delivered(), 4u);
    auto const& runs = check.received().at({1, 3});
    ASSERT_EQ(runs.size(), 2u);
    EXPECT_EQ(runs[1].first, 4u);
    EXPECT_EQ(runs[1].last, 5u);
}

TEST_F(delivery, of_packets_handed_over_too_late_for_the_last_connection_is_right) {
    bring({numbered(0)});
    reconnect();
    bring({numbered(3), numbered(4, 4), numbered(5, 4)});
    EXPECT_EQ(check.faults(), std::vector<std::string>());
}

TEST_F(delivery, with_a_gap_is_found) {
    bring({numbered(0), numbered(2)});
    expect_fault("not the one that follows 0: sender 1 flow 3 head 0 number 2");
}

TEST_F(delivery, of_a_packet_twice_is_found) {
    bring({numbered(0), numbered(1), numbered(1)});
    expect_fault("not the one that follows 1");
}

TEST_F(delivery, out_of_order_is_found) {
    bring({numbered(0), numbered(2), numbered(1)});
    EXPECT_EQ(check.faults().size(), 2u);
}

TEST_F(delivery, that_lost_the_head_of_a_connection_is_found) {
    bring({numbered(0)});
    reconnect();
    bring({numbered(3), numbered(4, 3)});
    expect_fault("the connection's head is missing");
}

TEST_F(delivery, that_never_meets_the_head_of_a_connection_is_found) {
    for (std::uint32_t number = 1; number <= 20'001; ++number) {
        bring({numbered(number)});
    }
    expect_fault("too many in front of the connection's head");
}

TEST_F(delivery, of_a_stream_over_the_connection_of_another_is_found) {
    packet_stamp alien = numbered(1);
    alien.flow = 4;
    bring({numbered(0), alien});
    expect_fault("of another stream than the connection's");
}

TEST_F(delivery, of_what_may_be_dropped_has_gaps_and_an_order) {
    packet_stamp seven = numbered(7);
    seven.may_be_dropped = true;
    packet_stamp nine = seven;
    nine.number = 9;
    bring({seven, nine});
    EXPECT_EQ(check.faults(), std::vector<std::string>());
    bring({nine});
    expect_fault("again, or out of order");
}

TEST_F(delivery, of_a_packet_that_is_not_whole_is_found) {
    check.packet(c_peer, std::nullopt);
    expect_fault("not as it was sent");
}

TEST_F(delivery, before_or_after_the_connection_is_found) {
    check.disconnected(c_peer);
    bring({numbered(0)});
    expect_fault("outside a connection of peer 1:2");
}

TEST_F(delivery, of_a_notice_twice_is_found) {
    check.connected(c_peer);
    expect_fault("connected twice: peer 1:2");
}

TEST_F(delivery, of_an_end_without_a_beginning_is_found) {
    check.disconnected(c_peer);
    check.disconnected(c_peer);
    expect_fault("disconnected, yet never connected: peer 1:2");
}

/// The stamp of a packet, after a bit of its data, or of its header's own number, was changed.
std::optional<packet_stamp> stamp_after(bool data_changes, bool number_changes) {
    Zolt::struct_token token = make_stamped(numbered(7), true);
    Zolt::struct_packet& header = *token.get_header_packet();
    token.get_data()[header.get_data_size() - 1] ^= static_cast<unsigned char>(data_changes);
    Zolt::Reference_Host::set_sequence(header, Zolt::Reference_Host::get_sequence(header) + number_changes);
    std::optional<packet_stamp> const stamp = read_stamp(token);
    token.free();
    return stamp;
}

TEST(stamp, is_read_only_from_a_packet_that_is_whole) {
    EXPECT_EQ(stamp_after(false, false).value_or(packet_stamp{}).number, 7u);
    EXPECT_FALSE(stamp_after(true, false));
    EXPECT_FALSE(stamp_after(false, true));
}

} // namespace
