// The maintenance timer: hung connects, silent and live connections of both sides, heartbeats, retries.
#include "tests/unit/outgoing_fixture.hpp"

#include <cerrno>
#include <fstream>
#include <set>
#include <string_view>
#include <thread>

#include <elf.h>

namespace {

using namespace relay_test;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;

constexpr char const* c_file = "Center/INet_Relay/EPoll/epoll";
constexpr std::uint64_t c_now = 100000; // the scripted clock after a reset

/// An address on the network, as one that the scripted host shows as 1.2.3.4.
constexpr std::uint32_t c_elsewhere = 0x04030201;

class timer_fixture : public outgoing_fixture {
protected:
    void TearDown() override {
        for (tcp_record* const rec : accepted) {
            destroy(rec);
        }
        far_ends.clear();
        outgoing_fixture::TearDown();
    }

    /// An accepted connection, established, to a peer at this port.
    tcp_record* accepted_from(std::string const& name, std::uint16_t port = c_port,
                              int kind = EPoll::c_kind_established_server) {
        auto [near_end, far_end] = connected_pair();
        far_ends.push_back(std::move(far_end));
        name_descriptor(near_end.get(), name + ".fd");
        tcp_record* const rec = make_tcp(kind, near_end.release(), name);
        rec->remote_port = port;
        watch(rec, EPoll::epoll_tcp_recv);
        watch(rec, EPoll::epoll_tcp_send);
        if (kind == EPoll::c_kind_established_server) {
            EPoll::g_establish_server_map[at_port(port)] = rec;
        }
        accepted.push_back(rec);
        forget_calls();
        return rec;
    }

private:
    std::vector<tcp_record*> accepted;
    std::deque<descriptor> far_ends;
};

/// Locks named in each call of that kind.
std::vector<std::vector<std::string>> locks_of(std::vector<system_call> const& calls) {
    std::vector<std::vector<std::string>> locks;
    for (system_call const& call : calls) {
        locks.push_back(call.locks);
    }
    return locks;
}

// --- one tick ---------------------------------------------------------------------------------------------------

class ticking : public timer_fixture {};

TEST_F(ticking, reads_the_clock_once) {
    EPoll::timer_inet(&EPoll::inet_timer);
    EXPECT_EQ(journal_lines(about::clock), (lines{"lemon_clock()"}));
}

TEST_F(ticking, ignores_its_argument) {
    tcp_record* const rec = established("rec");
    rec->recv_clock = c_now;
    EPoll::timer_inet(nullptr);
    EXPECT_EQ(rec->send_q.size(), 1u);
}

TEST_F(ticking, runs_the_four_jobs_in_order_with_that_one_clock) {
    connecting("hung", 9001);
    tcp_record* const from_client = accepted_from("from_client", 9002);
    tcp_record* const to_server = established("to_server", 9003);
    waiting("failed", 9004);
    from_client->recv_clock = to_server->recv_clock = c_now;
    engine.answer("request_connect", 0);
    system.on("shutdown", [](system_call const&) { advance_clock(5); });
    forget_calls();
    EPoll::timer_inet(nullptr);
    EXPECT_EQ(journal_lines(about::system | about::trace | about::engine),
              (lines{"shutdown(hung.fd, SHUT_RDWR)", ctl("tcp_init", "MOD", "hung.fd", c_cancel_mask, "hung"),
                     "zolt_debug_not_send(E, no token, \"request send heart-beat to server\")",
                     ctl("tcp_send", "MOD", "from_client.fd", c_send_mask, "from_client"),
                     "zolt_debug_not_send(E, no token, \"request send heart-beat to client\")",
                     ctl("tcp_send", "MOD", "to_server.fd", c_send_mask, "to_server"),
                     "zolt_debug_not_send(E, no token, \"reconnect faults %s\")", "EPoll::request_connect(failed)"}));
    EXPECT_EQ(from_client->send_clock, c_now);
    EXPECT_EQ(to_server->send_clock, c_now);
}

TEST_F(ticking, holds_one_registry_lock_after_the_other) {
    EPoll::timer_inet(nullptr);
    lines expected;
    for (char const* const lock : {"g_client_lock", "g_establish_server_map_lock", "g_client_lock", "g_client_lock"}) {
        expected.push_back(std::string(lock) + ".lock(pointer, depth 1)");
        expected.push_back(std::string(lock) + ".unlock(guard, depth 0)");
    }
    EXPECT_EQ(journal_lines(about::lock), expected);
}

// --- connects that hang -----------------------------------------------------------------------------------------

class cancelling_a_connect : public timer_fixture {};

TEST_F(cancelling_a_connect, leaves_a_record_without_a_socket_alone) {
    tcp_record* const rec = connecting("rec");
    int const fd = std::exchange(rec->fd, -1);
    forget_calls();
    EPoll::timer_cancel_connect(rec->send_clock + c_timeout + 1);
    rec->fd = fd;
    EXPECT_THAT(journal_lines(about::system), IsEmpty());
}

TEST_F(cancelling_a_connect, waits_for_more_than_the_time_out) {
    tcp_record* const rec = connecting("rec");
    rec->send_clock = 500;
    EPoll::timer_cancel_connect(500 + c_timeout);
    EXPECT_THAT(journal_lines(about::system), IsEmpty());
    EPoll::timer_cancel_connect(500 + c_timeout + 1);
    EXPECT_EQ(journal_lines(about::system),
              (lines{"shutdown(rec.fd, SHUT_RDWR)", ctl("tcp_init", "MOD", "rec.fd", c_cancel_mask, "rec")}));
}

TEST_F(cancelling_a_connect, leaves_the_record_where_it_is) {
    tcp_record* const rec = connecting("rec");
    EPoll::timer_cancel_connect(c_now);
    EXPECT_EQ(registries_of(rec), "connect");
    EXPECT_NE(rec->fd, -1);
    EXPECT_THAT(take_traces(), IsEmpty());
}

TEST_F(cancelling_a_connect, walks_in_key_order_under_one_lock_and_does_not_care_for_results) {
    connecting("second", 9002);
    connecting("first", 9001);
    system.fail_always("shutdown", ENOTCONN);
    system.fail_always("epoll_ctl", ENOENT);
    EPoll::timer_cancel_connect(c_now);
    EXPECT_EQ(journal_lines(about::system),
              (lines{"shutdown(first.fd, SHUT_RDWR)", ctl("tcp_init", "MOD", "first.fd", c_cancel_mask, "first"),
                     "shutdown(second.fd, SHUT_RDWR)", ctl("tcp_init", "MOD", "second.fd", c_cancel_mask, "second")}));
    EXPECT_THAT(locks_of(system.all_calls()), Each(ElementsAre("g_client_lock")));
    EXPECT_EQ(outer_holds("g_client_lock"), 1);
}

TEST_F(cancelling_a_connect, again_on_a_later_tick_waits_for_what_the_set_up_thread_knows) {
    tcp_record* const rec = connecting("rec");
    for (int which = 0; which < 3; ++which) {
        EPoll::timer_cancel_connect(c_now);
    }
    std::vector<std::uint32_t> masks;
    for (system_call const& call : system.calls("epoll_ctl")) {
        masks.push_back(call.mask);
    }
    EXPECT_THAT(masks, ElementsAre(c_cancel_mask, c_send_mask, c_send_mask));
    EXPECT_EQ(registries_of(rec), "connect");
}

TEST_F(cancelling_a_connect, begins_anew_with_each_attempt) {
    tcp_record* const rec = connecting("rec");
    EPoll::timer_cancel_connect(c_now);
    EPoll::failed_connect(rec);
    system.fail("connect", 1, EINPROGRESS);
    ASSERT_EQ(EPoll::request_connect(rec), 0);
    system.clear();
    EPoll::timer_cancel_connect(c_now + c_timeout + 1);
    ASSERT_EQ(system.count("epoll_ctl"), 1u);
    EXPECT_EQ(system.calls("epoll_ctl")[0].mask, c_cancel_mask);
}

TEST_F(cancelling_a_connect, that_completed_just_before_still_ends_within_two_ticks) {
    tcp_record* const rec = connected("rec");
    auto const serve_kernel_event = [&] {
        epoll_event event{};
        ASSERT_EQ(__real_epoll_wait(EPoll::epoll_tcp_init, &event, 1, 10000), 1);
        serve(system, EPoll::epoll_thread_tcp_init_entry, EPoll::epoll_tcp_init, {{event.events, event.data.ptr}});
    };
    EPoll::timer_cancel_connect(c_now);
    serve_kernel_event();
    EXPECT_EQ(registries_of(rec), "connect");
    EPoll::timer_cancel_connect(c_now);
    serve_kernel_event();
    EXPECT_EQ(engine.count("completed_connect"), 1u);
    serve(system, EPoll::epoll_thread_tcp_send_entry, EPoll::epoll_tcp_send, {{EPOLLOUT | EPOLLHUP, rec}});
    EXPECT_EQ(registries_of(rec), "connect fail");
}

// --- both sides: who is heard from, and who is silent -------------------------------------------------------------

struct side_facts {
    std::string name;
    void (*job)(std::uint64_t);
    std::string lock;
    EPoll::connection_map* established;
    std::string heartbeat_text;
    std::string shutdown_text;
};
void PrintTo(side_facts const& side, std::ostream* out) {
    *out << side.name;
}

class keeping_connections : public timer_fixture, public ::testing::WithParamInterface<side_facts> {
protected:
    /// A connection of the side whose peer was heard from at that clock.
    tcp_record* peer(std::string const& name, std::uint64_t heard, std::uint16_t port = c_port) {
        bool const is_client = GetParam().established == &EPoll::g_establish_client_map;
        tcp_record* const rec = is_client ? established(name, port) : accepted_from(name, port);
        rec->recv_clock = heard;
        return rec;
    }
    void run(std::uint64_t now = c_now) { GetParam().job(now); }

    static constexpr std::uint64_t c_alive = c_now - c_timeout;
    static constexpr std::uint64_t c_silent = c_alive - 1;
};

TEST_P(keeping_connections, queues_a_heartbeat_for_a_peer_heard_from_8000_ticks_ago) {
    tcp_record* const rec = peer("rec", c_alive);
    run();
    EXPECT_EQ(take_shown_traces(), (lines{traced('E', c_file, GetParam().heartbeat_text)}));
    EXPECT_EQ(rec->send_q.size(), 1u);
    EXPECT_EQ(rec->send_clock, c_now);
    EXPECT_EQ(journal_lines(about::system), (lines{ctl("tcp_send", "MOD", "rec.fd", c_send_mask, "rec")}));
}

TEST_P(keeping_connections, stamps_and_traces_before_it_queues) {
    tcp_record* const rec = peer("rec", c_alive);
    system.on("epoll_ctl", [rec](system_call const&) { EXPECT_EQ(rec->send_clock, c_now); });
    run();
    EXPECT_EQ(journal_lines(about::trace | about::packet | about::system),
              (lines{"zolt_debug_not_send(E, no token, \"" + GetParam().heartbeat_text + "\")",
                     "heartbeat_token.ref_header()", ctl("tcp_send", "MOD", "rec.fd", c_send_mask, "rec")}));
}

TEST_P(keeping_connections, shuts_a_peer_down_that_was_heard_from_8001_ticks_ago) {
    tcp_record* const rec = peer("rec", c_silent);
    rec->send_clock = 7;
    run();
    EXPECT_EQ(journal_lines(about::system), (lines{"shutdown(rec.fd, SHUT_RDWR)"}));
    EXPECT_THAT(rec->send_q, IsEmpty());
    EXPECT_EQ(rec->send_clock, 7u);
    EXPECT_EQ(GetParam().established->at(at_port()), rec);
}

TEST_P(keeping_connections, does_nothing_at_all_for_a_silent_peer_when_configured_so) {
    EPoll::g_auto_disconnect = false;
    tcp_record* const rec = peer("rec", c_silent);
    rec->send_clock = 7;
    run();
    EXPECT_THAT(journal_lines(about::all & ~about::lock), IsEmpty());
    EXPECT_EQ(rec->send_clock, 7u);
    EXPECT_THAT(rec->send_q, IsEmpty());
    EXPECT_EQ(GetParam().established->at(at_port()), rec);
}

TEST_P(keeping_connections, shuts_down_after_the_walk_in_key_order_whatever_the_results) {
    peer("last", c_silent, 9003);
    peer("alive", c_alive, 9002);
    peer("first", c_silent, 9001);
    system.fail_always("shutdown", ENOTCONN);
    run();
    EXPECT_EQ(journal_lines(about::system), (lines{ctl("tcp_send", "MOD", "alive.fd", c_send_mask, "alive"),
                                                   "shutdown(first.fd, SHUT_RDWR)", "shutdown(last.fd, SHUT_RDWR)"}));
}

TEST_P(keeping_connections, traces_a_shutdown_with_both_clocks_cut_to_32_bits) {
    std::uint64_t const now = 0x1'8000'0005;
    tcp_record* const rec = peer("rec", 0x1'7FFF'0006);
    rec->remote_ip = c_elsewhere;
    run(now);
    EXPECT_EQ(take_shown_traces(),
              (lines{traced('E', c_file, GetParam().shutdown_text, {"-2147483643", "2147418118", "1.2.3.4"})}));
    EXPECT_EQ(journal_lines(about::system | about::trace).back(), "shutdown(rec.fd, SHUT_RDWR)");
}

TEST_P(keeping_connections, traces_but_shuts_nothing_down_without_a_socket) {
    tcp_record* const rec = peer("rec", c_silent);
    int const fd = std::exchange(rec->fd, -1);
    run();
    rec->fd = fd;
    EXPECT_EQ(take_traces().size(), 1u);
    EXPECT_THAT(journal_lines(about::system), IsEmpty());
}

TEST_P(keeping_connections, holds_the_registry_lock_for_the_whole_job) {
    peer("alive", c_alive, 9001);
    peer("silent", c_silent, 9002);
    run();
    auto const locks = locks_of(system.all_calls());
    EXPECT_THAT(locks, ElementsAre(ElementsAre(GetParam().lock, "alive.send_lock"), ElementsAre(GetParam().lock)));
    EXPECT_EQ(outer_holds(GetParam().lock), 1);
    EXPECT_EQ(journal_lines(about::lock).front(), GetParam().lock + ".lock(pointer, depth 1)");
    EXPECT_EQ(journal_lines(about::lock).back(), GetParam().lock + ".unlock(guard, depth 0)");
}

TEST_P(keeping_connections, arms_the_receive_side_of_one_that_was_shut_down_on_an_earlier_tick) {
    peer("rec", c_silent);
    run();
    EXPECT_EQ(system.count("epoll_ctl"), 0u);
    run();
    EXPECT_EQ(journal_lines(about::system), (lines{"shutdown(rec.fd, SHUT_RDWR)", "shutdown(rec.fd, SHUT_RDWR)",
                                                   ctl("tcp_recv", "MOD", "rec.fd", c_recv_mask, "rec")}));
}

TEST_P(keeping_connections, lets_an_exception_through_and_releases_its_locks) {
    peer("rec", c_alive);
    system.fail("epoll_ctl", 1, ENOMEM);
    on_error_line([](error_line const&) { throw 7; });
    EXPECT_THROW(run(), int);
    EXPECT_EQ(held_lock_count(), 0);
}

INSTANTIATE_TEST_SUITE_P(sides, keeping_connections,
                         ::testing::Values(side_facts{"server", EPoll::timer_shutdown_server,
                                                      "g_establish_server_map_lock", &EPoll::g_establish_server_map,
                                                      text("heartbeat_queued_server"), text("shutdown_silent_server")},
                                           side_facts{"client", EPoll::timer_shutdown_client, "g_client_lock",
                                                      &EPoll::g_establish_client_map, text("heartbeat_queued_client"),
                                                      text("shutdown_silent_client")}));

// --- what a silent connection still waits for ---------------------------------------------------------------------

class draining : public timer_fixture {
protected:
    /// A silent accepted connection that waits for these acknowledgements.
    tcp_record* silent(std::string const& name, std::vector<packet_fields> const& waiting_for,
                       std::uint16_t port = c_port) {
        tcp_record* const rec = accepted_from(name, port);
        for (packet_fields const& packet : waiting_for) {
            rec->ack_q.push_back(make_token(packet));
        }
        return rec;
    }

    static void run() { EPoll::timer_shutdown_server(c_now); }
};

TEST_F(draining, frees_each_packet_and_makes_the_reply_that_is_due) {
    tcp_record* const rec = silent("rec", {{.call = true, .data = {1, 2}}, {.signal = true}});
    script_error_replies({true, false});
    run();
    EXPECT_EQ(lines_without_numbers(about::packet | about::center),
              (lines{"token.free_data()", "header.backward_error_switch(0x4000000e)", "token.alloc_header_force()",
                     "header.operator=(header)", "token.free_header()", "token.free_data()",
                     "header.backward_error_switch(0x4000000e)", "token.free_header()", "send_zolt_center(token)",
                     "header.update_packet_time_and_return_timeout()"}));
    EXPECT_THAT(rec->ack_q, IsEmpty());
}

TEST_F(draining, follows_the_shutdown_of_its_connection) {
    silent("rec", {{.call = true}});
    run();
    auto const order = lines_without_numbers(about::packet | about::system | about::trace);
    ASSERT_GE(order.size(), 3u);
    EXPECT_EQ(order[0], "zolt_debug_not_send(E, no token, \"tcp server shutdown(%d -%d )  %s\")");
    EXPECT_EQ(order[1], "shutdown(rec.fd, SHUT_RDWR)");
    EXPECT_EQ(order[2], "token.free_data()");
}

TEST_F(draining, works_under_the_locks_of_the_record_and_lets_go_of_one_for_each_packet) {
    silent("rec", {{.call = true}, {.signal = true}});
    run();
    for (journal_entry const& entry : journal_entries(about::packet)) {
        if (entry.name.starts_with("free") || entry.name == "backward_error_switch") {
            EXPECT_THAT(entry.locks, ElementsAre("g_establish_server_map_lock", "rec.send_lock", "rec.ack_lock"));
        }
    }
    lines order = lines_without_numbers(about::packet | about::lock);
    std::erase_if(order, [](std::string const& line) {
        return line != "token.free_header()" && line != "rec.ack_lock.unlock(guard, depth 0)";
    });
    order.resize(4);
    EXPECT_EQ(order, (lines{"token.free_header()", "rec.ack_lock.unlock(guard, depth 0)", "token.free_header()",
                            "rec.ack_lock.unlock(guard, depth 0)"}));
}

TEST_F(draining, hands_the_replies_over_in_order_once_every_lock_is_released) {
    silent("second", {{.call = true, .sequence = 3}}, 9002);
    silent("first", {{.call = true, .sequence = 1}, {.signal = true, .sequence = 2}}, 9001);
    run();
    std::vector<std::uint32_t> sequences;
    for (center_offer const& offer : take_offers()) {
        sequences.push_back(offer.packet.sequence);
        EXPECT_EQ(offer.packet.error, 0x4000000Eu);
        EXPECT_THAT(offer.locks, IsEmpty());
    }
    EXPECT_THAT(sequences, ElementsAre(1u, 2u, 3u));
}

TEST_F(draining, leaves_the_connection_in_its_registry) {
    tcp_record* const rec = silent("rec", {{.call = true}});
    run();
    EXPECT_EQ(EPoll::g_establish_server_map.at(at_port()), rec);
}

TEST_F(draining, is_not_done_for_a_peer_that_is_heard_from) {
    tcp_record* const rec = silent("rec", {{.call = true}});
    rec->recv_clock = c_now;
    run();
    EXPECT_EQ(rec->ack_q.size(), 1u);
    EXPECT_THAT(take_offers(), IsEmpty());
}

// --- what should be gone --------------------------------------------------------------------------------------------

class reaping : public timer_fixture {
protected:
    /// Runs the job at the time-out after the clock of the fixture, and one tick later.
    void expect_cut_after_time_out(void (*job)(std::uint64_t), std::string const& fd) {
        forget_calls();
        job(c_now + c_timeout);
        EXPECT_EQ(system.count("shutdown"), 0u);
        job(c_now + c_timeout + 1);
        EXPECT_EQ(journal_lines(about::system), (lines{"shutdown(" + fd + ", SHUT_RDWR)"}));
    }
};

TEST_F(reaping, cuts_an_accepted_connection_that_does_not_finish_its_exchange) {
    tcp_record* const rec = accepted_from("rec", c_port, EPoll::c_kind_accepted);
    rec->reap_clock = static_cast<std::uint32_t>(c_now);
    EPoll::g_accepted_exchanging.link(rec);
    expect_cut_after_time_out(EPoll::timer_shutdown_server, "rec.fd");
}

TEST_F(reaping, leaves_alone_what_was_accepted_after_the_tick_read_its_clock) {
    tcp_record* const rec = accepted_from("rec", c_port, EPoll::c_kind_accepted);
    rec->reap_clock = static_cast<std::uint32_t>(c_now + 1);
    EPoll::g_accepted_exchanging.link(rec);
    forget_calls();
    EPoll::timer_shutdown_server(c_now);
    EXPECT_EQ(system.count("shutdown"), 0u);
}

TEST_F(reaping, counts_on_when_the_low_bits_of_the_clock_begin_again) {
    constexpr std::uint64_t c_accepted_at = (std::uint64_t{7} << 32) - 100;
    tcp_record* const rec = accepted_from("rec", c_port, EPoll::c_kind_accepted);
    rec->reap_clock = static_cast<std::uint32_t>(c_accepted_at);
    EPoll::g_accepted_exchanging.link(rec);
    forget_calls();
    EPoll::timer_shutdown_server(c_accepted_at + c_timeout);
    EXPECT_EQ(system.count("shutdown"), 0u);
    EPoll::timer_shutdown_server(c_accepted_at + c_timeout + 1);
    EXPECT_EQ(system.count("shutdown"), 1u);
}

TEST_F(reaping, cuts_an_accepted_connection_whose_end_is_left_to_the_send_thread) {
    tcp_record* const rec = accepted_from("rec");
    EPoll::shutdown_server(rec);
    ASSERT_TRUE(rec->doomed);
    expect_cut_after_time_out(EPoll::timer_shutdown_server, "rec.fd");
}

TEST_F(reaping, cuts_an_outgoing_connection_whose_end_is_left_to_the_send_thread) {
    tcp_record* const rec = established("rec");
    rec->send_armed = true;
    EPoll::close_client(rec);
    ASSERT_TRUE(rec->doomed);
    expect_cut_after_time_out(EPoll::timer_shutdown_client, "rec.fd");
}

TEST_F(reaping, leaves_a_record_without_a_socket_alone) {
    tcp_record* const exchanging = accepted_from("exchanging", c_port, EPoll::c_kind_accepted);
    exchanging->reap_clock = static_cast<std::uint32_t>(c_now);
    EPoll::g_accepted_exchanging.link(exchanging);
    tcp_record* const ending = established("ending");
    ending->send_armed = true;
    EPoll::close_client(ending);
    int const fds[] = {std::exchange(exchanging->fd, -1), std::exchange(ending->fd, -1)};
    forget_calls();
    EPoll::timer_shutdown_server(c_now + c_timeout + 1);
    EPoll::timer_shutdown_client(c_now + c_timeout + 1);
    EXPECT_THAT(journal_lines(about::system), IsEmpty());
    exchanging->fd = fds[0];
    ending->fd = fds[1];
}

TEST_F(reaping, cuts_a_withdrawn_connection_that_its_peer_keeps_open) {
    tcp_record* const rec = established("rec");
    rec->recv_clock = c_now + c_timeout + 1;
    EPoll::g_remote_server_map[at_port()] = 1;
    INet_Relay::del_client(Zolt::c_local_host, c_port);
    expect_cut_after_time_out(EPoll::timer_shutdown_client, "rec.fd");
}

TEST_F(reaping, cuts_a_connection_that_was_withdrawn_before_it_was_established) {
    tcp_record* const rec = awaiting_answer("rec");
    EPoll::g_remote_server_map[at_port()] = 1;
    INet_Relay::del_client(Zolt::c_local_host, c_port);
    write_bytes(peer_of(rec), init_block(1, 7000));
    ASSERT_EQ(EPoll::recv_client_init(rec), 0);
    rec->recv_clock = c_now + c_timeout + 1;
    expect_cut_after_time_out(EPoll::timer_shutdown_client, "rec.fd");
}

TEST_F(reaping, leaves_what_waits_for_acknowledgement_on_an_outgoing_connection_alone) {
    tcp_record* const rec = established("rec");
    rec->ack_q.push_back(make_token({.call = true}));
    EPoll::timer_shutdown_client(c_now);
    EXPECT_EQ(system.count("shutdown"), 1u);
    EXPECT_EQ(rec->ack_q.size(), 1u);
    EXPECT_THAT(take_offers(), IsEmpty());
}

// --- retries --------------------------------------------------------------------------------------------------------

class retrying : public timer_fixture {};

TEST_F(retrying, traces_and_tries_each_destination_in_key_order_under_the_lock) {
    tcp_record* const second = waiting("second", 9002);
    tcp_record* const first = waiting("first", 9001);
    engine.answer("request_connect", ECONNREFUSED);
    forget_calls();
    EPoll::timer_reconnect_client();
    EXPECT_EQ(journal_lines(about::trace | about::engine),
              (lines{"zolt_debug_not_send(E, no token, \"reconnect faults %s\")", "EPoll::request_connect(first)",
                     "zolt_debug_not_send(E, no token, \"reconnect faults %s\")", "EPoll::request_connect(second)"}));
    EXPECT_EQ(take_shown_traces(), (lines(2, traced('E', c_file, text("reconnecting"), {"127.0.0.1"}))));
    for (journal_entry const& entry : journal_entries(about::engine)) {
        EXPECT_THAT(entry.locks, ElementsAre("g_client_lock"));
    }
    EXPECT_EQ(outer_holds("g_client_lock"), 1);
    EXPECT_EQ(EPoll::g_connect_fail_map, (EPoll::connection_map{{at_port(9001), first}, {at_port(9002), second}}));
}

TEST_F(retrying, keeps_those_that_failed_at_once_and_only_those) {
    waiting("under_way", 9001);
    tcp_record* const failed = waiting("failed", 9002);
    waiting("under_way_too", 9003);
    engine.answer_nth("request_connect", 2, EADDRINUSE);
    EPoll::timer_reconnect_client();
    EXPECT_EQ(EPoll::g_connect_fail_map, (EPoll::connection_map{{at_port(9002), failed}}));
    EXPECT_EQ(EPoll::g_connect_map.size(), 2u);
}

TEST_F(retrying, keeps_a_failed_one_under_its_own_address) {
    tcp_record* const rec = unfiled("rec");
    EPoll::g_connect_fail_map[at_port(1)] = rec;
    engine.answer("request_connect", ECONNREFUSED);
    EPoll::timer_reconnect_client();
    EXPECT_EQ(EPoll::g_connect_fail_map, (EPoll::connection_map{{at_port(), rec}}));
}

TEST_F(retrying, is_one_attempt_a_tick) {
    waiting("rec");
    engine.answer("request_connect", ECONNREFUSED);
    for (std::size_t ticks = 1; ticks <= 3; ++ticks) {
        EPoll::timer_inet(nullptr);
        EXPECT_EQ(engine.count("request_connect"), ticks);
    }
}

TEST_F(retrying, of_one_that_failed_in_its_exchange_finds_its_entry_there_already) {
    tcp_record* const rec = exchanging("rec");
    EPoll::failed_connect_init(rec);
    ASSERT_EQ(registries_of(rec), "connect fail");
    system.answer("connect", 1, 0);
    system.answer("bind", 1, 0);
    EPoll::timer_reconnect_client();
    EXPECT_EQ(registries_of(rec), "connect");
    EXPECT_NE(rec->fd, -1);
}

TEST_F(retrying, interrupted_by_an_exception_loses_no_destination) {
    tcp_record* const first = waiting("first", 9001);
    tcp_record* const second = waiting("second", 9002);
    engine.on("request_connect", [second](void* record) { return record == second ? throw 7 : ECONNREFUSED; });
    EXPECT_THROW(EPoll::timer_reconnect_client(), int);
    EXPECT_EQ(held_lock_count(), 0);
    EXPECT_EQ(EPoll::g_connect_fail_map, (EPoll::connection_map{{at_port(9001), first}, {at_port(9002), second}}));
}

// --- one heartbeat --------------------------------------------------------------------------------------------------

/// The relay's counter of heartbeats. It is plain and belongs to the timer's thread: found in this program's own symbol
/// table and read through the kernel.
class heartbeat_counter {
public:
    heartbeat_counter() {
        std::ifstream program("/proc/self/exe", std::ios::binary | std::ios::ate);
        content.resize(static_cast<std::size_t>(program.tellg()));
        program.seekg(0);
        program.read(content.data(), static_cast<std::streamsize>(content.size()));
        Elf64_Sym const counter = find("request_send_hearbeat", "3cnt");
        Elf64_Sym const timer = find("10timer_inet", "class_timerE");
        size = counter.st_size;
        address = reinterpret_cast<std::uintptr_t>(EPoll::timer_inet) - timer.st_value + counter.st_value;
    }

    std::uint32_t read() const {
        std::ifstream memory("/proc/self/mem", std::ios::binary);
        memory.seekg(static_cast<std::streamoff>(address));
        std::uint32_t value = 0;
        memory.read(reinterpret_cast<char*>(&value), sizeof value);
        EXPECT_TRUE(memory.good());
        return value;
    }

    std::uint64_t size = 0;

private:
    template <class entry>
    entry at(std::uint64_t offset) const {
        entry copy{};
        std::memcpy(&copy, content.data() + offset, sizeof copy);
        return copy;
    }

    /// The symbol of C++ whose name contains one text and ends with another; compilers add counters named alike.
    Elf64_Sym find(std::string_view part, std::string_view end) const {
        auto const header = at<Elf64_Ehdr>(0);
        auto const section = [&](unsigned which) {
            return at<Elf64_Shdr>(header.e_shoff + std::uint64_t{which} * header.e_shentsize);
        };
        for (unsigned which = 0; which < header.e_shnum; ++which) {
            Elf64_Shdr const table = section(which);
            std::uint64_t const names = table.sh_type == SHT_SYMTAB ? section(table.sh_link).sh_offset : 0;
            for (std::uint64_t offset = 0; names != 0 && offset < table.sh_size; offset += sizeof(Elf64_Sym)) {
                auto const symbol = at<Elf64_Sym>(table.sh_offset + offset);
                std::string_view const name(content.data() + names + symbol.st_name);
                if (name.starts_with("_Z") && name.find(part) != name.npos && name.ends_with(end)) {
                    return symbol;
                }
            }
        }
        ADD_FAILURE() << "no symbol " << part << "..." << end;
        return {};
    }

    std::vector<char> content;
    std::uintptr_t address = 0;
};

class heartbeat : public timer_fixture {
protected:
    /// Distinct pieces of memory that the header parts in front of these queues are.
    static std::size_t different_headers(std::vector<tcp_record*> const& records) {
        std::set<unsigned char*> headers;
        for (tcp_record* const rec : records) {
            headers.insert(rec->send_q.front().get_header_packet()->get_header());
        }
        return headers.size();
    }
};

TEST_F(heartbeat, begins_an_idle_queue_and_arms_it) {
    tcp_record* const rec = established("rec");
    EXPECT_EQ(EPoll::request_send_hearbeat(rec), 0);
    ASSERT_EQ(rec->send_q.size(), 1u);
    EXPECT_EQ(rec->send_ptr, EPoll::heartbeat_pkt->get_header());
    EXPECT_EQ(rec->send_remain, header_size());
    EXPECT_TRUE(rec->sending_header && rec->sending && rec->send_armed);
    EXPECT_EQ(journal_lines(about::system), (lines{ctl("tcp_send", "MOD", "rec.fd", c_send_mask, "rec")}));
}

TEST_F(heartbeat, takes_one_reference_under_the_send_lock_and_changes_nothing_else) {
    tcp_record* const rec = established("rec");
    bytes const before = header_of(EPoll::heartbeat_token);
    EPoll::request_send_hearbeat(rec);
    auto const changes = journal_entries(about::packet);
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].text, "heartbeat_token.ref_header()");
    EXPECT_THAT(changes[0].locks, ElementsAre("rec.send_lock"));
    EXPECT_EQ(header_of(EPoll::heartbeat_token), before);
}

TEST_F(heartbeat, is_one_packet_in_every_queue) {
    std::vector<tcp_record*> const all{established("a", 9001), established("b", 9002), accepted_from("c", 9003)};
    for (tcp_record* const rec : all) {
        EPoll::request_send_hearbeat(rec);
    }
    EXPECT_EQ(different_headers(all), 1u);
    EXPECT_EQ(header_references(EPoll::heartbeat_token), 4);
}

TEST_F(heartbeat, joins_a_queue_behind_what_is_there_and_arms_nothing) {
    tcp_record* const rec = established("rec");
    rec->send_q.push_back(make_token({.sequence = 1}));
    rec->send_ptr = rec->send_q.front().get_header_packet()->get_header();
    rec->send_remain = 5;
    unsigned char* const cursor = rec->send_ptr;
    forget_calls();
    EXPECT_EQ(EPoll::request_send_hearbeat(rec), 0);
    ASSERT_EQ(rec->send_q.size(), 2u);
    EXPECT_EQ(token_name(rec->send_q.back()), token_name(EPoll::heartbeat_token));
    EXPECT_EQ(rec->send_ptr, cursor);
    EXPECT_EQ(rec->send_remain, 5u);
    EXPECT_THAT(journal_lines(about::system), IsEmpty());
    EXPECT_EQ(header_references(EPoll::heartbeat_token), 2);
}

TEST_F(heartbeat, stays_queued_when_it_cannot_be_armed) {
    tcp_record* const rec = established("rec");
    system.fail("epoll_ctl", 1, ENOENT);
    expect_error(text("send_request_failed"));
    EXPECT_EQ(EPoll::request_send_hearbeat(rec), 0);
    EXPECT_EQ(rec->send_q.size(), 1u);
    EXPECT_FALSE(rec->send_armed);
}

TEST_F(heartbeat, is_not_queued_on_a_withdrawn_connection) {
    tcp_record* const rec = established("rec");
    rec->close_requested = true;
    EXPECT_EQ(EPoll::request_send_hearbeat(rec), 0);
    EXPECT_THAT(rec->send_q, IsEmpty());
    EXPECT_EQ(header_references(EPoll::heartbeat_token), 1);
    EXPECT_THAT(journal_lines(about::system | about::packet), IsEmpty());
}

TEST_F(heartbeat, is_counted_with_each_call_queued_or_not) {
    heartbeat_counter const counter;
    EXPECT_EQ(counter.size, 4u);
    tcp_record* const rec = established("rec");
    std::uint32_t const before = counter.read();
    EPoll::request_send_hearbeat(rec);
    EXPECT_EQ(counter.read(), before + 1);
    rec->close_requested = true;
    EPoll::request_send_hearbeat(rec);
    EXPECT_EQ(counter.read(), before + 2);
}

TEST_F(heartbeat, is_counted_before_the_lock_is_taken) {
    heartbeat_counter const counter;
    tcp_record* const rec = established("rec");
    std::uint32_t const before = counter.read();
    std::thread timer;
    bool counted = false;
    {
        Tesk::OS::class_locker const guard(rec->send_lock, nullptr);
        timer = std::thread([rec] { EPoll::request_send_hearbeat(rec); });
        auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!counted && std::chrono::steady_clock::now() < deadline) {
            counted = counter.read() == before + 1;
        }
    }
    timer.join();
    EXPECT_TRUE(counted);
}

class heartbeat_on_the_wire : public heartbeat, public ::testing::WithParamInterface<unsigned> {};

TEST_P(heartbeat_on_the_wire, is_a_header_and_nothing_else) {
    EPoll::heartbeat_token.free();
    set_header_size(GetParam());
    EPoll::heartbeat_token.alloc_header_force();
    EPoll::heartbeat_pkt = EPoll::heartbeat_token.get_header_packet();
    EPoll::heartbeat_pkt->set_heartbeat_type();
    tcp_record* const rec = established("rec");
    EPoll::request_send_hearbeat(rec);
    serve(system, EPoll::epoll_thread_tcp_send_entry, EPoll::epoll_tcp_send, {{EPOLLOUT, rec}});
    ASSERT_EQ(__real_shutdown(rec->fd, SHUT_WR), 0);
    EXPECT_EQ(read_bytes(peer_of(rec), GetParam() + 1), header_of(EPoll::heartbeat_token));
    EXPECT_THAT(rec->send_q, IsEmpty());
    EXPECT_EQ(header_references(EPoll::heartbeat_token), 1);
}

INSTANTIATE_TEST_SUITE_P(header_sizes, heartbeat_on_the_wire, ::testing::Values(64u, 200u));

// --- with threads ---------------------------------------------------------------------------------------------------

class ticking_relay : public running_relay {};

TEST_F(ticking_relay, ends_a_connect_that_hangs_and_tries_again) {
    descriptor& listener = listen(0);
    std::uint16_t const port = local_port(listener);
    keep_open(connect_loopback(port)); // the backlog is full now
    INet_Relay::add_client(Zolt::c_local_host, port);
    advance_clock(c_timeout + 1);
    EPoll::timer_cancel_connect(Tesk::OS::lemon_clock());
    ASSERT_TRUE(wait_until([port] { return is_booked(port); }));
    EXPECT_EQ(engine.count("failed_connect"), 1u);
    std::vector<std::uint32_t> masks;
    for (system_call const& call : system.calls("epoll_wait")) {
        masks.push_back(call.mask);
    }
    EXPECT_THAT(masks, Contains(0x1Cu));
    tick(EPoll::inet_timer);
    EXPECT_EQ(engine.count("request_connect"), 2u);
}

TEST_F(ticking_relay, ends_a_silent_connection_tells_the_center_and_books_it) {
    descriptor& listener = listen();
    std::uint16_t const port = local_port(listener);
    INet_Relay::add_client(Zolt::c_local_host, port);
    establish(listener);
    advance_clock(c_timeout + 1);
    EPoll::timer_shutdown_client(Tesk::OS::lemon_clock());
    ASSERT_TRUE(wait_for_lines("EPoll::delete_overlapped", 1));
    ASSERT_TRUE(wait_until([port] { return is_booked(port) && !is_established(port); }));
    EXPECT_EQ(take_offers().size(), 2u);
    tick(EPoll::inet_timer);
    establish(listener);
}

} // namespace
