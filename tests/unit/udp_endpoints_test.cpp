// UDP endpoints: how the socket of a port is opened, filed, registered and closed, and the multicast controls.
#include "tests/support/allocations.hpp"
#include "tests/unit/udp_fixture.hpp"

#include <cerrno>
#include <type_traits>

#include <fcntl.h>

namespace {

using namespace relay_test;

constexpr unsigned long c_high_half = 0xDEADBEEF00000000UL; ///< what an unsigned long may carry beside an address
char const* const c_group = "232.1.2.3";

class udp_endpoints : public udp_fixture {};
class pin_udp_endpoints : public udp_fixture {};

// --- opening ---------------------------------------------------------------------------------------------------

TEST_F(udp_endpoints, opening_goes_from_socket_to_bind_to_options_to_the_two_registrations) {
    system.answer("bind", 1, 0);
    EXPECT_EQ(EPoll::udp_initialize(c_port), 0);
    name_object(static_cast<EPoll::struct_epoll_overlapped*>(EPoll::g_udp_map.at(c_port)), "rec");
    std::string const record = to_text(system.calls("epoll_ctl").at(0).pointer);
    EXPECT_EQ(record, "rec");
    lines const steps = journal_lines(about::system | about::flags | about::error);
    ASSERT_EQ(steps.size(), 7U);
    EXPECT_EQ((lines{steps.begin(), steps.begin() + 5}),
              (lines{"socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP)", "bind(socket#1, 0.0.0.0:7000)",
                     "setsockopt(socket#1, SOL_SOCKET, SO_BROADCAST, 01000000)",
                     "setsockopt(socket#1, IPPROTO_IP, IP_MULTICAST_TTL, 80)",
                     "setsockopt(socket#1, IPPROTO_IP, IP_MULTICAST_LOOP, 01)"}));
    EXPECT_TRUE(steps[5].starts_with("epoll_ctl(udp_recv, ADD, socket#1, ")) << steps[5];
    EXPECT_TRUE(steps[6].starts_with("epoll_ctl(udp_send, ADD, socket#1, ")) << steps[6];
}

TEST_F(udp_endpoints, the_socket_is_bound_with_a_whole_ipv4_address) {
    system.answer("bind", 1, 0);
    EXPECT_EQ(EPoll::udp_initialize(0xABCD), 0);
    system_call const bound = system.calls("bind").at(0);
    EXPECT_EQ(bound.arguments, (std::vector<long>{bound.descriptor, AF_INET, sizeof(sockaddr_in)}));
    EXPECT_EQ(bound.ip, INADDR_ANY);
    EXPECT_EQ(bound.port, 0xABCD);
}

TEST_F(udp_endpoints, arrivals_are_registered_edge_triggered_and_sending_without_write_interest) {
    auto* const rec = open_bound_port();
    EXPECT_EQ(next_event(EPoll::epoll_udp_send, rec, c_now), 0U);
    EXPECT_EQ(next_event(EPoll::epoll_udp_recv, rec, c_now), 0U);
    send_to(rec, {1});
    EXPECT_EQ(next_event(EPoll::epoll_udp_recv, rec, c_soon), std::uint32_t{EPOLLIN});
    EXPECT_EQ(next_event(EPoll::epoll_udp_recv, rec, c_now), 0U) << "the datagram is still there, the edge is not";
    EXPECT_EQ(next_event(EPoll::epoll_udp_send, rec, c_now), 0U);
}

TEST_F(udp_endpoints, both_registrations_carry_their_mask_and_the_record) {
    system.answer("bind", 1, 0);
    EXPECT_EQ(EPoll::udp_initialize(c_port), 0);
    auto const registered = system.calls("epoll_ctl");
    ASSERT_EQ(registered.size(), 2U);
    EXPECT_EQ(registered[0].descriptor, EPoll::epoll_udp_recv);
    EXPECT_EQ(registered[0].mask, 0x80000001U);
    EXPECT_EQ(registered[1].descriptor, EPoll::epoll_udp_send);
    EXPECT_EQ(registered[1].mask, 0x80000008U);
    auto* const rec = EPoll::g_udp_map.at(c_port);
    for (system_call const& call : registered) {
        EXPECT_EQ(call.arguments.at(1), EPOLL_CTL_ADD);
        EXPECT_EQ(call.target, rec->fd);
        EXPECT_EQ(call.pointer, static_cast<EPoll::struct_epoll_overlapped*>(rec));
    }
}

TEST_F(udp_endpoints, the_record_names_the_port_and_holds_nothing_yet) {
    system.answer("bind", 1, 0);
    EXPECT_EQ(EPoll::udp_initialize(c_port), 0);
    ASSERT_EQ(EPoll::g_udp_map.size(), 1U);
    auto* const rec = EPoll::g_udp_map.at(c_port);
    EXPECT_EQ(rec->fd, system.calls("socket").at(0).result);
    EXPECT_EQ(rec->kind, 0);
    EXPECT_EQ(rec->local_ip, 0U);
    EXPECT_EQ(rec->local_port, c_port);
    EXPECT_FALSE(rec->recv_token.has_header());
    EXPECT_FALSE(rec->recv_token.has_data());
    EXPECT_TRUE(rec->send_q.empty());
    EXPECT_FALSE(rec->sending);
    EXPECT_EQ(rec->recv_ptr, nullptr);
    EXPECT_EQ(rec->send_ptr, nullptr);
    EXPECT_EQ(rec->recv_remain + rec->send_remain + rec->recv_clock + rec->send_clock, 0U);
}

TEST_F(udp_endpoints, the_lock_of_the_record_is_constructed_with_zero) {
    open_port();
    system.answer("bind", 1, 0);
    EXPECT_EQ(EPoll::udp_initialize(7001), 0);
    EXPECT_EQ(journal_count("class_thread_lock"), 1U);
}

TEST_F(udp_endpoints, opening_takes_no_lock) {
    system.answer("bind", 1, 0);
    EXPECT_EQ(EPoll::udp_initialize(c_port), 0);
    EXPECT_EQ(journal_lines(about::lock), lines{});
}

TEST_F(udp_endpoints, the_socket_stays_blocking_with_the_buffers_that_the_kernel_gives) {
    auto* const rec = open_bound_port();
    descriptor const plain = bind_loopback_udp();
    EXPECT_EQ(real::fcntl(rec->fd, F_GETFL, 0), real::fcntl(plain.get(), F_GETFL, 0));
    EXPECT_EQ(real::fcntl(rec->fd, F_GETFL, 0) & O_NONBLOCK, 0);
    for (int const option : {SO_RCVBUF, SO_SNDBUF, SO_RCVTIMEO, SO_SNDTIMEO, SO_REUSEADDR, SO_REUSEPORT}) {
        bytes of_port(16);
        bytes of_plain(16);
        socklen_t length = 16;
        EXPECT_EQ(::getsockopt(rec->fd, SOL_SOCKET, option, of_port.data(), &length), 0);
        EXPECT_EQ(::getsockopt(plain.get(), SOL_SOCKET, option, of_plain.data(), &length), 0);
        EXPECT_EQ(of_port, of_plain) << "option " << option;
    }
}

TEST_F(udp_endpoints, children_do_not_inherit_the_socket) {
    auto* const rec = open_bound_port();
    EXPECT_EQ(real::fcntl(rec->fd, F_GETFD, 0), FD_CLOEXEC);
}

TEST_F(udp_endpoints, a_port_that_is_filed_already_keeps_its_record) {
    auto* const first = open_port();
    system.answer("bind", 1, 0);
    EXPECT_EQ(EPoll::udp_initialize(c_port), 0);
    ASSERT_EQ(EPoll::g_udp_map.size(), 1U);
    EXPECT_EQ(EPoll::g_udp_map.at(c_port), first);
    auto const registered = system.calls("epoll_ctl");
    ASSERT_EQ(registered.size(), 2U);
    EXPECT_EQ(registered[0].target, system.calls("socket").at(0).result);
    EXPECT_NE(registered[0].pointer, static_cast<EPoll::struct_epoll_overlapped*>(first));
    // What is not filed is closed all the same: the balance at the end sees its descriptor and its lock.
}

// --- failures while opening --------------------------------------------------------------------------------------

struct failing_step {
    char const* name;
    char const* call;
    int nth;
    int error;
    char const* text;
    std::string calls;
};

void PrintTo(failing_step const& step, std::ostream* out) {
    *out << step.name;
}

class udp_opening_fails : public udp_fixture, public testing::WithParamInterface<failing_step> {
protected:
    void open_and_fail() {
        failing_step const& step = GetParam();
        if (std::string_view(step.call) == "setsockopt") {
            system.answer("bind", 1, 0);
        }
        system.fail(step.call, step.nth, step.error);
        expect_error(text(step.text));
        EXPECT_EQ(EPoll::udp_initialize(c_port), step.error);
    }
};

failing_step const c_failing_steps[] = {
    {"socket", "socket", 1, EMFILE, "udp_socket_failed", "socket"},
    {"bind", "bind", 1, EADDRINUSE, "udp_bind_failed", "socket bind close"},
    {"bind_not_permitted", "bind", 1, EACCES, "udp_bind_failed", "socket bind close"},
    {"broadcast", "setsockopt", 1, ENOPROTOOPT, "udp_broadcast_failed", "socket bind setsockopt close"},
    {"multicast_ttl", "setsockopt", 2, EINVAL, "udp_multicast_ttl_failed", "socket bind setsockopt setsockopt close"},
    {"multicast_loop", "setsockopt", 3, ENOBUFS, "udp_multicast_loop_failed",
     "socket bind setsockopt setsockopt setsockopt close"},
};
INSTANTIATE_TEST_SUITE_P(at, udp_opening_fails, testing::ValuesIn(c_failing_steps), row_name<failing_step>);

TEST_P(udp_opening_fails, the_first_failure_is_printed_and_stops_and_its_errno_is_the_result) {
    open_and_fail();
    EXPECT_EQ(names_of_system_calls(), GetParam().calls);
}

TEST_P(udp_opening_fails, no_record_and_no_socket_stay_behind) {
    balance const at_first = take_balance();
    open_and_fail();
    EXPECT_TRUE(EPoll::g_udp_map.empty());
    EXPECT_EQ(differences(at_first, take_balance()), std::vector<std::string>{});
}

TEST_P(udp_opening_fails, the_message_comes_before_the_close) {
    open_and_fail();
    lines const closing = journal_lines(about::error | about::system);
    std::size_t const printed = closing.size() - (GetParam().calls.ends_with("close") ? 2 : 1);
    EXPECT_EQ(closing.at(printed), "print_error(\"" + text(GetParam().text) + "\")");
}

TEST_P(udp_opening_fails, what_printing_and_closing_leave_in_errno_is_not_the_result) {
    spoil_errno(ERANGE);
    system.fail("close", 1, EIO);
    open_and_fail();
}

TEST_F(udp_endpoints, a_port_that_somebody_holds_cannot_be_opened) {
    descriptor const holder = bind_loopback_udp();
    expect_error(text("udp_bind_failed"));
    EXPECT_EQ(EPoll::udp_initialize(local_port(holder)), EADDRINUSE);
    EXPECT_TRUE(EPoll::g_udp_map.empty());
}

TEST_F(udp_endpoints, an_opening_without_memory_is_undone_and_thrown_on) {
    long failed = 0;
    for (bool is_open = false; !is_open; ++failed) {
        record(false);
        fail_allocation(failed + 1);
        try {
            is_open = EPoll::udp_initialize(0) == 0;
        } catch (std::bad_alloc const&) {
            EXPECT_TRUE(EPoll::g_udp_map.empty());
            EXPECT_EQ(EPoll::g_arrivals, nullptr) << "the timer would look at a record that is gone";
        }
        fail_allocation(0);
        record(true);
    }
    EXPECT_GT(failed, 3) << "the record, its arrivals, and its entry";
    EXPECT_EQ(EPoll::udp_finalize(), 0);
    EXPECT_EQ(EPoll::g_arrivals, nullptr);
    // What an attempt had opened is closed: the balance at the end sees descriptors and locks.
}

TEST_F(udp_endpoints, a_failed_first_registration_is_not_reported) {
    system.answer("bind", 1, 0);
    system.fail("epoll_ctl", 1, ENOSPC);
    EXPECT_EQ(EPoll::udp_initialize(c_port), 0);
    EXPECT_EQ(system.count("epoll_ctl"), 2U);
    EXPECT_EQ(EPoll::g_udp_map.size(), 1U);
}

TEST_F(udp_endpoints, the_result_of_the_second_registration_is_the_result) {
    for (long const answer : {-1L, 5L}) {
        system.answer("bind", 1, 0);
        system.answer("epoll_ctl", 2, answer);
        auto const port = static_cast<unsigned short>(7000 + EPoll::g_udp_map.size());
        EXPECT_EQ(EPoll::udp_initialize(port), answer);
        EXPECT_TRUE(EPoll::g_udp_map.contains(port)) << "what follows the filing is not undone";
    }
    EXPECT_EQ(system.count("close"), 0U);
}

// --- closing -----------------------------------------------------------------------------------------------------

TEST_F(udp_endpoints, closing_goes_from_the_smallest_port_up_and_each_record_follows_its_socket) {
    open_port(9002, "third");
    open_port(7000, "first");
    open_port(8001, "second");
    EXPECT_EQ(EPoll::udp_finalize(), 0);
    EXPECT_EQ(
        journal_lines(about::system | about::object),
        (lines{"close(first.fd)", "first.send_lock.~class_thread_lock()", "close(second.fd)",
               "second.send_lock.~class_thread_lock()", "close(third.fd)", "third.send_lock.~class_thread_lock()"}));
    EXPECT_TRUE(EPoll::g_udp_map.empty());
}

TEST_F(udp_endpoints, closing_takes_no_lock) {
    open_port();
    EXPECT_EQ(EPoll::udp_finalize(), 0);
    EXPECT_EQ(journal_lines(about::lock), lines{});
}

TEST_F(udp_endpoints, closing_nothing_does_nothing) {
    EXPECT_EQ(EPoll::udp_finalize(), 0);
    EXPECT_EQ(journal_lines(about::steps & ~about::engine), lines{});
}

TEST_F(udp_endpoints, a_close_that_fails_is_not_noticed) {
    open_port(7000, "first");
    open_port(8000, "second");
    system.fail_always("close", EIO);
    EXPECT_EQ(EPoll::udp_finalize(), 0);
    EXPECT_EQ(system.count("close"), 2U);
    EXPECT_TRUE(EPoll::g_udp_map.empty());
}

TEST_F(udp_endpoints, a_packet_half_received_is_freed_with_its_record) {
    auto* const rec = open_port();
    rec->recv_token = make_token({.data = {1, 2, 3}});
    EXPECT_EQ(EPoll::udp_finalize(), 0);
    EXPECT_EQ(count_ledger(), ledger_counts{});
}

TEST_F(pin_udp_endpoints, queued_packets_are_not_freed_by_closing) {
    auto* const rec = open_port();
    auto token = make_token({.dst_port = c_port, .data = {1, 2, 3}});
    rec->send_q.push_back(token);
    EXPECT_EQ(EPoll::udp_finalize(), 0);
    EXPECT_EQ(header_references(token), 1);
    EXPECT_EQ(data_references(token), 1);
    token.free();
}

TEST_F(udp_endpoints, finalize_closes_every_port) {
    open_port(7000, "first");
    open_port(8000, "second");
    EXPECT_EQ(INet_Relay::finalize(), 0);
    EXPECT_EQ(engine.count("udp_finalize"), 1U);
    EXPECT_EQ(texts_of("close"), (lines{"close(first.fd)", "close(second.fd)"}));
    EXPECT_TRUE(EPoll::g_udp_map.empty());
}

// --- add_server's half -----------------------------------------------------------------------------------------

TEST_F(udp_endpoints, a_served_port_gets_its_udp_socket_before_it_listens) {
    system.answer("bind", 1, 0);
    engine.answer("request_listen", 0);
    EXPECT_EQ(INet_Relay::add_server(c_port), 0);
    EXPECT_EQ(journal_lines(about::engine), (lines{"EPoll::udp_initialize(7000)", "EPoll::request_listen(7000)"}));
    EXPECT_TRUE(EPoll::g_udp_map.contains(c_port));
}

TEST_F(udp_endpoints, a_udp_failure_is_the_answer_and_nothing_listens) {
    open_port(8000, "earlier");
    for (int const failure : {EADDRINUSE, -1}) {
        engine.answer("udp_initialize", failure);
        EXPECT_EQ(INet_Relay::add_server(c_port), failure);
    }
    EXPECT_EQ(engine.count("request_listen"), 0U);
    EXPECT_EQ(engine.count("udp_finalize"), 0U);
    EXPECT_EQ(system.count("socket"), 0U);
    EXPECT_TRUE(EPoll::g_udp_map.contains(8000)) << "the ports opened before stay open";
}

TEST_F(pin_udp_endpoints, a_failed_listen_closes_the_udp_sockets_of_all_ports) {
    unsigned short const ports[] = {unused_port(), unused_port()};
    engine.answer("request_listen", 0);
    EXPECT_EQ(INet_Relay::add_server(ports[0]), 0);
    engine.answer("request_listen", EADDRINUSE);
    EXPECT_EQ(INet_Relay::add_server(ports[1]), EADDRINUSE);
    EXPECT_EQ(engine.count("udp_finalize"), 1U);
    EXPECT_TRUE(EPoll::g_udp_map.empty());
    for (unsigned short const port : ports) {
        EXPECT_EQ(EPoll::udp_initialize(port), 0) << "the kernel gives the port away again";
    }
}

// --- the outgoing interface --------------------------------------------------------------------------------------

static_assert(
    std::is_same_v<decltype(&EPoll::set_multicast_if), void (*)(unsigned long const&, unsigned short const&)>);
static_assert(std::is_same_v<decltype(&EPoll::udp_initialize), int (*)(unsigned short)>);
static_assert(std::is_same_v<decltype(&EPoll::udp_finalize), int (*)()>);

TEST_F(udp_endpoints, the_outgoing_interface_is_the_low_half_as_a_four_byte_address) {
    open_port(8000, "other");
    auto* const rec = open_port();
    EPoll::set_multicast_if(c_high_half | ip("127.0.0.1"), c_port);
    ASSERT_EQ(system.count("setsockopt"), 1U);
    system_call const set = system.calls("setsockopt")[0];
    EXPECT_EQ(set.arguments, (std::vector<long>{rec->fd, IPPROTO_IP, IP_MULTICAST_IF, 4}));
    EXPECT_EQ(set.data, (bytes{127, 0, 0, 1}));
}

TEST_F(udp_endpoints, an_outgoing_interface_that_the_kernel_refuses_is_printed) {
    auto* const rec = open_bound_port();
    EPoll::set_multicast_if(ip("127.0.0.1"), rec->local_port);
    expect_error(text("multicast_if_failed"));
    EPoll::set_multicast_if(ip("192.0.2.1"), rec->local_port);
}

TEST_F(udp_endpoints, the_outgoing_interface_of_an_unknown_port_is_nobodys) {
    open_port(8000, "other");
    EPoll::set_multicast_if(ip("127.0.0.1"), c_port);
    EXPECT_EQ(names_of_system_calls(), "");
}

// --- memberships -------------------------------------------------------------------------------------------------

using membership_operation = void(unsigned long const& group_ip, unsigned long const& interface_ip,
                                  unsigned long const& source_ip, unsigned short const& port);
static_assert(std::is_same_v<decltype(INet_Relay::add_membership), membership_operation>);
static_assert(std::is_same_v<decltype(INet_Relay::drop_membership), membership_operation>);

struct membership_change {
    char const* name;
    membership_operation* operation;
    int option;
    char const* text;
};

void PrintTo(membership_change const& change, std::ostream* out) {
    *out << change.name;
}

class udp_membership : public udp_fixture, public testing::WithParamInterface<membership_change> {};

membership_change const c_membership_changes[] = {
    {"add", INet_Relay::add_membership, IP_ADD_SOURCE_MEMBERSHIP, "add_membership_failed"},
    {"drop", INet_Relay::drop_membership, IP_DROP_SOURCE_MEMBERSHIP, "drop_membership_failed"},
};
INSTANTIATE_TEST_SUITE_P(to, udp_membership, testing::ValuesIn(c_membership_changes), row_name<membership_change>);

TEST_P(udp_membership, the_request_is_group_then_interface_then_source_each_the_low_half) {
    open_port(8000, "other");
    auto* const rec = open_port();
    system.answer("setsockopt", 1, 0);
    GetParam().operation(c_high_half | ip(c_group), c_high_half | ip("10.20.30.40"), c_high_half | ip("10.9.8.7"),
                         c_port);
    ASSERT_EQ(system.count("setsockopt"), 1U);
    system_call const set = system.calls("setsockopt")[0];
    EXPECT_EQ(set.arguments, (std::vector<long>{rec->fd, IPPROTO_IP, GetParam().option, 12}));
    EXPECT_EQ(set.data, (bytes{232, 1, 2, 3, 10, 20, 30, 40, 10, 9, 8, 7}));
}

TEST_P(udp_membership, a_refusal_is_printed) {
    open_port();
    system.fail("setsockopt", 1, EADDRNOTAVAIL);
    expect_error(text(GetParam().text));
    GetParam().operation(ip(c_group), ip("127.0.0.1"), ip("127.0.0.1"), c_port);
}

TEST_P(udp_membership, an_unknown_port_changes_nothing_and_prints_nothing) {
    open_port(8000, "other");
    GetParam().operation(ip(c_group), ip("127.0.0.1"), ip("127.0.0.1"), c_port);
    EXPECT_EQ(names_of_system_calls(), "");
}

TEST_P(udp_membership, no_lock_is_taken) {
    open_port();
    system.answer("setsockopt", 1, 0);
    GetParam().operation(ip(c_group), ip("127.0.0.1"), ip("127.0.0.1"), c_port);
    EXPECT_EQ(journal_lines(about::lock), lines{});
}

TEST_F(udp_endpoints, the_kernel_takes_each_membership_once_and_gives_it_up_once) {
    auto* const rec = open_bound_port();
    unsigned long const group = ip(c_group);
    unsigned long const loopback = ip("127.0.0.1");
    INet_Relay::add_membership(group, loopback, loopback, rec->local_port);
    expect_error(text("add_membership_failed"));
    INet_Relay::add_membership(group, loopback, loopback, rec->local_port);
    INet_Relay::drop_membership(group, loopback, loopback, rec->local_port);
    expect_error(text("drop_membership_failed"));
    INet_Relay::drop_membership(group, loopback, loopback, rec->local_port);
}

TEST_F(udp_endpoints, what_this_node_multicasts_comes_back_to_its_own_socket) {
    auto* const rec = open_bound_port();
    INet_Relay::add_membership(ip(c_group), ip("127.0.0.1"), ip("127.0.0.1"), rec->local_port);
    auto token = make_token({.information_udp = true,
                             .dst_ip = ip(c_group),
                             .dst_port = rec->local_port,
                             .mct_ip = ip("127.0.0.1"),
                             .data = {4, 5, 6}});
    EXPECT_EQ(INet_Relay::send_udp(token, token.get_header_packet()), 0);
    EXPECT_EQ(EPoll::send_udp(rec), 0);
    ASSERT_TRUE(wait_for_datagram(rec));
    EXPECT_EQ(EPoll::recv_udp(rec), 0);
    auto const offers = take_offers();
    ASSERT_EQ(offers.size(), 1U);
    EXPECT_EQ(offers[0].data, (bytes{4, 5, 6}));
}

} // namespace
