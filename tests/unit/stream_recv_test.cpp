// How the packets of an established connection are read: one piece after another, the same on both sides but for what
// the rows in stream_fixture.hpp say.
#include "tests/unit/stream_fixture.hpp"

#include <cerrno>
#include <new>

namespace {

using namespace relay_test;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

constexpr unsigned c_in_order = about::packet | about::system | about::center | about::error | about::trace;

/// Connections on which nothing has been read yet.
class receive_fixture : public stream_fixture {
protected:
    using stream_fixture::stream_fixture;

    Zolt::struct_packet* header() { return rec->recv_token.get_header_packet(); }

    /// What is done to prepare the next header; made: a header part is allocated for it.
    static lines preparation(std::string const& name, bool made) {
        lines steps{"received.reset_data()"};
        if (made) {
            steps.push_back("received.alloc_header_force()");
        }
        for (std::string const& stamp :
             {call_text("initialize_packet", hex(c_local_ip), 0UL, std::string("DBL_MAX")),
              call_text("set_source", hex(c_remote_ip), unsigned{c_remote_port}, 0U),
              call_text("set_destination", hex(Zolt::c_local_host), unsigned{c_gate_port}, 0U)}) {
            steps.push_back(name + "." + stamp);
        }
        steps.push_back(armed_for_reading());
        return steps;
    }

    /// One event of the receive thread after the peer has sent that.
    int read_after(bytes const& sent) {
        write_bytes(connection->peer, sent);
        return side.read(rec);
    }

    /// The peer sends a packet and the events that it makes are served: one, and one more when there is data.
    int receive(packet_fields const& packet) {
        int const result = read_after(packet_bytes(packet));
        return packet.data.empty() ? result : side.read(rec);
    }

    /// What a read is that the peer's bytes fill whole.
    static lines piece_read(std::size_t size) {
        return {"recv(rec.fd, " + std::to_string(size) + ", 0)", traced('E', "no token", "received_piece")};
    }

    /// What is done with the first header that is complete.
    static lines header_read() {
        return joined(
            {piece_read(64), {"header#1.determine_arrival_clock(500000)", traced('E', "token#1", "header_completed")}});
    }

    /// How the first packet goes to the Center.
    static lines delivery() {
        return {traced('t', "token#1", "tcp_received"), "send_zolt_center(token#1)",
                "header#1.update_packet_time_and_return_timeout()", "received.reset()"};
    }

    /// Traces of one text so far.
    static std::vector<trace_line> traces_of(std::string const& id) {
        std::vector<trace_line> chosen = take_traces();
        std::erase_if(chosen, [&](trace_line const& trace) { return trace.text != text(id); });
        return chosen;
    }

    /// The connection has ended as the side ends one, and the Center heard of it once.
    void expect_ended() {
        auto const offers = take_offers();
        ASSERT_EQ(offers.size(), 1U);
        EXPECT_EQ(offers[0].packet.event, side.ended_event);
        EXPECT_TRUE(side.registry->empty());
        side.marker_deletes ? expect_marked() : expect_booked_again();
        EXPECT_TRUE(connection->is_gone());
    }

private:
    /// The accepting side leaves the record to the send thread, which meets the close marker.
    void expect_marked() {
        EXPECT_FALSE(connection->is_gone());
        ASSERT_EQ(rec->send_q.size(), 1U);
        EXPECT_FALSE(rec->send_q.front().has_header());
        EXPECT_EQ(serve_writes(), 1);
    }

    /// The outgoing side destroys the record and books a fresh one.
    static void expect_booked_again() {
        ASSERT_EQ(EPoll::g_connect_fail_map.size(), 1U);
        auto const& [destination, fresh] = *EPoll::g_connect_fail_map.begin();
        EXPECT_EQ(destination, (Zolt::struct_node_addr{c_remote_ip, c_remote_port}));
        EXPECT_EQ(fresh->fd, -1);
        EXPECT_EQ(fresh->kind, 3);
    }
};

/// Connections that wait for a header, as they do most of the time.
class ready_fixture : public receive_fixture {
protected:
    using receive_fixture::receive_fixture;

    void SetUp() override {
        receive_fixture::SetUp();
        EXPECT_EQ(side.request_header(rec), 0);
        start_over();
    }
};

// --- preparing a header ----------------------------------------------------------------------------------------

class stream_header : public on_both_sides<receive_fixture> {};
INSTANTIATE_TEST_SUITE_P(sides, stream_header, each_side(), name_of_row<stream_side>);

TEST_P(stream_header, is_allocated_stamped_with_both_ends_and_waited_for_in_this_order) {
    EXPECT_EQ(side.request_header(rec), 0);
    EXPECT_EQ(story(c_in_order), preparation("header#1", true));
}

TEST_P(stream_header, is_used_again_when_the_token_has_one) {
    rec->recv_token = make_named("kept");
    EXPECT_EQ(side.request_header(rec), 0);
    EXPECT_EQ(story(c_in_order), preparation("kept", false));
}

TEST_P(stream_header, is_read_from_its_first_byte_at_the_size_that_the_host_gives) {
    set_header_size(96);
    EXPECT_EQ(side.request_header(rec), 0);
    EXPECT_EQ(rec->recv_ptr, header()->get_header());
    EXPECT_EQ(rec->recv_remain, 96U);
}

TEST_P(stream_header, whose_arming_fails_is_reported_and_nothing_is_undone) {
    system.fail("epoll_ctl", 1, ENOENT);
    expect_error(text(side.header_arming_failed));
    EXPECT_EQ(side.request_header(rec), -1);
    EXPECT_EQ(rec->recv_ptr, header()->get_header());
    EXPECT_EQ(rec->recv_remain, header_size());
    EXPECT_EQ(system.count("epoll_ctl"), 1U) << "neither tried again nor taken back";
    EXPECT_FALSE(connection->is_gone());
}

// --- preparing a data part -------------------------------------------------------------------------------------

/// A header that announces five bytes has arrived.
class data_fixture : public receive_fixture {
protected:
    using receive_fixture::receive_fixture;

    void SetUp() override {
        receive_fixture::SetUp();
        rec->recv_token = make_named("announcing", {.data_size = 5});
        start_over();
    }

    void expect_cursor_on_the_data() {
        EXPECT_TRUE(rec->recv_token.has_data());
        EXPECT_EQ(rec->recv_ptr, rec->recv_token.get_data());
        EXPECT_EQ(rec->recv_remain, 5U);
    }
};

class stream_data : public on_both_sides<data_fixture> {};
INSTANTIATE_TEST_SUITE_P(sides, stream_data, each_side(), name_of_row<stream_side>);

TEST_P(stream_data, is_received_into_a_part_of_the_token) {
    EXPECT_EQ(side.request_data(rec), 0);
    EXPECT_EQ(story(c_in_order), (lines{"received.alloc_data(5)", armed_for_reading()}));
    expect_cursor_on_the_data();
}

TEST_P(stream_data, is_received_into_an_array_when_the_token_gives_no_part) {
    script_alloc_data({allocation::refused});
    EXPECT_EQ(side.request_data(rec), 0);
    EXPECT_EQ(story(c_in_order), (lines{"received.alloc_data(5)", "announcing.set_data(array)", armed_for_reading()}));
    expect_cursor_on_the_data();
}

TEST_P(stream_data, whose_arming_fails_is_reported_and_nothing_is_undone) {
    system.fail("epoll_ctl", 1, ENOENT);
    expect_error(text(side.data_arming_failed));
    EXPECT_EQ(side.request_data(rec), -1);
    expect_cursor_on_the_data();
    EXPECT_EQ(system.count("epoll_ctl"), 1U);
}

TEST_P(stream_data, that_the_host_has_no_memory_for_is_the_threads_affair_and_nothing_is_armed) {
    script_alloc_data({allocation::throws});
    EXPECT_THROW(side.request_data(rec), std::bad_alloc);
    EXPECT_EQ(system.count("epoll_ctl"), 0U);
    EXPECT_FALSE(connection->is_gone());
}

// --- one read --------------------------------------------------------------------------------------------------

class stream_receive : public on_both_sides<ready_fixture> {};
INSTANTIATE_TEST_SUITE_P(sides, stream_receive, each_side(), name_of_row<stream_side>);

TEST_P(stream_receive, one_event_is_one_read_of_what_is_missing_without_flags) {
    EXPECT_EQ(read_after({1, 2, 3}), 0);
    EXPECT_EQ(read_after({4}), 0);
    EXPECT_EQ(story(about::system),
              (lines{"recv(rec.fd, 64, 0)", armed_for_reading(), "recv(rec.fd, 61, 0)", armed_for_reading()}));
}

TEST_P(stream_receive, bytes_are_read_where_the_packet_keeps_them) {
    unsigned char* const first = header()->get_header();
    EXPECT_EQ(read_after({1, 2, 3}), 0);
    EXPECT_EQ(read_after({4}), 0);
    EXPECT_EQ((bytes{first, first + 4}), (bytes{1, 2, 3, 4}));
}

TEST_P(stream_receive, no_copy_is_made_of_what_was_read) {
    unsigned char* const first = header()->get_header();
    std::fill_n(first, 4, static_cast<unsigned char>(0x5A));
    system.answer("recv", 1, 4);
    EXPECT_EQ(side.read(rec), 0);
    EXPECT_EQ((bytes{first, first + 4}), bytes(4, 0x5A)) << "something else than the kernel wrote here";
}

TEST_P(stream_receive, a_read_moves_the_cursor_and_is_noted_with_its_clock) {
    set_clock(0x1234567890UL);
    EXPECT_EQ(read_after(bytes(10)), 0);
    EXPECT_EQ(rec->recv_ptr, header()->get_header() + 10);
    EXPECT_EQ(rec->recv_remain, header_size() - 10);
    EXPECT_EQ(rec->recv_clock, 0x1234567890UL);
}

TEST_P(stream_receive, a_read_is_traced_with_its_size_and_what_was_missing_before_it) {
    EXPECT_EQ(read_after(bytes(10)), 0);
    EXPECT_EQ(read_after(bytes(54)), 0);
    auto const traces = traces_of("received_piece");
    ASSERT_EQ(traces.size(), 2U);
    EXPECT_THAT(traces[0].arguments, ElementsAre(10L, 64L));
    EXPECT_THAT(traces[1].arguments, ElementsAre(54L, 54L));
    for (trace_line const& trace : traces) {
        EXPECT_EQ(trace.letter, 'E');
        EXPECT_EQ(trace.token, "no token");
        EXPECT_THAT(trace.file, StartsWith(text("file_method")));
    }
}

TEST_P(stream_receive, a_header_byte_by_byte_takes_an_arming_and_a_clock_each) {
    bytes const packet = packet_bytes({.dst_port = 7001, .sequence = 5});
    for (std::size_t at = 0; at < packet.size(); ++at) {
        EXPECT_THAT(take_offers(), IsEmpty()) << "after " << at << " bytes";
        advance_clock(1);
        EXPECT_EQ(read_after({packet[at]}), 0);
        EXPECT_EQ(system.count("recv"), at + 1);
        EXPECT_EQ(armings(EPoll::epoll_tcp_recv), at + 1);
        EXPECT_EQ(rec->recv_clock, 100001 + at);
    }
    auto const offers = take_offers();
    ASSERT_EQ(offers.size(), 1U);
    EXPECT_EQ(offers[0].header, packet);
}

TEST_P(stream_receive, a_packet_with_data_is_not_delivered_before_its_last_byte) {
    bytes const packet = packet_bytes({.sequence = 6, .data = {10, 11, 12, 13}});
    bytes const front(packet.begin(), packet.end() - 4);
    EXPECT_EQ(read_after(front), 0);
    for (std::size_t at = front.size(); at < packet.size(); ++at) {
        EXPECT_THAT(take_offers(), IsEmpty()) << "after " << at << " bytes";
        EXPECT_EQ(read_after({packet[at]}), 0);
    }
    auto const offers = take_offers();
    ASSERT_EQ(offers.size(), 1U);
    EXPECT_EQ(offers[0].data, (bytes{10, 11, 12, 13}));
}

// --- a piece is complete ---------------------------------------------------------------------------------------

TEST_P(stream_receive, a_packet_without_data_is_delivered_forgotten_and_followed_by_the_next_header) {
    EXPECT_EQ(receive({}), 0);
    EXPECT_EQ(story(c_in_order), joined({header_read(), delivery(), preparation("header#2", true)}));
}

TEST_P(stream_receive, a_packet_with_data_is_delivered_when_its_data_is_there) {
    EXPECT_EQ(receive({.data = {1, 2, 3}}), 0);
    EXPECT_EQ(story(c_in_order), joined({header_read(),
                                         {"received.alloc_data(3)", armed_for_reading()},
                                         piece_read(3),
                                         delivery(),
                                         preparation("header#2", true)}));
}

TEST_P(stream_receive, a_packet_whose_token_gave_no_data_part_is_delivered_all_the_same) {
    script_alloc_data({allocation::refused});
    EXPECT_EQ(receive({.data = {1, 2, 3}}), 0);
    auto const offers = take_offers();
    ASSERT_EQ(offers.size(), 1U);
    EXPECT_EQ(offers[0].data, (bytes{1, 2, 3}));
}

TEST_P(stream_receive, a_complete_header_is_traced_with_clock_data_size_and_address) {
    set_clock(123456);
    Zolt::struct_packet const* const packet = header();
    EXPECT_EQ(read_after(packet_bytes({.data_size = 77})), 0);
    auto const traces = traces_of("header_completed");
    ASSERT_EQ(traces.size(), 1U);
    EXPECT_EQ(traces[0].letter, 'E');
    EXPECT_EQ(traces[0].token, "token#1");
    EXPECT_THAT(traces[0].file, StartsWith(text("file_method")));
    EXPECT_THAT(traces[0].arguments,
                ElementsAre(123456L, 77L, reinterpret_cast<std::uintptr_t>(packet) & 0xFFFFFFFFUL));
}

TEST_P(stream_receive, a_packet_that_the_center_refuses_is_freed_and_forgotten) {
    script_center({c_center_refused});
    EXPECT_EQ(receive({.data = {1}}), 0);
    EXPECT_EQ(take_offers().size(), 1U);
    EXPECT_EQ(count_ledger(), (ledger_counts{1, 0, 1})) << "more than the header that is being waited for";
    EXPECT_EQ(journal_count("reset"), 1U);
}

TEST_P(stream_receive, no_lock_is_held_while_the_center_is_asked) {
    EXPECT_EQ(receive({}), 0);
    EXPECT_EQ(receive({.call = true, .data = {1}}), 0);
    auto const offers = take_offers();
    ASSERT_EQ(offers.size(), 2U);
    EXPECT_THAT(offers[0].locks, IsEmpty());
    EXPECT_THAT(offers[1].locks, IsEmpty());
}

TEST_P(stream_receive, packets_stand_back_to_back_on_the_wire) {
    std::vector<packet_fields> const sent{{.sequence = 1, .data = {1, 2, 3}},
                                          {.heartbeat = true, .sequence = 2},
                                          {.sequence = 3},
                                          {.sequence = 4, .data = {4}}};
    write_bytes(connection->peer, stream_of(sent));
    std::vector<std::size_t> sizes;
    for (int event = 0; event < 6; ++event) {
        EXPECT_EQ(side.read(rec), 0);
        sizes.push_back(system.calls("recv").back().size);
    }
    EXPECT_THAT(sizes, ElementsAre(64U, 3U, 64U, 64U, 64U, 1U));
    std::vector<std::pair<std::uint32_t, bytes>> delivered;
    for (center_offer const& offer : take_offers()) {
        delivered.emplace_back(offer.packet.sequence, offer.data);
    }
    EXPECT_EQ(delivered, (std::vector<std::pair<std::uint32_t, bytes>>{{1, {1, 2, 3}}, {3, {}}, {4, {4}}}));
}

// --- what stays inside the relay -------------------------------------------------------------------------------

TEST_P(stream_receive, a_heartbeat_is_consumed_and_the_next_packet_comes_in_its_header_part) {
    EXPECT_EQ(receive({.heartbeat = true}), 0);
    EXPECT_EQ(story(c_in_order), joined({header_read(),
                                         {traced('E', "no token", side.heartbeat_received), "received.reset_data()"},
                                         preparation("header#1", false)}));
    EXPECT_THAT(take_offers(), IsEmpty());
    EXPECT_EQ(receive({.sequence = 8}), 0);
    auto const offers = take_offers();
    ASSERT_EQ(offers.size(), 1U);
    EXPECT_EQ(offers[0].token, "token#1");
    EXPECT_EQ(offers[0].packet.sequence, 8U);
}

TEST_P(stream_receive, each_kind_of_packet_takes_no_other_lock_of_the_record_than_the_sides_own) {
    for (auto const kind : {&packet_fields::heartbeat, &packet_fields::call, &packet_fields::signal,
                            &packet_fields::call_ack, &packet_fields::signal_ack, &packet_fields::control}) {
        EXPECT_EQ(receive(packet_of(kind)), 0);
        EXPECT_EQ(receive(packet_of(kind, {1})), 0);
    }
    EXPECT_THAT(story(about::lock), Each(StartsWith(side.receive_lock)));
    EXPECT_THAT(story(about::lock), Not(IsEmpty()));
}

// --- arming after a piece --------------------------------------------------------------------------------------

/// A packet whose last piece is followed by an arming that fails.
struct unarmed_end {
    std::string name;
    packet_fields packet;
};

class stream_unarmed : public on_both_sides_with<ready_fixture, unarmed_end> {};

void PrintTo(unarmed_end const& end, std::ostream* out) {
    *out << end.name;
}

INSTANTIATE_TEST_SUITE_P(sides, stream_unarmed,
                         ::testing::Combine(each_side(),
                                            ::testing::Values(unarmed_end{"plain", {}},
                                                              unarmed_end{"heartbeat", {.heartbeat = true}},
                                                              unarmed_end{"call_ack", {.call_ack = true}},
                                                              unarmed_end{"data", {.data = {1}}})),
                         name_of_both<unarmed_end>);

TEST_P(stream_unarmed, the_failure_to_wait_for_the_next_header_is_the_result) {
    packet_fields const& packet = given().packet;
    system.fail("epoll_ctl", packet.data.empty() ? 1 : 2, ENOENT);
    expect_error(text(side.header_arming_failed));
    EXPECT_EQ(receive(packet), -1);
    EXPECT_FALSE(connection->is_gone());
}

TEST_P(stream_receive, the_failure_to_wait_for_data_is_the_result) {
    system.fail("epoll_ctl", 1, ENOENT);
    expect_error(text(side.data_arming_failed));
    EXPECT_EQ(read_after(packet_bytes({.data = {1}})), -1);
    EXPECT_THAT(take_offers(), IsEmpty());
}

// --- a read that fails -----------------------------------------------------------------------------------------

/// What a failing read answers; an error of 0 is the end of the stream.
struct read_failure {
    std::string name;
    int error;
};

void PrintTo(read_failure const& failure, std::ostream* out) {
    *out << failure.name;
}

class stream_read_failure : public on_both_sides_with<ready_fixture, read_failure> {
protected:
    void fail_next_read() {
        given().error == 0 ? system.answer("recv", 1, 0) : system.fail("recv", 1, given().error);
        expect_error(text(side.read_failed));
    }
};

INSTANTIATE_TEST_SUITE_P(sides, stream_read_failure,
                         ::testing::Combine(each_side(), ::testing::Values(read_failure{"end_of_stream", 0},
                                                                           read_failure{"reset", ECONNRESET},
                                                                           read_failure{"timed_out", ETIMEDOUT},
                                                                           read_failure{"no_memory", ENOMEM})),
                         name_of_both<read_failure>);
// Deliberate: what another program would try again ends the connection like any error.
INSTANTIATE_TEST_SUITE_P(pin_not_tried_again, stream_read_failure,
                         ::testing::Combine(each_side(), ::testing::Values(read_failure{"interrupted", EINTR},
                                                                           read_failure{"would_block", EAGAIN})),
                         name_of_both<read_failure>);

TEST_P(stream_read_failure, is_printed_once_and_ends_the_connection_with_result_0) {
    fail_next_read();
    EXPECT_EQ(side.read(rec), 0);
    lines const steps = story(c_in_order);
    ASSERT_GE(steps.size(), 2U);
    EXPECT_EQ(steps[0], "recv(rec.fd, 64, 0)");
    EXPECT_EQ(steps[1], call_text("print_error", text(side.read_failed).c_str()));
    EXPECT_EQ(armings(EPoll::epoll_tcp_recv), 0U) << "armed again";
    expect_ended();
}

TEST_P(stream_read_failure, in_the_middle_of_data_frees_what_was_received) {
    EXPECT_EQ(read_after(packet_bytes({.data_size = 9})), 0);
    EXPECT_EQ(read_after({1, 2, 3}), 0);
    fail_next_read();
    EXPECT_EQ(side.read(rec), 0);
    expect_ended();
    release_offers();
    EXPECT_EQ(count_ledger(), ledger_counts{});
}

TEST_P(stream_receive, the_end_of_the_peers_stream_is_a_read_that_fails) {
    connection->peer.close();
    expect_error(text(side.read_failed));
    EXPECT_EQ(side.read(rec), 0);
    EXPECT_EQ(system.calls("recv").back().result, 0);
    expect_ended();
}

TEST_P(stream_receive, a_reset_by_the_peer_is_a_read_that_fails) {
    reset_connection(connection->peer);
    expect_error(text(side.read_failed));
    EXPECT_EQ(side.read(rec), 0);
    EXPECT_EQ(system.calls("recv").back().error, ECONNRESET);
    expect_ended();
}

TEST_P(stream_receive, a_read_that_fails_is_unknown_to_the_thread) {
    system.events(EPoll::epoll_tcp_recv, {{EPOLLIN, rec}});
    system.fail("recv", 1, ECONNRESET);
    expect_error(text(side.read_failed));
    EXPECT_EQ(EPoll::epoll_thread_tcp_recv_entry(nullptr), nullptr);
    EXPECT_EQ(system.count("epoll_wait"), 2U) << "the thread did not go on";
    expect_ended();
}

TEST_P(stream_receive, an_exception_from_further_down_reaches_the_thread) {
    system.events(EPoll::epoll_tcp_recv, {{EPOLLIN, rec}});
    on_offer([](packet_fields const&) -> int { throw 7; });
    write_bytes(connection->peer, packet_bytes({}));
    expect_error(text("recv_went_on"));
    EXPECT_EQ(EPoll::epoll_thread_tcp_recv_entry(nullptr), nullptr);
    EXPECT_EQ(system.count("epoll_wait"), 2U) << "the thread did not go on";
    EXPECT_FALSE(connection->is_gone());
}

TEST_P(stream_receive, a_read_that_fails_while_a_write_is_due_leaves_the_record_to_the_send_thread) {
    Zolt::struct_token token = make_token({.data = {1}});
    EXPECT_EQ(side.hand_over(EPoll::peer_of(rec), token, token.get_header_packet()), 0);
    system.fail("recv", 1, ECONNRESET);
    expect_error(text(side.read_failed));
    EXPECT_EQ(side.read(rec), 0);
    EXPECT_FALSE(connection->is_gone());
    EXPECT_TRUE(side.registry->empty());
    take_offers();
    system.events(EPoll::epoll_tcp_send, {{EPOLLOUT | EPOLLHUP, rec}});
    EXPECT_EQ(EPoll::epoll_thread_tcp_send_entry(nullptr), nullptr);
    EXPECT_TRUE(connection->is_gone());
    auto const returned = take_offers();
    ASSERT_EQ(returned.size(), 1U);
    EXPECT_EQ(returned[0].packet.error, Zolt::c_zolt_err_not_connected_tcp);
}

// --- calls and signals, received by the outgoing side ----------------------------------------------------------

/// What waits for an acknowledgement, and the kind of that.
struct answered_kind {
    std::string name;
    bool packet_fields::*asks;
    bool packet_fields::*acknowledges;
};

void PrintTo(answered_kind const& kind, std::ostream* out) {
    *out << kind.name;
}

auto answered_kinds() {
    return ::testing::Values(answered_kind{"call", &packet_fields::call, &packet_fields::call_ack},
                             answered_kind{"signal", &packet_fields::signal, &packet_fields::signal_ack});
}

class acknowledging : public ready_fixture, public ::testing::WithParamInterface<answered_kind> {
protected:
    acknowledging() : ready_fixture(outgoing_side()) {}

    static packet_fields request(bytes data = {}) {
        packet_fields fields = packet_of(GetParam().asks, std::move(data));
        fields.src_ip = 0x01010101;
        fields.src_port = 1111;
        fields.dst_ip = 0x02020202;
        fields.dst_port = 2222;
        fields.sequence = 33;
        return fields;
    }

    /// That it is the header alone which answers request().
    static void expect_answer(packet_fields const& answer) {
        EXPECT_TRUE(answer.*GetParam().acknowledges);
        EXPECT_FALSE(answer.*GetParam().asks);
        EXPECT_EQ(answer.src_ip, 0x02020202U);
        EXPECT_EQ(answer.src_port, 2222);
        EXPECT_EQ(answer.dst_ip, 0x01010101U);
        EXPECT_EQ(answer.dst_port, 1111);
        EXPECT_EQ(answer.sequence, 33U);
        EXPECT_EQ(answer.data_size, 0U);
        EXPECT_THAT(answer.data, IsEmpty());
    }
};

INSTANTIATE_TEST_SUITE_P(kinds, acknowledging, answered_kinds(), name_of_row<answered_kind>);

TEST_P(acknowledging, is_done_from_the_header_before_data_is_waited_for) {
    EXPECT_EQ(read_after(packet_bytes(request({1, 2, 3}))), 0);
    EXPECT_EQ(
        story(c_in_order | about::lock),
        joined({header_read(),
                {"token#2.alloc_header_force()", "header#2.operator=(header#1)", "header#2.set_swap_address(header#1)",
                 "header#2.set_swap_acktype()", "header#2.set_data_size(0)", "rec.send_lock.lock", armed_for_writing(),
                 "rec.send_lock.unlock", "received.alloc_data(3)", armed_for_reading()}}));
}

TEST_P(acknowledging, starts_an_idle_queue_with_the_answer) {
    EXPECT_EQ(receive(request()), 0);
    ASSERT_EQ(rec->send_q.size(), 1U);
    Zolt::struct_packet* const answer = rec->send_q.front().get_header_packet();
    expect_answer(fields_of(rec->send_q.front()));
    EXPECT_EQ(rec->send_ptr, answer->get_header());
    EXPECT_EQ(rec->send_remain, header_size());
    EXPECT_TRUE(rec->sending_header);
    EXPECT_TRUE(rec->sending);
    EXPECT_TRUE(rec->send_armed);
}

TEST_P(acknowledging, joins_a_busy_queue_at_its_end_without_arming) {
    queue(make_named("first"));
    EXPECT_EQ(receive(request()), 0);
    ASSERT_EQ(rec->send_q.size(), 2U);
    EXPECT_EQ(token_name(rec->send_q.front()), "first");
    expect_answer(fields_of(rec->send_q.back()));
    EXPECT_EQ(armings(EPoll::epoll_tcp_send), 0U);
    EXPECT_EQ(rec->send_ptr, nullptr);
    EXPECT_FALSE(rec->sending);
}

TEST_P(acknowledging, goes_on_when_the_answer_cannot_be_armed) {
    system.fail("epoll_ctl", 1, ENOENT);
    expect_error(text("send_request_failed"));
    EXPECT_EQ(receive(request()), 0);
    EXPECT_EQ(rec->send_q.size(), 1U);
    EXPECT_TRUE(rec->sending);
    EXPECT_FALSE(rec->send_armed);
    EXPECT_EQ(take_offers().size(), 1U);
    EXPECT_EQ(armings(EPoll::epoll_tcp_recv), 1U);
}

TEST_P(acknowledging, answers_the_peer_once_while_the_data_is_still_under_way) {
    bytes const packet = packet_bytes(request({1, 2, 3}));
    EXPECT_EQ(read_after({packet.begin(), packet.end() - 3}), 0);
    EXPECT_EQ(serve_writes(), 1);
    expect_answer(read_packet(read_bytes(connection->peer, header_size())));
    EXPECT_EQ(read_after({packet.end() - 3, packet.end()}), 0);
    EXPECT_EQ(serve_writes(), 0);
    EXPECT_THAT(rec->send_q, IsEmpty());
}

TEST_P(acknowledging, leaves_the_packet_to_the_center) {
    EXPECT_EQ(receive(request()), 0);
    EXPECT_EQ(receive(request({1, 2})), 0);
    auto const offers = take_offers();
    ASSERT_EQ(offers.size(), 2U);
    EXPECT_TRUE(offers[0].packet.*GetParam().asks);
    EXPECT_TRUE(offers[1].packet.*GetParam().asks);
    EXPECT_EQ(offers[1].data, (bytes{1, 2}));
}

TEST_P(acknowledging, is_not_asked_for_by_an_acknowledgement_which_the_center_gets) {
    rec->ack_q.push_back(make_token({}));
    EXPECT_EQ(receive(packet_of(GetParam().acknowledges)), 0);
    EXPECT_EQ(take_offers().size(), 1U);
    EXPECT_EQ(rec->ack_q.size(), 1U);
    EXPECT_THAT(rec->send_q, IsEmpty());
}

// --- calls, signals and their acknowledgements, received by the accepting side ---------------------------------

class releasing : public ready_fixture, public ::testing::WithParamInterface<answered_kind> {
protected:
    releasing() : ready_fixture(accepting_side()) {}

    static packet_fields acknowledgement(bytes data = {}) {
        return packet_of(GetParam().acknowledges, std::move(data));
    }

    /// Packets that were sent and wait for their acknowledgement.
    void let_wait(lines const& names) {
        for (std::string const& name : names) {
            rec->ack_q.push_back(make_named(name));
        }
        start_over();
    }

    lines waiting() const {
        lines names;
        for (Zolt::struct_token const& token : rec->ack_q) {
            names.push_back(token_name(token));
        }
        return names;
    }
};

INSTANTIATE_TEST_SUITE_P(kinds, releasing, answered_kinds(), name_of_row<answered_kind>);

TEST_P(releasing, takes_the_oldest_waiting_packet_under_the_lock_of_the_queue) {
    let_wait({"first", "second"});
    EXPECT_EQ(receive(acknowledgement()), 0);
    EXPECT_EQ(story(c_in_order | about::lock),
              joined({header_read(),
                      {"rec.ack_lock.lock", "first.free()", "received.reset_data()", "rec.ack_lock.unlock"},
                      preparation("header#1", false)}));
    EXPECT_THAT(waiting(), ElementsAre("second"));
}

TEST_P(releasing, happens_once_for_each_acknowledgement_which_the_center_does_not_get) {
    let_wait({"first", "second", "third"});
    EXPECT_EQ(receive(acknowledgement()), 0);
    EXPECT_EQ(receive(acknowledgement()), 0);
    EXPECT_THAT(waiting(), ElementsAre("third"));
    EXPECT_THAT(take_offers(), IsEmpty());
}

TEST_P(releasing, ignores_an_acknowledgement_that_nobody_waits_for) {
    EXPECT_EQ(receive(acknowledgement()), 0);
    EXPECT_THAT(take_offers(), IsEmpty());
    EXPECT_EQ(receive({.sequence = 4}), 0);
    EXPECT_EQ(take_offers().size(), 1U);
}

TEST_P(releasing, does_not_answer_the_calls_and_signals_that_the_center_gets) {
    EXPECT_EQ(receive(packet_of(GetParam().asks)), 0);
    EXPECT_EQ(receive(packet_of(GetParam().asks, {1})), 0);
    EXPECT_EQ(take_offers().size(), 2U);
    EXPECT_THAT(rec->send_q, IsEmpty());
    EXPECT_EQ(armings(EPoll::epoll_tcp_send), 0U);
}

TEST_P(releasing, is_not_done_by_a_heartbeat_that_also_acknowledges) {
    let_wait({"first"});
    packet_fields both = acknowledgement();
    both.heartbeat = true;
    EXPECT_EQ(receive(both), 0);
    EXPECT_THAT(waiting(), ElementsAre("first"));
    EXPECT_EQ(traces_of("heartbeat_from_client").size(), 1U);
}

// --- deliberate oddities ---------------------------------------------------------------------------------------

class pin_releasing : public releasing {};
INSTANTIATE_TEST_SUITE_P(pin_kinds, pin_releasing, answered_kinds(), name_of_row<answered_kind>);

TEST_P(pin_releasing, goes_by_position_whichever_packet_is_acknowledged) {
    rec->ack_q.push_back(make_named("first", {.sequence = 1}));
    rec->ack_q.push_back(make_named("second", {.sequence = 2}));
    packet_fields of_second = acknowledgement();
    of_second.sequence = 2;
    EXPECT_EQ(receive(of_second), 0);
    EXPECT_THAT(waiting(), ElementsAre("second"));
}

class stream_receive_oddities : public stream_receive {};
INSTANTIATE_TEST_SUITE_P(pin_sides, stream_receive_oddities, each_side(), name_of_row<stream_side>);

TEST_P(stream_receive_oddities, a_heartbeat_or_acknowledgement_with_data_is_delivered_like_any_packet) {
    rec->ack_q.push_back(make_token({}));
    for (auto const kind : {&packet_fields::heartbeat, &packet_fields::call_ack, &packet_fields::signal_ack}) {
        EXPECT_EQ(receive(packet_of(kind, {1, 2})), 0);
        auto const offers = take_offers();
        ASSERT_EQ(offers.size(), 1U);
        EXPECT_TRUE(offers[0].packet.*kind);
        EXPECT_EQ(offers[0].data, (bytes{1, 2}));
    }
    EXPECT_EQ(rec->ack_q.size(), 1U);
}

TEST_P(stream_receive_oddities, a_packet_of_another_version_is_delivered) {
    EXPECT_EQ(receive({.version = 8, .sequence = 3}), 0);
    auto const offers = take_offers();
    ASSERT_EQ(offers.size(), 1U);
    EXPECT_EQ(offers[0].packet.version, 8);
}

TEST_P(stream_receive_oddities, a_read_that_leaves_a_remainder_and_cannot_be_armed_again_is_returned_without_a_word) {
    system.fail("epoll_ctl", 1, ENOENT);
    EXPECT_EQ(read_after(bytes(10)), -1);
    EXPECT_EQ(story(about::system | about::error), (lines{"recv(rec.fd, 64, 0)", armed_for_reading()}));
    EXPECT_FALSE(connection->is_gone());
    EXPECT_EQ(side.registry->size(), 1U);
}

TEST_P(stream_receive_oddities, every_read_is_traced_with_the_text_of_the_exchange) {
    EXPECT_EQ(read_after({1}), 0);
    EXPECT_THAT(trace_texts(take_traces()), ElementsAre("E success_receive_client_init - size %d , remain size %d"));
}

} // namespace
