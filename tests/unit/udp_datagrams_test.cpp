// Datagrams: one packet each, received for the Center and sent for it.
#include "tests/unit/udp_fixture.hpp"

#include <array>
#include <cerrno>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace {

using namespace relay_test;

constexpr unsigned short c_peer_port = 5555;

bytes plain_packet(bytes data = {}) {
    return packet_bytes({.src_id = 11, .dst_id = 22, .sequence = 33, .data = std::move(data)});
}

bytes resized(bytes datagram, std::size_t size) {
    datagram.resize(size);
    return datagram;
}

bytes of_another_version() {
    return packet_bytes({.version = 8});
}

class udp_receiving : public udp_fixture {
protected:
    void SetUp() override {
        udp_fixture::SetUp();
        rec = open_port();
    }

    /// The next peek and the read after it meet this datagram.
    void datagram_waits(bytes const& datagram) {
        system.deliver("recvfrom", 1, datagram, peer, c_peer_port);
        system.deliver("recvfrom", 2, datagram, peer, c_peer_port);
    }

    /// What the datagram that waits brings the Center.
    center_offer receive(bytes const& datagram) {
        datagram_waits(datagram);
        EXPECT_EQ(EPoll::recv_udp(rec), 0);
        auto const offers = take_offers();
        EXPECT_EQ(offers.size(), 1U);
        return offers.empty() ? center_offer{} : offers[0];
    }

    std::uint32_t const peer = ip("10.20.30.40");
    udp_record* rec = nullptr;
};

// --- receiving: the way of a good datagram -----------------------------------------------------------------------

TEST_F(udp_receiving, a_header_is_prepared_peeked_stamped_read_offered_and_the_socket_armed_again) {
    set_cpu_clock(654321);
    receive(plain_packet());
    EXPECT_EQ(
        journal_lines(about::packet | about::system | about::clock | about::center | about::engine),
        (lines{"EPoll::recv_udp(udp)", "token#1.alloc_header_force()", "header#1.initialize_packet(0x0, 0, DBL_MAX)",
               "header#1.set_source(0x0, 0, 0)", "header#1.set_destination(" + hex(ip("127.0.0.1")) + ", 7000, 0)",
               "recvfrom(udp.fd, 64, MSG_PEEK)", "lemon_cpu_clock()", "header#1.determine_arrival_clock(654321)",
               "header#1.set_src_ip(" + hex(peer) + ")", "header#1.set_mct_ip(" + hex(ip("127.0.0.1")) + ")",
               "recvfrom(udp.fd, 64, MSG_TRUNC)", "EPoll::send_center_from_udp(token#1, packet)",
               "send_zolt_center(token#1)", "token#1.reset()",
               "epoll_ctl(udp_recv, MOD, udp.fd, " + mask_text(0x80000001U) + ", udp)"}));
}

TEST_F(udp_receiving, data_gets_a_part_of_its_size_with_the_header_in_front_between_peek_and_read) {
    receive(plain_packet({1, 2, 3}));
    lines const steps = journal_lines(about::packet | about::system | about::center);
    auto const stamped = std::find(steps.begin(), steps.end(), "recvfrom(udp.fd, 64, MSG_PEEK)") + 4;
    EXPECT_EQ((lines{stamped, steps.end()}),
              (lines{"token#1.alloc_data(3)", "data#1.operator=(header#1)", "recvfrom(udp.fd, 67, MSG_TRUNC)",
                     "send_zolt_center(token#1)", "token#1.reset()",
                     "epoll_ctl(udp_recv, MOD, udp.fd, " + mask_text(0x80000001U) + ", udp)"}));
}

TEST_F(udp_receiving, the_socket_is_armed_again_with_its_mask_and_its_record) {
    receive(plain_packet());
    system_call const armed = system.calls("epoll_ctl").at(0);
    EXPECT_EQ(armed.descriptor, EPoll::epoll_udp_recv);
    EXPECT_EQ(armed.arguments.at(1), EPOLL_CTL_MOD);
    EXPECT_EQ(armed.mask, 0x80000001U);
    EXPECT_EQ(armed.pointer, static_cast<EPoll::struct_epoll_overlapped*>(rec));
}

TEST_F(udp_receiving, a_header_alone_is_delivered_byte_for_byte_without_a_data_part) {
    center_offer const offer = receive(plain_packet());
    EXPECT_EQ(offer.header, plain_packet());
    EXPECT_EQ(offer.data, bytes{});
    EXPECT_EQ(journal_count("alloc_data"), 0U);
    EXPECT_EQ(system.count("recvfrom"), 2U) << "one peek, one read";
}

TEST_F(udp_receiving, data_is_read_in_one_piece_and_delivered) {
    bytes const datagram = plain_packet({9, 8, 7, 6});
    center_offer const offer = receive(datagram);
    EXPECT_EQ(offer.data, (bytes{9, 8, 7, 6}));
    EXPECT_EQ(offer.packet.sequence, 33U);
    auto const reads = system.calls("recvfrom");
    ASSERT_EQ(reads.size(), 2U);
    EXPECT_EQ(reads[1].data, datagram);
}

TEST_F(udp_receiving, the_delivered_header_tells_the_senders_address_and_the_loopback_as_group) {
    center_offer const offer = receive(plain_packet({1}));
    EXPECT_EQ(offer.packet.src_ip, peer);
    EXPECT_EQ(offer.packet.mct_ip, ip("127.0.0.1"));
    EXPECT_EQ(offer.packet.src_id, 11);
    EXPECT_EQ(offer.packet.dst_id, 22);
}

TEST_F(udp_receiving, no_header_size_is_built_in) {
    for (unsigned const size : {48U, 200U}) {
        set_header_size(size);
        EXPECT_EQ(receive(plain_packet()).header, plain_packet());
        EXPECT_EQ(receive(plain_packet({5, 6})).data, (bytes{5, 6}));
    }
}

TEST_F(udp_receiving, the_center_owns_what_it_took_and_the_next_packet_gets_parts_of_its_own) {
    datagram_waits(plain_packet({1}));
    EXPECT_EQ(EPoll::recv_udp(rec), 0);
    EXPECT_FALSE(rec->recv_token.has_header());
    EXPECT_FALSE(rec->recv_token.has_data());
    EXPECT_EQ(count_ledger(), (ledger_counts{1, 1, 1})) << "nothing was freed";
    datagram_waits(plain_packet({2}));
    EXPECT_EQ(EPoll::recv_udp(rec), 0);
    auto const offers = take_offers();
    ASSERT_EQ(offers.size(), 2U);
    EXPECT_NE(offers[0].token, offers[1].token);
    EXPECT_EQ(journal_count("alloc_header_force"), 2U);
}

TEST_F(udp_receiving, the_cursor_stands_at_the_header_and_counts_its_bytes) {
    system.fail("recvfrom", 1, EINTR);
    system.answer("recvfrom", 2, 0);
    expect_error(text("udp_nothing_read"));
    EXPECT_EQ(EPoll::recv_udp(rec), -1);
    EXPECT_EQ(rec->recv_ptr, rec->recv_token.get_header_packet()->get_header());
    EXPECT_EQ(rec->recv_remain, header_size());
}

TEST_F(udp_receiving, no_lock_is_taken) {
    receive(plain_packet({1, 2, 3}));
    EXPECT_EQ(journal_lines(about::lock), lines{});
}

TEST_F(udp_receiving, nothing_is_traced) {
    strict_traces();
    receive(plain_packet({1, 2, 3}));
}

TEST_F(udp_receiving, the_result_is_that_of_arming_again_and_the_packet_is_delivered_all_the_same) {
    datagram_waits(plain_packet());
    system.fail("epoll_ctl", 1, ENOENT);
    EXPECT_EQ(EPoll::recv_udp(rec), -1);
    EXPECT_EQ(take_offers().size(), 1U);
}

// --- receiving: the Center's answers -------------------------------------------------------------------------------

struct center_answer {
    char const* name;
    int answer;
};

void PrintTo(center_answer const& row, std::ostream* out) {
    *out << row.name;
}

class udp_not_taken : public udp_receiving, public testing::WithParamInterface<center_answer> {};

center_answer const c_center_answers[] = {
    {"refused", c_center_refused},
    {"busy", c_center_busy},
    {"unknown", 12345},
};
INSTANTIATE_TEST_SUITE_P(answer, udp_not_taken, testing::ValuesIn(c_center_answers), row_name<center_answer>);

TEST_P(udp_not_taken, the_packet_is_freed_and_not_offered_again) {
    script_center({GetParam().answer});
    receive(plain_packet({1, 2, 3}));
    EXPECT_EQ(count_ledger(), ledger_counts{});
    EXPECT_EQ(journal_lines(about::pause), lines{});
}

TEST_P(udp_not_taken, the_socket_is_armed_again_and_receives_the_next_packet) {
    script_center({GetParam().answer, c_center_took});
    receive(plain_packet({1, 2, 3}));
    EXPECT_EQ(system.calls("epoll_ctl").at(0).mask, 0x80000001U);
    EXPECT_EQ(receive(plain_packet({4})).data, (bytes{4}));
}

// --- receiving: what is dropped ------------------------------------------------------------------------------------

struct dropped_datagram {
    char const* name;
    std::function<void(system_calls&)> meet;
    char const* text; ///< null: dropped without a message
    lines reads;
    allocation room = allocation::works;
};

void PrintTo(dropped_datagram const& row, std::ostream* out) {
    *out << row.name;
}

char const* const c_peek = "recvfrom(udp.fd, 64, MSG_PEEK)";
char const* const c_discard = "recvfrom(udp.fd, 64, 0)";
char const* const c_read_header = "recvfrom(udp.fd, 64, MSG_TRUNC)";
char const* const c_read_all = "recvfrom(udp.fd, 67, MSG_TRUNC)"; ///< with three bytes of data

/// The peek meets the one datagram, the read after it the other.
std::function<void(system_calls&)> meets(bytes const& peeked, bytes const& read) {
    return [=](system_calls& system) {
        system.deliver("recvfrom", 1, peeked);
        system.deliver("recvfrom", 2, read);
    };
}

std::function<void(system_calls&)> meets(bytes const& datagram) {
    return meets(datagram, datagram);
}

/// The nth of the two reads fails with that errno, or finds nothing; before the second the peek found data.
std::function<void(system_calls&)> meets_nothing(int nth, int error = 0) {
    return [=](system_calls& system) {
        if (nth == 2) {
            system.deliver("recvfrom", 1, plain_packet({1, 2, 3}));
        }
        if (error != 0) {
            system.fail("recvfrom", nth, error);
        }
        system.answer("recvfrom", nth, 0);
        system.answer("recvfrom", nth + 1, 0);
    };
}

class udp_dropped : public udp_receiving, public testing::WithParamInterface<dropped_datagram> {
protected:
    void receive_and_drop() {
        dropped_datagram const& row = GetParam();
        row.meet(system);
        script_alloc_data({row.room});
        if (row.text != nullptr) {
            expect_error(text(row.text));
        }
        EXPECT_EQ(EPoll::recv_udp(rec), row.text == nullptr ? 0 : -1);
        system.forget_scripts();
    }
};

bytes const c_three_bytes = plain_packet({1, 2, 3});

dropped_datagram const c_dropped_datagrams[] = {
    {"the_peek_fails", meets_nothing(1, ENETDOWN), "udp_nothing_read", {c_peek}},
    {"the_peek_is_interrupted", meets_nothing(1, EINTR), "udp_nothing_read", {c_peek}},
    {"nothing_waits", meets_nothing(1, EAGAIN), "udp_nothing_read", {c_peek}},
    {"it_is_empty", meets_nothing(1), "udp_nothing_read", {c_peek, c_discard}},
    {"it_is_one_byte", meets({1}), "udp_length_wrong", {c_peek, c_discard}},
    {"it_is_a_byte_shorter_than_a_header", meets(resized(plain_packet(), 63)), "udp_length_wrong", {c_peek, c_discard}},
    {"its_version_is_another", meets(of_another_version()), "udp_version_wrong", {c_peek, c_discard}},
    {"there_is_no_room_for_its_data", meets(c_three_bytes), nullptr, {c_peek, c_discard}, allocation::refused},
    {"the_host_throws_at_its_size", meets(c_three_bytes), nullptr, {c_peek, c_discard}, allocation::throws},
    {"the_read_fails", meets_nothing(2, ENOMEM), "udp_nothing_read", {c_peek, c_read_all}},
    {"the_read_finds_nothing", meets_nothing(2), "udp_nothing_read", {c_peek, c_read_all}},
    {"it_is_shorter_than_it_says", meets(resized(c_three_bytes, 66)), "udp_length_wrong", {c_peek, c_read_all}},
    {"it_is_longer_than_it_says", meets(resized(c_three_bytes, 68)), "udp_length_wrong", {c_peek, c_read_all}},
    {"it_says_no_data_and_has_some", meets(resized(plain_packet(), 65)), "udp_length_wrong", {c_peek, c_read_header}},
    {"the_read_finds_another_version",
     meets(plain_packet(), of_another_version()),
     "udp_version_wrong",
     {c_peek, c_read_header}},
};
INSTANTIATE_TEST_SUITE_P(because, udp_dropped, testing::ValuesIn(c_dropped_datagrams), row_name<dropped_datagram>);

TEST_P(udp_dropped, the_message_is_printed_and_the_reads_are_these) {
    receive_and_drop();
    EXPECT_EQ(texts_of("recvfrom"), GetParam().reads);
}

TEST_P(udp_dropped, the_center_does_not_see_it) {
    receive_and_drop();
    EXPECT_EQ(engine.count("send_center_from_udp"), 0U);
    EXPECT_EQ(take_offers().size(), 0U);
}

TEST_P(udp_dropped, the_registration_is_not_armed_again) {
    receive_and_drop();
    EXPECT_EQ(system.count("epoll_ctl"), 0U);
}

TEST_P(udp_dropped, no_data_part_stays_and_the_header_part_is_used_again) {
    receive_and_drop();
    EXPECT_EQ(count_ledger(), (ledger_counts{1, 0, 1}));
    center_offer const next = receive(plain_packet());
    EXPECT_EQ(next.header, plain_packet());
    EXPECT_EQ(next.data, bytes{});
    EXPECT_EQ(count_ledger(), (ledger_counts{1, 0, 1}));
    EXPECT_EQ(journal_count("alloc_header_force"), 1U);
}

TEST_P(udp_dropped, the_next_packet_is_prepared_and_stamped_anew) {
    receive_and_drop();
    clear_journal();
    center_offer const next = receive(plain_packet({7}));
    EXPECT_EQ(next.packet.src_ip, peer);
    EXPECT_EQ(next.data, (bytes{7}));
    for (char const* const step : {"initialize_packet", "set_source", "set_destination", "determine_arrival_clock"}) {
        EXPECT_EQ(journal_count(step), 1U) << step;
    }
}

// --- receiving from the kernel -------------------------------------------------------------------------------------

class udp_kernel : public udp_fixture {
protected:
    void SetUp() override {
        udp_fixture::SetUp();
        rec = open_bound_port();
    }

    void expect_event() { ASSERT_EQ(next_event(EPoll::epoll_udp_recv, rec, c_soon), std::uint32_t{EPOLLIN}); }
    void expect_no_event() { EXPECT_EQ(next_event(EPoll::epoll_udp_recv, rec, c_now), 0U); }

    udp_record* rec = nullptr;
};

class pin_udp_datagrams : public udp_kernel {};

TEST_F(udp_kernel, whatever_is_dropped_is_taken_off_the_queue) {
    std::pair<bytes, char const*> const unfit[] = {
        {{}, "udp_nothing_read"},
        {{1}, "udp_length_wrong"},
        {resized(plain_packet(), 63), "udp_length_wrong"},
        {resized(plain_packet(), 65), "udp_length_wrong"},
        {resized(plain_packet({1, 2, 3}), 66), "udp_length_wrong"},
        {resized(plain_packet({1, 2, 3}), 9000), "udp_length_wrong"},
        {of_another_version(), "udp_version_wrong"},
    };
    for (auto const& [datagram, message] : unfit) {
        send_to(rec, datagram);
        expect_error(text(message));
        EXPECT_EQ(EPoll::recv_udp(rec), -1);
    }
    send_to(rec, plain_packet());
    EXPECT_EQ(EPoll::recv_udp(rec), 0);
    auto const offers = take_offers();
    ASSERT_EQ(offers.size(), 1U);
    EXPECT_EQ(offers[0].header, plain_packet());
    EXPECT_EQ(offers[0].data, bytes{});
}

TEST_F(udp_kernel, a_datagram_without_room_is_taken_off_the_queue) {
    for (allocation const room : {allocation::refused, allocation::throws}) {
        send_to(rec, plain_packet({1, 2, 3}));
        script_alloc_data({room});
        EXPECT_EQ(EPoll::recv_udp(rec), 0);
    }
    send_to(rec, plain_packet({4}));
    EXPECT_EQ(EPoll::recv_udp(rec), 0);
    auto const offers = take_offers();
    ASSERT_EQ(offers.size(), 1U);
    EXPECT_EQ(offers[0].data, (bytes{4}));
}

TEST_F(udp_kernel, the_largest_datagram_arrives_whole) {
    bytes data(65507 - header_size());
    for (std::size_t at = 0; at < data.size(); ++at) {
        data[at] = static_cast<unsigned char>(at * 7);
    }
    send_to(rec, plain_packet(data));
    EXPECT_EQ(EPoll::recv_udp(rec), 0);
    EXPECT_EQ(take_offers().at(0).data, data);
}

TEST_F(udp_kernel, the_senders_address_is_stamped) {
    send_to(rec, plain_packet({1}));
    EXPECT_EQ(EPoll::recv_udp(rec), 0);
    EXPECT_EQ(take_offers().at(0).packet.src_ip, ip("127.0.0.1"));
}

TEST_F(udp_kernel, each_event_reads_one_datagram_and_arming_again_brings_the_next_event) {
    for (unsigned char number = 1; number <= 3; ++number) {
        send_to(rec, plain_packet({number}));
    }
    for (unsigned char number = 1; number <= 3; ++number) {
        expect_event();
        EXPECT_EQ(EPoll::recv_udp(rec), 0);
        auto const offers = take_offers();
        ASSERT_EQ(offers.size(), 1U);
        EXPECT_EQ(offers[0].data, (bytes{number}));
    }
    expect_no_event();
}

TEST_F(pin_udp_datagrams, behind_a_dropped_datagram_the_queue_waits_for_the_next_arrival) {
    send_to(rec, {1});
    send_to(rec, plain_packet({2}));
    expect_event();
    expect_error(text("udp_length_wrong"));
    EXPECT_EQ(EPoll::recv_udp(rec), -1);
    expect_no_event();
    send_to(rec, plain_packet({3}));
    for (unsigned char const number : bytes{2, 3}) {
        expect_event();
        EXPECT_EQ(EPoll::recv_udp(rec), 0);
        EXPECT_EQ(take_offers().at(0).data, (bytes{number}));
    }
}

TEST_F(pin_udp_datagrams, the_message_for_nothing_received_speaks_of_sending) {
    EXPECT_EQ(text("udp_nothing_read"), "send_size!= sent_size");
    send_to(rec, {});
    expect_error("send_size!= sent_size");
    EXPECT_EQ(EPoll::recv_udp(rec), -1);
}

// --- handing a packet over for sending -----------------------------------------------------------------------------

class udp_sending : public udp_fixture {
protected:
    void SetUp() override {
        udp_fixture::SetUp();
        rec = open_port();
    }

    Zolt::struct_token packet(packet_fields fields) const {
        fields.dst_ip = destination;
        fields.dst_port = fields.dst_port == 0 ? c_port : fields.dst_port;
        return make_token(std::move(fields));
    }

    Zolt::struct_token hand_over(packet_fields fields) const {
        auto token = packet(std::move(fields));
        EXPECT_EQ(INet_Relay::send_udp(token, token.get_header_packet()), 0);
        return token;
    }

    /// Packets that wait in the queue, nothing of their way there in the journal.
    void queue(std::vector<packet_fields> const& packets) {
        for (packet_fields const& fields : packets) {
            hand_over(fields);
        }
        clear_journal();
        system.clear();
    }

    /// One call of the event handler, with a network that takes everything.
    int send_one(long taken = 1) {
        system.answer("sendto", 1, taken);
        return EPoll::send_udp(rec);
    }

    std::uint32_t const destination = ip("10.1.2.3");
    std::string const arming = "epoll_ctl(udp_send, MOD, udp.fd, " + mask_text(0xC0000004U) + ", udp)";
    udp_record* rec = nullptr;
};

TEST_F(udp_sending, a_packet_is_brought_up_to_date_queued_and_armed_under_the_lock) {
    auto token = packet({});
    clear_journal();
    EXPECT_EQ(INet_Relay::send_udp(token, token.get_header_packet()), 0);
    EXPECT_EQ(journal_lines(about::packet | about::lock | about::system),
              (lines{"header#1.update_packet_time_and_return_timeout()", "udp.send_lock.lock(reference, depth 1)",
                     arming, "udp.send_lock.unlock(guard, depth 0)"}));
    ASSERT_EQ(rec->send_q.size(), 1U);
    EXPECT_EQ(token_name(rec->send_q.front()), token_name(token));
    token.free();
    rec->send_q.clear();
}

TEST_F(udp_sending, arming_names_instance_mask_and_record) {
    hand_over({}).free();
    rec->send_q.clear();
    system_call const armed = system.calls("epoll_ctl").at(0);
    EXPECT_EQ(armed.descriptor, EPoll::epoll_udp_send);
    EXPECT_EQ(armed.target, rec->fd);
    EXPECT_EQ(armed.mask, 0xC0000004U);
    EXPECT_EQ(armed.pointer, static_cast<EPoll::struct_epoll_overlapped*>(rec));
    EXPECT_EQ(armed.locks, (std::vector<std::string>{"udp.send_lock"}));
}

TEST_F(udp_sending, a_packet_behind_others_is_only_queued) {
    hand_over({.sequence = 1});
    hand_over({.sequence = 2});
    hand_over({.sequence = 3});
    EXPECT_EQ(system.count("epoll_ctl"), 1U);
    ASSERT_EQ(rec->send_q.size(), 3U);
    for (std::uint32_t number = 1; number <= 3; ++number) {
        EXPECT_EQ(fields_of(rec->send_q.front()).sequence, number);
        rec->send_q.front().free();
        rec->send_q.pop_front();
    }
}

TEST_F(udp_sending, the_destination_port_chooses_the_socket) {
    auto* const other = open_port(8000, "other");
    hand_over({.dst_port = 8000}).free();
    EXPECT_TRUE(rec->send_q.empty());
    EXPECT_EQ(other->send_q.size(), 1U);
    EXPECT_EQ(system.calls("epoll_ctl").at(0).target, other->fd);
    other->send_q.clear();
}

TEST_F(udp_sending, a_packet_for_a_port_without_a_socket_stays_with_the_caller) {
    auto token = packet({.dst_port = 8000, .data = {1}});
    clear_journal();
    EXPECT_EQ(INet_Relay::send_udp(token, token.get_header_packet()), 0);
    EXPECT_EQ(journal_lines(about::packet | about::lock | about::system),
              (lines{"header#1.update_packet_time_and_return_timeout()"}));
    EXPECT_TRUE(rec->send_q.empty());
    EXPECT_EQ(header_references(token), 1);
    EXPECT_EQ(data_references(token), 1);
    token.free();
}

TEST_F(udp_sending, an_arming_that_fails_is_printed_and_its_result_is_the_answer) {
    for (long const answer : {-1L, 9L}) {
        system.answer("epoll_ctl", 1, answer);
        expect_error(text("udp_send_request_failed"));
        auto token = packet({});
        EXPECT_EQ(INet_Relay::send_udp(token, token.get_header_packet()), answer);
        EXPECT_EQ(rec->send_q.size(), 1U) << "the packet stays queued";
        rec->send_q.clear();
        token.free();
    }
}

TEST_F(pin_udp_datagrams, a_packet_whose_time_is_over_is_queued_and_sent_all_the_same) {
    script_timeouts({true, true});
    auto token = make_token({.dst_ip = Zolt::c_local_host, .dst_port = rec->local_port, .data = {8}});
    EXPECT_EQ(INet_Relay::send_udp(token, token.get_header_packet()), 0);
    EXPECT_EQ(EPoll::send_udp(rec), 0);
    EXPECT_EQ(journal_count("update_packet_time_and_return_timeout"), 2U);
    ASSERT_TRUE(wait_for_datagram(rec));
    EXPECT_EQ(EPoll::recv_udp(rec), 0);
    EXPECT_EQ(take_offers().at(0).data, (bytes{8}));
}

// --- sending one datagram --------------------------------------------------------------------------------------------

TEST_F(udp_sending, the_front_packet_is_taken_under_the_lock_and_everything_else_is_done_outside) {
    queue({{.data = {1, 2, 3}}});
    EXPECT_EQ(send_one(), 0);
    EXPECT_EQ(journal_lines(about::packet | about::lock | about::system),
              (lines{"udp.send_lock.lock(reference, depth 1)", "udp.send_lock.unlock(guard, depth 0)",
                     "header#1.update_packet_time_and_return_timeout()", "data#1.operator=(header#1)",
                     "sendto(udp.fd, 67, 0, 10.1.2.3:7000)", "token#1.free()", "udp.send_lock.lock(reference, depth 1)",
                     "udp.send_lock.unlock(guard, depth 0)"}));
    EXPECT_EQ(system.calls("sendto").at(0).locks, std::vector<std::string>{});
}

TEST_F(udp_sending, an_empty_queue_is_an_error) {
    expect_error(text("udp_queue_empty"));
    EXPECT_EQ(EPoll::send_udp(rec), -1);
    EXPECT_EQ(names_of_system_calls(), "");
}

TEST_F(udp_sending, the_socket_is_armed_again_under_the_lock_while_packets_remain) {
    queue({{.sequence = 1}, {.sequence = 2}});
    EXPECT_EQ(send_one(), 0);
    EXPECT_EQ(journal_lines(about::packet | about::lock | about::system).back(),
              "udp.send_lock.unlock(guard, depth 0)");
    EXPECT_EQ(names_of_system_calls(), "sendto epoll_ctl");
    EXPECT_EQ(system.calls("epoll_ctl").at(0).text, arming);
    EXPECT_EQ(system.calls("epoll_ctl").at(0).locks, (std::vector<std::string>{"udp.send_lock"}));
    EXPECT_EQ(send_one(), 0);
    EXPECT_EQ(names_of_system_calls(), "sendto epoll_ctl sendto");
}

TEST_F(udp_sending, an_arming_that_fails_after_sending_is_not_reported) {
    queue({{.sequence = 1}, {.sequence = 2}});
    system.fail("epoll_ctl", 1, ENOENT);
    EXPECT_EQ(send_one(), 0);
    EXPECT_EQ(send_one(), 0);
}

TEST_F(udp_sending, a_header_and_its_data_leave_in_one_datagram) {
    queue({{.src_id = 3, .sequence = 77, .data = {1, 2, 3}}});
    EXPECT_EQ(send_one(), 0);
    ASSERT_EQ(system.count("sendto"), 1U);
    EXPECT_EQ(
        system.calls("sendto")[0].data,
        packet_bytes({.src_id = 3, .dst_ip = destination, .dst_port = c_port, .sequence = 77, .data = {1, 2, 3}}));
}

TEST_F(udp_sending, the_header_sent_in_front_of_data_is_the_one_that_the_packet_has_by_then) {
    auto token = hand_over({.data = {1, 2, 3}});
    token.get_header_packet()->set_source(ip("9.9.9.9"), 99, 9);
    EXPECT_EQ(send_one(), 0);
    packet_fields const sent = read_packet(system.calls("sendto").at(0).data);
    EXPECT_EQ(sent.src_ip, ip("9.9.9.9"));
    EXPECT_EQ(sent.data, (bytes{1, 2, 3}));
}

TEST_F(udp_sending, a_header_without_data_leaves_alone) {
    queue({{.sequence = 5}});
    EXPECT_EQ(send_one(), 0);
    EXPECT_EQ(system.calls("sendto").at(0).data,
              packet_bytes({.dst_ip = destination, .dst_port = c_port, .sequence = 5}));
    EXPECT_EQ(journal_count("operator="), 0U);
}

TEST_F(udp_sending, a_header_that_announces_data_which_is_not_there_leaves_alone) {
    queue({{.sequence = 5, .data_size = 4000}});
    EXPECT_EQ(send_one(), 0);
    EXPECT_EQ(system.calls("sendto").at(0).size, header_size());
}

TEST_F(udp_sending, no_header_size_is_built_in) {
    set_header_size(200);
    queue({{.data = {1, 2, 3}}, {.sequence = 5}});
    EXPECT_EQ(send_one(), 0);
    EXPECT_EQ(send_one(), 0);
    EXPECT_EQ(system.calls("sendto").at(0).size, 203U);
    EXPECT_EQ(system.calls("sendto").at(1).size, 200U);
}

TEST_F(udp_sending, the_destination_is_a_whole_ipv4_address_and_no_flag_is_set) {
    queue({{}});
    EXPECT_EQ(send_one(), 0);
    system_call const sent = system.calls("sendto").at(0);
    EXPECT_EQ(sent.arguments, (std::vector<long>{rec->fd, header_size(), 0, AF_INET, sizeof(sockaddr_in)}));
    EXPECT_EQ(sent.ip, destination);
}

TEST_F(pin_udp_datagrams, a_datagram_goes_to_the_port_of_its_own_socket_whatever_the_packet_says) {
    rec->send_q.push_back(make_token({.dst_ip = Zolt::c_local_host, .dst_port = 9, .data = {6}}));
    EXPECT_EQ(EPoll::send_udp(rec), 0);
    EXPECT_EQ(system.calls("sendto").at(0).port, rec->local_port);
    ASSERT_TRUE(wait_for_datagram(rec));
    EXPECT_EQ(EPoll::recv_udp(rec), 0);
    EXPECT_EQ(take_offers().at(0).data, (bytes{6}));
}

TEST_F(udp_sending, information_chooses_its_interface_before_it_is_sent) {
    queue({{.information_udp = true, .mct_ip = ip("127.0.0.1")}});
    EXPECT_EQ(send_one(), 0);
    EXPECT_EQ(journal_lines(about::system), (lines{"setsockopt(udp.fd, IPPROTO_IP, IP_MULTICAST_IF, 7f000001)",
                                                   "sendto(udp.fd, 64, 0, 10.1.2.3:7000)"}));
}

TEST_F(udp_sending, information_chooses_the_interface_of_its_own_socket_whatever_the_packet_says) {
    open_port(8000, "other");
    rec->send_q.push_back(packet({.information_udp = true, .dst_port = 8000, .mct_ip = ip("127.0.0.1")}));
    EXPECT_EQ(send_one(), 0);
    EXPECT_EQ(system.calls("setsockopt").at(0).descriptor, rec->fd);
}

TEST_F(udp_sending, information_is_sent_also_when_its_interface_is_refused) {
    queue({{.information_udp = true, .mct_ip = ip("192.0.2.1")}});
    expect_error(text("multicast_if_failed"));
    EXPECT_EQ(send_one(), 0);
    EXPECT_EQ(names_of_system_calls(), "setsockopt sendto");
}

TEST_F(udp_sending, other_packets_choose_no_interface) {
    queue({{.mct_ip = ip("127.0.0.1")}, {.command_udp = true, .mct_ip = ip("127.0.0.1")}});
    EXPECT_EQ(send_one(), 0);
    EXPECT_EQ(send_one(), 0);
    EXPECT_EQ(system.count("setsockopt"), 0U);
}

TEST_F(udp_sending, a_send_that_fails_loses_only_its_own_datagram) {
    queue({{.sequence = 1}, {.sequence = 2}, {.sequence = 3}});
    expect_error(text("udp_send_failed"));
    system.fail("sendto", 1, EPERM);
    EXPECT_EQ(EPoll::send_udp(rec), 0);
    expect_error(text("udp_send_failed"));
    EXPECT_EQ(send_one(0), 0);
    EXPECT_EQ(send_one(), 0);
    EXPECT_EQ(read_packet(system.calls("sendto").at(2).data).sequence, 3U);
    EXPECT_EQ(names_of_system_calls(), "sendto epoll_ctl sendto epoll_ctl sendto");
}

TEST_F(udp_sending, the_packet_is_freed_before_a_failure_is_printed) {
    queue({{}, {}});
    expect_error(text("udp_send_failed"));
    EXPECT_EQ(send_one(0), 0);
    EXPECT_EQ(journal_lines(about::system | about::packet | about::error),
              (lines{"header#1.update_packet_time_and_return_timeout()", "sendto(udp.fd, 64, 0, 10.1.2.3:7000)",
                     "token#1.free()", "print_error(\"" + text("udp_send_failed") + "\")", arming}));
    EXPECT_EQ(send_one(), 0);
}

TEST_F(udp_sending, nothing_is_traced) {
    strict_traces();
    queue({{.data = {1}}});
    EXPECT_EQ(send_one(), 0);
}

TEST_F(udp_kernel, two_packets_handed_over_before_the_socket_was_writable_leave_in_order_one_an_event) {
    for (unsigned char const number : bytes{1, 2}) {
        auto token = make_token({.dst_ip = Zolt::c_local_host, .dst_port = rec->local_port, .data = {number}});
        EXPECT_EQ(INet_Relay::send_udp(token, token.get_header_packet()), 0);
    }
    EXPECT_EQ(system.count("epoll_ctl"), 1U);
    for (unsigned char const number : bytes{1, 2}) {
        EXPECT_EQ(next_event(EPoll::epoll_udp_send, rec, c_soon), std::uint32_t{EPOLLOUT});
        EXPECT_EQ(EPoll::send_udp(rec), 0);
        ASSERT_TRUE(wait_for_datagram(rec));
        EXPECT_EQ(EPoll::recv_udp(rec), 0);
        EXPECT_EQ(take_offers().at(0).data, (bytes{number}));
    }
    EXPECT_EQ(next_event(EPoll::epoll_udp_send, rec, c_now), 0U) << "a queue that is empty waits for nothing";
}

TEST_F(udp_kernel, a_broadcast_needs_nothing_but_its_address) {
    auto token = make_token({.dst_ip = INADDR_BROADCAST, .dst_port = rec->local_port});
    rec->send_q.push_back(token);
    system.on("sendto", [](system_call const& call) { EXPECT_EQ(call.ip, INADDR_BROADCAST); });
    system.answer("sendto", 1, header_size());
    EXPECT_EQ(EPoll::send_udp(rec), 0);
    int allowed = 0;
    socklen_t length = sizeof allowed;
    EXPECT_EQ(::getsockopt(rec->fd, SOL_SOCKET, SO_BROADCAST, &allowed, &length), 0);
    EXPECT_EQ(allowed, 1);
}

// --- the two threads -------------------------------------------------------------------------------------------------

class udp_running : public udp_fixture {
protected:
    void SetUp() override {
        udp_fixture::SetUp();
        run();
    }

    void TearDown() override {
        EXPECT_EQ(INet_Relay::stop(), 0);
        EXPECT_EQ(INet_Relay::finalize(), 0);
        udp_fixture::TearDown();
    }

    void run() {
        EXPECT_EQ(INet_Relay::initialize(), 0);
        rec = open_bound_port();
        start_threads(true);
        EXPECT_EQ(INet_Relay::start(), 0);
    }

    void send(std::uint32_t sequence, bytes data) {
        auto token = make_token(
            {.dst_ip = Zolt::c_local_host, .dst_port = rec->local_port, .sequence = sequence, .data = std::move(data)});
        EXPECT_EQ(INet_Relay::send_udp(token, token.get_header_packet()), 0);
    }

    udp_record* rec = nullptr;
};

TEST_F(udp_running, the_send_thread_sends_and_the_receive_thread_receives) {
    send(1, {1, 2, 3});
    ASSERT_TRUE(wait_for_lines("send_zolt_center", 1));
    auto const offers = take_offers();
    ASSERT_EQ(offers.size(), 1U);
    EXPECT_EQ(offers[0].data, (bytes{1, 2, 3}));
    EXPECT_EQ(offers[0].thread, "epoll_thread_udp_recv");
    EXPECT_EQ(system.calls("sendto").at(0).thread, "epoll_thread_udp_send");
    EXPECT_EQ(system.calls("recvfrom").at(0).thread, "epoll_thread_udp_recv");
}

TEST_F(udp_running, a_dropped_datagram_does_not_stop_the_next_one) {
    bytes const unfit[] = {{}, {1}, resized(plain_packet(), 65), of_another_version()};
    char const* const messages[] = {"udp_nothing_read", "udp_length_wrong", "udp_length_wrong", "udp_version_wrong"};
    for (std::size_t at = 0; at < std::size(unfit); ++at) {
        expect_error(text(messages[at]));
        throw_at(rec, unfit[at]);
        ASSERT_TRUE(wait_for_lines("print_error", at + 1));
    }
    send(1, {7});
    ASSERT_TRUE(wait_for_lines("send_zolt_center", 1));
    EXPECT_EQ(take_offers().at(0).data, (bytes{7}));
}

/// Which packets came, counted by sender; each sender waits for its own before it sends the next.
class arrivals {
public:
    static constexpr std::uint32_t c_senders = 4;

    int take(packet_fields const& packet) {
        std::lock_guard const hold(guard);
        std::uint32_t const sender = packet.sequence % c_senders;
        bytes const expected{static_cast<unsigned char>(sender), static_cast<unsigned char>(packet.sequence)};
        in_order = in_order && packet.sequence / c_senders == arrived[sender] && packet.data == expected;
        ++arrived[sender];
        changed.notify_all();
        return c_center_took;
    }

    bool wait_for(std::uint32_t sender, std::uint32_t count) {
        std::unique_lock hold(guard);
        return changed.wait_for(hold, std::chrono::seconds(20), [&] { return arrived[sender] >= count; });
    }

    bool all_in_order() {
        std::lock_guard const hold(guard);
        return in_order;
    }

private:
    std::mutex guard;
    std::condition_variable changed;
    std::array<std::uint32_t, c_senders> arrived{};
    bool in_order = true;
};

class udp_stress : public udp_running {
protected:
    void SetUp() override {
        udp_fixture::SetUp();
        record(false);
        run();
    }
};

TEST_F(udp_stress, several_threads_of_the_center_send_at_once_and_nothing_is_lost_or_mixed) {
    constexpr std::uint32_t c_packets = 300;
    arrivals seen;
    on_offer([&](packet_fields const& packet) { return seen.take(packet); });
    std::vector<std::thread> senders;
    for (std::uint32_t sender = 0; sender < arrivals::c_senders; ++sender) {
        senders.emplace_back([&, sender] {
            for (std::uint32_t count = 0; count < c_packets; ++count) {
                std::uint32_t const sequence = count * arrivals::c_senders + sender;
                send(sequence, {static_cast<unsigned char>(sender), static_cast<unsigned char>(sequence)});
                ASSERT_TRUE(seen.wait_for(sender, count + 1));
            }
        });
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    EXPECT_TRUE(seen.all_in_order());
    on_offer(nullptr);
}

} // namespace
