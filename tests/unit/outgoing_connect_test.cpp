// Outgoing connections: destinations that the Center adds and withdraws, the connect, and what becomes of it.
#include "tests/unit/outgoing_fixture.hpp"

#include <cerrno>
#include <thread>

#include <netinet/tcp.h>
#include <poll.h>

namespace {

using namespace relay_test;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr unsigned c_elsewhere = 0x04030201; // 1.2.3.4 in network order

// --- a destination is added -------------------------------------------------------------------------------------

class adding_a_destination : public outgoing_fixture {
protected:
    static int add(std::uint16_t port = c_port) { return INet_Relay::add_client(Zolt::c_local_host, port); }
};

TEST_F(adding_a_destination, is_traced_before_anything_else_happens) {
    engine.answer("request_connect", 0);
    INet_Relay::add_client(c_elsewhere, c_port);
    EXPECT_EQ(take_shown_traces(), (lines{traced('E', text("file_public"), text("adding_client"), {"1.2.3.4"})}));
    EXPECT_EQ(journal_entries(about::trace | about::lock | about::engine | about::system).front().about, about::trace);
}

TEST_F(adding_a_destination, connects_with_a_fresh_record) {
    int calls = 0;
    engine.on("request_connect", [&](void* record) {
        auto* const rec = static_cast<tcp_record*>(record);
        EXPECT_EQ(rec->fd, -1);
        EXPECT_EQ(rec->kind, EPoll::c_kind_connecting);
        EXPECT_EQ(rec->remote_ip, c_elsewhere);
        EXPECT_EQ(rec->remote_port, c_port);
        EXPECT_EQ(std::tie(rec->local_ip, rec->local_port, rec->gate_port), std::make_tuple(0u, 0, 0));
        EXPECT_TRUE(rec->send_q.empty() && rec->ack_q.empty());
        EXPECT_FALSE(rec->sending || rec->sending_header || rec->close_requested || rec->recv_token.has_header());
        EXPECT_EQ(std::tie(rec->recv_clock, rec->send_clock), std::make_tuple(0u, 0u));
        EXPECT_EQ(std::tie(rec->recv_remain, rec->send_remain), std::make_tuple(0u, 0u));
        EXPECT_TRUE(rec->recv_ptr == nullptr && rec->send_ptr == nullptr);
        EXPECT_EQ(block_bytes(rec->client_init_header), block_bytes({}));
        EXPECT_EQ(block_bytes(rec->server_init_header), block_bytes({}));
        return calls++;
    });
    INet_Relay::add_client(c_elsewhere, c_port);
    EXPECT_EQ(calls, 1);
}

TEST_F(adding_a_destination, again_only_counts) {
    engine.answer("request_connect", 0);
    add();
    add();
    EXPECT_EQ(EPoll::g_remote_server_map.at(at_port()), 2);
    EXPECT_EQ(engine.count("request_connect"), 1u);
    EXPECT_EQ(live_records().size(), 1u);
}

TEST_F(adding_a_destination, counts_it_once_the_attempt_is_made) {
    engine.on("request_connect", [](void*) {
        EXPECT_FALSE(EPoll::g_remote_server_map.contains(at_port()));
        return 0;
    });
    add();
    EXPECT_EQ(EPoll::g_remote_server_map.at(at_port()), 1);
    EXPECT_THAT(EPoll::g_connect_fail_map, IsEmpty());
}

TEST_F(adding_a_destination, whose_first_attempt_fails_books_the_record_for_the_next_tick) {
    engine.answer("request_connect", ECONNREFUSED);
    add();
    EXPECT_EQ(EPoll::g_connect_fail_map.at(at_port()), engine.records("request_connect").at(0));
    EXPECT_EQ(EPoll::g_remote_server_map.at(at_port()), 1);
}

TEST_F(adding_a_destination, keeps_a_booking_that_is_there_and_destroys_the_second_record) {
    tcp_record* const old = waiting("old");
    engine.answer("request_connect", ECONNREFUSED);
    add();
    EXPECT_EQ(registries_of(old), "fail");
    EXPECT_THAT(live_records(), ElementsAre(old));
}

TEST_F(adding_a_destination, is_one_hold_of_the_registry_lock) {
    engine.answer("request_connect", ECONNREFUSED);
    add();
    EXPECT_THAT(journal_entries(about::engine).at(0).locks, ElementsAre("g_client_lock"));
    EXPECT_EQ(outer_holds("g_client_lock"), 1);
}

TEST_F(adding_a_destination, answers_0_in_every_case) {
    engine.answer("request_connect", 0);
    EXPECT_EQ(add(), 0);
    EXPECT_EQ(add(), 0);
    engine.answer("request_connect", ECONNREFUSED);
    EXPECT_EQ(add(9001), 0);
    INet_Relay::del_client(Zolt::c_local_host, 9002);
    EXPECT_EQ(add(9002), 0);
}

TEST_F(adding_a_destination, that_refuses_at_once_leads_to_one_attempt_a_tick) {
    system.fail_always("connect", ECONNREFUSED);
    for (int attempt = 0; attempt < 3; ++attempt) {
        expect_error("connect err:111\n");
    }
    add();
    EXPECT_EQ(EPoll::g_connect_fail_map.size(), 1u);
    EPoll::timer_inet(nullptr);
    EXPECT_EQ(system.count("connect"), 2u);
    EPoll::timer_inet(nullptr);
    EXPECT_EQ(system.count("connect"), 3u);
}

// --- the connect ------------------------------------------------------------------------------------------------

class requesting_a_connect : public outgoing_fixture {
protected:
    void SetUp() override {
        outgoing_fixture::SetUp();
        listener = listen_loopback();
        port = local_port(listener);
        rec = unfiled("rec", port);
    }
    void TearDown() override {
        listener.close();
        outgoing_fixture::TearDown();
    }
    std::string remote() const { return "127.0.0.1:" + std::to_string(port); }

    descriptor listener;
    std::uint16_t port = 0;
    tcp_record* rec = nullptr;
};

TEST_F(requesting_a_connect, takes_its_steps_in_order) {
    EXPECT_EQ(EPoll::request_connect(rec), 0);
    EXPECT_EQ(
        journal_lines(about::clock | about::trace | about::flags | about::system),
        (lines{"lemon_clock()", "zolt_debug_not_send(E, no token, \"tcp request connect %s\")",
               "socket(AF_INET, SOCK_STREAM, IPPROTO_TCP)", "fflag_on(socket#1, 0x800)", "bind(socket#1, 0.0.0.0:0)",
               "connect(socket#1, " + remote() + ")", ctl("tcp_init", "ADD", "socket#1", c_send_mask, "rec")}));
}

TEST_F(requesting_a_connect, is_traced_with_the_address) {
    EPoll::request_connect(rec);
    EXPECT_EQ(take_shown_traces(), (lines{traced('E', text("file_client"), text("connecting"), {"127.0.0.1"})}));
}

TEST_F(requesting_a_connect, stamps_the_start_of_the_attempt_first) {
    set_clock(777);
    system.on("socket", [&](system_call const&) { EXPECT_EQ(rec->send_clock, 777u); });
    EPoll::request_connect(rec);
    EXPECT_EQ(system.count("socket"), 1u);
}

TEST_F(requesting_a_connect, passes_whole_addresses) {
    EPoll::request_connect(rec);
    std::vector<long> const expected{rec->fd, AF_INET, 16};
    EXPECT_EQ(system.calls("bind").at(0).arguments, expected);
    EXPECT_EQ(system.calls("connect").at(0).arguments, expected);
}

TEST_F(requesting_a_connect, connects_a_socket_that_does_not_block_and_that_children_do_not_inherit) {
    system.on("connect", [](system_call const& call) {
        EXPECT_NE(real::fcntl(call.descriptor, F_GETFL, 0) & O_NONBLOCK, 0);
        EXPECT_NE(real::fcntl(call.descriptor, F_GETFD, 0) & FD_CLOEXEC, 0);
    });
    EPoll::request_connect(rec);
    EXPECT_EQ(system.count("connect"), 1u);
}

TEST_F(requesting_a_connect, takes_done_and_in_progress_alike) {
    for (bool const at_once : {true, false}) {
        tcp_record* const one = unfiled("one", at_once ? 9001 : 9002);
        at_once ? system.answer("connect", 1, 0) : system.fail("connect", 1, EINPROGRESS);
        EXPECT_EQ(EPoll::request_connect(one), 0);
        EXPECT_EQ(registries_of(one, one->remote_port), "connect");
        EXPECT_EQ(system.count("epoll_ctl"), 1u);
    }
}

TEST_F(requesting_a_connect, files_the_record_and_then_registers_it_under_one_lock) {
    system.on("epoll_ctl", [&](system_call const& call) {
        EXPECT_EQ(registries_of(rec, port), "connect");
        EXPECT_THAT(call.locks, ElementsAre("g_client_lock"));
    });
    EPoll::request_connect(rec);
    EXPECT_EQ(system.count("epoll_ctl"), 1u);
    EXPECT_EQ(outer_holds("g_client_lock"), 1);
}

TEST_F(requesting_a_connect, does_not_care_whether_it_could_be_registered) {
    system.fail("epoll_ctl", 1, ENOMEM);
    EXPECT_EQ(EPoll::request_connect(rec), 0);
    EXPECT_EQ(registries_of(rec, port), "connect");
    EXPECT_NE(rec->fd, -1);
}

TEST_F(requesting_a_connect, keeps_the_entry_of_another_record) {
    tcp_record* const old = exchanging("old", port);
    EXPECT_EQ(EPoll::request_connect(rec), 0);
    EXPECT_EQ(registries_of(old, port), "connect");
    EXPECT_EQ(system.count("epoll_ctl"), 1u);
}

TEST_F(requesting_a_connect, takes_the_place_of_an_entry_that_goes) {
    tcp_record* const old = exchanging("old", port);
    EPoll::request_connect(rec);
    EPoll::failed_connect(old);
    EXPECT_EQ(registries_of(rec, port), "connect");
    EXPECT_EQ(registries_of(old, port), "fail");
}

struct connect_failure {
    char const* call;
    int error;
    std::string text;
    std::size_t closes;
};
void PrintTo(connect_failure const& failure, std::ostream* out) {
    *out << failure.call << " " << failure.error;
}

class failing_to_connect : public requesting_a_connect, public ::testing::WithParamInterface<connect_failure> {};

TEST_P(failing_to_connect, prints_closes_and_answers_the_error_of_the_call_that_failed) {
    auto const& [call, error, line, closes] = GetParam();
    system.fail(call, 1, error);
    system.fail("close", 1, EIO);
    spoil_errno(ESRCH);
    expect_error(line);
    EXPECT_EQ(EPoll::request_connect(rec), error);
    EXPECT_EQ(rec->fd, -1);
    EXPECT_EQ(system.count("close"), closes);
    EXPECT_EQ(system.count("epoll_ctl"), 0u);
}

TEST_P(failing_to_connect, leaves_the_filing_to_the_caller) {
    system.fail(GetParam().call, 1, GetParam().error);
    expect_error(GetParam().text);
    EPoll::request_connect(rec);
    EXPECT_EQ(registries_of(rec, port), "");
    EXPECT_TRUE(lives(rec));
}

INSTANTIATE_TEST_SUITE_P(calls, failing_to_connect,
                         ::testing::Values(connect_failure{"socket", EMFILE, text("socket_failed"), 0},
                                           connect_failure{"bind", EADDRINUSE, text("bind_failed"), 1},
                                           connect_failure{"connect", ECONNREFUSED, "connect err:111\n", 1},
                                           connect_failure{"connect", ENETUNREACH, "connect err:101\n", 1},
                                           connect_failure{"connect", EINTR, "connect err:4\n", 1}));

// --- the connect is done ----------------------------------------------------------------------------------------

class completing_a_connect : public outgoing_fixture {
protected:
    void SetUp() override {
        outgoing_fixture::SetUp();
        rec = connected("rec");
    }

    void expect_booked_without_socket() {
        EXPECT_EQ(rec->fd, -1);
        EXPECT_EQ(registries_of(rec), "connect fail");
    }

    tcp_record* rec = nullptr;
};

TEST_F(completing_a_connect, sets_options_leaves_the_set_up_instance_and_begins_the_exchange) {
    EXPECT_EQ(EPoll::completed_connect(rec), 0);
    EXPECT_EQ(journal_lines(about::trace | about::flags | about::system),
              (lines{"zolt_debug_not_send(C, no token, \"client nagle off\")",
                     "setsockopt(rec.fd, IPPROTO_TCP, TCP_NODELAY, 01000000)", "getsockname(rec.fd)",
                     "fflag_off(rec.fd, 0x800)", ctl("tcp_init", "DEL", "rec.fd", 0, "null"),
                     ctl("tcp_send", "ADD", "rec.fd", c_send_mask, "rec")}));
    EXPECT_EQ(registries_of(rec), "connect");
    EXPECT_EQ(rec->kind, EPoll::c_kind_connecting);
}

TEST_F(completing_a_connect, fails_when_it_cannot_leave_the_set_up_instance) {
    system.fail("epoll_ctl", 1, ENOENT);
    expect_error(text("epoll_del_failed"));
    EXPECT_EQ(EPoll::completed_connect(rec), -1);
    expect_booked_without_socket();
}

TEST_F(completing_a_connect, fails_when_the_exchange_cannot_begin) {
    system.fail("epoll_ctl", 2, ENOMEM);
    expect_error(text("send_arm_failed"));
    expect_error(text("request_send_client_init_failed"));
    EXPECT_EQ(EPoll::completed_connect(rec), -1);
    expect_booked_without_socket();
}

TEST_F(completing_a_connect, answers_0_when_a_string_came_from_setting_the_options) {
    system.fail("setsockopt", 1, EINVAL);
    on_error_line([](error_line const& line) {
        if (line.text == text("nagle_failed")) {
            throw std::string("the host's own");
        }
    });
    expect_error("the host's own");
    EXPECT_EQ(EPoll::completed_connect(rec), 0);
    expect_booked_without_socket();
}

TEST_F(completing_a_connect, does_not_ask_for_the_error_of_the_socket) {
    descriptor const deaf = bound_socket();
    tcp_record* const refused = unfiled("refused", local_port(deaf));
    ASSERT_EQ(EPoll::request_connect(refused), 0);
    pollfd waited{refused->fd, POLLOUT, 0};
    ASSERT_EQ(::poll(&waited, 1, 10000), 1);
    EXPECT_EQ(EPoll::completed_connect(refused), 0);
    int error = 0;
    socklen_t size = sizeof error;
    ASSERT_EQ(::getsockopt(refused->fd, SOL_SOCKET, SO_ERROR, &error, &size), 0);
    EXPECT_EQ(error, ECONNREFUSED) << "somebody has asked before";
}

TEST_F(completing_a_connect, that_came_with_a_hang_up_fails_in_the_first_send) {
    descriptor const deaf = bound_socket();
    tcp_record* const refused = unfiled("refused", local_port(deaf));
    ASSERT_EQ(EPoll::request_connect(refused), 0);
    expect_error(text("send_client_init_failed"));
    serve(system, EPoll::epoll_thread_tcp_init_entry, EPoll::epoll_tcp_init, {{EPOLLOUT | EPOLLHUP, refused}});
    EXPECT_EQ(registries_of(refused, refused->remote_port), "connect");
    serve(system, EPoll::epoll_thread_tcp_send_entry, EPoll::epoll_tcp_send, {{EPOLLOUT, refused}});
    EXPECT_EQ(refused->fd, -1);
    EXPECT_EQ(registries_of(refused, refused->remote_port), "connect fail");
}

class setting_the_options : public completing_a_connect {
protected:
    /// Values of one option, as set.
    std::vector<bytes> values_of(long level, long option) const {
        std::vector<bytes> values;
        for (system_call const& call : system.calls("setsockopt")) {
            if (call.arguments.at(1) == level && call.arguments.at(2) == option) {
                values.push_back(call.data);
            }
        }
        return values;
    }
};

TEST_F(setting_the_options, switches_nagle_off_as_configured) {
    EPoll::set_client_option(rec);
    EXPECT_EQ(take_shown_traces(), (lines{traced('C', text("file_client"), text("client_nagle_off"))}));
    EXPECT_THAT(values_of(IPPROTO_TCP, TCP_NODELAY), ElementsAre(bytes{1, 0, 0, 0}));
}

TEST_F(setting_the_options, leaves_nagle_on_as_configured) {
    EPoll::g_client_nagle_off_use = false;
    EPoll::set_client_option(rec);
    EXPECT_EQ(take_shown_traces(), (lines{traced('C', text("file_client"), text("client_nagle_on"))}));
    EXPECT_THAT(values_of(IPPROTO_TCP, TCP_NODELAY), IsEmpty());
}

TEST_F(setting_the_options, goes_on_when_nagle_cannot_be_switched_off) {
    system.fail("setsockopt", 1, EINVAL);
    expect_error(text("nagle_failed"));
    EPoll::set_client_option(rec);
    EXPECT_EQ(system.count("getsockname"), 1u);
    EXPECT_EQ(real::fcntl(rec->fd, F_GETFL, 0) & O_NONBLOCK, 0);
}

TEST_F(setting_the_options, bounds_a_write_to_a_millisecond) {
    EPoll::set_client_option(rec);
    timeval const millisecond{0, 1000};
    bytes expected(sizeof millisecond);
    std::memcpy(expected.data(), &millisecond, sizeof millisecond);
    EXPECT_THAT(values_of(SOL_SOCKET, SO_SNDTIMEO), ElementsAre(expected));
}

TEST_F(setting_the_options, goes_on_in_silence_when_writes_cannot_be_bounded) {
    system.fail("setsockopt", 2, EINVAL);
    EXPECT_EQ(EPoll::completed_connect(rec), 0);
}

TEST_F(setting_the_options, learns_the_own_address_and_takes_its_port_as_gate_port) {
    EPoll::set_client_option(rec);
    sockaddr_in own{};
    socklen_t size = sizeof own;
    ASSERT_EQ(__real_getsockname(rec->fd, reinterpret_cast<sockaddr*>(&own), &size), 0);
    EXPECT_EQ(rec->local_ip, Zolt::c_local_host);
    EXPECT_EQ(rec->local_port, ntohs(own.sin_port));
    EXPECT_EQ(rec->gate_port, rec->local_port);
}

TEST_F(setting_the_options, has_no_address_when_the_kernel_tells_none) {
    std::tie(rec->local_ip, rec->local_port, rec->gate_port) = std::make_tuple(1u, std::uint16_t{2}, std::uint16_t{3});
    system.fail("getsockname", 1, ENOTCONN);
    EPoll::set_client_option(rec);
    EXPECT_EQ(std::tie(rec->local_ip, rec->local_port, rec->gate_port), std::make_tuple(0u, 0, 0));
}

TEST_F(setting_the_options, makes_the_socket_block) {
    set_fflag_result(-1);
    EPoll::set_client_option(rec);
    EXPECT_EQ(real::fcntl(rec->fd, F_GETFL, 0) & O_NONBLOCK, 0);
}

// --- the connect, or its exchange, failed -----------------------------------------------------------------------

class failed_connecting : public outgoing_fixture {
protected:
    /// What the registries say while the socket is being closed.
    void watch_close(tcp_record const* rec) {
        system.on("close", [this, rec](system_call const& call) {
            at_close = registries_of(rec);
            locks_at_close = call.locks;
        });
    }

    std::string at_close = "never closed";
    std::vector<std::string> locks_at_close;
};

TEST_F(failed_connecting, is_traced_with_the_address) {
    EPoll::failed_connect_init(connecting("rec"));
    EXPECT_EQ(take_shown_traces(),
              (lines{traced('E', text("file_client"), text("connect_init_failed"), {"127.0.0.1"})}));
}

TEST_F(failed_connecting, leaves_the_connecting_ones_and_is_booked) {
    tcp_record* const rec = connecting("rec");
    watch_close(rec);
    EXPECT_EQ(EPoll::failed_connect(rec), 0);
    EXPECT_EQ(at_close, "");
    EXPECT_EQ(registries_of(rec), "fail");
}

TEST_F(failed_connecting, in_the_exchange_is_booked_besides) {
    tcp_record* const rec = exchanging("rec");
    watch_close(rec);
    EXPECT_EQ(EPoll::failed_connect_init(rec), 0);
    EXPECT_EQ(at_close, "connect");
    EXPECT_EQ(registries_of(rec), "connect fail");
}

TEST_F(failed_connecting, erases_and_books_under_the_registry_lock) {
    tcp_record* const rec = connecting("rec");
    watch_close(rec);
    EPoll::failed_connect(rec);
    EXPECT_THAT(locks_at_close, ElementsAre("g_client_lock"));
    EXPECT_EQ(outer_holds("g_client_lock"), 2);
}

TEST_F(failed_connecting, closes_the_socket_after_taking_it_out_of_each_instance) {
    tcp_record* const rec = exchanging("rec");
    EPoll::failed_connect_init(rec);
    EXPECT_EQ(journal_lines(about::system),
              (lines{ctl("tcp_init", "DEL", "rec.fd", c_send_mask, "rec"),
                     ctl("tcp_recv", "DEL", "rec.fd", c_send_mask, "rec"),
                     ctl("tcp_send", "DEL", "rec.fd", c_send_mask, "rec"), "close(rec.fd)"}));
    EXPECT_EQ(rec->fd, -1);
}

TEST_F(failed_connecting, without_a_socket_closes_nothing) {
    tcp_record* const rec = unfiled("rec");
    EXPECT_EQ(EPoll::failed_connect_init(rec), 0);
    EXPECT_THAT(journal_lines(about::system), IsEmpty());
    EXPECT_EQ(registries_of(rec), "fail");
}

TEST_F(failed_connecting, of_a_withdrawn_destination_destroys_the_record_and_every_entry_that_names_it) {
    tcp_record* const rec = exchanging("rec");
    file_also(rec, phase::waiting);
    rec->close_requested = true;
    EXPECT_EQ(EPoll::failed_connect_init(rec), 0);
    EXPECT_THAT(engine.records("delete_overlapped"), ElementsAre(rec));
    EXPECT_FALSE(lives(rec));
    EXPECT_EQ(registries_of(rec), "");
    EXPECT_THAT(take_shown_traces(),
                Contains(traced('E', text("file_method"), text("deleted"), {text("deleted_client"), "127.0.0.1"})));
}

TEST_F(failed_connecting, keeps_a_booking_that_is_there_and_destroys_the_second_record) {
    tcp_record* const booked = waiting("booked");
    tcp_record* const rec = connecting("rec");
    EXPECT_EQ(EPoll::failed_connect(rec), 0);
    EXPECT_EQ(registries_of(booked), "fail");
    EXPECT_THAT(live_records(), ElementsAre(booked));
}

TEST_F(failed_connecting, tells_the_center_nothing) {
    EPoll::failed_connect(connecting("rec"));
    EPoll::failed_connect_init(exchanging("other", 9001));
    EXPECT_THAT(take_offers(), IsEmpty());
}

// --- a destination is withdrawn ---------------------------------------------------------------------------------

class withdrawing : public outgoing_fixture {
protected:
    static int withdraw(int count = 1) {
        EPoll::g_remote_server_map[at_port()] = count;
        return INet_Relay::del_client(Zolt::c_local_host, c_port);
    }

    static void expect_marker_in_front(tcp_record* rec) {
        ASSERT_EQ(rec->send_q.size(), 1u);
        EXPECT_FALSE(rec->send_q.front().has_header() || rec->send_q.front().has_data());
        EXPECT_EQ(rec->send_ptr, nullptr);
        EXPECT_EQ(rec->send_remain, 0u);
        EXPECT_TRUE(rec->sending && rec->close_requested);
    }

    /// A packet in progress.
    static Zolt::struct_token make_busy(tcp_record* rec, bool armed) {
        Zolt::struct_token const token = make_token({.sequence = 1});
        rec->send_q.push_back(token);
        rec->send_ptr = rec->send_q.front().get_header_packet()->get_header();
        rec->send_remain = 7;
        rec->sending = armed;
        rec->send_armed = armed;
        clear_journal();
        return token;
    }
};

TEST_F(withdrawing, lowers_the_count_and_leaves_a_connection_that_is_still_wanted) {
    tcp_record* const rec = established("rec");
    EXPECT_EQ(withdraw(2), 0);
    EXPECT_EQ(EPoll::g_remote_server_map.at(at_port()), 1);
    EXPECT_FALSE(rec->close_requested);
    EXPECT_THAT(rec->send_q, IsEmpty());
    EXPECT_THAT(journal_lines(about::system | about::engine), IsEmpty());
}

TEST_F(withdrawing, the_last_registration_forgets_the_destination) {
    EXPECT_EQ(withdraw(), 0);
    EXPECT_FALSE(EPoll::g_remote_server_map.contains(at_port()));
}

TEST_F(withdrawing, counts_and_acts_in_one_hold_of_the_registry_lock) {
    established("rec");
    connecting("second");
    withdraw();
    EXPECT_EQ(outer_holds("g_client_lock"), 1);
    EXPECT_EQ(journal_lines(about::lock).front(), "g_client_lock.lock(pointer, depth 1)");
    EXPECT_EQ(journal_lines(about::lock).back(), "g_client_lock.unlock(guard, depth 0)");
}

TEST_F(withdrawing, an_idle_connection_queues_the_close_marker_and_arms_it) {
    tcp_record* const rec = established("rec");
    set_clock(4321);
    EXPECT_EQ(withdraw(), 0);
    expect_marker_in_front(rec);
    EXPECT_TRUE(rec->sending_header);
    EXPECT_EQ(rec->send_clock, 4321u);
    EXPECT_EQ(journal_lines(about::system), (lines{ctl("tcp_send", "MOD", "rec.fd", c_send_mask, "rec")}));
    EXPECT_THAT(system.calls("epoll_ctl").at(0).locks, ElementsAre("g_client_lock", "rec.send_lock"));
    EXPECT_TRUE(rec->send_armed);
    EXPECT_EQ(registries_of(rec), "establish");
}

TEST_F(withdrawing, an_idle_connection_that_cannot_be_armed_keeps_the_marker) {
    tcp_record* const rec = established("rec");
    system.fail("epoll_ctl", 1, ENOMEM);
    expect_error(text("send_request_failed"));
    EXPECT_EQ(withdraw(), 0);
    expect_marker_in_front(rec);
    EXPECT_FALSE(rec->send_armed);
}

TEST_F(withdrawing, a_busy_connection_queues_the_marker_behind_what_is_there) {
    tcp_record* const rec = established("rec");
    make_busy(rec, true);
    unsigned char* const cursor = rec->send_ptr;
    withdraw();
    ASSERT_EQ(rec->send_q.size(), 2u);
    EXPECT_TRUE(rec->send_q.front().has_header());
    EXPECT_FALSE(rec->send_q.back().has_header());
    EXPECT_EQ(rec->send_ptr, cursor);
    EXPECT_EQ(rec->send_remain, 7u);
    EXPECT_TRUE(rec->close_requested);
    EXPECT_THAT(journal_lines(about::system), IsEmpty());
}

TEST_F(withdrawing, a_connection_whose_queue_rests_shuts_its_write_side_at_once) {
    tcp_record* const rec = established("rec");
    make_busy(rec, false);
    withdraw();
    EXPECT_EQ(rec->send_q.size(), 2u);
    EXPECT_EQ(journal_lines(about::system), (lines{"shutdown(rec.fd, SHUT_WR)"}));
}

TEST_F(withdrawing, a_connection_being_made_marks_it_and_arms_nothing) {
    for (bool const before : {false, true}) {
        tcp_record* const rec = exchanging("rec");
        rec->sending_header = before;
        rec->send_ptr = reinterpret_cast<unsigned char*>(rec);
        set_clock(4321);
        EXPECT_EQ(withdraw(), 0);
        expect_marker_in_front(rec);
        EXPECT_EQ(rec->sending_header, before);
        EXPECT_EQ(rec->send_clock, 4321u);
        EXPECT_EQ(registries_of(rec), "connect");
        EXPECT_THAT(journal_lines(about::system), IsEmpty());
        EXPECT_THAT(journal_lines(about::lock), Contains("rec.send_lock.lock(reference, depth 1)"));
        EPoll::failed_connect_init(rec);
    }
    EXPECT_THAT(EPoll::g_connect_fail_map, IsEmpty());
}

TEST_F(withdrawing, one_that_waits_for_a_retry_destroys_it_once_the_lock_is_released) {
    tcp_record* const rec = waiting("rec");
    EXPECT_EQ(withdraw(), 0);
    EXPECT_FALSE(lives(rec));
    EXPECT_THAT(EPoll::g_connect_fail_map, IsEmpty());
    EXPECT_THAT(engine.records("delete_overlapped"), ElementsAre(rec));
    EXPECT_THAT(journal_entries(about::engine).at(0).locks, IsEmpty());
}

TEST_F(withdrawing, one_whose_exchange_failed_leaves_no_entry) {
    tcp_record* const rec = exchanging("rec");
    EPoll::failed_connect_init(rec);
    ASSERT_EQ(registries_of(rec), "connect fail");
    EXPECT_EQ(withdraw(), 0);
    EXPECT_FALSE(lives(rec));
    EXPECT_EQ(registries_of(rec), "");
}

TEST_F(withdrawing, deals_with_each_registry_in_order) {
    tcp_record* const open = established("open");
    tcp_record* const coming = exchanging("coming");
    tcp_record* const failed = waiting("failed");
    withdraw();
    expect_marker_in_front(open);
    expect_marker_in_front(coming);
    EXPECT_THAT(live_records(), ElementsAre(coming, open));
    lines order = journal_lines(about::lock | about::engine);
    std::erase_if(order, [](std::string const& line) {
        return line.find("send_lock.lock") == std::string::npos && line.find("EPoll::delete") == std::string::npos;
    });
    order.resize(3);
    EXPECT_EQ(order, (lines{"open.send_lock.lock(reference, depth 1)", "coming.send_lock.lock(reference, depth 1)",
                            "EPoll::delete_overlapped(failed)"}));
    EXPECT_FALSE(lives(failed));
}

TEST_F(withdrawing, marks_every_live_record_of_the_destination) {
    tcp_record* const open = established("open");
    tcp_record* const second_open = established("second_open");
    tcp_record* const second_coming = (exchanging("coming"), exchanging("second_coming"));
    tcp_record* const between = unfiled("between");
    tcp_record* const other = established("other", 9001);
    withdraw();
    for (tcp_record* const rec : {open, second_open, second_coming}) {
        expect_marker_in_front(rec);
    }
    EXPECT_TRUE(between->close_requested);
    EXPECT_FALSE(other->close_requested);
}

TEST_F(withdrawing, between_two_registries_keeps_the_destination_away) {
    tcp_record* const rec = established("rec");
    EPoll::g_remote_server_map[at_port()] = 1;
    on_offer([](packet_fields const&) {
        INet_Relay::del_client(Zolt::c_local_host, c_port);
        return c_center_took;
    });
    serve(system, EPoll::epoll_thread_tcp_recv_entry, EPoll::epoll_tcp_recv, {{EPOLLIN | EPOLLERR | EPOLLHUP, rec}});
    EXPECT_EQ(take_offers().size(), 1u);
    EXPECT_FALSE(lives(rec));
    EXPECT_THAT(EPoll::g_connect_fail_map, IsEmpty());
    EXPECT_THAT(live_records(), IsEmpty());
}

TEST_F(withdrawing, and_adding_at_once_ends_with_the_new_connection) {
    tcp_record* const old = established("old");
    withdraw();
    tcp_record* const rec = awaiting_answer("rec");
    EXPECT_EQ(EPoll::establish_connect(rec), 0);
    EXPECT_EQ(registries_of(old), "establish");
    EPoll::unestablish_connect(old);
    EXPECT_EQ(registries_of(rec), "establish");
    EXPECT_TRUE(lives(old) && lives(rec));
}

TEST_F(withdrawing, an_unmade_connection_ends_it_when_it_fails) {
    tcp_record* const rec = connecting("rec");
    withdraw();
    EPoll::failed_connect(rec);
    EXPECT_FALSE(lives(rec));
    EXPECT_THAT(EPoll::g_connect_fail_map, IsEmpty());
    EXPECT_THAT(EPoll::g_connect_map, IsEmpty());
}

TEST_F(withdrawing, and_adding_from_several_threads_loses_no_count) {
    engine.answer("request_connect", ECONNREFUSED);
    record(false);
    std::vector<std::thread> center;
    for (int which = 0; which < 4; ++which) {
        center.emplace_back([] {
            for (int round = 0; round < 200; ++round) {
                INet_Relay::add_client(Zolt::c_local_host, c_port);
                INet_Relay::del_client(Zolt::c_local_host, c_port);
            }
        });
    }
    for (std::thread& thread : center) {
        thread.join();
    }
    record(true);
    EXPECT_THAT(EPoll::g_remote_server_map, IsEmpty());
    EXPECT_THAT(live_records(), IsEmpty());
}

// --- with real peers --------------------------------------------------------------------------------------------

class outgoing_connection : public running_relay {
protected:
    void add() const { INet_Relay::add_client(Zolt::c_local_host, port); }
    void withdraw() const { INet_Relay::del_client(Zolt::c_local_host, port); }
    static bool nothing_lives() { return EPoll::g_outgoing.first == nullptr; }

    descriptor* listener = nullptr;
    std::uint16_t port = 0;

    void SetUp() override {
        running_relay::SetUp();
        listener = &listen();
        port = local_port(*listener);
    }
};

TEST_F(outgoing_connection, added_twice_survives_the_first_withdrawal_and_not_the_second) {
    add();
    add();
    descriptor& peer = establish(*listener);
    withdraw();
    EXPECT_EQ(system.count("shutdown"), 0u);
    withdraw();
    EXPECT_TRUE(is_closed_by_peer(peer));
    peer.close();
    EXPECT_TRUE(wait_until(nothing_lives));
}

TEST_F(outgoing_connection, that_is_refused_is_established_once_somebody_listens) {
    descriptor& late = keep_open(bound_socket());
    port = local_port(late);
    add();
    ASSERT_TRUE(wait_until([this] { return is_booked(port); }));
    ASSERT_EQ(__real_listen(late.get(), 16), 0);
    tick(EPoll::inet_timer);
    establish(late);
    ASSERT_TRUE(wait_for_lines("update_packet_time_and_return_timeout", 1)); // asked after the offer
    EXPECT_THAT(take_offers(), ElementsAre(::testing::Field(&center_offer::answer, c_center_took)));
}

TEST_F(outgoing_connection, withdrawn_and_added_at_once_works) {
    add();
    descriptor& old_peer = establish(*listener);
    withdraw();
    add();
    establish(*listener);
    EXPECT_TRUE(is_closed_by_peer(old_peer));
    old_peer.close();
    EXPECT_TRUE(wait_until([this] {
        auto const entry = EPoll::g_establish_client_map.find(at_port(port));
        return entry != EPoll::g_establish_client_map.end() && !entry->second->close_requested;
    }));
}

TEST_F(outgoing_connection, withdrawn_before_the_answer_is_closed_after_it) {
    add();
    descriptor& peer = accept(*listener);
    ASSERT_EQ(read_bytes(peer, c_block_size).size(), c_block_size);
    withdraw();
    write_bytes(peer, init_block(1, 7000));
    EXPECT_TRUE(is_closed_by_peer(peer));
    peer.close();
    EXPECT_TRUE(wait_until(nothing_lives));
}

} // namespace
