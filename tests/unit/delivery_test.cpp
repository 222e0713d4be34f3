// Delivery to the Center: offers and their answers, datagrams, the four connection notices, and what is kept until its
// acknowledgement arrives.
#include "tests/support/relay_fixture.hpp"

#include <cstring>
#include <thread>

namespace {

using namespace relay_test;
using ::testing::AllOf;
using ::testing::Each;
using ::testing::Field;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr int c_unknown_answer = 5;
constexpr unsigned c_outcome = about::packet | about::center | about::pause | about::trace;

lines const c_offered{"send_zolt_center(packet)", "packet.update_packet_time_and_return_timeout()"};
lines const c_refused{"send_zolt_center(packet)", "packet.free()"};
lines const c_slept{"rtsleep(0.01)"};

lines operator+(lines left, lines const& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

lines received() {
    return {"zolt_debug_not_send(t, packet, \"" + text("tcp_received") + "\")"};
}
lines timed_out() {
    return {"zolt_debug_not_send(C, packet, \"" + text("center_timeout") + "\")", "packet.free()"};
}

class delivery : public relay_fixture {
protected:
    /// A packet with data, shown as "packet" in lines.
    Zolt::struct_token make_packet(packet_fields fields = {.sequence = 42, .data = {1, 2, 3}}) {
        auto token = make_token(std::move(fields));
        name_object(token.get_header_packet(), "packet");
        clear_journal();
        return token;
    }

    static int send_center(Zolt::struct_token token) { return EPoll::send_center(token, token.get_header_packet()); }
    static int send_center_from_udp(Zolt::struct_token token) {
        return EPoll::send_center_from_udp(token, token.get_header_packet());
    }
};

// --- one packet, one script of answers -----------------------------------------------------------------------------

struct outcome {
    char const* sentence;
    std::vector<int> answers;
    std::vector<bool> timeouts;
    int result;
    lines (*steps)();
};

void PrintTo(outcome const& shown, std::ostream* out) {
    *out << shown.sentence;
}

outcome const c_outcomes[] = {
    {"a_packet_that_the_center_takes_is_delivered", {c_center_took}, {}, 0, [] { return received() + c_offered; }},
    {"a_refused_packet_is_freed_without_trace_or_time_out_test",
     {c_center_refused},
     {true},
     -1,
     [] { return received() + c_refused; }},
    {"a_busy_center_is_asked_again_after_a_hundredth_of_a_second",
     {c_center_busy, c_center_busy, c_center_took},
     {},
     0,
     [] { return received() + c_offered + c_slept + c_offered + c_slept + c_offered; }},
    {"an_unknown_answer_is_answered_by_another_offer_at_once",
     {c_unknown_answer, -1, c_center_took},
     {},
     0,
     [] { return received() + c_offered + c_offered + c_offered; }},
    {"a_packet_taken_after_its_time_out_counts_as_lost",
     {c_center_took},
     {true},
     -1,
     [] { return received() + c_offered + timed_out(); }},
    {"a_packet_whose_time_out_passes_while_the_center_is_busy_is_dropped",
     {c_center_busy, c_center_busy},
     {false, true},
     -1,
     [] { return received() + c_offered + c_slept + c_offered + timed_out(); }},
    {"a_packet_whose_time_out_passes_during_unknown_answers_is_dropped",
     {c_unknown_answer, c_unknown_answer, c_unknown_answer},
     {false, false, true},
     -1,
     [] { return received() + c_offered + c_offered + c_offered + timed_out(); }},
    {"a_refusal_after_a_busy_answer_ends_the_offers",
     {c_center_busy, c_center_refused},
     {false},
     -1,
     [] { return received() + c_offered + c_slept + c_refused; }},
};

class delivery_outcome : public delivery, public ::testing::WithParamInterface<outcome> {};

TEST_P(delivery_outcome, of) {
    auto const packet = make_packet();
    script_center(GetParam().answers);
    script_timeouts(GetParam().timeouts);
    int result = 0;
    EXPECT_NO_THROW(result = send_center(packet));
    EXPECT_EQ(result, GetParam().result);
    EXPECT_EQ(journal_lines(c_outcome), GetParam().steps());
    EXPECT_THAT(journal_lines(about::lock), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(each, delivery_outcome, ::testing::ValuesIn(c_outcomes),
                         [](auto const& row) { return std::string(row.param.sentence); });

// --- send_center ---------------------------------------------------------------------------------------------------

TEST_F(delivery, traces_stand_at_their_fixed_places) {
    script_center({c_center_busy});
    script_timeouts({true});
    send_center(make_packet());
    auto const traces = take_traces();
    ASSERT_EQ(trace_texts(traces), (lines{"t " + text("tcp_received"), "C " + text("center_timeout")}));
    EXPECT_THAT(traces, Each(AllOf(Field(&trace_line::file, text("file_method")), Field(&trace_line::token, "packet"),
                                   Field(&trace_line::has_header, true), Field(&trace_line::arguments, IsEmpty()))));
    EXPECT_EQ(traces[0].line, 190);
    EXPECT_EQ(traces[1].line, 213);
}

TEST_F(delivery, the_center_sees_header_and_data_as_they_are) {
    send_center(make_packet());
    auto const offers = take_offers();
    ASSERT_THAT(offers, SizeIs(1));
    EXPECT_EQ(offers[0].packet.sequence, 42u);
    EXPECT_EQ(offers[0].data, (bytes{1, 2, 3}));
}

TEST_F(delivery, offers_to_a_busy_center_have_no_limit) {
    constexpr int rounds = 10000;
    std::vector<int> answers(rounds, c_center_busy);
    answers.push_back(c_center_took);
    script_center(answers);
    EXPECT_EQ(send_center(make_packet()), 0);
    EXPECT_THAT(journal_lines(about::center), SizeIs(rounds + 1));
    EXPECT_EQ(journal_lines(about::pause), lines(rounds, "rtsleep(0.01)"));
    EXPECT_EQ(trace_texts(take_traces()), (lines{"t " + text("tcp_received")}));
}

TEST_F(delivery, leaves_the_callers_handle_as_it_was) {
    for (int const answer : {c_center_took, c_center_refused}) {
        auto packet = make_packet();
        auto const before = packet;
        script_center({answer});
        send_center(packet);
        EXPECT_EQ(std::memcmp(&packet, &before, sizeof packet), 0) << answer;
    }
}

TEST_F(delivery, a_packet_that_the_center_took_is_not_freed) {
    auto const packet = make_packet();
    send_center(packet);
    EXPECT_EQ(header_references(packet), 1);
    EXPECT_EQ(data_references(packet), 1);
}

TEST_F(delivery, a_packet_that_is_given_up_is_freed_with_its_data) {
    for (auto const& [answer, is_late] : {std::pair{c_center_refused, false}, std::pair{c_center_busy, true}}) {
        auto const packet = make_packet();
        script_center({answer});
        script_timeouts({is_late});
        send_center(packet);
        EXPECT_FALSE(is_live(packet)) << answer;
        EXPECT_EQ(count_ledger(), ledger_counts{}) << answer;
    }
}

// --- send_center_from_udp ------------------------------------------------------------------------------------------

class delivery_of_datagrams : public delivery, public ::testing::WithParamInterface<int> {};

TEST_P(delivery_of_datagrams, passes_the_one_answer_on_as_it_came_and_frees_what_was_not_taken) {
    auto const packet = make_packet();
    script_center({GetParam()});
    script_timeouts({true});
    EXPECT_EQ(send_center_from_udp(packet), GetParam());
    bool const is_taken = GetParam() == c_center_took;
    EXPECT_EQ(journal_lines(c_outcome),
              is_taken ? (lines{"send_zolt_center(packet)"}) : (lines{"send_zolt_center(packet)", "packet.free()"}));
    EXPECT_EQ(is_live(packet), is_taken);
    EXPECT_THAT(take_traces(), IsEmpty());
    EXPECT_THAT(journal_lines(about::lock), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(answers, delivery_of_datagrams,
                         ::testing::Values(c_center_took, c_center_refused, c_center_busy, c_unknown_answer, -1));

// --- the four notices ----------------------------------------------------------------------------------------------

struct notice {
    char const* sentence;
    int (*tell)(EPoll::struct_epoll_overlapped_tcp*);
    unsigned source_id;
    unsigned destination_id;
    unsigned error;
    char const* setter;
    unsigned event; ///< what a reader of the packet finds
};

void PrintTo(notice const& shown, std::ostream* out) {
    *out << shown.sentence;
}

constexpr unsigned c_stub = Zolt::c_broadcast_stub_id;
constexpr unsigned c_proxy = Zolt::c_broadcast_proxy_id;

notice const c_notices[] = {
    {"connected_to_server", EPoll::eproc_send_connected_to_server_msg_to_center, c_stub, c_proxy, 0,
     "set_tcp_connected_to_server", 1},
    {"disconnected_from_server", EPoll::eproc_send_disconnected_from_server_msg_to_center, c_stub, c_proxy, 0x4000000E,
     "set_tcp_disconnected_from_server", 2},
    {"connected_from_client", EPoll::eproc_send_connected_from_client_msg_to_center, c_proxy, c_stub, 0,
     "set_tcp_connected_from_client", 3},
    {"disconnected_from_client", EPoll::eproc_send_disconnected_from_client_msg_to_center, c_proxy, c_stub, 0x4000000E,
     "set_tcp_disconnected_from_client", 4},
};

class delivery_of_notices : public delivery, public ::testing::WithParamInterface<notice> {
protected:
    void SetUp() override {
        delivery::SetUp();
        rec = make_tcp(EPoll::c_kind_established_client, -1, "rec");
        keep(rec);
        rec->local_ip = 0x0A00000A;
        rec->local_port = 7000;
        rec->gate_port = 7001;
        rec->remote_ip = 0x0B00000B;
        rec->remote_port = 9000;
        set_cpu_clock(123456);
        clear_journal();
    }

    int tell() { return GetParam().tell(rec); }

    EPoll::struct_epoll_overlapped_tcp* rec = nullptr;
};

TEST_P(delivery_of_notices, are_built_in_this_order) {
    EXPECT_EQ(tell(), 0);
    std::string const ids[] = {std::to_string(GetParam().source_id), std::to_string(GetParam().destination_id)};
    EXPECT_EQ(journal_lines(about::packet | about::center),
              (lines{"token#1.alloc_header_force()", "header#1.initialize_packet(0xa00000a, 123456, DBL_MAX)",
                     "header#1.set_source(0xb00000b, 9000, " + ids[0] + ")",
                     "header#1.set_destination(" + hex(Zolt::c_local_host) + ", 7001, " + ids[1] + ")",
                     "header#1.initialize_header(0, 0, 0, 0, " + hex(GetParam().error) + ")",
                     "header#1.set_control_type()", std::string("header#1.") + GetParam().setter + "()",
                     "send_zolt_center(token#1)", "header#1.update_packet_time_and_return_timeout()"}));
}

TEST_P(delivery_of_notices, reach_the_center_as_control_packets_without_data) {
    tell();
    auto const offers = take_offers();
    ASSERT_THAT(offers, SizeIs(1));
    packet_fields const& seen = offers[0].packet;
    EXPECT_TRUE(seen.control);
    EXPECT_EQ(seen.event, GetParam().event);
    EXPECT_EQ(seen.dst_ip, Zolt::c_local_host);
    EXPECT_EQ(seen.dst_port, 7001);
    EXPECT_EQ(seen.error, GetParam().error);
    EXPECT_THAT(offers[0].data, IsEmpty());
}

TEST_P(delivery_of_notices, return_zero_and_are_offered_once_when_refused) {
    script_center({c_center_refused});
    EXPECT_EQ(tell(), 0);
    EXPECT_THAT(take_offers(), SizeIs(1));
}

TEST_P(delivery_of_notices, return_zero_when_their_time_out_passes) {
    script_center({c_center_busy});
    script_timeouts({true});
    EXPECT_EQ(tell(), 0);
    EXPECT_THAT(take_offers(), SizeIs(1));
}

TEST_P(delivery_of_notices, wait_for_a_busy_center) {
    script_center({c_center_busy, c_center_busy});
    EXPECT_EQ(tell(), 0);
    EXPECT_THAT(take_offers(), SizeIs(3));
    EXPECT_EQ(journal_lines(about::pause), lines(2, "rtsleep(0.01)"));
}

TEST_P(delivery_of_notices, take_no_lock_and_leave_the_record_alone) {
    tell();
    EXPECT_THAT(journal_lines(about::lock), IsEmpty());
    EXPECT_EQ(rec->kind, EPoll::c_kind_established_client);
    EXPECT_FALSE(rec->recv_token.has_header());
    EXPECT_TRUE(rec->send_q.empty());
}

INSTANTIATE_TEST_SUITE_P(each, delivery_of_notices, ::testing::ValuesIn(c_notices),
                         [](auto const& row) { return std::string(row.param.sentence); });

// --- wait_ack ------------------------------------------------------------------------------------------------------

class delivery_waiting : public delivery {
protected:
    void SetUp() override {
        delivery::SetUp();
        rec = make_tcp(EPoll::c_kind_established_server, -1, "rec");
        keep(rec);
    }
    void TearDown() override {
        free_waiting();
        delivery::TearDown();
    }

    void wait_ack(Zolt::struct_token& token) { EPoll::wait_ack(rec, token, token.get_header_packet()); }
    void free_waiting() {
        for (Zolt::struct_token& waiting : rec->ack_q) {
            waiting.free();
        }
        rec->ack_q.clear();
    }

    EPoll::struct_epoll_overlapped_tcp* rec = nullptr;
};

TEST_F(delivery_waiting, keeps_nothing_of_a_packet_that_is_neither_call_nor_signal) {
    packet_fields const others[] = {{},
                                    {.heartbeat = true},
                                    {.call_ack = true},
                                    {.signal_ack = true},
                                    {.command_udp = true},
                                    {.information_udp = true},
                                    {.control = true}};
    for (packet_fields const& fields : others) {
        auto packet = make_packet(fields);
        wait_ack(packet);
        EXPECT_TRUE(rec->ack_q.empty());
        EXPECT_EQ(header_references(packet), 1);
        EXPECT_THAT(journal_lines(about::packet | about::lock), IsEmpty());
        packet.free();
    }
}

TEST_F(delivery_waiting, keeps_a_share_of_the_header_of_a_call_or_signal) {
    packet_fields const kept[] = {
        {.call = true, .data = {1}}, {.signal = true, .data = {1}}, {.call = true, .signal = true, .data = {1}}};
    for (packet_fields const& fields : kept) {
        auto packet = make_packet(fields);
        wait_ack(packet);
        ASSERT_THAT(rec->ack_q, SizeIs(1));
        EXPECT_EQ(rec->ack_q[0].get_header_packet(), packet.get_header_packet());
        EXPECT_FALSE(rec->ack_q[0].has_data());
        EXPECT_EQ(header_references(packet), 2);
        EXPECT_EQ(data_references(packet), 1);
        free_waiting();
        EXPECT_EQ(header_references(packet), 1);
        packet.free();
    }
}

TEST_F(delivery_waiting, appends_under_the_ack_lock_and_no_other) {
    auto packet = make_packet({.signal = true});
    wait_ack(packet);
    EXPECT_EQ(journal_lines(about::packet | about::lock),
              (lines{"no token.set_header(packet)", "rec.ack_lock.lock(reference, depth 1)",
                     "rec.ack_lock.unlock(guard, depth 0)"}));
    packet.free();
}

TEST_F(delivery_waiting, may_be_called_under_the_send_lock) {
    auto packet = make_packet({.call = true});
    {
        Tesk::OS::class_locker const guard(rec->send_lock, nullptr);
        wait_ack(packet);
    }
    EXPECT_THAT(rec->ack_q, SizeIs(1));
    packet.free();
}

TEST_F(delivery_waiting, keeps_packets_in_the_order_of_the_calls) {
    for (std::uint32_t sequence = 1; sequence <= 3; ++sequence) {
        auto packet = make_packet({.call = true, .sequence = sequence});
        wait_ack(packet);
        packet.free();
        EXPECT_EQ(fields_of(rec->ack_q.back()).sequence, sequence);
    }
    EXPECT_EQ(fields_of(rec->ack_q.front()).sequence, 1u);
}

TEST_F(delivery_waiting, the_header_outlives_the_packet_that_was_sent) {
    auto packet = make_packet({.call = true, .sequence = 9, .data = {1, 2}});
    wait_ack(packet);
    packet.free();
    EXPECT_EQ(fields_of(rec->ack_q.front()).sequence, 9u);
    EXPECT_EQ(count_ledger().data_parts, 0);
}

TEST_F(delivery_waiting, leaves_the_callers_handle_as_it_was) {
    auto packet = make_packet({.call = true});
    auto const before = packet;
    wait_ack(packet);
    EXPECT_EQ(std::memcmp(&packet, &before, sizeof packet), 0);
    packet.free();
}

TEST_F(delivery_waiting, keeps_what_two_threads_send_at_once) {
    record(false);
    constexpr std::size_t rounds = 500;
    auto const keep_calls = [this] {
        for (std::size_t round = 0; round < rounds; ++round) {
            auto packet = make_token({.call = true});
            wait_ack(packet);
            packet.free();
        }
    };
    std::thread other(keep_calls);
    keep_calls();
    other.join();
    EXPECT_THAT(rec->ack_q, SizeIs(2 * rounds));
}

} // namespace
