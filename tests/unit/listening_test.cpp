// Server ports: both endpoints are opened or none, each failure has its text and result, and connections that arrive
// are taken one by one.
#include "tests/unit/accepting_fixture.hpp"

#include <cerrno>
#include <netinet/tcp.h>

namespace {

using namespace relay_test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

std::string taken(std::uint16_t port) {
    return text("port_taken_before") + std::to_string(port) + text("port_taken_after");
}

class listening : public accepting_fixture {
protected:
    /// Opens the TCP endpoint of a port; its socket is bound to nothing, so that any number will do.
    int open(std::uint16_t port = c_listening_port) {
        system.answer("bind", 1, 0);
        return EPoll::request_listen(port);
    }

    /// Opens both endpoints in the same way.
    int open_both(std::uint16_t port) {
        system.answer("bind", 1, 0);
        system.answer("bind", 2, 0);
        return INet_Relay::add_server(port);
    }

    listening_record* record() const {
        return static_cast<listening_record*>(system.calls("epoll_ctl").back().pointer);
    }

    static lines steps() { return journal_lines(about::system | about::flags | about::error); }
};

// --- both endpoints of a port -------------------------------------------------------------------------------------

class server_port : public listening {};

TEST_F(server_port, opens_its_udp_endpoint_and_then_listens) {
    EXPECT_EQ(open_both(c_listening_port), 0);
    EXPECT_EQ(journal_lines(about::engine | about::error),
              (lines{"EPoll::udp_initialize(7000)", "EPoll::request_listen(7000)"}));
    EXPECT_TRUE(EPoll::g_udp_map.contains(c_listening_port));
    EXPECT_NE(EPoll::g_server_map.at(c_listening_port), -1);
}

TEST_F(server_port, opens_on_a_real_port_without_a_word) {
    std::uint16_t const port = unused_port();
    EXPECT_EQ(INet_Relay::add_server(port), 0);
    EXPECT_THAT(journal_lines(about::error), IsEmpty());
    EXPECT_NE(connect_loopback(port).get(), -1);
}

TEST_F(server_port, without_its_udp_endpoint_has_no_tcp_endpoint_either) {
    open_both(6999);
    forget_calls();
    engine.answer("udp_initialize", EACCES);
    EXPECT_EQ(INet_Relay::add_server(c_listening_port), EACCES);
    EXPECT_EQ(journal_lines(about::engine | about::system), (lines{"EPoll::udp_initialize(7000)"}));
    EXPECT_FALSE(EPoll::g_server_map.contains(c_listening_port));
    EXPECT_TRUE(EPoll::g_udp_map.contains(6999));
}

TEST_F(server_port, answers_what_listening_answered) {
    for (int const code : {-1, 1, EADDRINUSE, 40000}) {
        engine.answer("udp_initialize", 0);
        engine.answer("request_listen", code);
        EXPECT_NO_THROW(EXPECT_EQ(INet_Relay::add_server(c_listening_port), code));
    }
    EXPECT_EQ(engine.count("udp_finalize"), 4u);
}

TEST_F(server_port, answers_what_the_udp_endpoint_answered) {
    for (int const code : {-1, 1, EADDRINUSE, 40000}) {
        engine.answer("udp_initialize", code);
        EXPECT_NO_THROW(EXPECT_EQ(INet_Relay::add_server(c_listening_port), code));
    }
    EXPECT_EQ(engine.count("request_listen") + engine.count("udp_finalize"), 0u);
}

struct failing_step {
    std::string name;
    char const* call;
    int nth; ///< those of the UDP endpoint come first
    int error;
    lines errors;
    int result;
    friend void PrintTo(failing_step const& step, std::ostream* out) { *out << step.name; }
};

class failing_server_port : public server_port, public ::testing::WithParamInterface<failing_step> {};

TEST_P(failing_server_port, answers_the_error_and_closes_every_udp_endpoint) {
    open_both(6999);
    int const other = EPoll::g_server_map.at(6999);
    failing_step const& step = GetParam();
    system.answer("bind", 1, 0);
    system.fail(step.call, step.nth, step.error);
    system.answer("bind", 2, 0);
    for (std::string const& error : step.errors) {
        expect_error(error);
    }
    EXPECT_EQ(INet_Relay::add_server(c_listening_port), step.result);
    EXPECT_THAT(EPoll::g_udp_map, IsEmpty());
    EXPECT_EQ(EPoll::g_server_map.at(6999), other);
    EXPECT_EQ(real::fcntl(other, F_GETFD, 0), FD_CLOEXEC);
}

INSTANTIATE_TEST_SUITE_P(at, failing_server_port,
                         ::testing::Values(failing_step{"socket", "socket", 2, EMFILE, {text("socket_failed")}, EMFILE},
                                           failing_step{"bind",
                                                        "bind",
                                                        2,
                                                        EADDRINUSE,
                                                        {text("alert_title") + ": " + taken(c_listening_port),
                                                         text("listen_bind_failed")},
                                                        EADDRINUSE},
                                           failing_step{"registration", "epoll_ctl", 3, ENOSPC, {}, -1}),
                         ::testing::PrintToStringParamName());

// --- the TCP endpoint ---------------------------------------------------------------------------------------------

TEST_F(listening, takes_its_steps_in_order) {
    EPoll::g_listen_backlog = 17;
    EXPECT_EQ(open(), 0);
    EXPECT_EQ(steps(), (lines{"socket(AF_INET, SOCK_STREAM, IPPROTO_TCP)", "fflag_on(socket#1, 0x800)",
                              "bind(socket#1, 0.0.0.0:7000)", "listen(socket#1, 17)",
                              ctl("tcp_init", "ADD", "socket#1", c_arrival_mask, "object#1")}));
}

TEST_F(listening, binds_an_internet_address_of_16_bytes) {
    open();
    auto const bind = system.calls("bind").at(0);
    EXPECT_THAT(bind.arguments, ElementsAre(bind.descriptor, AF_INET, 16));
}

TEST_F(listening, is_not_blocking) {
    open();
    EXPECT_NE(real::fcntl(EPoll::g_server_map.at(c_listening_port), F_GETFL, 0) & O_NONBLOCK, 0);
}

TEST_F(listening, goes_on_when_the_socket_stays_blocking) {
    set_fflag_result(-1);
    EXPECT_EQ(open(), 0);
    EXPECT_THAT(steps(), SizeIs(5));
}

TEST_F(listening, is_kept_from_child_programs_before_it_has_its_port) {
    open();
    lines const all = journal_lines(about::system | about::close_on_exec);
    ASSERT_GE(all.size(), 2u);
    EXPECT_EQ(system.calls("fcntl").at(0).arguments,
              (std::vector<long>{EPoll::g_server_map.at(c_listening_port), F_SETFD, FD_CLOEXEC}));
    EXPECT_TRUE(all[1].starts_with("fcntl(")) << all[1];
}

TEST_F(listening, leads_from_its_events_to_a_record_of_kind_1_with_port_and_socket) {
    open();
    EXPECT_EQ(record()->kind, 1);
    EXPECT_EQ(record()->fd, EPoll::g_server_map.at(c_listening_port));
    EXPECT_EQ(record()->local_ip, 0u);
    EXPECT_EQ(record()->local_port, c_listening_port);
}

TEST_F(listening, takes_no_lock) {
    open();
    EXPECT_THAT(journal_lines(about::lock), IsEmpty());
}

TEST_F(listening, tries_again_after_a_failure_in_the_same_entry) {
    system.fail("socket", 1, ENFILE);
    expect_error(text("socket_failed"));
    EXPECT_EQ(EPoll::request_listen(c_listening_port), ENFILE);
    EXPECT_EQ(open(), 0);
    EXPECT_THAT(EPoll::g_server_map, SizeIs(1));
    EXPECT_EQ(EPoll::g_server_map.at(c_listening_port), record()->fd);
}

TEST_F(listening, is_served_by_the_set_up_thread_from_then_on) {
    std::uint16_t const port = unused_port();
    ASSERT_EQ(EPoll::request_listen(port), 0);
    descriptor const peer = connect_loopback(port);
    EXPECT_TRUE(serve_until([] { return EPoll::g_accepted_exchanging.first != nullptr; }));
    adopt(EPoll::g_accepted_exchanging.first, "rec");
}

/// The socket could not be made, or could not be bound.
class failing_to_listen : public listening {
protected:
    static void expect_unlisted() {
        EXPECT_EQ(EPoll::g_server_map, (std::map<unsigned short, int>{{c_listening_port, -1}}));
    }

    int open_taken(int error = EADDRINUSE) {
        system.fail("bind", 1, error);
        expect_alert(taken(c_listening_port));
        expect_error(text("listen_bind_failed"));
        return EPoll::request_listen(c_listening_port);
    }
};

TEST_F(failing_to_listen, without_a_socket_is_printed_and_leaves_the_entry_without_one) {
    system.fail("socket", 1, EMFILE);
    expect_error(text("socket_failed"));
    EXPECT_EQ(EPoll::request_listen(c_listening_port), EMFILE);
    EXPECT_EQ(steps(), (lines{"socket(AF_INET, SOCK_STREAM, IPPROTO_TCP)",
                              "print_error(" + to_text(text("socket_failed").c_str()) + ")"}));
    expect_unlisted();
}

TEST_F(failing_to_listen, without_a_socket_answers_the_error_whatever_printing_leaves_behind) {
    spoil_errno(EIO);
    system.fail("socket", 1, EMFILE);
    expect_error(text("socket_failed"));
    EXPECT_EQ(EPoll::request_listen(c_listening_port), EMFILE);
}

TEST_F(failing_to_listen, on_a_taken_port_alerts_then_prints_then_closes) {
    EXPECT_EQ(open_taken(), EADDRINUSE);
    lines const all = steps();
    ASSERT_GE(all.size(), 3u);
    EXPECT_EQ((lines{all.end() - 3, all.end()}),
              (lines{"alert(" + to_text(taken(c_listening_port).c_str()) + ")",
                     "print_error(" + to_text(text("listen_bind_failed").c_str()) + ")", "close(socket#1)"}));
    EXPECT_EQ(system.count("listen") + system.count("epoll_ctl"), 0u);
    expect_unlisted();
}

TEST_F(failing_to_listen, names_the_port_in_the_alert) {
    open_taken();
    EXPECT_EQ(taken(c_listening_port), "이미 다른 프로그램에서 7000 포트(도메인 포트)를 사용하고 있습니다.");
}

TEST_F(failing_to_listen, alerts_whatever_the_reason) {
    EXPECT_EQ(open_taken(EACCES), EACCES);
}

TEST_F(failing_to_listen, answers_the_error_that_the_alert_leaves_behind) {
    spoil_errno(99);
    EXPECT_EQ(open_taken(), 99);
}

TEST_F(failing_to_listen, answers_its_own_error_when_the_alert_leaves_none) {
    spoil_errno(0);
    EXPECT_EQ(open_taken(), EADDRINUSE);
}

TEST_F(failing_to_listen, answers_the_error_that_was_there_before_it_closed_the_socket) {
    system.fail("close", 1, EIO);
    EXPECT_EQ(open_taken(), EADDRINUSE);
}

TEST_F(failing_to_listen, on_a_port_that_another_program_holds_is_told_by_the_kernel) {
    descriptor const other = listen_loopback();
    std::uint16_t const port = local_port(other);
    expect_alert(taken(port));
    expect_error(text("listen_bind_failed"));
    EXPECT_EQ(EPoll::request_listen(port), EADDRINUSE);
    EXPECT_EQ(EPoll::g_server_map.at(port), -1);
}

// --- a connection is taken ----------------------------------------------------------------------------------------

class acceptance : public listening {
protected:
    void SetUp() override {
        listening::SetUp();
        EPoll::g_server_nagle_off_use = true;
        port = unused_port();
        ASSERT_EQ(EPoll::request_listen(port), 0);
        port_record = record();
        name_object(port_record, "port");
        name_descriptor(port_record->fd, "port.fd");
        peer = &keep_open(connect_loopback(port));
        forget_calls();
    }

    tcp_record* take() {
        EXPECT_EQ(EPoll::accept(port_record), 0);
        tcp_record* const rec = EPoll::g_accepted_exchanging.first;
        return rec == nullptr ? rec : adopt(rec, "rec");
    }

    std::uint16_t port = 0;
    listening_record* port_record = nullptr;
    descriptor* peer = nullptr;
};

TEST_F(acceptance, takes_its_steps_in_order) {
    system.on("getsockname", [this](system_call const&) { adopt(EPoll::g_accepted_exchanging.first, "rec"); });
    EXPECT_EQ(EPoll::accept(port_record), 0);
    EXPECT_EQ(journal_lines(about::system | about::flags | about::trace | about::error),
              (lines{"accept(port.fd)", "fflag_off(accepted#1, 0x800)",
                     "zolt_debug_not_send(C, no token, \"server nagle off\")",
                     "setsockopt(accepted#1, IPPROTO_TCP, TCP_NODELAY, 01000000)", "getsockname(accepted#1)",
                     ctl("tcp_recv", "ADD", "rec.fd", c_recv_mask, "rec")}));
}

TEST_F(acceptance, makes_a_record_of_kind_2_that_knows_both_ends) {
    tcp_record const* const rec = take();
    EXPECT_EQ(rec->kind, 2);
    EXPECT_EQ(rec->remote_ip, Zolt::c_local_host);
    EXPECT_EQ(rec->remote_port, local_port(*peer));
    EXPECT_EQ(rec->local_ip, Zolt::c_local_host);
    EXPECT_EQ(rec->local_port, port);
    EXPECT_EQ(rec->gate_port, port);
    EXPECT_EQ(rec->fd, system.calls("accept").at(0).result);
}

TEST_F(acceptance, begins_with_the_address_of_the_listening_socket) {
    port_record->local_ip = 0x0A00000A;
    port_record->local_port = c_listening_port;
    system.on("setsockopt", [](system_call const&) {
        tcp_record const* const rec = EPoll::g_accepted_exchanging.first;
        EXPECT_EQ(rec->local_ip, 0x0A00000Au);
        EXPECT_EQ(rec->local_port, c_listening_port);
        EXPECT_EQ(rec->gate_port, 0);
    });
    EXPECT_EQ(take()->local_port, port);
    EXPECT_EQ(system.count("setsockopt"), 2u);
}

TEST_F(acceptance, begins_with_nothing_queued_received_or_counted) {
    tcp_record const* const rec = take();
    EXPECT_THAT(rec->send_q, IsEmpty());
    EXPECT_THAT(rec->ack_q, IsEmpty());
    EXPECT_FALSE(rec->sending || rec->sending_header || rec->close_requested);
    EXPECT_EQ(rec->recv_clock + rec->send_clock + rec->send_remain, 0u);
    EXPECT_EQ(rec->recv_ptr, nullptr);
    EXPECT_EQ(rec->send_ptr, nullptr);
    EXPECT_EQ(rec->recv_remain, c_block_size);
    EXPECT_FALSE(has_header_part(rec->recv_token));
    EXPECT_EQ(block_bytes(rec->client_init_header), bytes(c_block_size));
    EXPECT_EQ(block_bytes(rec->server_init_header), bytes(c_block_size));
}

TEST_F(acceptance, does_not_mind_an_unknown_local_address) {
    system.fail("getsockname", 1, ENOBUFS);
    tcp_record const* const rec = take();
    EXPECT_EQ(rec->local_ip, 0u);
    EXPECT_EQ(rec->local_port, 0);
    EXPECT_EQ(rec->gate_port, 0);
    EXPECT_EQ(system.calls("epoll_ctl").back().target, rec->fd);
}

TEST_F(acceptance, files_the_record_nowhere_but_among_those_in_their_exchange) {
    set_clock(4321);
    tcp_record const* const rec = take();
    EXPECT_THAT(EPoll::g_establish_server_map, IsEmpty());
    EXPECT_THAT(EPoll::g_connect_map, IsEmpty());
    EXPECT_EQ(rec->reap_clock, 4321u);
    EXPECT_THAT(take_offers(), IsEmpty());
}

TEST_F(acceptance, makes_the_socket_blocking) {
    auto [near_end, far_end] = connected_pair();
    real::fcntl(near_end.get(), F_SETFL, O_NONBLOCK);
    system.answer("accept", 1, near_end.release());
    EXPECT_EQ(real::fcntl(take()->fd, F_GETFL, 0) & O_NONBLOCK, 0);
}

TEST_F(acceptance, keeps_the_socket_from_child_programs_and_bounds_its_writes) {
    tcp_record const* const rec = take();
    EXPECT_EQ(real::fcntl(rec->fd, F_GETFD, 0), FD_CLOEXEC);
    timeval bound{};
    socklen_t size = sizeof bound;
    ASSERT_EQ(::getsockopt(rec->fd, SOL_SOCKET, SO_SNDTIMEO, &bound, &size), 0);
    EXPECT_EQ(bound.tv_sec, 0);
    EXPECT_GT(bound.tv_usec, 0);
    EXPECT_LE(bound.tv_usec, 20000);
}

TEST_F(acceptance, with_nagle_off_is_traced_at_its_fixed_place) {
    take();
    expect_only_trace('C', 240, text("server_nagle_off"));
}

TEST_F(acceptance, with_nagle_on_is_traced_at_the_same_place_and_sets_no_such_option) {
    EPoll::g_server_nagle_off_use = false;
    tcp_record const* const rec = take();
    expect_only_trace('C', 240, text("server_nagle_on"));
    for (system_call const& call : system.calls("setsockopt")) {
        EXPECT_EQ(call.arguments.at(1), SOL_SOCKET) << call.text;
    }
    int off = -1;
    socklen_t size = sizeof off;
    ASSERT_EQ(::getsockopt(rec->fd, IPPROTO_TCP, TCP_NODELAY, &off, &size), 0);
    EXPECT_EQ(off, 0);
}

TEST_F(acceptance, goes_on_when_nagle_cannot_be_switched_off) {
    system.fail("setsockopt", 1, ENOPROTOOPT);
    expect_error(text("nagle_failed"));
    tcp_record const* const rec = take();
    EXPECT_EQ(rec->gate_port, port);
    EXPECT_EQ(system.calls("epoll_ctl").back().target, rec->fd);
}

TEST_F(acceptance, takes_the_lock_of_the_accepting_side_only_to_list_the_record) {
    take();
    EXPECT_EQ(journal_lines(about::lock), lock_and_unlock("g_establish_server_map_lock"));
    for (system_call const& call : system.all_calls()) {
        EXPECT_THAT(call.locks, IsEmpty()) << call.text;
    }
}

class failing_acceptance : public acceptance, public ::testing::WithParamInterface<int> {};

TEST_P(failing_acceptance, is_printed_and_does_nothing_else) {
    system.fail("accept", 1, GetParam());
    expect_error(text("accept_failed"));
    EXPECT_EQ(EPoll::accept(port_record), -1);
    EXPECT_EQ(journal_lines(about::system | about::flags | about::trace), (lines{"accept(port.fd)"}));
    EXPECT_EQ(EPoll::g_accepted_exchanging.first, nullptr);
}

TEST_P(failing_acceptance, leaves_the_socket_registered) {
    system.fail("accept", 1, GetParam());
    expect_error(text("accept_failed"));
    EXPECT_TRUE(serve_until([this] { return system.count("accept") == 1; }));
    descriptor const next = connect_loopback(port);
    EXPECT_TRUE(serve_until([] { return EPoll::g_accepted_exchanging.first != nullptr; }));
    EXPECT_EQ(adopt(EPoll::g_accepted_exchanging.first, "rec")->remote_port, local_port(*peer));
}

INSTANTIATE_TEST_SUITE_P(by, failing_acceptance, ::testing::Values(EAGAIN, EMFILE, ECONNABORTED, EINTR, EPERM));

// --- with threads -------------------------------------------------------------------------------------------------

using real_listening = running_server;

TEST_F(real_listening, serves_a_port_that_is_opened_while_the_threads_wait) {
    establish();
    auto const accepts = system.calls("accept");
    ASSERT_EQ(accepts.size(), 1u);
    EXPECT_NE(accepts[0].thread, "main");
    EXPECT_EQ(notices_of(wait_for_offers(1)), (notices{{c_connected_from_client, 0}}));
}

} // namespace
