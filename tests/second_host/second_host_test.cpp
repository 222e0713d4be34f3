// The relay's eleven sources, unchanged, on a host that shares nothing with the reference host: other sizes, other
// layouts, other locks. What passes here cannot lean on one host's habits.
#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"
#include "Host/tesk_os.hpp"
#include "tests/second_host/center.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <string_view>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

namespace relay = Zolt::Center::INet_Relay;

constexpr std::uint32_t c_second_loopback = 0x0200007F; // 127.0.0.2

/// A socket bound to a loopback address; port 0 takes any free one.
class bound_socket {
public:
    bound_socket(int type, std::uint32_t ip, std::uint16_t port) : fd(::socket(AF_INET, type, 0)) {
        sockaddr_in addr = address(ip, port);
        bound = ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    }
    ~bound_socket() { ::close(fd); }
    bound_socket(bound_socket const&) = delete;
    bound_socket& operator=(bound_socket const&) = delete;

    bool is_bound() const { return bound; }

    std::uint16_t port() const {
        sockaddr_in addr{};
        socklen_t length = sizeof addr;
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &length);
        return ntohs(addr.sin_port);
    }

    bool send_to(std::uint32_t ip, std::uint16_t port, std::string_view datagram) const {
        sockaddr_in addr = address(ip, port);
        ssize_t const sent =
            ::sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        return sent == static_cast<ssize_t>(datagram.size());
    }

private:
    static sockaddr_in address(std::uint32_t ip, std::uint16_t port) {
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = ip;
        addr.sin_port = htons(port);
        return addr;
    }

    int fd;
    bool bound;
};

/// A port that is free for datagrams and for connections.
std::uint16_t free_port() {
    while (true) {
        bound_socket const datagrams(SOCK_DGRAM, INADDR_ANY, 0);
        bound_socket const stream(SOCK_STREAM, INADDR_ANY, datagrams.port());
        if (stream.is_bound()) {
            return datagrams.port();
        }
    }
}

Zolt::struct_token plain_packet(std::uint32_t ip, std::uint16_t port, std::string_view data) {
    Zolt::struct_token token;
    token.alloc_header_force();
    Zolt::struct_packet* const pkt = token.get_header_packet();
    pkt->initialize_packet(0, Tesk::OS::lemon_cpu_clock(), DBL_MAX);
    pkt->initialize_header(0, 0, 0, 0, Zolt::c_zolt_err_none);
    pkt->set_source(0, port, 1);
    pkt->set_destination(ip, port, 2);
    pkt->set_plain_type();
    if (!data.empty()) {
        auto const size = static_cast<unsigned int>(data.size());
        pkt->set_data_size(size);
        token.alloc_data(size);
        std::copy(data.begin(), data.end(), token.get_data());
    }
    return token;
}

std::string data_of(Zolt::struct_token token) {
    unsigned char const* const first = token.get_data();
    return first == nullptr ? "" : std::string(first, first + token.get_header_packet()->get_data_size());
}

class relay_on_second_host : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(relay::initialize(), 0);
        port = free_port();
        ASSERT_EQ(relay::add_server(port), 0);
        ASSERT_EQ(relay::start(), 0);
    }

    void TearDown() override {
        EXPECT_EQ(relay::stop(), 0);
        EXPECT_EQ(relay::finalize(), 0);
        EXPECT_EQ(second_host::printed(), expected_lines);
        second_host::forget();
    }

    std::uint16_t port = 0;
    std::vector<std::string> expected_lines;
};

class second_host_udp : public relay_on_second_host {
protected:
    void send(std::uint32_t ip, std::string_view data) {
        Zolt::struct_token token = plain_packet(ip, port, data);
        ASSERT_EQ(relay::send_udp(token, token.get_header_packet()), 0);
    }
};

class second_host_tcp : public relay_on_second_host {
protected:
    /// The n-th packet to arrive, counted from 0.
    static Zolt::struct_token arrival(std::size_t index) {
        EXPECT_GT(second_host::wait_for_packets(index + 1), index);
        return second_host::packet(index);
    }

    /// Where the n-th packet came from, provided that it is that notice.
    static Zolt::struct_node_addr noticed(std::size_t index, char event) {
        Zolt::struct_packet* const pkt = arrival(index).get_header_packet();
        EXPECT_EQ(pkt->get_event(), event);
        return {pkt->get_src_ip(), pkt->get_src_port()};
    }
};

TEST_F(second_host_udp, carries_a_packet_there_and_its_answer_back) {
    std::size_t arrived = 0;
    for (std::size_t const size : {0U, 1U, 47U, 20000U}) {
        std::string sent(size, 'q');
        std::generate(sent.begin(), sent.end(), [n = 0]() mutable { return static_cast<char>(n++ * 7); });
        send(Zolt::c_local_host, sent);
        ASSERT_EQ(second_host::wait_for_packets(arrived + 1), arrived + 1);
        Zolt::struct_token there = second_host::packet(arrived++);
        EXPECT_EQ(data_of(there), sent);
        EXPECT_EQ(there.get_header_packet()->get_src_ip(), Zolt::c_local_host);

        std::reverse(sent.begin(), sent.end());
        send(there.get_header_packet()->get_src_ip(), sent);
        ASSERT_EQ(second_host::wait_for_packets(arrived + 1), arrived + 1);
        EXPECT_EQ(data_of(second_host::packet(arrived++)), sent);
    }
}

TEST_F(second_host_udp, takes_a_datagram_made_by_hand_and_drops_those_that_do_not_fit) {
    bound_socket const peer(SOCK_DGRAM, c_second_loopback, 0);
    std::string const body = "made by hand";
    std::string good(47, '\0');
    good[2] = static_cast<char>(body.size());
    good[46] = static_cast<char>(0xB7);
    good += body;
    std::string other_version = good;
    other_version[46]++;

    struct {
        std::string datagram;
        std::string line;
    } const unfit[] = {
        {good.substr(0, 46), "recd_len!= recv_len"},
        {good + "?", "recd_len!= recv_len"},
        {other_version, "! p_pkt->is_right_version()"},
    };
    for (auto const& [datagram, line] : unfit) {
        ASSERT_TRUE(peer.send_to(Zolt::c_local_host, port, datagram));
        expected_lines.push_back(line);
        ASSERT_EQ(second_host::wait_for_lines(expected_lines.size()), expected_lines.size());
    }
    ASSERT_TRUE(peer.send_to(Zolt::c_local_host, port, good));
    ASSERT_EQ(second_host::wait_for_packets(1), 1U);
    Zolt::struct_token arrived = second_host::packet(0);
    EXPECT_EQ(data_of(arrived), body);
    EXPECT_EQ(arrived.get_header_packet()->get_src_ip(), c_second_loopback);
}

// This node is both ends: it connects to a port of its own. The two notices come from different threads, in any order.
TEST_F(second_host_tcp, carries_a_packet_there_and_its_answer_back) {
    Zolt::struct_node_addr const server{Zolt::c_local_host, port};
    ASSERT_EQ(relay::add_client(server.ip, server.port), 0);
    bool const client_first = arrival(0).get_header_packet()->get_event() == 'c';
    Zolt::struct_node_addr const client = noticed(client_first ? 0 : 1, 'c');
    EXPECT_EQ(noticed(client_first ? 1 : 0, 's'), server);

    std::size_t arrived = 2;
    for (std::size_t const size : {0U, 1U, 100000U}) {
        std::string const there(size, 't');
        Zolt::struct_token token = plain_packet(server.ip, server.port, there);
        ASSERT_EQ(relay::send_tcp_client(server, token, token.get_header_packet()), 0);
        EXPECT_EQ(data_of(arrival(arrived++)), there);

        std::string const back(size, 'b');
        token = plain_packet(client.ip, client.port, back);
        ASSERT_EQ(relay::send_tcp_server(client, token, token.get_header_packet()), 0);
        EXPECT_EQ(data_of(arrival(arrived++)), back);
    }
    // The accepting side calls every end of its stream an error.
    expected_lines = {"recv server 에러"};
    ASSERT_EQ(relay::del_client(server.ip, server.port), 0);
    bool const client_last = arrival(arrived).get_header_packet()->get_event() == 'S';
    EXPECT_EQ(noticed(arrived + (client_last ? 1 : 0), 'C'), client);
    EXPECT_EQ(noticed(arrived + (client_last ? 0 : 1), 'S'), server);
}

TEST_F(second_host_udp, starts_again_after_it_was_stopped_and_finalized) {
    ASSERT_EQ(relay::stop(), 0);
    ASSERT_EQ(relay::finalize(), 0);
    SetUp();
    send(Zolt::c_local_host, "again");
    ASSERT_EQ(second_host::wait_for_packets(1), 1U);
    EXPECT_EQ(data_of(second_host::packet(0)), "again");
}

} // namespace
