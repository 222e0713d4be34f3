// The exchange of an accepted connection: the peer's block comes in, the reply goes out, the connection is established,
// and the Center hears of it; and how it is taken off again.
#include "tests/unit/accepting_fixture.hpp"

#include <cerrno>
#include <numeric>

namespace {

using namespace relay_test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint32_t c_hung_up = EPOLLIN | EPOLLERR | EPOLLHUP;

class accepted_exchange : public accepting_fixture {
protected:
    /// The exchange ended: the record is destroyed, its socket closed, and nobody hears of it.
    void expect_destroyed_in_silence() {
        EXPECT_TRUE(is_gone(rec));
        EXPECT_EQ(system.count("close"), 1u);
        EXPECT_EQ(EPoll::g_accepted_exchanging.first, nullptr);
        EXPECT_THAT(take_offers(), IsEmpty());
    }

    void expect_left_open() {
        EXPECT_FALSE(is_gone(rec));
        EXPECT_EQ(rec->kind, 2);
        EXPECT_EQ(system.count("close"), 0u);
    }

    tcp_record* rec = nullptr;
};

// --- the peer's block ---------------------------------------------------------------------------------------------

class requesting_the_peers_block : public accepted_exchange {
protected:
    void SetUp() override {
        accepted_exchange::SetUp();
        rec = begun("rec");
        rec->recv_remain = 0;
        __real_epoll_ctl(EPoll::epoll_tcp_recv, EPOLL_CTL_DEL, rec->fd, nullptr);
    }
};

TEST_F(requesting_the_peers_block, waits_for_all_of_it) {
    EXPECT_EQ(EPoll::request_recv_server_init(rec), 0);
    EXPECT_EQ(rec->recv_remain, c_block_size);
    EXPECT_EQ(journal_lines(about::system), (lines{ctl("tcp_recv", "ADD", "rec.fd", c_recv_mask, "rec")}));
}

TEST_F(requesting_the_peers_block, prints_when_it_cannot_be_armed_and_leaves_the_connection_open) {
    system.fail("epoll_ctl", 1, ENOSPC);
    expect_error(text("arm_server_exchange_failed"));
    EXPECT_EQ(EPoll::request_recv_server_init(rec), -1);
    expect_left_open();
}

class receiving_the_peers_block : public accepted_exchange {
protected:
    void SetUp() override {
        accepted_exchange::SetUp();
        rec = begun("rec");
    }

    void deliver(bytes const& piece) { system.deliver("recv", 1, piece); }
    void deliver_whole() { deliver(init_block(1, c_gate)); }
};

TEST_F(receiving_the_peers_block, whole_reads_once_and_asks_for_the_reply) {
    deliver_whole();
    set_clock(4321);
    EXPECT_EQ(EPoll::recv_server_init(rec), 0);
    EXPECT_EQ(journal_lines(about::system),
              (lines{"recv(rec.fd, 1024, 0)", ctl("tcp_send", "ADD", "rec.fd", c_send_mask, "rec")}));
    EXPECT_EQ(rec->recv_remain, 0u);
    EXPECT_EQ(rec->recv_clock, 4321u);
    EXPECT_EQ(rec->send_remain, c_block_size);
}

TEST_F(receiving_the_peers_block, takes_the_gate_port_from_the_receiver_that_it_names) {
    deliver_whole();
    EPoll::recv_server_init(rec);
    EXPECT_EQ(rec->gate_port, c_gate);
    EXPECT_EQ(rec->local_port, c_listening_port);
}

TEST_F(receiving_the_peers_block, does_not_establish_the_connection) {
    deliver_whole();
    EPoll::recv_server_init(rec);
    EXPECT_EQ(rec->kind, 2);
    EXPECT_EQ(filed(), nullptr);
    EXPECT_EQ(EPoll::g_accepted_exchanging.first, rec);
    EXPECT_THAT(take_offers(), IsEmpty());
}

TEST_F(receiving_the_peers_block, looks_at_nothing_else_in_it) {
    bytes block(c_block_size);
    std::iota(block.begin(), block.end(), static_cast<unsigned char>(0x5A));
    std::ranges::copy(part_of(init_block(0, c_gate), 2, 2), block.begin() + 2);
    deliver(block);
    EXPECT_EQ(EPoll::recv_server_init(rec), 0);
    EXPECT_EQ(rec->gate_port, c_gate);
    EXPECT_EQ(block_bytes(rec->client_init_header), block);
}

TEST_F(receiving_the_peers_block, assembles_pieces_and_keeps_the_clock_of_the_last) {
    bytes block(c_block_size);
    std::iota(block.begin(), block.end(), static_cast<unsigned char>(0));
    std::size_t const pieces[] = {1, 500, 523};
    std::size_t read = 0;
    for (std::size_t const piece : pieces) {
        deliver(part_of(block, read, piece));
        set_clock(1000 + read);
        EXPECT_EQ(EPoll::recv_server_init(rec), 0);
        EXPECT_EQ(rec->recv_clock, 1000 + read);
        read += piece;
    }
    EXPECT_EQ(block_bytes(rec->client_init_header), block);
    EXPECT_EQ(journal_lines(about::system),
              (lines{"recv(rec.fd, 1024, 0)", ctl("tcp_recv", "MOD", "rec.fd", c_recv_mask, "rec"),
                     "recv(rec.fd, 1023, 0)", ctl("tcp_recv", "MOD", "rec.fd", c_recv_mask, "rec"),
                     "recv(rec.fd, 523, 0)", ctl("tcp_send", "ADD", "rec.fd", c_send_mask, "rec")}));
}

TEST_F(receiving_the_peers_block, leaves_what_follows_it_to_the_first_packet) {
    bytes stream = init_block(1, c_gate);
    stream.insert(stream.end(), {1, 2, 3});
    write_bytes(far_end(rec), stream);
    EPoll::recv_server_init(rec);
    bytes rest(4);
    EXPECT_EQ(__real_recv(rec->fd, rest.data(), rest.size(), MSG_DONTWAIT), 3);
}

TEST_F(receiving_the_peers_block, takes_no_lock_and_traces_nothing) {
    deliver(bytes(100));
    EPoll::recv_server_init(rec);
    deliver(bytes(924));
    EPoll::recv_server_init(rec);
    EXPECT_THAT(journal_lines(about::lock | about::trace | about::error), IsEmpty());
}

TEST_F(receiving_the_peers_block, that_cannot_wait_for_the_rest_raises_a_plain_text) {
    deliver(bytes(100));
    system.fail("epoll_ctl", 1, ENOMEM);
    try {
        EPoll::recv_server_init(rec);
        FAIL() << "nothing was raised";
    } catch (char const* raised) {
        EXPECT_EQ(raised, text("recv_server_init_arm_failed"));
    }
}

TEST_F(receiving_the_peers_block, that_cannot_register_the_reply_ends_the_thread_and_leaves_the_connection_open) {
    deliver_whole();
    system.fail("epoll_ctl", 1, ENOMEM);
    spoil_errno(ENOMEM);
    expect_error(text("send_arm_failed"));
    expect_error(text("tcp_recv_ended_by") + text("recv_server_init_ended") + text("ended_errno") + "12\n");
    receive_event(EPOLLIN, rec);
    expect_left_open();
}

TEST_F(receiving_the_peers_block, answers_what_requesting_the_reply_answered) {
    deliver_whole();
    system.answer("epoll_ctl", 1, 5);
    expect_error(text("send_arm_failed"));
    EXPECT_EQ(EPoll::recv_server_init(rec), 5);
}

TEST_F(receiving_the_peers_block, prints_a_destruction_that_reports_an_error) {
    system.answer("recv", 1, 0);
    engine.answer("delete_overlapped", 1);
    expect_error(text("recv_server_init_failed"));
    expect_error(text("delete_overlapped_failed"));
    EXPECT_EQ(EPoll::recv_server_init(rec), 0);
    EXPECT_EQ(engine.records("delete_overlapped"), (std::vector<void const*>{rec}));
}

TEST_F(receiving_the_peers_block, lets_what_is_not_a_string_through) {
    system.on("recv", [](system_call const&) { throw 7; });
    EXPECT_THROW(EPoll::recv_server_init(rec), int);
    expect_left_open();
}

TEST_F(receiving_the_peers_block, too_slowly_is_cut_off_after_the_time_out) {
    EPoll::arm(rec, EPoll::epoll_tcp_recv, EPOLL_CTL_MOD, c_recv_mask);
    EPoll::timer_shutdown_server(Tesk::OS::lemon_clock() + c_timeout);
    EXPECT_EQ(system.count("shutdown"), 0u);
    EPoll::timer_shutdown_server(Tesk::OS::lemon_clock() + c_timeout + 1);
    EXPECT_EQ(system.calls("shutdown").at(0).text, "shutdown(rec.fd, SHUT_RDWR)");
    EXPECT_TRUE(serve_until([this] { return is_gone(rec); }));
    EXPECT_EQ(EPoll::g_accepted_exchanging.first, nullptr);
}

class failing_to_receive_the_peers_block : public receiving_the_peers_block,
                                           public ::testing::WithParamInterface<empty_transfer> {};

TEST_P(failing_to_receive_the_peers_block, prints_and_destroys_the_record_in_silence) {
    GetParam().script(system, "recv");
    expect_error(text("recv_server_init_failed"));
    EXPECT_EQ(EPoll::recv_server_init(rec), 0);
    EXPECT_EQ(system.count("recv"), 1u);
    expect_destroyed_in_silence();
}

TEST_P(failing_to_receive_the_peers_block, in_the_middle_of_it_is_no_different) {
    deliver(bytes(1000));
    EPoll::recv_server_init(rec);
    GetParam().script(system, "recv");
    expect_error(text("recv_server_init_failed"));
    EXPECT_EQ(EPoll::recv_server_init(rec), 0);
    expect_destroyed_in_silence();
}

INSTANTIATE_TEST_SUITE_P(results, failing_to_receive_the_peers_block, all_empty_transfers());

// --- the reply ----------------------------------------------------------------------------------------------------

class requesting_the_reply : public accepted_exchange {
protected:
    void SetUp() override {
        accepted_exchange::SetUp();
        rec = begun("rec");
    }
};

TEST_F(requesting_the_reply, writes_both_ports_into_it_and_arms_the_send_thread) {
    EXPECT_EQ(EPoll::request_send_server_init(rec), 0);
    EXPECT_EQ(block_bytes(rec->server_init_header), init_block(c_listening_port, c_port));
    EXPECT_EQ(rec->send_remain, c_block_size);
    EXPECT_EQ(journal_lines(about::system), (lines{ctl("tcp_send", "ADD", "rec.fd", c_send_mask, "rec")}));
}

TEST_F(requesting_the_reply, has_written_it_before_the_send_thread_can_read_it) {
    system.on("epoll_ctl", [this](system_call const&) {
        EXPECT_EQ(block_bytes(rec->server_init_header), init_block(c_listening_port, c_port));
        EXPECT_EQ(rec->send_remain, c_block_size);
    });
    EPoll::request_send_server_init(rec);
    EXPECT_EQ(system.count("epoll_ctl"), 1u);
}

TEST_F(requesting_the_reply, prints_when_it_cannot_be_armed) {
    system.fail("epoll_ctl", 1, ENOMEM);
    expect_error(text("send_arm_failed"));
    EXPECT_EQ(EPoll::request_send_server_init(rec), -1);
    expect_left_open();
}

class sending_the_reply : public accepted_exchange {
protected:
    void SetUp() override {
        accepted_exchange::SetUp();
        rec = replying("rec");
        forget_calls();
    }

    bytes const block = init_block(c_listening_port, c_port);
};

TEST_F(sending_the_reply, whole_files_the_record_then_tells_the_center_then_waits_for_packets) {
    set_clock(4321);
    EXPECT_EQ(EPoll::send_server_init(rec), 0);
    lines expected{"send(rec.fd, 1024, 0)"};
    for (std::string const& line : lock_and_unlock("g_establish_server_map_lock")) {
        expected.push_back(line);
    }
    expected.insert(expected.end(), {"send_zolt_center(token)", ctl("tcp_recv", "MOD", "rec.fd", c_recv_mask, "rec")});
    EXPECT_EQ(lines_without_numbers(about::system | about::lock | about::center), expected);
    EXPECT_EQ(rec->send_clock, 4321u);
    EXPECT_EQ(read_bytes(far_end(rec), c_block_size), block);
}

TEST_F(sending_the_reply, makes_the_connection_an_established_one_before_the_center_is_told) {
    on_offer([this](packet_fields const&) {
        EXPECT_EQ(rec->kind, 4);
        EXPECT_EQ(filed(), rec);
        EXPECT_EQ(EPoll::g_accepted_exchanging.first, nullptr);
        return c_center_took;
    });
    EPoll::send_server_init(rec);
    EXPECT_EQ(take_notices(), (notices{{c_connected_from_client, 0}}));
}

TEST_F(sending_the_reply, goes_on_where_a_partial_write_ended) {
    rec->server_init_header.set_port_of_receiver(0xFFFF);
    bytes const odd = block_bytes(rec->server_init_header);
    system.cap("send", 1, 3);
    system.cap("send", 2, 1000);
    EXPECT_EQ(EPoll::send_server_init(rec), 0);
    EXPECT_EQ(rec->send_remain, 1021u);
    EXPECT_EQ(journal_lines(about::system),
              (lines{"send(rec.fd, 1024, 0)", ctl("tcp_send", "MOD", "rec.fd", c_send_mask, "rec")}));
    EXPECT_EQ(rec->kind, 2);
    EPoll::send_server_init(rec);
    EPoll::send_server_init(rec);
    auto const sends = system.calls("send");
    ASSERT_EQ(sends.size(), 3u);
    EXPECT_EQ(sends[1].data, part_of(odd, 3, 1021));
    EXPECT_EQ(sends[2].data, part_of(odd, 1003, 21));
    EXPECT_EQ(read_bytes(far_end(rec), c_block_size), odd);
    EXPECT_EQ(rec->kind, 4);
}

TEST_F(sending_the_reply, notes_the_clock_of_each_write) {
    system.cap("send", 1, 3);
    set_clock(10);
    EPoll::send_server_init(rec);
    EXPECT_EQ(rec->send_clock, 10u);
    set_clock(20);
    EPoll::send_server_init(rec);
    EXPECT_EQ(rec->send_clock, 20u);
}

TEST_F(sending_the_reply, whose_rest_cannot_be_armed_prints_and_does_nothing_else) {
    system.cap("send", 1, 100);
    system.answer("epoll_ctl", 1, 5);
    expect_error(text("send_arm_failed"));
    EXPECT_EQ(EPoll::send_server_init(rec), 5);
    EXPECT_EQ(rec->send_remain, 924u);
    expect_left_open();
}

TEST_F(sending_the_reply, answers_what_waiting_for_packets_answered) {
    system.answer("epoll_ctl", 1, 5);
    expect_error(text("arm_server_header_failed"));
    EXPECT_EQ(EPoll::send_server_init(rec), 5);
    EXPECT_EQ(filed(), rec);
}

TEST_F(sending_the_reply, of_which_the_center_could_not_be_told_waits_for_packets_all_the_same) {
    engine.answer("eproc_send_connected_from_client_msg_to_center", 1);
    EXPECT_EQ(EPoll::send_server_init(rec), 0);
    EXPECT_EQ(rec->kind, 4);
    EXPECT_EQ(journal_lines(about::system).back(), ctl("tcp_recv", "MOD", "rec.fd", c_recv_mask, "rec"));
}

TEST_F(sending_the_reply, does_not_mind_a_center_that_refuses_the_notice) {
    script_center({c_center_refused});
    EXPECT_EQ(EPoll::send_server_init(rec), 0);
    EXPECT_EQ(filed(), rec);
}

TEST_F(sending_the_reply, is_not_stopped_by_its_result_for_the_thread) {
    system.answer("epoll_ctl", 1, 5);
    expect_error(text("arm_server_header_failed"));
    send_event(EPOLLOUT, rec);
    EXPECT_EQ(filed(), rec);
}

TEST_F(sending_the_reply, makes_the_peer_reachable_for_the_center_that_is_being_told) {
    Zolt::struct_token answer = make_token({.data = {1}});
    on_offer([&](packet_fields const&) {
        EXPECT_EQ(INet_Relay::send_tcp_server(at_port(), answer, answer.get_header_packet()), 0);
        return c_center_took;
    });
    EPoll::send_server_init(rec);
    EXPECT_EQ(rec->send_q.size(), 1u);
    EXPECT_TRUE(serve_until([this] { return rec->send_q.empty(); }));
    bytes const stream = read_bytes(far_end(rec), c_block_size + header_size() + 1);
    EXPECT_EQ(part_of(stream, 0, c_block_size), block);
    EXPECT_EQ(stream.back(), 1);
}

TEST_F(sending_the_reply, stamps_the_first_packet_with_both_ends) {
    rec->gate_port = c_gate;
    EPoll::send_server_init(rec);
    EXPECT_EQ(fields_of(rec->recv_token).src_port, c_port);
    EXPECT_EQ(fields_of(rec->recv_token).dst_port, c_gate);
}

TEST_F(sending_the_reply, prints_nothing_more_when_the_destruction_reports_an_error) {
    system.answer("send", 1, 0);
    engine.answer("delete_overlapped", 1);
    expect_error(text("send_server_init_failed"));
    EXPECT_EQ(EPoll::send_server_init(rec), 0);
    EXPECT_EQ(engine.records("delete_overlapped"), (std::vector<void const*>{rec}));
}

class failing_to_send_the_reply : public sending_the_reply, public ::testing::WithParamInterface<empty_transfer> {};

TEST_P(failing_to_send_the_reply, prints_and_destroys_the_record_in_silence) {
    GetParam().script(system, "send");
    expect_error(text("send_server_init_failed"));
    EXPECT_EQ(EPoll::send_server_init(rec), 0);
    EXPECT_EQ(system.count("send"), 1u);
    expect_destroyed_in_silence();
}

INSTANTIATE_TEST_SUITE_P(results, failing_to_send_the_reply, all_empty_transfers());

// --- an error event during the exchange ---------------------------------------------------------------------------

class failing_exchange : public accepted_exchange {};

TEST_F(failing_exchange, while_the_block_is_awaited_destroys_the_record_without_a_word) {
    rec = begun("rec");
    receive_event(c_hung_up, rec);
    expect_destroyed_in_silence();
    EXPECT_EQ(system.count("recv"), 0u);
}

TEST_F(failing_exchange, while_the_reply_is_sent_destroys_the_record_without_a_word) {
    rec = replying("rec");
    send_event(EPOLLOUT | EPOLLHUP, rec);
    expect_destroyed_in_silence();
    EXPECT_EQ(system.count("send"), 0u);
}

TEST_F(failing_exchange, answers_what_the_destruction_answered) {
    rec = begun("rec");
    engine.answer("delete_overlapped", 5);
    EXPECT_EQ(EPoll::failed_server_init(rec), 5);
    EXPECT_EQ(engine.records("delete_overlapped"), (std::vector<void const*>{rec}));
}

// --- established, and not any more --------------------------------------------------------------------------------

class established_peer : public accepted_exchange {
protected:
    void SetUp() override {
        accepted_exchange::SetUp();
        rec = replying("rec");
        rec->kind = EPoll::c_kind_established_server;
        rec->gate_port = c_gate;
        forget_calls();
    }
};

TEST_F(established_peer, is_filed_under_the_lock_and_the_center_is_told_without_it) {
    EXPECT_EQ(EPoll::establish_accept(rec), 0);
    lines expected = lock_and_unlock("g_establish_server_map_lock");
    expected.push_back("send_zolt_center(token)");
    EXPECT_EQ(lines_without_numbers(about::lock | about::center), expected);
    EXPECT_EQ(filed(), rec);
}

TEST_F(established_peer, is_named_in_the_notice_with_the_port_by_which_it_knows_this_node) {
    EPoll::establish_accept(rec);
    auto const offers = take_offers();
    ASSERT_EQ(offers.size(), 1u);
    packet_fields const& notice = offers[0].packet;
    EXPECT_EQ(notice.event, c_connected_from_client);
    EXPECT_EQ(notice.src_ip, Zolt::c_local_host);
    EXPECT_EQ(notice.src_port, c_port);
    EXPECT_EQ(notice.dst_port, c_gate);
}

TEST_F(established_peer, keeps_the_entry_of_an_older_connection_from_the_same_address_and_is_told) {
    tcp_record* const older = served("older");
    EXPECT_EQ(EPoll::establish_accept(rec), 0);
    EXPECT_EQ(filed(), older);
    EXPECT_EQ(take_notices(), (notices{{c_connected_from_client, 0}}));
}

TEST_F(established_peer, is_filed_beside_another_port_of_the_same_node) {
    tcp_record* const other = served("other", c_port + 1);
    EPoll::establish_accept(rec);
    EXPECT_EQ(filed(), rec);
    EXPECT_EQ(filed(c_port + 1), other);
}

TEST_F(established_peer, of_which_the_center_could_not_be_told_is_unfiled_and_traced_under_the_lock) {
    engine.answer("eproc_send_connected_from_client_msg_to_center", 1);
    EXPECT_EQ(EPoll::establish_accept(rec), -1);
    EXPECT_EQ(filed(), nullptr);
    expect_only_trace('E', 470, text("fault_connected_from_client"), {"g_establish_server_map_lock"});
    EXPECT_EQ(outer_holds("g_establish_server_map_lock"), 2);
    EXPECT_FALSE(is_gone(rec));
}

TEST_F(established_peer, is_filed_while_the_notice_that_fails_is_made) {
    engine.on("eproc_send_connected_from_client_msg_to_center", [this](void* told) {
        EXPECT_EQ(told, rec);
        EXPECT_EQ(filed(), rec);
        EXPECT_EQ(held_lock_count(), 0);
        return 1;
    });
    EPoll::establish_accept(rec);
    EXPECT_EQ(engine.count("eproc_send_connected_from_client_msg_to_center"), 1u);
}

TEST_F(established_peer, leaves_and_the_center_is_told_without_the_lock) {
    EPoll::establish_accept(rec);
    forget_calls();
    take_offers();
    EXPECT_EQ(EPoll::unestablish_accept(rec), 0);
    lines expected = lock_and_unlock("g_establish_server_map_lock");
    expected.push_back("send_zolt_center(token)");
    EXPECT_EQ(lines_without_numbers(about::lock | about::center), expected);
    EXPECT_EQ(filed(), nullptr);
    EXPECT_EQ(take_notices(), (notices{{c_disconnected_from_client, 0}}));
}

TEST_F(established_peer, leaves_and_the_connections_of_other_peers_stay) {
    EPoll::establish_accept(rec);
    tcp_record* const other = served("other", c_port + 1);
    EPoll::unestablish_accept(rec);
    EXPECT_EQ(filed(c_port + 1), other);
}

TEST_F(established_peer, of_whose_leaving_the_center_could_not_be_told_is_traced_without_the_lock) {
    EPoll::establish_accept(rec);
    forget_calls();
    engine.answer("eproc_send_disconnected_from_client_msg_to_center", 1);
    for (int const result : {0, 7}) {
        set_trace_result(result);
        EXPECT_EQ(EPoll::unestablish_accept(rec), result);
        expect_only_trace('E', 498, text("fault_connected_to_client"));
    }
    EXPECT_EQ(filed(), nullptr);
}

// --- with real peers ----------------------------------------------------------------------------------------------

using real_accepted_exchange = running_server;

TEST_F(real_accepted_exchange, replies_only_to_the_whole_block) {
    descriptor& peer = connect();
    bytes const block = block_of(peer, port);
    write_bytes(peer, part_of(block, 0, 1023));
    EXPECT_TRUE(wait_for_line("recv(accepted#1, 1024, 0)"));
    EXPECT_TRUE(wait_for_line("epoll_ctl(" + descriptor_name(EPoll::epoll_tcp_recv) + ", MOD, accepted#1"));
    EXPECT_EQ(system.count("send"), 0u);
    write_bytes(peer, part_of(block, 1023, 1));
    EXPECT_EQ(read_bytes(peer, c_block_size), init_block(port, local_port(peer)));
}

TEST_F(real_accepted_exchange, tells_the_center_the_port_that_the_peer_named) {
    descriptor& peer = establish(c_gate);
    auto const offers = wait_for_offers(1);
    ASSERT_EQ(offers.size(), 1u);
    EXPECT_EQ(offers[0].packet.event, c_connected_from_client);
    EXPECT_EQ(offers[0].packet.dst_port, c_gate);
    EXPECT_EQ(offers[0].packet.src_port, local_port(peer));
}

TEST_F(real_accepted_exchange, takes_a_block_in_pieces) {
    descriptor& peer = connect();
    bytes const block = block_of(peer, c_gate);
    std::size_t const pieces[] = {1, 2, 1000, 21};
    std::size_t written = 0;
    for (std::size_t const piece : pieces) {
        // The line of a read is written before it reads; the arming that follows tells that it has.
        std::size_t const armings = journal_count("epoll_ctl");
        write_bytes(peer, part_of(block, written, piece));
        EXPECT_TRUE(wait_for_lines("epoll_ctl", armings + 1));
        written += piece;
    }
    EXPECT_EQ(read_bytes(peer, c_block_size).size(), c_block_size);
    EXPECT_EQ(notices_of(wait_for_offers(1)), (notices{{c_connected_from_client, 0}}));
}

TEST_F(real_accepted_exchange, reads_a_packet_that_came_together_with_the_block) {
    descriptor& peer = connect();
    bytes stream = block_of(peer, c_gate);
    bytes const packet = packet_bytes({.sequence = 77, .data = {1, 2, 3}});
    stream.insert(stream.end(), packet.begin(), packet.end());
    write_bytes(peer, stream);
    auto const offers = wait_for_offers(2);
    ASSERT_EQ(offers.size(), 2u);
    EXPECT_EQ(offers.at(0).packet.event, c_connected_from_client);
    EXPECT_EQ(offers.at(1).packet.sequence, 77u);
    EXPECT_EQ(offers.at(1).data, (bytes{1, 2, 3}));
}

TEST_F(real_accepted_exchange, left_by_the_peer_before_its_end_is_printed_and_the_center_hears_nothing) {
    descriptor& peer = connect();
    write_bytes(peer, bytes(1023));
    EXPECT_TRUE(wait_for_lines("recv", 1));
    peer.close();
    expect_error(text("recv_server_init_failed"));
    EXPECT_TRUE(wait_for_line("close(accepted#1)"));
    expect_no_accepted_record();
    EXPECT_THAT(wait_for_offers(0), IsEmpty());
}

TEST_F(real_accepted_exchange, reset_by_the_peer_leaves_nothing_and_the_center_hears_nothing) {
    descriptor& peer = connect();
    write_bytes(peer, bytes(1));
    EXPECT_TRUE(wait_for_lines("recv", 1));
    reset_connection(peer);
    EXPECT_TRUE(wait_for_line("close(accepted#1)"));
    expect_no_accepted_record();
    EXPECT_THAT(wait_for_offers(0), IsEmpty());
}

TEST_F(real_accepted_exchange, runs_on_the_receive_thread_and_then_on_the_send_thread) {
    establish();
    EXPECT_TRUE(wait_for_line("epoll_ctl(" + descriptor_name(EPoll::epoll_tcp_recv) + ", MOD, accepted#1"));
    std::string const receives = system.calls("recv").at(0).thread;
    std::string const sends = system.calls("send").at(0).thread;
    EXPECT_NE(receives, sends);
    EXPECT_NE(system.calls("accept").at(0).thread, receives);
    EXPECT_EQ(wait_for_offers(1).at(0).thread, sends);
}

} // namespace
