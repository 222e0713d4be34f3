// Oddities of the accepting side that other nodes, Centers and operators rely on. None of them is a mistake to be
// repaired; see docs/known-limits.md and docs/decisions.md.
#include "tests/unit/accepting_fixture.hpp"

#include <cerrno>

namespace {

using namespace relay_test;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class pin_accepting : public accepting_fixture {
protected:
    /// Opens a port that the kernel gives away, and its listening record.
    listening_record* open_port() {
        port = unused_port();
        EXPECT_EQ(EPoll::request_listen(port), 0);
        return static_cast<listening_record*>(system.calls("epoll_ctl").back().pointer);
    }

    /// The set-up thread's work on what the kernel reports now: how many events.
    int serve_arrivals() {
        int events = 0;
        epoll_event event{};
        while (__real_epoll_wait(EPoll::epoll_tcp_init, &event, 1, 0) == 1) {
            serve(system, EPoll::epoll_thread_tcp_init_entry, EPoll::epoll_tcp_init, {{event.events, event.data.ptr}});
            ++events;
        }
        return events;
    }

    /// The record of the connection taken last.
    tcp_record* newest(std::string const& name) { return adopt(EPoll::g_accepted_exchanging.first, name); }

    std::uint16_t port = 0;
};

TEST_F(pin_accepting, connections_that_arrive_together_are_taken_one_for_each_notification) {
    open_port();
    for (int peer = 0; peer < 3; ++peer) {
        keep_open(connect_loopback(port));
    }
    EXPECT_EQ(serve_arrivals(), 1);
    EXPECT_EQ(system.count("accept"), 1u);
    newest("first");
    for (std::size_t later = 2; later <= 4; ++later) {
        keep_open(connect_loopback(port));
        EXPECT_EQ(serve_arrivals(), 1);
        EXPECT_EQ(system.count("accept"), later);
        newest("later");
    }
}

TEST_F(pin_accepting, a_port_that_is_opened_twice_loses_its_entry_and_goes_on_listening) {
    listening_record* const first = open_port();
    system.on("bind", [this, first](system_call const& call) {
        EXPECT_EQ(EPoll::g_server_map.at(port), call.descriptor);
        EXPECT_NE(call.descriptor, first->fd);
    });
    expect_alert(text("port_taken_before") + std::to_string(port) + text("port_taken_after"));
    expect_error(text("listen_bind_failed"));
    EXPECT_EQ(EPoll::request_listen(port), EADDRINUSE);
    EXPECT_EQ(EPoll::g_server_map.at(port), -1);
    EXPECT_EQ(system.calls("close").at(0).descriptor, system.calls("socket").back().result);
    keep_open(connect_loopback(port));
    EXPECT_EQ(serve_arrivals(), 1);
    EXPECT_EQ(newest("rec")->local_port, port);
    keep_open(descriptor(first->fd));
}

TEST_F(pin_accepting, a_port_that_cannot_listen_takes_the_udp_endpoints_of_all_ports_with_it) {
    std::uint16_t const first = unused_port();
    ASSERT_EQ(INet_Relay::add_server(first), 0);
    engine.answer("request_listen", EADDRINUSE);
    EXPECT_EQ(INet_Relay::add_server(unused_port()), EADDRINUSE);
    EXPECT_THAT(EPoll::g_udp_map, IsEmpty());
    EXPECT_NE(EPoll::g_server_map.at(first), -1);
    keep_open(connect_loopback(first));
    EXPECT_EQ(serve_arrivals(), 1);
    newest("rec");
}

TEST_F(pin_accepting, a_listening_socket_has_no_option_whatever_is_configured) {
    EPoll::g_server_socket_reuse = true;
    EPoll::g_server_linger_use = true;
    EPoll::g_server_linger_time = 5;
    open_port();
    EXPECT_EQ(system.count("setsockopt"), 0u);
}

TEST_F(pin_accepting, an_accepted_socket_does_not_linger_whatever_is_configured) {
    EPoll::g_server_linger_use = true;
    EPoll::g_server_linger_time = 5;
    open_port();
    keep_open(connect_loopback(port));
    serve_arrivals();
    tcp_record* const rec = newest("rec");
    linger time{1, 1};
    socklen_t size = sizeof time;
    ASSERT_EQ(::getsockopt(rec->fd, SOL_SOCKET, SO_LINGER, &time, &size), 0);
    EXPECT_EQ(time.l_onoff, 0);
}

TEST_F(pin_accepting, the_result_of_listen_is_not_looked_at) {
    system.fail("listen", 1, EOPNOTSUPP);
    listening_record* const record = open_port();
    EXPECT_EQ(EPoll::g_server_map.at(port), record->fd);
    EXPECT_EQ(system.calls("epoll_ctl").back().target, record->fd);
}

TEST_F(pin_accepting, a_port_that_cannot_be_registered_stays_open_and_listed_and_is_not_reported) {
    port = unused_port();
    system.fail("epoll_ctl", 1, ENOSPC);
    EXPECT_EQ(EPoll::request_listen(port), -1);
    EXPECT_NE(EPoll::g_server_map.at(port), -1);
    EXPECT_EQ(system.count("close"), 0u);
    EXPECT_NE(connect_loopback(port).get(), -1);
}

TEST_F(pin_accepting, a_connection_that_cannot_be_registered_stays_open_and_is_never_served) {
    listening_record* const record = open_port();
    descriptor& peer = keep_open(connect_loopback(port));
    forget_calls();
    system.fail("epoll_ctl", 1, ENOSPC);
    expect_error(text("arm_server_exchange_failed"));
    EXPECT_EQ(EPoll::accept(record), 0);
    tcp_record* const rec = newest("rec");
    write_bytes(peer, init_block(1, 2));
    epoll_event event{};
    EXPECT_EQ(__real_epoll_wait(EPoll::epoll_tcp_recv, &event, 1, 0), 0);
    EXPECT_EQ(system.count("close") + system.count("recv"), 0u);
    EXPECT_FALSE(is_gone(rec));
}

TEST_F(pin_accepting, an_exchange_that_cannot_wait_for_the_rest_is_noted_by_the_thread_and_left_as_it_is) {
    tcp_record* const rec = begun("rec");
    system.deliver("recv", 1, bytes(100));
    system.fail("epoll_ctl", 1, ENOMEM);
    expect_error(text("recv_went_on"));
    receive_event(EPOLLIN, rec);
    EXPECT_FALSE(is_gone(rec));
    EXPECT_EQ(rec->kind, 2);
    EXPECT_EQ(rec->recv_remain, 924u);
    EXPECT_EQ(system.count("close"), 0u);
}

TEST_F(pin_accepting, a_reply_whose_rest_cannot_be_armed_leaves_the_connection_as_it_is) {
    tcp_record* const rec = replying("rec");
    system.cap("send", 1, 100);
    system.fail("epoll_ctl", 1, ENOMEM);
    expect_error(text("send_arm_failed"));
    send_event(EPOLLOUT, rec);
    EXPECT_FALSE(is_gone(rec));
    EXPECT_EQ(rec->kind, 2);
    EXPECT_EQ(system.count("close"), 0u);
}

TEST_F(pin_accepting, a_peer_of_which_the_center_could_not_be_told_is_heard_but_cannot_be_addressed) {
    tcp_record* const rec = replying("rec");
    engine.answer("eproc_send_connected_from_client_msg_to_center", 1);
    EXPECT_EQ(EPoll::send_server_init(rec), 0);
    Zolt::struct_token token = make_token({});
    EXPECT_EQ(INet_Relay::send_tcp_server(at_port(), token, token.get_header_packet()), -1);
    token.free();
    write_bytes(far_end(rec), packet_bytes({.sequence = 77}));
    EXPECT_TRUE(serve_until([] { return journal_count("send_zolt_center") == 1; }));
    EXPECT_EQ(take_offers().at(0).packet.sequence, 77u);
}

TEST_F(pin_accepting, a_failed_notice_unfiles_the_older_connection_of_the_same_address_too) {
    tcp_record* const older = served("older");
    tcp_record* const rec = replying("rec");
    engine.answer("eproc_send_connected_from_client_msg_to_center", 1);
    EXPECT_EQ(EPoll::establish_accept(rec), -1);
    EXPECT_EQ(filed(), nullptr);
    EXPECT_FALSE(is_gone(older));
}

TEST_F(pin_accepting, a_connection_that_ends_unfiles_whichever_one_stands_under_its_address) {
    served("other");
    tcp_record* const rec = replying("rec");
    EXPECT_EQ(EPoll::unestablish_accept(rec), 0);
    EXPECT_EQ(filed(), nullptr);
    EXPECT_THAT(take_offers(), SizeIs(1));
}

TEST_F(pin_accepting, the_lost_disconnection_notice_is_traced_as_another_notice) {
    engine.answer("eproc_send_disconnected_from_client_msg_to_center", 1);
    EPoll::unestablish_accept(served("rec"));
    expect_only_trace('E', 498, "fault eproc_send_connected_to_client_msg_to_center");
}

TEST_F(pin_accepting, two_connections_of_one_address_are_both_announced_and_one_is_filed) {
    tcp_record* const first = replying("first");
    tcp_record* const second = replying("second");
    EPoll::send_server_init(first);
    EPoll::send_server_init(second);
    EXPECT_EQ(filed(), first);
    EXPECT_EQ(take_notices(), (notices{{c_connected_from_client, 0}, {c_connected_from_client, 0}}));
}

TEST_F(pin_accepting, an_accepted_connection_is_never_opened_again_by_the_relay) {
    tcp_record* const rec = served("rec");
    EPoll::shutdown_server(rec);
    EXPECT_TRUE(serve_until([this, rec] { return is_gone(rec); }));
    EPoll::timer_inet(nullptr);
    EXPECT_EQ(system.count("connect") + system.count("socket"), 0u);
    EXPECT_THAT(EPoll::g_connect_fail_map, IsEmpty());
}

TEST_F(pin_accepting, neither_side_sets_a_linger_option_when_it_closes) {
    EPoll::g_server_linger_use = true;
    EPoll::g_client_linger_use = true;
    tcp_record* const outgoing = established("outgoing");
    tcp_record* const rec = served("rec");
    EPoll::shutdown_server(rec);
    EXPECT_TRUE(serve_until([this, rec] { return is_gone(rec); }));
    EPoll::close_client(outgoing);
    EXPECT_EQ(system.count("close"), 2u);
    EXPECT_EQ(system.count("setsockopt"), 0u);
}

} // namespace
