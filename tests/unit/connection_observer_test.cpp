// The observer, told by the host's operations as the relay calls them, on real sockets.
#include "Host/tesk_utility.hpp"
#include "Host/zolt_global.hpp"
#include "Reference_Center/connection_observer.hpp"
#include "Reference_Center/hand_over_book.hpp"
#include "Reference_Center/socket_facts.hpp"
#include "Reference_Host/inbox.hpp"
#include "Reference_Host/packet_reading.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {
int g_looks = 0; ///< at the state of a connection
}

/// In place of the C library's, to count.
extern "C" int getsockopt(int fd, int level, int option, void* value, socklen_t* size) noexcept {
    if (level == IPPROTO_TCP && option == TCP_INFO) {
        ++g_looks;
    }
    return static_cast<int>(::syscall(SYS_getsockopt, fd, level, option, value, size));
}

namespace Zolt::Reference_Center {

namespace {
int g_failed_datagrams = 0;
}

void note_failed_datagram() {
    ++g_failed_datagrams;
}

namespace {

constexpr char const* c_here = "127.0.0.1";

::sockaddr_in address_of(std::uint16_t port) {
    ::sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = ::inet_addr(c_here);
    return address;
}

/// A socket of the test, closed with it.
struct socket_holder {
    socket_holder() : fd(::socket(AF_INET, SOCK_STREAM, 0)) {}
    explicit socket_holder(int of) : fd(of) {}
    ~socket_holder() { close(); }
    socket_holder(socket_holder const&) = delete;
    socket_holder& operator=(socket_holder const&) = delete;

    void close() {
        if (fd != -1) {
            ::close(fd);
        }
        fd = -1;
    }
    int connect(std::uint16_t port) {
        ::sockaddr_in const to = address_of(port);
        return ::connect(fd, reinterpret_cast<::sockaddr const*>(&to), sizeof to);
    }
    void reset() {
        ::linger const at_once{1, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        close();
    }
    int fd;
};

void trace(char const* format) {
    Common::Global::zolt_debug_not_send('E', struct_token(), "file", 1, format, c_here);
}

class observed : public testing::Test {
protected:
    observed() {
        ::sockaddr_in const any = address_of(0);
        ::bind(server.fd, reinterpret_cast<::sockaddr const*>(&any), sizeof any);
        ::listen(server.fd, 8);
        ::bind(unused.fd, reinterpret_cast<::sockaddr const*>(&any), sizeof any);
        port = read_local_port(server.fd);
        observer.take_listening();
    }

    static struct_node_addr at(std::uint16_t port) { return {::inet_addr(c_here), port}; }

    void add(std::uint16_t to) {
        connection_observer::adding const adds(observer, at(to));
        begin_attempt();
    }

    /// As add_client and the timer do.
    static void begin_attempt() { trace("tcp request connect %s"); }
    static void retry() {
        trace("reconnect faults %s");
        begin_attempt();
    }
    static void fail_attempt() {
        errno = ECONNREFUSED;
        Tesk::Utility::print_error("connect err:111\n");
    }

    /// An outgoing connection to the server, past its connect; the other end of it.
    int establish(socket_holder& socket) {
        {
            connection_observer::adding const adds(observer, at(port));
            begin_attempt();
            Tesk::Utility::fflag_on(socket.fd, O_NONBLOCK);
        }
        socket.connect(port);
        int const other = ::accept(server.fd, nullptr, nullptr);
        Tesk::Utility::fflag_off(socket.fd, O_NONBLOCK);
        tell(&struct_packet::set_tcp_connected_to_server);
        return other;
    }

    /// What the relay's notice brings.
    connection_end tell(void (struct_packet::*event)()) {
        struct_token token;
        token.alloc_header_force();
        struct_packet& header = *token.get_header_packet();
        header.initialize_packet(0, 1, 1);
        header.set_source(::inet_addr(c_here), port, 0);
        header.initialize_header(0, 0, 0, 0, 0);
        header.set_control_type();
        (header.*event)();
        Common::Global::send_zolt_center(token);
        Reference_Host::release_offered();
        struct_token taken[1];
        EXPECT_EQ(Reference_Host::get_center_inbox().take(taken, std::chrono::milliseconds(0)), 1U);
        connection_end const end = end_of(*taken[0].get_header_packet());
        taken[0].free();
        return end;
    }
    connection_end tell_end() { return tell(&struct_packet::set_tcp_disconnected_from_server); }

    std::vector<std::uint16_t> ports_of_closed() const {
        std::vector<std::uint16_t> ports;
        for (auto const& report : closed.take()) {
            ports.push_back(report.who.address.port);
        }
        return ports;
    }

    socket_holder server;
    socket_holder unused; ///< bound, and nobody listens there
    std::uint16_t port = 0;
    closed_connections closed;
    connection_observer observer{{9}, closed};
};

TEST_F(observed, attempt_is_under_way_until_it_fails) {
    add(1000);
    EXPECT_TRUE(observer.find_attempt(at(1000)));
    {
        connection_observer::adding const adds(observer, at(1001));
        begin_attempt();
        fail_attempt();
    }
    EXPECT_FALSE(observer.find_attempt(at(1001)));
    EXPECT_TRUE(observer.find_attempt(at(1000)));
    ASSERT_EQ(ports_of_closed(), std::vector<std::uint16_t>{1001});
    EXPECT_EQ(closed.take()[0].reason, close_reason::refused);
    EXPECT_EQ(closed.take()[0].detail, "Connection refused");
}

TEST_F(observed, retries_at_one_address_are_those_of_its_destinations_in_their_order) {
    for (std::uint16_t const to : std::vector<std::uint16_t>{1002, 1000, 1001}) {
        connection_observer::adding const adds(observer, at(to));
        begin_attempt();
        fail_attempt();
    }
    retry(); // 1000, which goes on
    retry();
    fail_attempt(); // 1001
    retry();
    fail_attempt(); // 1002
    EXPECT_TRUE(observer.find_attempt(at(1000)));
    EXPECT_FALSE(observer.find_attempt(at(1001)));
    retry(); // 1001 is the next one again
    EXPECT_TRUE(observer.find_attempt(at(1001)));
    EXPECT_FALSE(observer.find_attempt(at(1002)));
    EXPECT_EQ(ports_of_closed(), (std::vector<std::uint16_t>{1002, 1001, 1000}));
    EXPECT_EQ(closed.take()[0].times, 2U);
    EXPECT_EQ(closed.take()[2].times, 1U);
}

TEST_F(observed, local_port_that_is_taken_is_told) {
    connection_observer::adding const adds(observer, at(1000));
    begin_attempt();
    errno = EADDRINUSE;
    Tesk::Utility::print_error("bind");
    ASSERT_EQ(closed.take().size(), 1U);
    EXPECT_EQ(closed.take()[0].detail, "the local port of before cannot be used: Address already in use");
}

TEST_F(observed, line_that_ends_no_attempt_ends_none) {
    add(1000);
    Tesk::Utility::print_error("bind");
    {
        connection_observer::adding const adds(observer, at(1001));
        begin_attempt();
        Tesk::Utility::print_error("iocp setsockopt nodelay error");
    }
    EXPECT_TRUE(closed.take().empty());
}

TEST_F(observed, failed_datagram_is_noted) {
    g_failed_datagrams = 0;
    Tesk::Utility::print_error("sent err : ");
    EXPECT_EQ(g_failed_datagrams, 1);
}

TEST_F(observed, exchange_that_fails_belongs_to_the_socket_that_failed) {
    socket_holder waiting;
    {
        connection_observer::adding const adds(observer, at(1));
        begin_attempt();
        Tesk::Utility::fflag_on(waiting.fd, O_NONBLOCK);
    }
    waiting.connect(port); // which is not where it says, so that it goes on
    socket_holder failed;
    {
        connection_observer::adding const adds(observer, at(port));
        begin_attempt();
        Tesk::Utility::fflag_on(failed.fd, O_NONBLOCK);
    }
    failed.connect(port);
    socket_holder const first(::accept(server.fd, nullptr, nullptr));
    socket_holder second(::accept(server.fd, nullptr, nullptr));
    Tesk::Utility::fflag_off(failed.fd, O_NONBLOCK);
    second.reset();
    trace("tcp init failed %s");
    ASSERT_EQ(ports_of_closed(), std::vector<std::uint16_t>{port});
    EXPECT_EQ(closed.take()[0].reason, close_reason::init_failed);
    EXPECT_TRUE(observer.find_attempt(at(1)));
}

TEST_F(observed, attempts_that_go_on_are_not_looked_at_again_for_each_one_that_fails) {
    constexpr std::uint16_t c_attempts = 100;
    ::listen(server.fd, 0); // the first two fill the backlog; who comes after them waits
    std::vector<std::unique_ptr<socket_holder>> sockets;
    std::uint16_t const nobody = read_local_port(unused.fd);
    for (std::uint16_t number = 0; number < 2 * c_attempts; ++number) {
        auto const& made = sockets.emplace_back(std::make_unique<socket_holder>());
        connection_observer::adding const adds(observer, at(static_cast<std::uint16_t>(1000 + number)));
        begin_attempt();
        Tesk::Utility::fflag_on(made->fd, O_NONBLOCK);
        made->connect(number % 2 == 0 ? port : nobody);
    }
    g_looks = 0;
    for (std::uint16_t number = 0; number < c_attempts; ++number) {
        trace("tcp init failed %s");
    }
    EXPECT_EQ(closed.count()[static_cast<std::size_t>(close_reason::refused)], c_attempts);
    EXPECT_LE(g_looks, 2 * c_attempts);
}

TEST_F(observed, attempts_that_have_failed_at_one_address_end_in_the_order_in_which_they_began) {
    socket_holder first;
    socket_holder second;
    for (auto const& [socket, to] : {std::pair{&first, std::uint16_t{1001}}, std::pair{&second, std::uint16_t{1000}}}) {
        connection_observer::adding const adds(observer, at(to));
        begin_attempt();
        Tesk::Utility::fflag_on(socket->fd, O_NONBLOCK);
        socket->connect(read_local_port(unused.fd));
    }
    trace("tcp init failed %s");
    EXPECT_EQ(ports_of_closed(), std::vector<std::uint16_t>{1001});
    EXPECT_EQ(take_socket_error(second.fd), ECONNREFUSED); // which the relay has not looked at
    first.close();
    trace("tcp init failed %s");
    EXPECT_EQ(ports_of_closed(), (std::vector<std::uint16_t>{1000, 1001}));
}

TEST_F(observed, attempt_whose_socket_is_gone_has_ended) {
    socket_holder trying;
    {
        connection_observer::adding const adds(observer, at(1000));
        begin_attempt();
        Tesk::Utility::fflag_on(trying.fd, O_NONBLOCK);
    }
    trying.close();
    trace("tcp init failed %s");
    ASSERT_EQ(ports_of_closed(), std::vector<std::uint16_t>{1000});
    EXPECT_FALSE(observer.find_attempt(at(1000)));
}

TEST_F(observed, ends_have_the_reason_that_their_socket_shows) {
    socket_holder closing;
    socket_holder(establish(closing)).close();
    EXPECT_EQ(tell_end().reason, close_reason::peer_closed);
    socket_holder cut;
    socket_holder other(establish(cut));
    other.reset();
    connection_end const end = tell_end();
    EXPECT_EQ(end.reason, close_reason::reset);
    EXPECT_EQ(end.error, ECONNRESET);
    socket_holder quiet;
    socket_holder const silent(establish(quiet));
    ::shutdown(quiet.fd, SHUT_RDWR);
    EXPECT_EQ(tell_end().reason, close_reason::silent);
}

TEST_F(observed, error_that_a_receive_has_taken_is_known) {
    socket_holder cut;
    socket_holder other(establish(cut));
    other.reset();
    char byte = 0;
    EXPECT_EQ(::recv(cut.fd, &byte, 1, 0), -1);
    Tesk::Utility::print_error("recv client 에러");
    EXPECT_EQ(tell_end().reason, close_reason::reset);
}

TEST_F(observed, end_of_a_withdrawn_destination_is_deleted) {
    socket_holder mine;
    socket_holder const other(establish(mine));
    { connection_observer::adding const again(observer, at(port)); }
    EXPECT_FALSE(observer.withdraw(at(port)));
    EXPECT_TRUE(observer.is_wanted(at(port)));
    EXPECT_TRUE(observer.withdraw(at(port)));
    EXPECT_FALSE(observer.is_wanted(at(port)));
    ::shutdown(mine.fd, SHUT_WR);
    EXPECT_EQ(tell_end().reason, close_reason::deleted);
}

TEST_F(observed, end_within_the_stop_is_a_shutdown) {
    socket_holder mine;
    socket_holder const other(establish(mine));
    observer.note_stopping();
    EXPECT_EQ(tell_end().reason, close_reason::shutdown);
}

TEST_F(observed, destination_that_was_withdrawn_too_often_is_wanted_only_when_the_relay_would_try_it) {
    EXPECT_FALSE(observer.withdraw(at(1000)));
    add(1000);
    EXPECT_FALSE(observer.is_wanted(at(1000)));
    EXPECT_FALSE(observer.find_attempt(at(1000)));
}

TEST_F(observed, silence_is_what_the_kernel_measures) {
    socket_holder mine;
    socket_holder const other(establish(mine));
    peer const who{at(port), way::outgoing};
    ASSERT_TRUE(observer.find_silence(who));
    EXPECT_LT(*observer.find_silence(who), 60);
    mine.close();
    EXPECT_FALSE(observer.find_silence(who));
}

TEST_F(observed, accepted_connection_that_is_gone_before_it_began_is_swept) {
    socket_holder peer_end;
    closed_connections ring;
    {
        connection_observer accepting{{port}, ring};
        peer_end.connect(port);
        socket_holder accepted(::accept(server.fd, nullptr, nullptr));
        Tesk::Utility::fflag_off(accepted.fd, O_NONBLOCK);
        accepting.sweep();
        EXPECT_TRUE(ring.take().empty());
        accepted.close();
        accepting.sweep();
    }
    ASSERT_EQ(ring.take().size(), 1U);
    EXPECT_EQ(ring.take()[0].reason, close_reason::init_failed);
    EXPECT_EQ(ring.take()[0].who.via, way::accepted);
}

TEST_F(observed, copies_are_told_to_who_marks_them) {
    int copies = 0;
    observer.mark_copies([&](struct_token&) { ++copies; });
    trace("tcp broadcast send");
    observer.mark_copies({});
    trace("tcp broadcast send");
    EXPECT_EQ(copies, 1);
}

TEST_F(observed, listening_sockets_are_found_among_those_made_not_to_block) {
    connection_observer ports_made{{port}, closed};
    socket_holder other;
    Tesk::Utility::fflag_on(other.fd, O_NONBLOCK);
    Tesk::Utility::fflag_on(server.fd, O_NONBLOCK);
    auto const found = ports_made.take_listening();
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].port, port);
    EXPECT_EQ(found[0].descriptor, server.fd);
}

} // namespace
} // namespace Zolt::Reference_Center
