// How packets of the Center reach an established connection and are written to it: the same on both sides but for what
// the rows in stream_fixture.hpp say, and the broadcast, which only the accepting side has.
#include "Host/tesk_inet.hpp"
#include "tests/unit/stream_fixture.hpp"

#include <cerrno>

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>

namespace {

using namespace relay_test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr unsigned c_in_order = about::packet | about::lock | about::system | about::error;
std::string const c_flushed = "fflush(stdout)";

class send_fixture : public stream_fixture {
protected:
    using stream_fixture::stream_fixture;

    int hand_over(Zolt::struct_token& token) {
        return side.hand_over(EPoll::peer_of(rec), token, token.get_header_packet());
    }

    /// Makes a packet and hands it over; the connection's queue owns it.
    Zolt::struct_token hand_over_named(std::string const& name, packet_fields fields = {}) {
        Zolt::struct_token token = make_named(name, std::move(fields));
        EXPECT_EQ(hand_over(token), 0);
        return token;
    }

    /// One event of the send thread.
    void write() { EXPECT_EQ(serve_writes(1), 1); }

    lines queued() const {
        lines names;
        for (Zolt::struct_token const& token : rec->send_q) {
            names.push_back(token_name(token));
        }
        return names;
    }

    void expect_cursor(unsigned char const* at, unsigned long remain, bool is_header) {
        EXPECT_EQ(rec->send_ptr, at);
        EXPECT_EQ(rec->send_remain, remain);
        EXPECT_EQ(rec->sending_header, is_header);
        EXPECT_TRUE(rec->sending);
    }

    void expect_at_rest(lines const& left) {
        EXPECT_FALSE(rec->sending);
        EXPECT_FALSE(rec->send_armed);
        EXPECT_EQ(queued(), left);
    }

    /// Nothing that the kernel would report stands armed.
    void expect_silence() { EXPECT_EQ(serve_writes(), 0); }

    static std::string sent(std::size_t size, std::string const& name = "rec") {
        return "send(" + name + ".fd, " + std::to_string(size) + ", 0)";
    }
};

/// A packet waits in front of whatever comes.
class busy_fixture : public send_fixture {
protected:
    using send_fixture::send_fixture;

    void SetUp() override {
        send_fixture::SetUp();
        front = hand_over_named("front");
        start_over();
    }

    Zolt::struct_token front;
};

// --- the Center hands over -------------------------------------------------------------------------------------

class stream_hand_over : public on_both_sides<send_fixture> {};
INSTANTIATE_TEST_SUITE_P(sides, stream_hand_over, each_side(), name_of_row<stream_side>);

TEST_P(stream_hand_over, to_an_unknown_peer_is_answered_with_minus_one_and_nothing_is_done) {
    Zolt::struct_token token = make_named("kept");
    for (Zolt::struct_node_addr const peer : {Zolt::struct_node_addr{c_remote_ip, c_remote_port + 1},
                                              Zolt::struct_node_addr{c_remote_ip + 1, c_remote_port}}) {
        EXPECT_EQ(side.hand_over(peer, token, token.get_header_packet()), -1);
    }
    EXPECT_EQ(story(c_in_order | about::trace | about::clock),
              (lines{side.registry_lock + ".lock", side.registry_lock + ".unlock", side.registry_lock + ".lock",
                     side.registry_lock + ".unlock"}));
    EXPECT_TRUE(is_live(token));
    token.free();
}

TEST_P(stream_hand_over, does_not_reach_connections_of_the_other_side) {
    side.registry->clear();
    side.other_registry->emplace(EPoll::peer_of(rec), rec);
    Zolt::struct_token token = make_token({});
    EXPECT_EQ(hand_over(token), -1);
    EXPECT_THAT(rec->send_q, IsEmpty());
    token.free();
}

TEST_P(stream_hand_over, goes_from_registry_to_stamps_to_trace_to_queue_to_arming) {
    hand_over_named("first");
    lines const wait_ack = side.keeps_calls ? lines{"EPoll::wait_ack(rec, first, packet)"} : lines{};
    EXPECT_EQ(story(c_in_order | about::clock | about::trace | about::engine),
              joined({{side.registry_lock + ".lock", "lemon_clock()", "first.set_src_port(7001)",
                       traced('T', "first", side.handed_over), "rec.send_lock.lock"},
                      wait_ack,
                      {armed_for_writing(), "rec.send_lock.unlock", side.registry_lock + ".unlock"}}));
}

TEST_P(stream_hand_over, is_traced_with_its_fixed_place) {
    hand_over_named("first");
    auto const traces = take_traces();
    ASSERT_EQ(traces.size(), 1U);
    EXPECT_EQ(traces[0].letter, 'T');
    EXPECT_EQ(traces[0].token, "first");
    EXPECT_EQ(traces[0].file, text("file_public"));
    EXPECT_EQ(traces[0].line, side.hand_over_line);
    EXPECT_EQ(traces[0].text, text(side.handed_over));
}

TEST_P(stream_hand_over, stamps_the_connection_with_the_clock) {
    set_clock(0x1234567890UL);
    hand_over_named("first");
    EXPECT_EQ(rec->send_clock, 0x1234567890UL);
}

TEST_P(stream_hand_over, starts_an_idle_queue_at_the_packets_own_header) {
    set_header_size(96);
    Zolt::struct_token token = hand_over_named("first", {.data = {1, 2}});
    EXPECT_THAT(queued(), ElementsAre("first"));
    expect_cursor(token.get_header_packet()->get_header(), 96, true);
    EXPECT_TRUE(rec->send_armed);
}

TEST_P(stream_hand_over, has_queued_and_flagged_the_packet_when_it_arms) {
    system.on("epoll_ctl", [&](system_call const& call) {
        EXPECT_THAT(queued(), ElementsAre("first"));
        EXPECT_TRUE(rec->sending);
        EXPECT_EQ(call.locks, (lines{side.registry_lock, "rec.send_lock"}));
    });
    hand_over_named("first");
    EXPECT_EQ(system.count("epoll_ctl"), 1U);
}

TEST_P(stream_hand_over, of_what_would_be_dropped_behind_others_is_sent_when_the_queue_is_idle) {
    hand_over_named("first", packet_of(side.dropped_while_busy));
    EXPECT_EQ(serve_writes(), 1);
    EXPECT_TRUE(read_packet(read_bytes(connection->peer, header_size())).*side.dropped_while_busy);
}

TEST_P(stream_hand_over, whose_arming_fails_is_printed_and_stays_queued) {
    system.fail("epoll_ctl", 1, ENOENT);
    expect_error(text("send_request_failed"));
    Zolt::struct_token token = hand_over_named("first");
    EXPECT_THAT(queued(), ElementsAre("first"));
    expect_cursor(token.get_header_packet()->get_header(), header_size(), true);
    EXPECT_FALSE(rec->send_armed);
    EXPECT_EQ(system.count("epoll_ctl"), 1U) << "tried again";
    expect_silence();
}

TEST_P(stream_hand_over, of_a_call_or_signal_keeps_its_header_on_the_side_that_waits_for_acknowledgements) {
    for (auto const kind : {&packet_fields::call, &packet_fields::signal}) {
        Zolt::struct_token token = hand_over_named("asking", packet_of(kind, {1}));
        EXPECT_EQ(rec->ack_q.size(), side.keeps_calls ? 1U : 0U);
        EXPECT_EQ(header_references(token), side.keeps_calls ? 2 : 1);
        EXPECT_EQ(data_references(token), 1);
        EXPECT_EQ(serve_writes(), 2);
        for (Zolt::struct_token& waiting : std::exchange(rec->ack_q, {})) {
            waiting.free_header();
        }
    }
}

TEST_P(stream_hand_over, asks_for_the_acknowledgement_under_both_locks_or_never) {
    hand_over_named("asking", {.call = true});
    std::vector<lines> held;
    for (journal_entry const& entry : journal_entries(about::engine)) {
        EXPECT_EQ(entry.name, "EPoll::wait_ack");
        held.push_back(entry.locks);
    }
    if (side.keeps_calls) {
        EXPECT_THAT(held, ElementsAre(lines{side.registry_lock, "rec.send_lock"}));
    } else {
        EXPECT_THAT(held, IsEmpty());
        EXPECT_EQ(journal_count("set_header"), 0U);
    }
}

class stream_busy : public on_both_sides<busy_fixture> {};
INSTANTIATE_TEST_SUITE_P(sides, stream_busy, each_side(), name_of_row<stream_side>);

TEST_P(stream_busy, a_packet_joins_the_end_and_nothing_is_armed_or_kept_for_acknowledgement) {
    unsigned char const* const at = rec->send_ptr;
    hand_over_named("second", {.call = true});
    EXPECT_THAT(queued(), ElementsAre("front", "second"));
    expect_cursor(at, header_size(), true);
    EXPECT_EQ(armings(EPoll::epoll_tcp_send), 0U);
    EXPECT_EQ(journal_count("EPoll::wait_ack"), 0U);
    EXPECT_THAT(rec->ack_q, IsEmpty());
}

TEST_P(stream_busy, the_packets_that_the_side_drops_are_freed_and_answered_with_0) {
    Zolt::struct_token const token = hand_over_named("dropped", packet_of(side.dropped_while_busy, {1, 2}));
    EXPECT_FALSE(is_live(token));
    EXPECT_EQ(count_ledger(), (ledger_counts{1, 0, 1})) << "more than what is in front";
    EXPECT_THAT(queued(), ElementsAre("front"));
    EXPECT_EQ(armings(EPoll::epoll_tcp_send), 0U);
}

TEST_P(stream_busy, the_packets_that_the_other_side_drops_are_queued) {
    hand_over_named("second", packet_of(side.queued_while_busy));
    EXPECT_THAT(queued(), ElementsAre("front", "second"));
}

// --- one write -------------------------------------------------------------------------------------------------

class stream_write : public on_both_sides<send_fixture> {};
INSTANTIATE_TEST_SUITE_P(sides, stream_write, each_side(), name_of_row<stream_side>);

TEST_P(stream_write, one_event_is_one_write_without_flags_and_a_flush_and_the_next_arming) {
    hand_over_named("first", {.data = {1, 2, 3}});
    start_over();
    std::string const trace = traced('E', "first", "sending");
    write();
    EXPECT_EQ(story(c_in_order | about::trace),
              (lines{"rec.send_lock.lock", trace, sent(64), c_flushed, armed_for_writing(), "rec.send_lock.unlock"}));
    start_over();
    write();
    EXPECT_EQ(story(c_in_order | about::trace),
              (lines{"rec.send_lock.lock", trace, sent(3), c_flushed, "first.free()", "rec.send_lock.unlock"}));
}

TEST_P(stream_write, the_header_is_followed_by_the_packets_own_data_and_then_by_rest) {
    set_header_size(80);
    Zolt::struct_token token = hand_over_named("first", {.data = {1, 2, 3}});
    write();
    expect_cursor(token.get_data(), 3, false);
    EXPECT_TRUE(rec->send_armed);
    write();
    EXPECT_FALSE(is_live(token));
    expect_at_rest({});
    expect_silence();
}

TEST_P(stream_write, the_peer_reads_header_and_data_with_the_gate_port_as_source) {
    packet_fields packet{.src_port = 1, .sequence = 9, .data = {1, 2, 3}};
    hand_over_named("first", packet);
    EXPECT_EQ(serve_writes(), 2);
    packet.src_port = c_gate_port;
    EXPECT_EQ(read_bytes(connection->peer, header_size() + 3), packet_bytes(packet));
}

TEST_P(stream_write, nothing_is_copied_on_the_way) {
    Zolt::struct_token token = hand_over_named("first", {.data = {1, 2, 3}});
    system.on("send", [&](system_call const&) {
        token.get_header_packet()->get_header()[50] = 0x77;
        token.get_data()[1] = 0x88;
    });
    EXPECT_EQ(serve_writes(), 2);
    bytes const received = read_bytes(connection->peer, header_size() + 3);
    EXPECT_EQ(received.at(50), 0x77) << "changed between the hand-over and the write";
    EXPECT_EQ((bytes{received.end() - 3, received.end()}), (bytes{1, 0x88, 3}));
}

TEST_P(stream_write, a_partial_one_goes_on_where_it_stopped) {
    Zolt::struct_token token = hand_over_named("first");
    unsigned char const* const header = token.get_header_packet()->get_header();
    start_over();
    system.cap("send", 1, 10);
    set_clock(200000);
    write();
    expect_cursor(header + 10, header_size() - 10, true);
    EXPECT_EQ(rec->send_clock, 200000U);
    EXPECT_TRUE(rec->send_armed);
    write();
    EXPECT_EQ(story(about::system), (lines{sent(64), c_flushed, armed_for_writing(), sent(54), c_flushed}));
    EXPECT_EQ(read_bytes(connection->peer, header_size()), packet_bytes({.src_port = c_gate_port}));
}

TEST_P(stream_write, a_partial_one_of_data_goes_on_where_it_stopped) {
    Zolt::struct_token token = hand_over_named("first", {.data = {1, 2, 3, 4, 5}});
    write();
    system.cap("send", 1, 2);
    write();
    expect_cursor(token.get_data() + 2, 3, false);
    EXPECT_EQ(serve_writes(), 1);
    EXPECT_EQ(read_packet(read_bytes(connection->peer, header_size() + 5)).data, (bytes{1, 2, 3, 4, 5}));
}

TEST_P(stream_write, each_event_is_traced_with_the_packet_in_front_whatever_is_written) {
    hand_over_named("first", {.data = {1}});
    EPoll::start_or_queue_close_marker(rec);
    start_over();
    system.cap("send", 1, 10);
    for (int event = 0; event < 4; ++event) {
        write();
    }
    auto traces = take_traces();
    std::erase_if(traces, [](trace_line const& trace) { return trace.text != text("sending"); });
    lines tokens;
    for (trace_line const& trace : traces) {
        EXPECT_EQ(trace.letter, 'E');
        EXPECT_EQ(trace.file, text(side.sending_file));
        EXPECT_EQ(trace.line, side.sending_line);
        EXPECT_EQ(trace.locks, (lines{"rec.send_lock"}));
        tokens.push_back(trace.token);
    }
    EXPECT_THAT(tokens, ElementsAre("first", "first", "first", "no token"));
}

TEST_P(stream_write, an_event_that_finds_the_queue_empty_ends_the_writing_and_does_nothing_else) {
    rec->sending = true;
    rec->send_armed = true;
    EXPECT_EQ(side.write(rec), 0);
    expect_at_rest({});
    EXPECT_EQ(story(c_in_order | about::trace), (lines{"rec.send_lock.lock", "rec.send_lock.unlock"}));
    EXPECT_FALSE(connection->is_gone());
}

// --- packets that are a header alone ---------------------------------------------------------------------------

struct bare_packet {
    std::string name;
    packet_fields packet;
    bool announces_nothing = false; ///< the data part is there, the header says that it is empty
};

void PrintTo(bare_packet const& packet, std::ostream* out) {
    *out << packet.name;
}

class stream_bare : public on_both_sides_with<send_fixture, bare_packet> {};
INSTANTIATE_TEST_SUITE_P(
    sides, stream_bare,
    ::testing::Combine(each_side(),
                       ::testing::Values(bare_packet{"no_data", {}},
                                         bare_packet{"data_announced_and_absent", {.data_size = 9}},
                                         bare_packet{"data_present_and_not_announced", {.data = {1, 2, 3}}, true})),
    name_of_both<bare_packet>);

TEST_P(stream_bare, is_complete_and_freed_after_its_header) {
    Zolt::struct_token token = make_named("bare", given().packet);
    if (given().announces_nothing) {
        token.get_header_packet()->set_data_size(0);
    }
    EXPECT_EQ(hand_over(token), 0);
    EXPECT_EQ(serve_writes(), 1);
    EXPECT_FALSE(is_live(token));
    expect_at_rest({});
    EXPECT_EQ(read_bytes(connection->peer, header_size()).size(), header_size());
    EXPECT_EQ(count_ledger(), ledger_counts{});
}

// --- arming inside a packet ------------------------------------------------------------------------------------

TEST_P(stream_write, an_arming_within_a_piece_that_fails_is_printed_and_not_tried_again) {
    Zolt::struct_token token = hand_over_named("first");
    system.cap("send", 1, 10);
    system.fail("epoll_ctl", 1, ENOENT);
    expect_error(text("send_arm_failed"));
    write();
    expect_cursor(token.get_header_packet()->get_header() + 10, header_size() - 10, true);
    EXPECT_FALSE(rec->send_armed);
    EXPECT_THAT(queued(), ElementsAre("first"));
}

TEST_P(stream_write, an_arming_for_the_data_that_fails_is_printed_and_not_tried_again) {
    Zolt::struct_token token = hand_over_named("first", {.data = {1, 2}});
    system.fail("epoll_ctl", 1, ENOENT);
    expect_error(text("send_request_failed"));
    write();
    expect_cursor(token.get_data(), 2, false);
    EXPECT_FALSE(rec->send_armed);
    EXPECT_EQ(armings(EPoll::epoll_tcp_send), 2U);
}

TEST_P(stream_busy, an_arming_for_the_next_packet_that_fails_is_printed_and_not_tried_again) {
    Zolt::struct_token second = hand_over_named("second");
    system.fail("epoll_ctl", 1, ENOENT);
    expect_error(text("send_request_failed"));
    write();
    expect_cursor(second.get_header_packet()->get_header(), header_size(), true);
    EXPECT_FALSE(rec->send_armed);
    EXPECT_THAT(queued(), ElementsAre("second"));
    EXPECT_EQ(armings(EPoll::epoll_tcp_send), 1U);
}

// --- from one packet to the next -------------------------------------------------------------------------------

TEST_P(stream_busy, the_next_packet_is_begun_when_the_one_in_front_is_written) {
    Zolt::struct_token second = hand_over_named("second", {.call = true, .data = {1}});
    start_over();
    write();
    EXPECT_FALSE(is_live(front));
    expect_cursor(second.get_header_packet()->get_header(), header_size(), true);
    EXPECT_TRUE(rec->send_armed);
    lines const kept{"no token.set_header(second)", "rec.ack_lock.lock", "rec.ack_lock.unlock"};
    EXPECT_EQ(story(c_in_order), joined({{"rec.send_lock.lock", sent(64), c_flushed, "front.free()"},
                                         side.keeps_calls ? kept : lines{},
                                         {armed_for_writing(), "rec.send_lock.unlock"}}));
}

TEST_P(stream_busy, a_call_is_kept_for_its_acknowledgement_once_and_at_its_turn) {
    Zolt::struct_token const second = hand_over_named("second", {.call = true});
    hand_over_named("third");
    write();
    EXPECT_EQ(rec->ack_q.size(), side.keeps_calls ? 1U : 0U);
    EXPECT_EQ(header_references(second), side.keeps_calls ? 2 : 1);
    EXPECT_EQ(serve_writes(), 2);
    EXPECT_EQ(rec->ack_q.size(), side.keeps_calls ? 1U : 0U) << "the third asks for none";
}

TEST_P(stream_busy, packets_of_every_origin_are_written_in_the_order_of_the_queue) {
    EPoll::heartbeat_token = make_named("heartbeat", {.heartbeat = true, .sequence = 1});
    EPoll::heartbeat_pkt = EPoll::heartbeat_token.get_header_packet();
    EXPECT_EQ(EPoll::request_send_hearbeat(rec), 0);
    queue(make_named("acknowledgement", {.call_ack = true, .sequence = 2}));
    hand_over_named("of_the_center", {.sequence = 3, .data = {4, 5}});
    EXPECT_EQ(EPoll::request_send_hearbeat(rec), 0);
    EXPECT_EQ(serve_writes(), 6);
    EXPECT_EQ(system.count("send"), 6U);
    bytes const expected = stream_of({{.src_port = c_gate_port},
                                      {.heartbeat = true, .sequence = 1},
                                      {.call_ack = true, .sequence = 2},
                                      {.src_port = c_gate_port, .sequence = 3, .data = {4, 5}},
                                      {.heartbeat = true, .sequence = 1}});
    EXPECT_EQ(read_bytes(connection->peer, expected.size()), expected);
    EPoll::heartbeat_token.free();
}

// --- a write that fails ----------------------------------------------------------------------------------------

struct write_failure {
    std::string name;
    int error; ///< 0: nothing was written
};

void PrintTo(write_failure const& failure, std::ostream* out) {
    *out << failure.name;
}

class stream_write_failure : public on_both_sides_with<busy_fixture, write_failure> {
protected:
    void fail_next_write() {
        given().error == 0 ? system.answer("send", 1, 0) : system.fail("send", 1, given().error);
        write();
    }
};

INSTANTIATE_TEST_SUITE_P(pin_sides, stream_write_failure,
                         ::testing::Combine(each_side(), ::testing::Values(write_failure{"nothing", 0},
                                                                           write_failure{"broken", EPIPE},
                                                                           write_failure{"reset", ECONNRESET},
                                                                           write_failure{"would_block", EAGAIN},
                                                                           write_failure{"interrupted", EINTR})),
                         name_of_both<write_failure>);

TEST_P(stream_write_failure, leaves_everything_as_it_is_and_the_queue_at_rest) {
    unsigned char const* const at = rec->send_ptr;
    std::uint64_t const stamped = rec->send_clock;
    set_clock(200000);
    fail_next_write();
    EXPECT_EQ(story(c_in_order), (lines{"rec.send_lock.lock", sent(64), c_flushed, "rec.send_lock.unlock"}));
    expect_at_rest({"front"});
    EXPECT_TRUE(is_live(front));
    EXPECT_EQ(rec->send_ptr, at);
    EXPECT_EQ(rec->send_remain, header_size());
    EXPECT_EQ(rec->send_clock, stamped);
    EXPECT_FALSE(connection->is_gone());
    expect_silence();
}

TEST_P(stream_write_failure, lets_later_packets_queue_that_are_never_written) {
    fail_next_write();
    hand_over_named("second");
    hand_over_named("third");
    expect_at_rest({"front", "second", "third"});
    EXPECT_EQ(armings(EPoll::epoll_tcp_send), 0U);
    expect_silence();
    EXPECT_EQ(system.count("send"), 1U);
}

// --- the close marker ------------------------------------------------------------------------------------------

TEST_P(stream_write, the_marker_shuts_the_write_side_and_only_the_accepting_side_deletes) {
    EPoll::start_or_queue_close_marker(rec);
    std::uint32_t const ip = rec->remote_ip;
    start_over();
    write();
    lines const steps = story(c_in_order);
    ASSERT_GE(steps.size(), 3U);
    EXPECT_EQ((lines{steps.begin(), steps.begin() + 3}),
              (lines{"rec.send_lock.lock", "shutdown(rec.fd, SHUT_WR)", "rec.send_lock.unlock"}));
    EXPECT_TRUE(is_closed_by_peer(connection->peer));
    EXPECT_EQ(connection->is_gone(), side.marker_deletes);
    if (!side.marker_deletes) {
        EXPECT_EQ(steps.size(), 3U);
        expect_at_rest({});
        return;
    }
    auto const deleted = take_traces().back();
    EXPECT_EQ(deleted.text, text("deleted"));
    EXPECT_THAT(deleted.arguments, ElementsAre(text("deleted_server"), std::string(Tesk::INet::str_from_ip(ip))));
    EXPECT_THAT(deleted.locks, IsEmpty());
}

TEST_P(stream_busy, the_marker_is_met_after_the_packets_before_it) {
    hand_over_named("second", {.data = {1}});
    EPoll::start_or_queue_close_marker(rec);
    start_over();
    write();
    write();
    write();
    EXPECT_EQ(rec->send_ptr, nullptr);
    EXPECT_EQ(rec->send_q.size(), 1U);
    EXPECT_EQ(story(about::system), (lines{sent(64), c_flushed, armed_for_writing(), sent(64), c_flushed,
                                           armed_for_writing(), sent(1), c_flushed, armed_for_writing()}));
    EXPECT_EQ(serve_writes(), 1);
    EXPECT_EQ(system.count("shutdown"), 1U);
    EXPECT_EQ(connection->is_gone(), side.marker_deletes);
    EXPECT_EQ(read_bytes(connection->peer, 2 * header_size() + 2).size(), 2 * header_size() + 1U);
}

TEST_P(stream_busy, a_marker_that_cannot_be_armed_is_printed_and_stays) {
    EPoll::start_or_queue_close_marker(rec);
    system.fail("epoll_ctl", 1, ENOENT);
    expect_error(text("send_request_failed"));
    write();
    EXPECT_EQ(rec->send_ptr, nullptr);
    EXPECT_FALSE(rec->send_armed);
    EXPECT_EQ(rec->send_q.size(), 1U);
    EXPECT_EQ(system.count("shutdown"), 0U);
}

// --- a connection that the receive thread has given up ---------------------------------------------------------

class stream_doomed : public on_both_sides<busy_fixture> {
protected:
    void SetUp() override {
        busy_fixture::SetUp();
        rec->doomed = true;
    }

    /// The record is gone, and those packets came back as errors, in that order.
    void expect_gone_with(std::vector<std::uint32_t> const& returned) {
        EXPECT_TRUE(connection->is_gone());
        EXPECT_TRUE(side.registry->empty());
        std::vector<std::uint32_t> sequences;
        for (center_offer const& offer : take_offers()) {
            EXPECT_EQ(offer.packet.error, Zolt::c_zolt_err_not_connected_tcp);
            EXPECT_THAT(offer.data, IsEmpty());
            sequences.push_back(offer.packet.sequence);
        }
        EXPECT_EQ(sequences, returned);
    }
};

INSTANTIATE_TEST_SUITE_P(sides, stream_doomed, each_side(), name_of_row<stream_side>);

TEST_P(stream_doomed, is_destroyed_when_its_queue_is_written) {
    hand_over_named("second", {.data = {1}});
    EXPECT_EQ(serve_writes(), 3);
    expect_gone_with({});
    EXPECT_EQ(system.count("send"), 3U);
}

TEST_P(stream_doomed, lives_while_an_event_is_due) {
    system.cap("send", 1, 10);
    write();
    EXPECT_FALSE(connection->is_gone());
    EXPECT_EQ(serve_writes(), 1);
    expect_gone_with({});
}

TEST_P(stream_doomed, is_destroyed_when_a_write_fails_and_its_packets_come_back) {
    hand_over_named("second", {.sequence = 2, .data = {1}});
    system.fail("send", 1, EPIPE);
    write();
    expect_gone_with({0, 2});
}

TEST_P(stream_doomed, is_destroyed_when_it_cannot_be_armed) {
    system.cap("send", 1, 10);
    system.fail("epoll_ctl", 1, ENOENT);
    expect_error(text("send_arm_failed"));
    write();
    expect_gone_with({0});
}

TEST_P(stream_doomed, is_not_written_again_when_its_queue_had_come_to_rest) {
    rec->sending = false;
    write();
    expect_gone_with({0});
    EXPECT_EQ(system.count("send"), 0U);
    EXPECT_EQ(journal_count("thread_yield"), 0U);
}

// --- a destination that the Center withdraws -------------------------------------------------------------------

class withdrawn_connection : public send_fixture {
protected:
    withdrawn_connection() : send_fixture(outgoing_side()) {}

    void SetUp() override {
        send_fixture::SetUp();
        EPoll::g_remote_server_map[EPoll::peer_of(rec)] = 1;
    }

    void withdraw() {
        start_over();
        EXPECT_EQ(INet_Relay::del_client(rec->remote_ip, rec->remote_port), 0);
        EXPECT_TRUE(rec->close_requested);
    }
};

TEST_F(withdrawn_connection, closes_after_what_is_being_written) {
    hand_over_named("front");
    withdraw();
    EXPECT_EQ(story(about::system), lines{});
    EXPECT_EQ(serve_writes(), 2);
    EXPECT_EQ(story(about::system), (lines{sent(64), c_flushed, armed_for_writing(), "shutdown(rec.fd, SHUT_WR)"}));
}

TEST_F(withdrawn_connection, shuts_the_write_side_at_once_when_the_queue_is_at_rest) {
    hand_over_named("front");
    system.fail("send", 1, EPIPE);
    write();
    withdraw();
    EXPECT_EQ(story(about::system), (lines{"shutdown(rec.fd, SHUT_WR)"}));
    EXPECT_THAT(queued(), ElementsAre("front", "no token"));
    EXPECT_TRUE(is_closed_by_peer(connection->peer));
}

TEST_F(withdrawn_connection, during_the_exchange_closes_as_soon_as_the_connection_is_established) {
    rec->kind = EPoll::c_kind_connecting;
    rec->phase = EPoll::outgoing_phase::connecting;
    EPoll::g_connect_map.swap(EPoll::g_establish_client_map);
    withdraw();
    EXPECT_EQ(story(about::system), lines{});
    rec->recv_remain = sizeof(Zolt::struct_tcp_header);
    write_bytes(connection->peer, bytes(sizeof(Zolt::struct_tcp_header)));
    EXPECT_EQ(EPoll::recv_client_init(rec), 0);
    EXPECT_EQ(story(about::system), (lines{"recv(rec.fd, 1024, 0)", armed_for_reading(), armed_for_writing()}));
    EXPECT_EQ(serve_writes(), 1);
    EXPECT_TRUE(is_closed_by_peer(connection->peer));
}

// --- a peer that does not read ---------------------------------------------------------------------------------

class stream_slow_peer : public on_both_sides<send_fixture> {
protected:
    void SetUp() override {
        send_fixture::SetUp();
        EPoll::bound_writes(rec->fd);
        int const small = 32768;
        for (auto const& [socket, option] :
             {std::pair{rec->fd, SO_SNDBUF}, std::pair{connection->peer.get(), SO_RCVBUF}}) {
            EXPECT_EQ(__real_setsockopt(socket, SOL_SOCKET, option, &small, sizeof small), 0);
        }
    }

    /// Bytes of the socket that the request counts.
    int count_bytes(unsigned long request) const {
        int count = 0;
        EXPECT_EQ(::ioctl(rec->fd, request, &count), 0);
        return count;
    }

    /// Writes until the peer has no room and nothing is on its way to it any more.
    void write_until_stuck() {
        auto const is_stuck = [this] {
            int const waiting = count_bytes(SIOCOUTQNSD);
            return waiting > 0 && waiting == count_bytes(SIOCOUTQ);
        };
        int looks = 0;
        do {
            serve_writes();
            ::poll(nullptr, 0, 1);
        } while (!is_stuck() && ++looks < 10000);
        EXPECT_TRUE(is_stuck());
        serve_writes();
    }

    /// What has arrived and not been read.
    bytes read_now() {
        bytes part(65536);
        ssize_t const count = __real_recv(connection->peer.get(), part.data(), part.size(), MSG_DONTWAIT);
        part.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        return part;
    }
};

INSTANTIATE_TEST_SUITE_P(sides, stream_slow_peer, each_side(), name_of_row<stream_side>);

TEST_P(stream_slow_peer, holds_up_no_thread_and_no_other_connection) {
    hand_over_named("large", {.data = bytes(1 << 18)});
    write_until_stuck();
    EXPECT_GT(rec->send_remain, 0U);
    EXPECT_TRUE(rec->sending);
    EXPECT_TRUE(rec->send_armed);
    stream_connection& other = connect("other", {c_remote_ip, 9001}, 7002);
    Zolt::struct_token token = make_token({.sequence = 3});
    EXPECT_EQ(side.hand_over({c_remote_ip, 9001}, token, token.get_header_packet()), 0);
    EXPECT_EQ(serve_writes(), 1);
    EXPECT_EQ(read_packet(read_bytes(other.peer, header_size())).sequence, 3U);
}

TEST_P(stream_slow_peer, gets_everything_once_it_reads) {
    bytes data(1 << 18);
    for (std::size_t at = 0; at < data.size(); ++at) {
        data[at] = static_cast<unsigned char>(at / 3);
    }
    hand_over_named("large", {.data = data});
    bytes received;
    for (int wait = 0; received.size() < header_size() + data.size() && wait < 10000; ++wait) {
        serve_writes();
        pollfd readable{connection->peer.get(), POLLIN, 0};
        ::poll(&readable, 1, 1);
        bytes const part = read_now();
        received.insert(received.end(), part.begin(), part.end());
    }
    EXPECT_EQ(received, packet_bytes({.src_port = c_gate_port, .data = data}));
    serve_writes();
    expect_at_rest({});
}

// --- broadcast -------------------------------------------------------------------------------------------------

class broadcasting : public send_fixture {
protected:
    broadcasting() : send_fixture(accepting_side()) {}

    /// Broadcasts a packet that stays the caller's, which frees it.
    void broadcast(packet_fields fields) {
        caller = make_named("caller", std::move(fields));
        broadcast_again();
    }

    void broadcast_again() {
        start_over();
        EXPECT_EQ(INet_Relay::send_tcp_broadcast(caller, caller.get_header_packet()), 0);
    }

    void TearDown() override {
        EXPECT_TRUE(is_live(caller));
        EXPECT_EQ(header_references(caller), 1);
        caller.free();
        send_fixture::TearDown();
    }

    Zolt::struct_token caller;
};

TEST_F(broadcasting, without_an_accepted_connection_does_nothing) {
    side.registry->clear();
    broadcast({.data = {1}});
    EXPECT_EQ(story(c_in_order | about::trace | about::clock),
              (lines{"g_establish_server_map_lock.lock", "g_establish_server_map_lock.unlock"}));
}

TEST_F(broadcasting, copies_the_header_shares_the_data_addresses_and_arms_in_this_order) {
    broadcast({.dst_id = 77, .data = {1}});
    EXPECT_EQ(story(c_in_order | about::trace | about::clock | about::engine),
              (lines{"g_establish_server_map_lock.lock", "token#2.alloc_header_force()", "token#2.set_data(caller)",
                     "header#2.operator=(caller)",
                     "header#2." + call_text("set_destination", hex(c_remote_ip), unsigned{c_remote_port}, 77U),
                     "header#2.set_src_port(7001)", traced('T', "token#2", "broadcast"), "rec.send_lock.lock",
                     armed_for_writing(), "rec.send_lock.unlock", "g_establish_server_map_lock.unlock"}));
}

TEST_F(broadcasting, is_traced_with_its_fixed_place) {
    broadcast({});
    auto const traces = take_traces();
    ASSERT_EQ(traces.size(), 1U);
    EXPECT_EQ(traces[0].letter, 'T');
    EXPECT_EQ(traces[0].token, "token#2");
    EXPECT_EQ(traces[0].file, text("file_public"));
    EXPECT_EQ(traces[0].line, 562);
    EXPECT_EQ(traces[0].text, text("broadcast"));
}

TEST_F(broadcasting, starts_an_idle_queue_and_leaves_the_clock_alone) {
    std::uint64_t const stamped = rec->send_clock;
    advance_clock(50);
    broadcast({.data = {1}});
    ASSERT_EQ(rec->send_q.size(), 1U);
    expect_cursor(rec->send_q.front().get_header_packet()->get_header(), header_size(), true);
    EXPECT_TRUE(rec->send_armed);
    EXPECT_EQ(rec->send_clock, stamped);
}

TEST_F(broadcasting, reaches_each_accepted_connection_in_the_order_of_ports_then_addresses) {
    stream_connection& late = connect("late", {c_remote_ip + 1, c_remote_port}, 7003);
    stream_connection& early = connect("early", {0xFF0000FF, 8000}, 7002);
    broadcast({.src_port = 1, .dst_id = 5, .sequence = 9, .data = {1, 2}});
    EXPECT_EQ(story(about::system),
              (lines{armed_for_writing("early"), armed_for_writing(), armed_for_writing("late")}));
    EXPECT_EQ(data_references(caller), 4);
    EXPECT_EQ(serve_writes(), 6);
    EXPECT_EQ(data_references(caller), 1);
    for (stream_connection const* const reached : {&early, connection, &late}) {
        packet_fields const expected{.src_port = reached->rec->gate_port,
                                     .dst_ip = reached->rec->remote_ip,
                                     .dst_port = reached->rec->remote_port,
                                     .dst_id = 5,
                                     .sequence = 9,
                                     .data = {1, 2}};
        EXPECT_EQ(read_bytes(reached->peer, header_size() + 2), packet_bytes(expected));
    }
    EXPECT_EQ(fields_of(caller).src_port, 1) << "the caller's own packet was addressed";
}

TEST_F(broadcasting, holds_the_registry_and_takes_one_connection_after_the_other) {
    connect("late", {c_remote_ip, c_remote_port + 1}, 7003);
    broadcast({});
    EXPECT_EQ(story(about::lock),
              (lines{"g_establish_server_map_lock.lock", "rec.send_lock.lock", "rec.send_lock.unlock",
                     "late.send_lock.lock", "late.send_lock.unlock", "g_establish_server_map_lock.unlock"}));
}

TEST_F(broadcasting, joins_a_busy_queue_without_arming) {
    hand_over_named("front");
    broadcast({});
    EXPECT_EQ(rec->send_q.size(), 2U);
    EXPECT_EQ(armings(EPoll::epoll_tcp_send), 0U);
    EXPECT_EQ(token_name(rec->send_q.front()), "front");
}

TEST_F(broadcasting, that_cannot_arm_one_connection_prints_it_and_goes_on) {
    stream_connection& late = connect("late", {c_remote_ip, c_remote_port + 1}, 7003);
    system.fail("epoll_ctl", 1, ENOENT);
    expect_error(text("send_request_failed"));
    broadcast({});
    EXPECT_EQ(rec->send_q.size(), 1U);
    EXPECT_FALSE(rec->send_armed);
    EXPECT_TRUE(late.rec->send_armed);
}

TEST_F(broadcasting, never_reaches_outgoing_connections) {
    auto* const outgoing = make_tcp(EPoll::c_kind_established_client, -1, "outgoing");
    keep(outgoing);
    EPoll::g_establish_client_map.emplace(EPoll::peer_of(outgoing), outgoing);
    broadcast({});
    EXPECT_THAT(outgoing->send_q, IsEmpty());
    EXPECT_EQ(story(about::system), (lines{armed_for_writing()}));
}

// --- deliberate oddities ---------------------------------------------------------------------------------------

class stream_send_oddities : public on_both_sides<send_fixture> {};
INSTANTIATE_TEST_SUITE_P(pin_sides, stream_send_oddities, each_side(), name_of_row<stream_side>);

TEST_P(stream_send_oddities, a_packet_for_a_connection_being_closed_is_neither_queued_nor_freed_on_the_outgoing_side) {
    rec->close_requested = true;
    Zolt::struct_token token = hand_over_named("late");
    EXPECT_EQ(rec->send_q.size(), side.refuses_when_closing ? 0U : 1U);
    EXPECT_EQ(armings(EPoll::epoll_tcp_send), side.refuses_when_closing ? 0U : 1U);
    EXPECT_TRUE(is_live(token));
    EXPECT_EQ(story(about::lock), (lines{side.registry_lock + ".lock", "rec.send_lock.lock", "rec.send_lock.unlock",
                                         side.registry_lock + ".unlock"}));
    if (side.refuses_when_closing) {
        token.free();
    }
}

class pin_broadcasting : public broadcasting {};

TEST_F(pin_broadcasting, drops_nothing_behind_others) {
    hand_over_named("front");
    broadcast({.command_udp = true, .information_udp = true});
    EXPECT_EQ(rec->send_q.size(), 2U);
}

TEST_F(pin_broadcasting, keeps_a_call_for_its_acknowledgement_only_when_it_had_to_wait) {
    broadcast({.call = true});
    EXPECT_EQ(serve_writes(), 1);
    EXPECT_THAT(rec->ack_q, IsEmpty());
    hand_over_named("front");
    broadcast_again();
    EXPECT_THAT(rec->ack_q, IsEmpty());
    EXPECT_EQ(serve_writes(), 2);
    EXPECT_EQ(rec->ack_q.size(), 1U);
}

} // namespace
