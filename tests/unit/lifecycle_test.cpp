// start, stop and finalize, step by step, and what the order of calls leads to.
#include "Center/INet_Relay/EPoll/epoll_trace.hpp"
#include "tests/support/loopback.hpp"
#include "tests/unit/lifecycle_fixture.hpp"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <set>
#include <utility>

#include <netinet/in.h>
#include <netinet/tcp.h>

namespace {

using namespace relay_test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

char const* const c_source_file = "Center/INet_Relay/EPoll/inet_relay_epoll";

constexpr std::array<std::size_t, 5> c_stop_order = {0, 3, 4, 1, 2};
constexpr std::array<std::size_t, 5> c_close_order = {2, 1, 0, 4, 3};

class lifecycle : public lifecycle_fixture {
protected:
    /// One line for the wake-up of an instance's thread and one for the wait.
    static void append_stop(lines& to, instance_row const& row, bool is_woken = true) {
        if (is_woken) {
            to.push_back("epoll_ctl(" + std::string(row.name) + ", ADD, socket#1, EPOLLOUT, null)");
        }
        to.push_back(std::string(row.thread_name) + ".proc_wait_exit(null)");
    }
};

class pin_lifecycle : public lifecycle {};

// --- start -----------------------------------------------------------------------------------------------------

lines start_lines() {
    return {"epoll_thread_udp_recv.eproc_create(epoll_thread_udp_recv_entry, null)",
            "epoll_thread_udp_send.eproc_create(epoll_thread_udp_send_entry, null)",
            "epoll_thread_tcp_init.eproc_create(epoll_thread_tcp_init_entry, null)",
            "epoll_thread_tcp_recv[0].eproc_create(epoll_thread_tcp_recv_entry, null)",
            "epoll_thread_tcp_send[0].eproc_create(epoll_thread_tcp_send_entry, null)",
            "inet_timer.eproc_create(1, timer_inet, null)"};
}

TEST_F(lifecycle, start_creates_five_threads_and_then_the_timer) {
    EXPECT_EQ(INet_Relay::start(), 0);
    EXPECT_EQ(journal_lines(about::all), start_lines());
}

TEST_F(lifecycle, start_ignores_every_result) {
    script_create_results({-1, 11, 12, -5, EAGAIN, 7});
    EXPECT_EQ(INet_Relay::start(), 0);
    EXPECT_EQ(journal_lines(about::all), start_lines());
}

TEST_F(lifecycle, the_timer_calls_its_callback_until_stop) {
    initialize();
    INet_Relay::start();
    clear_journal();
    tick(EPoll::inet_timer);
    EXPECT_THAT(journal_lines(about::clock), ElementsAre("lemon_clock()"));
    INet_Relay::stop();
    EXPECT_FALSE(is_running(EPoll::inet_timer));
    INet_Relay::finalize();
}

// --- stop ------------------------------------------------------------------------------------------------------

TEST_F(lifecycle, stop_ends_the_timer_then_each_thread_before_the_next_is_woken) {
    initialize();
    EXPECT_EQ(INet_Relay::stop(), 0);
    lines expected = {"inet_timer.proc_destroy()", "socket(AF_INET, SOCK_STREAM, IPPROTO_TCP)"};
    for (std::size_t const at : c_stop_order) {
        append_stop(expected, instances()[at]);
    }
    expected.push_back("close(socket#1)");
    EXPECT_EQ(journal_lines(), expected);
    EXPECT_THAT(journal_lines(about::lock), IsEmpty());
    for (system_call const& added : system.calls("epoll_ctl")) {
        EXPECT_EQ(added.mask, EPOLLOUT);
        EXPECT_EQ(added.pointer, nullptr);
    }
    INet_Relay::finalize();
}

TEST_F(lifecycle, stop_joins_threads_that_run) {
    run();
    EXPECT_TRUE(wait_for_lines("epoll_wait", 5));
    EXPECT_EQ(INet_Relay::stop(), 0);
    EXPECT_EQ(returned_threads(), 5);
    for (instance_row const& row : instances()) {
        EXPECT_FALSE(is_running(*row.thread)) << row.thread_name;
    }
    for (int at = 1; at < EPoll::c_thread_slots; ++at) {
        EXPECT_FALSE(is_running(EPoll::epoll_thread_tcp_recv[at]));
        EXPECT_FALSE(is_running(EPoll::epoll_thread_tcp_send[at]));
    }
    INet_Relay::finalize();
}

class lifecycle_instance : public lifecycle, public ::testing::WithParamInterface<std::size_t> {};

TEST_P(lifecycle_instance, without_a_descriptor_is_neither_woken_nor_waited_for) {
    initialize();
    int const saved = std::exchange(*instances()[GetParam()].instance, -1);
    EXPECT_EQ(INet_Relay::stop(), 0);
    lines expected = {"inet_timer.proc_destroy()", "socket(AF_INET, SOCK_STREAM, IPPROTO_TCP)"};
    for (std::size_t const at : c_stop_order) {
        if (at != GetParam()) {
            append_stop(expected, instances()[at]);
        }
    }
    expected.push_back("close(socket#1)");
    EXPECT_EQ(journal_lines(), expected);
    *instances()[GetParam()].instance = saved;
    INet_Relay::finalize();
}

TEST_P(lifecycle_instance, that_cannot_be_woken_is_reported_and_waited_for) {
    initialize();
    system.fail("epoll_ctl", static_cast<int>(GetParam()) + 1, ENOMEM);
    EXPECT_EQ(INet_Relay::stop(), 0);
    expect_position(c_source_file);
    EXPECT_EQ(journal_count("proc_wait_exit"), 5u);
    EXPECT_EQ(system.count("epoll_ctl"), 5u);
    lines const steps = journal_lines();
    auto const printed =
        std::find_if(steps.begin(), steps.end(), [](std::string const& s) { return s.starts_with("print_error"); });
    ASSERT_NE(printed, steps.end());
    EXPECT_EQ(*std::next(printed),
              std::string(instances()[c_stop_order[GetParam()]].thread_name) + ".proc_wait_exit(null)");
    INet_Relay::finalize();
}

TEST_P(lifecycle_instance, without_a_descriptor_is_not_closed) {
    initialize();
    descriptor const left(std::exchange(*instances()[GetParam()].instance, -1));
    EXPECT_EQ(INet_Relay::finalize(), 0);
    lines expected;
    for (std::size_t const at : c_close_order) {
        if (at != GetParam()) {
            expected.push_back(std::string("close(") + instances()[at].name + ")");
        }
    }
    EXPECT_EQ(journal_lines(about::system), expected);
}

TEST_P(lifecycle_instance, that_cannot_be_closed_is_reported_and_the_others_are_closed) {
    initialize();
    system.fail("close", static_cast<int>(GetParam()) + 1, EIO);
    EXPECT_EQ(INet_Relay::finalize(), 0);
    expect_position(c_source_file);
    EXPECT_EQ(system.count("close"), 5u);
    for (instance_row const& row : instances()) {
        EXPECT_EQ(*row.instance, -1) << row.name;
    }
    EXPECT_EQ(engine.count("udp_finalize"), 1u);
}

INSTANTIATE_TEST_SUITE_P(nth, lifecycle_instance, ::testing::Range(std::size_t{0}, std::size_t{5}));

TEST_F(lifecycle, stop_does_not_look_at_the_result_of_socket) {
    initialize();
    system.fail("socket", 1, EMFILE);
    EXPECT_EQ(INet_Relay::stop(), 0);
    for (int at = 0; at < 6; ++at) {
        expect_position(c_source_file); // five registrations and one close
    }
    EXPECT_EQ(journal_count("proc_wait_exit"), 5u);
    EXPECT_EQ(system.calls("close").at(0).descriptor, -1);
    INet_Relay::finalize();
}

TEST_F(lifecycle, stop_and_finalize_print_the_position_of_any_failing_close) {
    initialize();
    EPoll::g_server_map[7000] = listen_loopback().release();
    system.fail("close", 1, EIO); // the throw-away socket
    INet_Relay::stop();
    system.fail("close", 6, EIO); // the listening socket, after five instances
    INet_Relay::finalize();
    EXPECT_EQ(EPoll::g_server_map.at(7000), -1);
    expect_position(c_source_file);
    expect_position(c_source_file);
}

TEST_F(lifecycle, positions_name_the_source_and_a_line_each) {
    initialize();
    system.fail("epoll_ctl", 1, ENOMEM);
    INet_Relay::stop();
    system.fail("close", 1, EIO);
    INet_Relay::finalize();
    auto const printed = take_errors();
    ASSERT_EQ(printed.size(), 2u);
    for (error_line const& position : printed) {
        EXPECT_EQ(position.text, c_source_file);
        EXPECT_GT(position.line, 0);
    }
    EXPECT_NE(printed[0].line, printed[1].line);
}

TEST_F(lifecycle, children_do_not_inherit_the_throw_away_socket) {
    initialize();
    INet_Relay::stop();
    EXPECT_THAT(journal_lines(about::close_on_exec), ElementsAre("fcntl(socket#1, F_SETFD, FD_CLOEXEC)"));
    INet_Relay::finalize();
}

// --- finalize --------------------------------------------------------------------------------------------------

TEST_F(lifecycle, finalize_closes_instances_then_udp_then_listening_sockets_then_frees_the_heartbeat) {
    initialize();
    int const first = ::socket(AF_INET, SOCK_STREAM, 0);
    int const second = ::socket(AF_INET, SOCK_STREAM, 0);
    name_descriptor(first, "first");
    name_descriptor(second, "second");
    EPoll::g_server_map = {{7002, second}, {7000, first}, {7001, -1}};
    clear_journal();
    EXPECT_EQ(INet_Relay::finalize(), 0);
    lines expected;
    for (std::size_t const at : c_close_order) {
        expected.push_back(std::string("close(") + instances()[at].name + ")");
    }
    expected.insert(expected.end(),
                    {"EPoll::udp_finalize()", "shutdown(first, SHUT_RD)", "close(first)", "shutdown(-1, SHUT_RD)",
                     "shutdown(second, SHUT_RD)", "close(second)", "heartbeat_token.free()"});
    EXPECT_EQ(journal_lines(), expected);
    EXPECT_THAT(journal_lines(about::lock), IsEmpty());
    EXPECT_EQ(EPoll::g_server_map, (std::map<unsigned short, int>{{7000, -1}, {7001, -1}, {7002, -1}}));
}

TEST_F(lifecycle, the_descriptors_are_minus_one_before_udp_is_finalised) {
    initialize();
    std::vector<int> seen;
    engine.on("udp_finalize", [&](void*) {
        for (instance_row const& row : instances()) {
            seen.push_back(*row.instance);
        }
        return 0;
    });
    INet_Relay::finalize();
    EXPECT_THAT(seen, ElementsAre(-1, -1, -1, -1, -1));
}

TEST_F(lifecycle, finalize_does_not_look_at_the_result_of_shutdown) {
    initialize();
    int const listening = ::socket(AF_INET, SOCK_STREAM, 0);
    EPoll::g_server_map = {{7000, listening}};
    system.fail("shutdown", 1, ENOTCONN);
    EXPECT_EQ(INet_Relay::finalize(), 0);
    EXPECT_EQ(EPoll::g_server_map.at(7000), -1);
}

TEST_F(lifecycle, finalize_leaves_connections_and_their_registries_alone) {
    auto const [near_end, far_end] = connected_pair();
    auto* const rec = make_tcp(EPoll::c_kind_established_server, near_end.get(), "rec");
    keep(rec);
    Zolt::struct_node_addr const peer = EPoll::peer_of(rec);
    EPoll::connection_map const filed{{peer, rec}};
    EPoll::g_connect_map = EPoll::g_connect_fail_map = filed;
    EPoll::g_establish_client_map = EPoll::g_establish_server_map = filed;
    EPoll::g_remote_server_map = {{peer, 2}};
    initialize();
    INet_Relay::stop();
    INet_Relay::finalize();
    EXPECT_EQ(EPoll::g_connect_map, filed);
    EXPECT_EQ(EPoll::g_connect_fail_map, filed);
    EXPECT_EQ(EPoll::g_establish_client_map, filed);
    EXPECT_EQ(EPoll::g_establish_server_map, filed);
    EXPECT_EQ(EPoll::g_remote_server_map, (std::map<Zolt::struct_node_addr, int>{{peer, 2}}));
    write_bytes(near_end, {1, 2, 3});
    EXPECT_EQ(read_bytes(far_end, 3), (bytes{1, 2, 3}));
}

TEST_F(lifecycle, finalize_frees_only_its_own_reference_to_the_heartbeat) {
    initialize();
    auto queued = EPoll::heartbeat_token;
    queued.ref_header();
    INet_Relay::finalize();
    EXPECT_EQ(header_references(queued), 1);
    queued.free();
}

// --- other orders ----------------------------------------------------------------------------------------------

TEST_F(lifecycle, stop_after_finalize_only_ends_the_timer_and_opens_and_closes_a_socket) {
    initialize();
    INet_Relay::stop();
    INet_Relay::finalize();
    clear_journal();
    EXPECT_EQ(INet_Relay::stop(), 0);
    EXPECT_THAT(journal_lines(),
                ElementsAre("inet_timer.proc_destroy()", HasSubstr("socket(AF_INET"), HasSubstr("close(")));
}

TEST_F(lifecycle, no_order_is_guarded) {
    EXPECT_EQ(INet_Relay::start(), 0);
    EXPECT_EQ(INet_Relay::finalize(), 0);
    EXPECT_EQ(INet_Relay::finalize(), 0);
    EXPECT_EQ(INet_Relay::stop(), 0);
    initialize();
    EXPECT_EQ(INet_Relay::finalize(), 0);
    EXPECT_EQ(INet_Relay::start(), 0);
    EXPECT_EQ(INet_Relay::stop(), 0);
}

TEST_F(lifecycle, finalize_closes_nothing_that_initialize_did_not_create) {
    EXPECT_EQ(INet_Relay::finalize(), 0);
    EXPECT_EQ(system.count("close"), 0u);
    for (instance_row const& row : instances()) {
        EXPECT_EQ(*row.instance, -1) << row.name;
    }
}

TEST_F(lifecycle, the_whole_way_can_be_gone_again) {
    for (int round = 1; round <= 3; ++round) {
        run();
        stop_and_finalize();
        EXPECT_EQ(returned_threads(), 5 * round);
    }
}

TEST_F(lifecycle, a_port_opened_before_start_is_served_after_it) {
    ASSERT_EQ(INet_Relay::initialize(), 0);
    std::uint16_t const port = unused_port();
    ASSERT_EQ(INet_Relay::add_server(port), 0);
    start_threads(true);
    INet_Relay::start();
    descriptor peer = connect_loopback(port);
    EXPECT_TRUE(wait_for_lines("EPoll::accept", 1));
    peer.close();
    expect_error(text("recv_server_init_failed"));
    EXPECT_TRUE(wait_for_lines("print_error", 1));
    stop_and_finalize();
    EXPECT_EQ(EPoll::g_server_map.at(port), -1);
}

TEST_F(lifecycle, a_destination_added_before_start_is_connected_after_it) {
    ASSERT_EQ(INet_Relay::initialize(), 0);
    descriptor const listener = listen_loopback();
    std::uint16_t const port = local_port(listener);
    ASSERT_EQ(INet_Relay::add_client(Zolt::c_local_host, port), 0);
    start_threads(true);
    INet_Relay::start();
    descriptor peer = accept_loopback(listener);
    EXPECT_EQ(read_bytes(peer, 1024).size(), 1024u);
    peer.close();
    expect_error(text("recv_client_init_failed"));
    EXPECT_TRUE(wait_for_lines("print_error", 1));
    EXPECT_EQ(INet_Relay::stop(), 0);
    EXPECT_EQ(EPoll::g_connect_fail_map.size(), 1u);
    INet_Relay::del_client(Zolt::c_local_host, port);
    INet_Relay::finalize();
}

TEST_F(lifecycle, a_retry_takes_the_registry_lock_again_that_the_timer_holds) {
    initialize();
    {
        Tesk::OS::class_locker const guard(&EPoll::g_client_lock, nullptr);
        EPoll::file_outgoing(EPoll::new_outgoing({Zolt::c_local_host, 9000}), EPoll::outgoing_phase::waiting);
    }
    system.answer("connect", 1, 0);
    clear_journal();
    EPoll::timer_reconnect_client();
    EXPECT_THAT(journal_lines(about::lock),
                ElementsAre("g_client_lock.lock(pointer, depth 1)", "g_client_lock.lock(pointer, depth 2)",
                            "g_client_lock.unlock(guard, depth 1)", "g_client_lock.unlock(guard, depth 0)"));
    INet_Relay::finalize();
    EPoll::clear_connect_map(EPoll::g_connect_map);
}

// --- what must not be repaired ---------------------------------------------------------------------------------

/// A node that is connected to itself, once and over: served port, destination, exchange, heartbeat, teardown.
class pin_whole_run : public lifecycle {
protected:
    static bool has_heard_both_heartbeats(std::vector<journal_entry> const& entries) {
        auto const heard = [&](char const* id) {
            return std::any_of(entries.begin(), entries.end(), [&](journal_entry const& entry) {
                return entry.about == about::trace && entry.text.find(text(id)) != std::string::npos;
            });
        };
        return heard("heartbeat_from_server") && heard("heartbeat_from_client");
    }

    void connect_to_itself_and_end() {
        ASSERT_EQ(INet_Relay::initialize(), 0);
        std::uint16_t const port = unused_port();
        ASSERT_EQ(INet_Relay::add_server(port), 0);
        ASSERT_EQ(INet_Relay::add_client(Zolt::c_local_host, port), 0);
        start_threads(true);
        INet_Relay::start();
        EXPECT_TRUE(wait_for_lines("send_zolt_center", 2));
        tick(EPoll::inet_timer);
        EXPECT_TRUE(wait_for_journal(has_heard_both_heartbeats));
        stop_and_finalize();
        EPoll::clear_establish_map(EPoll::g_establish_server_map);
        EPoll::clear_establish_map(EPoll::g_establish_client_map);
    }

    /// A destination that never answers, cancelled by the timer and then withdrawn.
    void cancel_a_connect_and_end() {
        ASSERT_EQ(INet_Relay::initialize(), 0);
        descriptor const listener = listen_loopback(0);
        descriptor const filler = connect_loopback(local_port(listener)); // the backlog is full now
        ASSERT_EQ(INet_Relay::add_client(Zolt::c_local_host, local_port(listener)), 0);
        start_threads(true);
        INet_Relay::start();
        advance_clock(EPoll::c_connection_timeout + 1);
        EPoll::timer_cancel_connect(Tesk::OS::lemon_clock());
        EXPECT_TRUE(wait_for_lines("EPoll::failed_connect", 1));
        stop_and_finalize();
        INet_Relay::del_client(Zolt::c_local_host, local_port(listener));
    }
};

TEST_F(pin_whole_run, the_five_keys_without_effect_set_no_socket_option) {
    set_ini("SERVER_SOCKET_REUSE", std::string("yes"));
    set_ini("SERVER_LINGER_USE", std::string("yes"));
    set_ini("SERVER_LINGER_TIME", 1);
    set_ini("CLIENT_LINGER_USE", std::string("yes"));
    set_ini("CLIENT_LINGER_TIME", 1);
    set_ini("SERVER_LISTEN_BACKLOG", 3);
    connect_to_itself_and_end();
    EXPECT_EQ(system.calls("listen").at(0).arguments.at(1), 3);
    std::size_t nagle = 0;
    for (system_call const& call : system.calls("setsockopt")) {
        long const level = call.arguments.at(1);
        long const option = call.arguments.at(2);
        nagle += level == IPPROTO_TCP && option == TCP_NODELAY ? 1 : 0;
        EXPECT_FALSE(level == SOL_SOCKET && (option == SO_REUSEADDR || option == SO_LINGER)) << call.text;
    }
    EXPECT_EQ(nagle, 2u); // both ends of the connection were there to be looked at
}

TEST_F(pin_whole_run, every_registration_has_one_of_these_masks) {
    connect_to_itself_and_end();
    cancel_a_connect_and_end();
    std::set<std::uint32_t> used;
    for (system_call const& call : system.calls("epoll_ctl")) {
        if (call.arguments.at(1) != EPOLL_CTL_DEL) {
            used.insert(call.mask);
        }
    }
    EXPECT_EQ(used, (std::set<std::uint32_t>{0x4, 0x40000001, 0x80000001, 0x80000008, 0xC0000004, 0xC0000005}));
}

class whole_run : public pin_whole_run {
protected:
    static bool has_fixed_line(trace_line const& trace) {
        static constexpr EPoll::struct_trace_site fixed[] = {
            EPoll::c_site_hand_over_client, EPoll::c_site_hand_over_server, EPoll::c_site_broadcast,
            EPoll::c_site_cleared,          EPoll::c_site_deleted,          EPoll::c_site_received,
            EPoll::c_site_given_up,         EPoll::c_site_sending_client,   EPoll::c_site_server_nagle,
            EPoll::c_site_server_untold,    EPoll::c_site_server_unheard,   EPoll::c_site_sending_server};
        return std::any_of(std::begin(fixed), std::end(fixed), [&](EPoll::struct_trace_site const& site) {
            return site.file == trace.file && site.line == trace.line;
        });
    }

    static std::string line_of_source(trace_line const& trace) {
        std::ifstream source(std::string(RELAY_SOURCE_ROOT "/") + trace.file + ".cpp");
        std::string line;
        for (int number = 0; number < trace.line; ++number) {
            std::getline(source, line);
        }
        return line;
    }
};

TEST_F(whole_run, traces_without_a_fixed_place_name_the_file_and_line_of_their_call) {
    connect_to_itself_and_end();
    std::set<std::string> files;
    for (trace_line const& trace : take_traces()) {
        if (!has_fixed_line(trace)) {
            files.insert(trace.file);
            EXPECT_THAT(line_of_source(trace), HasSubstr("trace(here('" + std::string(1, trace.letter) + "'"))
                << trace.file << ':' << trace.line << ' ' << trace.text;
        }
    }
    EXPECT_THAT(files, ::testing::SizeIs(::testing::Ge(4U)));
}

TEST_F(pin_lifecycle, only_the_first_of_eight_threads_is_started_and_joined) {
    initialize();
    INet_Relay::start();
    INet_Relay::stop();
    for (std::string const& line : journal_lines(about::thread)) {
        EXPECT_THAT(line, Not(::testing::ContainsRegex("tcp_(recv|send)\\[[1-7]\\]")));
    }
    EXPECT_EQ(journal_count("eproc_create"), 6u);
    INet_Relay::finalize();
}

} // namespace
