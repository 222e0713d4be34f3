// What a peer that never reads costs, and the largest datagram: figures of docs/known-limits.md, measured on the two
// libraries as they ship. Each test prints what it measured and asserts the bound that the page gives.
#include "tests/wire/udp_node.hpp"

#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"
#include "Reference_Host/inbox.hpp"
#include "Reference_Host/packet_building.hpp"
#include "Reference_Host/packet_layout.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <new>
#include <optional>
#include <string>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace wire;

namespace relay = Zolt::Center::INet_Relay;
namespace host = Zolt::Reference_Host;

std::uint32_t const c_loopback = ip("127.0.0.1");
constexpr std::size_t c_block = 1024;
constexpr int c_room = 4096;

bool comes_true(std::function<bool()> const& condition) {
    auto const deadline = std::chrono::steady_clock::now() + c_patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        ::poll(nullptr, 0, 1);
    }
    return true;
}

long open_descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}) - 1;
}

/// Bytes of this process that are resident. Counted by the kernel for the reader: other files give what each processor
/// has noted so far.
double resident() {
    std::ifstream file("/proc/self/smaps_rollup");
    std::string word;
    double kibibytes = 0;
    while (file >> word && word != "Rss:") {
    }
    file >> kibibytes;
    return kibibytes * 1024;
}

sockaddr_in at_loopback(std::uint16_t port) {
    sockaddr_in end{};
    end.sin_family = AF_INET;
    end.sin_port = htons(port);
    end.sin_addr.s_addr = c_loopback;
    return end;
}

/// A TCP socket on the loopback that listens or connects, or an accepted one; the kernel takes in little for it.
class narrow_socket {
public:
    explicit narrow_socket(int made = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) : fd(made) {
        EXPECT_EQ(::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &c_room, sizeof c_room), 0);
    }
    ~narrow_socket() { ::close(fd); }
    narrow_socket(narrow_socket const&) = delete;
    narrow_socket& operator=(narrow_socket const&) = delete;

    void listen() const { EXPECT_EQ(::listen(fd, 1), 0); }
    int accept() const { return ::accept(fd, nullptr, nullptr); }
    void connect(std::uint16_t port) const {
        sockaddr_in const there = at_loopback(port);
        EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr const*>(&there), sizeof there), 0);
    }
    std::uint16_t port() const {
        sockaddr_in here{};
        socklen_t length = sizeof here;
        EXPECT_EQ(::getsockname(fd, reinterpret_cast<sockaddr*>(&here), &length), 0);
        return ntohs(here.sin_port);
    }

    void write(bytes const& data) const {
        EXPECT_EQ(::send(fd, data.data(), data.size(), MSG_NOSIGNAL), static_cast<ssize_t>(data.size()));
    }
    void exchange_blocks() const {
        bytes block(c_block);
        write(block);
        EXPECT_EQ(::recv(fd, block.data(), block.size(), MSG_WAITALL), static_cast<ssize_t>(block.size()));
    }

private:
    int const fd;
};

// --- memory ------------------------------------------------------------------------------------------------------

// Memory that was given back is taken again and nothing grows: each of these wants a process of its own, as ctest gives it.

class limits_of_memory : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(node.start());
        descriptors = open_descriptors();
    }

    /// What still waits comes back to a Center that takes nothing any more.
    void TearDown() override {
        host::get_center_inbox().stop();
        if (listening_port != 0) {
            relay::del_client(c_loopback, listening_port);
        }
        peer.reset();
        EXPECT_TRUE(comes_true([this] { return open_descriptors() == descriptors; }));
        node.stop();
        host::get_center_inbox().resume();
        node.lines(0);
    }

    void accept_peer() {
        peer.emplace();
        peer->connect(node.port());
        peer->exchange_blocks();
        ASSERT_TRUE(node.next()) << "the notice of the connection";
    }

    void connect_to_peer() {
        narrow_socket const listener;
        listener.listen();
        listening_port = listener.port();
        relay::add_client(c_loopback, listening_port);
        peer.emplace(listener.accept());
        peer->exchange_blocks();
        ASSERT_TRUE(node.next()) << "the notice of the connection";
    }

    /// Bytes that become resident for each of so many steps.
    static double cost_of_each(std::size_t count, std::function<void()> const& step) {
        double const before = resident();
        for (std::size_t i = 0; i < count; ++i) {
            step();
        }
        return (resident() - before) / static_cast<double>(count);
    }

    /// The relay answers a call on its outgoing connection by itself.
    double cost_of_an_answer() {
        constexpr std::size_t c_at_once = 1000;
        bytes call = datagram(1);
        host::store<host::header_field::kind>(call.data(), static_cast<unsigned char>(host::packet_kind::call_return));
        bytes calls;
        for (std::size_t i = 0; i < c_at_once; ++i) {
            calls.insert(calls.end(), call.begin(), call.end());
        }
        auto const send_and_take = [&] {
            peer->write(calls);
            for (std::size_t i = 0; i < c_at_once; ++i) {
                ASSERT_TRUE(node.next());
            }
        };
        return cost_of_each(300, send_and_take) / c_at_once;
    }

    /// One that is far too large for the kernel; whatever comes behind it waits in the relay.
    void stop_the_queue() { hand_over(16U << 20); }

    double cost_of_a_packet(std::size_t size) const {
        return cost_of_each(20'000, [&] { hand_over(size); });
    }

    void hand_over(std::size_t size) const {
        bool const is_outgoing = listening_port != 0;
        std::uint16_t const port = is_outgoing ? listening_port : peer->port();
        host::packet_plan plan;
        plan.destination = {c_loopback, port, 0};
        Zolt::struct_token token = host::make_packet(plan, bytes(size));
        auto const send = is_outgoing ? relay::send_tcp_client : relay::send_tcp_server;
        EXPECT_EQ(send({c_loopback, port}, token, token.get_header_packet()), 0);
    }

    udp_node node;
    long descriptors = 0;
    std::uint16_t listening_port = 0;
    std::optional<narrow_socket> peer;
};

TEST_F(limits_of_memory, an_answer_that_is_not_read_takes_less_than_200_bytes) {
    connect_to_peer();
    stop_the_queue();
    double const each = cost_of_an_answer();
    std::cout << "measured: " << each << " bytes for an answer that is not read\n";
    EXPECT_GT(each, host::c_header_size) << "all of them wait";
    EXPECT_LT(each, 200);
}

TEST_F(limits_of_memory, a_packet_that_waits_takes_less_than_200_bytes_or_four_times_its_data_and_600) {
    accept_peer();
    stop_the_queue();
    for (std::size_t const size : {0U, 1U, 128U, 129U, 513U, 2049U}) {
        double const each = cost_of_a_packet(size);
        std::cout << "measured: " << each << " bytes for a packet with " << size << " bytes of data\n";
        EXPECT_GT(each, static_cast<double>(host::c_header_size + size)) << "all of them wait";
        EXPECT_LT(each, static_cast<double>(size == 0 ? 200 : 600 + 4 * size));
    }
}

// --- the largest -------------------------------------------------------------------------------------------------

TEST(limits_of_packets, have_256_mebibytes_of_data_and_not_a_byte_more) {
    constexpr std::uint32_t c_most = 256U << 20;
    Zolt::struct_token token = host::make_packet({}, c_most);
    EXPECT_EQ(host::get_data_span(token).size(), c_most);
    token.free();
    EXPECT_THROW(static_cast<void>(host::make_packet({}, c_most + 1)), std::bad_alloc);
}

// --- datagrams ---------------------------------------------------------------------------------------------------

class limits_of_datagrams : public testing::Test {
protected:
    void TearDown() override {
        node.stop();
        EXPECT_FALSE(node.next(std::chrono::milliseconds(0))) << "a packet that nobody expected";
    }

    double time_behind_dropped_ones();

    udp_node node;
};

TEST_F(limits_of_datagrams, one_of_65507_bytes_arrives_and_one_of_a_byte_more_is_lost) {
    constexpr std::size_t c_most = 65507 - host::c_header_size;
    ASSERT_TRUE(node.start());
    node.send(c_loopback, 1, bytes(c_most + 1));
    node.send(c_loopback, 2, bytes(c_most));
    EXPECT_EQ(node.next_sequence(), 2U);
    EXPECT_EQ(node.lines(1).size(), 1U);
}

/// Seconds from the relay's start until a good datagram behind dropped ones was delivered.
double limits_of_datagrams::time_behind_dropped_ones() {
    constexpr std::size_t c_dropped = 100;
    bare_socket const sender(ip("127.0.0.2"));
    EXPECT_EQ(relay::initialize(), 0);
    std::uint16_t port = 0;
    EXPECT_TRUE(comes_true([&] {
        port = bare_socket(INADDR_ANY).port();
        return relay::add_server(port) == 0;
    }));
    for (std::size_t i = 0; i < c_dropped; ++i) {
        EXPECT_TRUE(sender.send(c_loopback, port, {1}));
    }
    EXPECT_TRUE(sender.send(c_loopback, port, datagram(7)));
    node.lines(0);
    auto const before = std::chrono::steady_clock::now();
    relay::start();
    EXPECT_EQ(node.next_sequence(), 7U);
    std::chrono::duration<double> const waited = std::chrono::steady_clock::now() - before;
    std::cout << "measured: " << waited.count() << " seconds behind dropped datagrams\n";
    relay::stop();
    relay::finalize();
    node.lines(1);
    return waited.count();
}

TEST_F(limits_of_datagrams, behind_100_dropped_ones_a_good_one_waits_for_the_next_tick) {
    constexpr int c_attempts = 4; // the machine may be busy elsewhere
    double waited = time_behind_dropped_ones();
    for (int attempt = 1; waited >= 2.0 && attempt < c_attempts; ++attempt) {
        waited = time_behind_dropped_ones();
    }
    EXPECT_GT(waited, 0.5) << "one is dropped at once, the others with the tick";
    EXPECT_LT(waited, 2.0);
}

} // namespace
