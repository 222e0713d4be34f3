// Oddities of the outgoing side and of the timer that other nodes, Centers and operators rely on. None of them is a
// mistake to be repaired; see docs/known-limits.md and docs/decisions.md.
#include "tests/unit/outgoing_fixture.hpp"

#include <cerrno>

#include <netinet/tcp.h>

namespace {

using namespace relay_test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class pin_outgoing : public outgoing_fixture {
protected:
    static int withdraw() { return INet_Relay::del_client(Zolt::c_local_host, c_port); }
};

TEST_F(pin_outgoing, a_retry_binds_the_address_of_the_connection_it_replaces) {
    tcp_record* const rec = connected("rec");
    ASSERT_EQ(EPoll::completed_connect(rec), 0);
    std::uint16_t const port = rec->local_port;
    ASSERT_NE(port, 0);
    EPoll::failed_connect_init(rec);
    system.answer("bind", 1, 0);
    system.fail("connect", 1, EINPROGRESS);
    EPoll::timer_reconnect_client();
    auto const binds = system.calls("bind");
    ASSERT_EQ(binds.size(), 1u);
    EXPECT_EQ(binds[0].ip, Zolt::c_local_host);
    EXPECT_EQ(binds[0].port, port);
}

TEST_F(pin_outgoing, a_record_that_was_established_is_replaced_by_one_that_binds_any_address) {
    tcp_record* const rec = established("rec");
    rec->local_port = 7000;
    EPoll::close_client(rec);
    system.fail("connect", 1, EINPROGRESS);
    EPoll::timer_reconnect_client();
    EXPECT_EQ(system.calls("bind").at(0).text, "bind(socket#1, 0.0.0.0:0)");
}

TEST_F(pin_outgoing, an_unknown_destination_that_is_withdrawn_counts_minus_one) {
    EXPECT_EQ(withdraw(), 0);
    EXPECT_EQ(EPoll::g_remote_server_map, (std::map<Zolt::struct_node_addr, int>{{at_port(), -1}}));
    EXPECT_EQ(withdraw(), 0);
    EXPECT_EQ(EPoll::g_remote_server_map.at(at_port()), -2);
    EXPECT_THAT(journal_lines(about::system | about::engine), IsEmpty());
}

TEST_F(pin_outgoing, adding_it_afterwards_only_brings_the_count_to_zero) {
    withdraw();
    EXPECT_EQ(INet_Relay::add_client(Zolt::c_local_host, c_port), 0);
    EXPECT_EQ(EPoll::g_remote_server_map.at(at_port()), 0);
    EXPECT_THAT(journal_lines(about::system | about::engine), IsEmpty());
    EXPECT_THAT(live_records(), IsEmpty());
}

TEST_F(pin_outgoing, masks_of_a_connect_are_compared_whole) {
    struct row {
        std::uint32_t mask;
        std::size_t completed;
        std::size_t failed;
    };
    engine.answer("completed_connect", 0);
    engine.answer("failed_connect", 0);
    for (auto const& [mask, completed, failed] : std::vector<row>{{0x04, 1, 0},
                                                                  {0x14, 2, 0},
                                                                  {0x1C, 2, 1},
                                                                  {0x05, 2, 1},
                                                                  {0x0C, 2, 1},
                                                                  {0x10, 2, 1},
                                                                  {0x15, 2, 1},
                                                                  {0x18, 2, 1},
                                                                  {0x1D, 2, 1},
                                                                  {0x01, 2, 1}}) {
        serve(system, EPoll::epoll_thread_tcp_init_entry, EPoll::epoll_tcp_init, {{mask, connecting("rec")}});
        EXPECT_EQ(engine.count("completed_connect"), completed) << hex(mask);
        EXPECT_EQ(engine.count("failed_connect"), failed) << hex(mask);
    }
}

TEST_F(pin_outgoing, a_failed_exchange_stays_listed_among_the_connecting_ones_while_it_waits) {
    tcp_record* const rec = exchanging("rec");
    EPoll::failed_connect_init(rec);
    EXPECT_EQ(registries_of(rec), "connect fail");
    engine.answer("request_connect", ECONNREFUSED);
    EPoll::timer_inet(nullptr);
    EXPECT_EQ(registries_of(rec), "connect fail");
}

TEST_F(pin_outgoing, a_connect_that_cannot_be_watched_is_not_reported) {
    system.fail("epoll_ctl", 1, ENOSPC);
    system.fail("connect", 1, EINPROGRESS);
    EXPECT_EQ(INet_Relay::add_client(Zolt::c_local_host, c_port), 0);
    EXPECT_THAT(EPoll::g_connect_fail_map, IsEmpty());
    EXPECT_EQ(EPoll::g_connect_map.size(), 1u);
}

TEST_F(pin_outgoing, a_retry_is_made_on_every_tick_without_a_pause) {
    waiting("rec");
    system.fail_always("connect", ENETUNREACH);
    for (std::size_t ticks = 1; ticks <= 20; ++ticks) {
        expect_error("connect err:101\n");
        EPoll::timer_inet(nullptr);
        EXPECT_EQ(system.count("connect"), ticks);
    }
}

TEST_F(pin_outgoing, linger_settings_have_no_effect) {
    EPoll::g_client_linger_use = true;
    EPoll::g_client_linger_time = 5;
    tcp_record* const rec = connected("rec");
    EPoll::completed_connect(rec);
    EPoll::failed_connect_init(rec);
    std::vector<std::vector<long>> options;
    for (system_call const& call : system.calls("setsockopt")) {
        options.push_back({call.arguments.at(1), call.arguments.at(2)});
    }
    EXPECT_THAT(options, ElementsAre(ElementsAre(IPPROTO_TCP, TCP_NODELAY), ElementsAre(SOL_SOCKET, SO_SNDTIMEO)));
}

TEST_F(pin_outgoing, sockets_block_once_connected_and_transfers_carry_no_flags) {
    tcp_record* const rec = connected("rec");
    EPoll::completed_connect(rec);
    EXPECT_EQ(real::fcntl(rec->fd, F_GETFL, 0) & O_NONBLOCK, 0);
    EPoll::send_client_init(rec);
    write_bytes(peer_of(rec), init_block(1, 7000));
    EPoll::recv_client_init(rec);
    EXPECT_EQ(journal_lines(about::system).back(), ctl("tcp_recv", "MOD", "rec.fd", c_recv_mask, "rec"));
    EXPECT_EQ(system.calls("send").at(0).text, "send(rec.fd, 1024, 0)");
    EXPECT_EQ(system.calls("recv").at(0).text, "recv(rec.fd, 1024, 0)");
}

TEST_F(pin_outgoing, an_error_beside_the_write_event_ends_an_exchange_without_a_word) {
    tcp_record* const rec = exchanging("rec");
    serve(system, EPoll::epoll_thread_tcp_send_entry, EPoll::epoll_tcp_send, {{EPOLLOUT | EPOLLERR | EPOLLHUP, rec}});
    EXPECT_EQ(registries_of(rec), "connect fail");
}

TEST_F(pin_outgoing, the_lost_disconnection_notice_is_traced_as_a_connection_notice) {
    engine.answer("eproc_send_disconnected_from_server_msg_to_center", 1);
    EPoll::unestablish_connect(established("rec"));
    EXPECT_EQ(take_shown_traces(), (lines{traced('E', "Center/INet_Relay/EPoll/epoll_tcp_method_client",
                                                 "fault eproc_send_connected_to_server_msg_to_center")}));
}

TEST_F(pin_outgoing, a_connection_of_which_the_center_could_not_be_told_lives_on_unlisted) {
    tcp_record* const rec = awaiting_answer("rec");
    engine.answer("eproc_send_connected_to_server_msg_to_center", 1);
    EXPECT_EQ(EPoll::establish_connect(rec), -1);
    EXPECT_TRUE(lives(rec));
    EXPECT_EQ(registries_of(rec), "");
    EXPECT_EQ(system.count("close"), 0u);
}

TEST_F(pin_outgoing, a_silent_peer_gets_no_heartbeat_either) {
    EPoll::g_auto_disconnect = false;
    tcp_record* const rec = established("rec");
    for (int ticks = 0; ticks < 3; ++ticks) {
        EPoll::timer_inet(nullptr);
    }
    EXPECT_THAT(rec->send_q, IsEmpty());
    EXPECT_EQ(registries_of(rec), "establish");
}

TEST_F(pin_outgoing, a_silent_outgoing_connection_keeps_what_waits_for_acknowledgement) {
    tcp_record* const rec = established("rec");
    rec->ack_q.push_back(make_token({.call = true}));
    forget_calls();
    EPoll::timer_inet(nullptr);
    EXPECT_EQ(journal_lines(about::packet | about::system), (lines{"shutdown(rec.fd, SHUT_RDWR)"}));
    EXPECT_EQ(rec->ack_q.size(), 1u);
}

} // namespace
