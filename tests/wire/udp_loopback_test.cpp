// One node on the loopback, as it ships, with its real threads.
#include "tests/wire/udp_node.hpp"

#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"
#include "Reference_Host/packet_layout.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace wire;
using Zolt::Reference_Host::header_field;

namespace relay = Zolt::Center::INet_Relay;
namespace host = Zolt::Reference_Host;

std::uint32_t const c_loopback = ip("127.0.0.1");
std::uint32_t const c_group = ip("232.4.5.6");

class udp_loopback : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(node.start()); }

    void TearDown() override {
        node.stop();
        EXPECT_EQ(node.lines(0), std::vector<std::string>());
        EXPECT_FALSE(node.next(std::chrono::milliseconds(0))) << "a packet that nobody expected";
    }

    bool throw_at_node(bytes const& data) const { return peer.send(c_loopback, node.port(), data); }

    udp_node node;
    bare_socket const peer{ip("127.0.0.2")};
};

TEST_F(udp_loopback, a_packet_travels_with_and_without_data) {
    for (std::size_t const size : {0U, 1U, 1000U, 65507U - host::c_header_size}) {
        bytes data(size);
        std::generate(data.begin(), data.end(), [n = 0]() mutable { return static_cast<unsigned char>(n++ * 13); });
        node.send(c_loopback, 1 + size, data);
        auto const came = node.next();
        ASSERT_TRUE(came);
        EXPECT_EQ(came->sequence, 1 + size);
        EXPECT_EQ(came->source_ip, c_loopback);
        EXPECT_EQ(came->has_data, size != 0);
        EXPECT_EQ(came->data, data);
    }
}

TEST_F(udp_loopback, after_an_empty_a_short_a_long_and_an_alien_datagram_the_good_one_arrives_clean) {
    bytes too_long = datagram(1, {1, 2, 3});
    too_long.push_back(4);
    bytes alien = datagram(2);
    host::store<header_field::version>(alien.data(), host::c_header_version + 1);
    std::pair<bytes, char const*> const unfit[] = {{{}, "send_size!= sent_size"},
                                                   {{1, 2, 3}, "recd_len!= recv_len"},
                                                   {too_long, "recd_len!= recv_len"},
                                                   {alien, "! p_pkt->is_right_version()"}};
    for (auto const& [data, message] : unfit) {
        ASSERT_TRUE(throw_at_node(data));
        EXPECT_EQ(node.lines(1), std::vector<std::string>{message});
    }
    ASSERT_TRUE(throw_at_node(datagram(3)));
    auto const came = node.next();
    ASSERT_TRUE(came);
    EXPECT_EQ(came->sequence, 3U);
    EXPECT_EQ(came->source_ip, ip("127.0.0.2"));
    EXPECT_FALSE(came->has_data) << "nothing is left of the datagram that was too long";
}

TEST_F(udp_loopback, a_datagram_that_announces_more_than_there_can_be_holds_nobody_up) {
    constexpr std::uint64_t c_last = 1000;
    for (std::uint32_t const announced : {0xFFFFFFFFU, 0xFFFFFFFFU - host::c_header_size + 1U, 0x7FFFFFFFU}) {
        bytes boasting = datagram(1, {1});
        host::store<header_field::data_size>(boasting.data(), announced);
        ASSERT_TRUE(throw_at_node(boasting));
        // It is dropped in silence, and behind it the queue waits for the next arrival; so good ones follow until one
        // is through, and from then on all are.
        std::optional<arrival> came;
        for (std::uint64_t sequence = 2; !came && sequence < c_last; ++sequence) {
            ASSERT_TRUE(throw_at_node(datagram(sequence, {7})));
            came = node.next(std::chrono::milliseconds(20));
        }
        ASSERT_TRUE(came);
        EXPECT_EQ(came->sequence, 2U);
        EXPECT_EQ(came->data, bytes{7});
        ASSERT_TRUE(throw_at_node(datagram(c_last)));
        while (came && came->sequence != c_last) {
            came = node.next();
        }
        ASSERT_TRUE(came);
    }
}

TEST_F(udp_loopback, a_broadcast_of_the_loopback_network_comes_back) {
    node.send(ip("127.255.255.255"), 1, {5});
    EXPECT_EQ(node.next_sequence(), 1U);
}

TEST_F(udp_loopback, what_this_node_multicasts_comes_back) {
    relay::add_membership(c_group, c_loopback, c_loopback, node.port());
    node.inform(c_group, c_loopback, 1);
    EXPECT_EQ(node.next_sequence(), 1U);
    relay::drop_membership(c_group, c_loopback, c_loopback, node.port());
}

TEST_F(udp_loopback, of_a_group_only_the_source_that_was_joined_is_heard_and_only_while_it_is) {
    bare_socket const joined(ip("127.0.0.3"));
    ASSERT_TRUE(joined.choose_interface(c_loopback));
    ASSERT_TRUE(peer.choose_interface(c_loopback));
    auto const multicast = [&](bare_socket const& from, std::uint64_t sequence) {
        EXPECT_TRUE(from.send(c_group, node.port(), datagram(sequence)));
    };
    relay::add_membership(c_group, c_loopback, ip("127.0.0.3"), node.port());
    multicast(peer, 1);
    multicast(joined, 2);
    auto const came = node.next();
    ASSERT_TRUE(came);
    EXPECT_EQ(came->sequence, 2U);
    EXPECT_EQ(came->source_ip, ip("127.0.0.3"));
    relay::drop_membership(c_group, c_loopback, ip("127.0.0.3"), node.port());
    multicast(joined, 3);
    ASSERT_TRUE(throw_at_node(datagram(4)));
    EXPECT_EQ(node.next_sequence(), 4U);
}

TEST_F(udp_loopback, a_refused_membership_is_printed_and_one_of_an_unknown_port_is_not) {
    relay::drop_membership(c_group, c_loopback, c_loopback, node.port());
    EXPECT_EQ(node.lines(1), std::vector<std::string>{"drop_membership"});
    relay::add_membership(c_group, ip("192.0.2.1"), c_loopback, node.port());
    EXPECT_EQ(node.lines(1), std::vector<std::string>{"add_membership"});
    auto const other = static_cast<unsigned short>(node.port() ^ 1);
    relay::add_membership(c_group, c_loopback, c_loopback, other);
    relay::drop_membership(c_group, c_loopback, c_loopback, other);
}

TEST_F(udp_loopback, packets_handed_over_at_once_leave_in_order) {
    constexpr std::uint64_t c_count = 50;
    for (std::uint64_t sequence = 1; sequence <= c_count; ++sequence) {
        node.send(c_loopback, sequence, {1, 2, 3});
    }
    for (std::uint64_t sequence = 1; sequence <= c_count; ++sequence) {
        ASSERT_EQ(node.next_sequence(), sequence);
    }
}

// --- ports ---------------------------------------------------------------------------------------------------------

TEST(udp_ports, one_that_cannot_be_listened_on_takes_the_udp_sockets_of_all_others_along) {
    udp_node node;
    ASSERT_TRUE(node.prepare());
    EXPECT_EQ(bare_socket(INADDR_ANY, node.port()).port(), 0) << "the relay has it";

    int const listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(::listen(listener, 1), 0);
    sockaddr_in held{};
    socklen_t length = sizeof held;
    ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&held), &length), 0);
    EXPECT_EQ(relay::add_server(ntohs(held.sin_port)), EADDRINUSE);
    EXPECT_EQ(node.lines(2).back(), "바인딩 실패");
    EXPECT_EQ(bare_socket(INADDR_ANY, node.port()).port(), node.port()) << "the relay has let go of it";
    ::close(listener);
    EXPECT_EQ(relay::finalize(), 0);
}

} // namespace
