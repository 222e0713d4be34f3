// The exchange of an outgoing connection: its block goes out, the answer comes in, the connection is established, and
// the Center hears of it; and how an established one ends.
#include "tests/unit/outgoing_fixture.hpp"

#include <cerrno>
#include <numeric>

namespace {

using namespace relay_test;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint16_t c_local = 7000;
constexpr unsigned char c_connected_to_server = 1;
constexpr unsigned char c_disconnected_from_server = 2;

bytes part_of(bytes const& whole, std::size_t first, std::size_t count) {
    auto const from = whole.begin() + static_cast<std::ptrdiff_t>(first);
    return {from, from + static_cast<std::ptrdiff_t>(count)};
}

/// A transfer that moved nothing: result 0, or -1 with this errno.
struct failed_transfer {
    int error;
};
void PrintTo(failed_transfer const& transfer, std::ostream* out) {
    *out << "errno " << transfer.error;
}

auto const all_failed_transfers =
    ::testing::Values(failed_transfer{0}, failed_transfer{EPIPE}, failed_transfer{ECONNRESET}, failed_transfer{EAGAIN},
                      failed_transfer{EINTR}, failed_transfer{ETIMEDOUT});

void script(system_calls& system, char const* call, failed_transfer const& transfer) {
    transfer.error == 0 ? system.answer(call, 1, 0) : system.fail(call, 1, transfer.error);
}

class exchange : public outgoing_fixture {
protected:
    static void expect_booked_without_socket(tcp_record const* rec) {
        EXPECT_EQ(rec->fd, -1);
        EXPECT_EQ(registries_of(rec), "connect fail");
    }

    /// Event and the locks held, of each notice so far.
    static std::vector<std::pair<unsigned char, std::size_t>> take_notices() {
        std::vector<std::pair<unsigned char, std::size_t>> notices;
        for (center_offer const& offer : take_offers()) {
            notices.emplace_back(offer.packet.event, offer.locks.size());
        }
        return notices;
    }

    using one_notice = std::vector<std::pair<unsigned char, std::size_t>>;
};

// --- the block is requested -------------------------------------------------------------------------------------

class requesting_the_block : public exchange {
protected:
    void SetUp() override {
        exchange::SetUp();
        rec = connected("rec");
        rec->local_port = c_local;
    }
    tcp_record* rec = nullptr;
};

TEST_F(requesting_the_block, writes_both_ports_into_it_and_arms_the_send_thread) {
    EXPECT_EQ(EPoll::request_send_client_init(rec), 0);
    EXPECT_EQ(block_bytes(rec->client_init_header), init_block(c_local, c_port));
    EXPECT_EQ(rec->send_remain, c_block_size);
    EXPECT_EQ(journal_lines(about::system), (lines{ctl("tcp_send", "ADD", "rec.fd", c_send_mask, "rec")}));
}

TEST_F(requesting_the_block, sets_the_count_under_the_send_lock_and_arms_after_it) {
    EPoll::request_send_client_init(rec);
    EXPECT_EQ(journal_lines(about::lock | about::system),
              (lines{"rec.send_lock.lock(reference, depth 1)", "rec.send_lock.unlock(guard, depth 0)",
                     ctl("tcp_send", "ADD", "rec.fd", c_send_mask, "rec")}));
}

TEST_F(requesting_the_block, prints_when_the_send_thread_cannot_be_armed) {
    system.fail("epoll_ctl", 1, ENOMEM);
    expect_error(text("send_arm_failed"));
    EXPECT_EQ(EPoll::request_send_client_init(rec), -1);
    EXPECT_EQ(registries_of(rec), "connect");
    EXPECT_NE(rec->fd, -1);
}

// --- the block is sent ------------------------------------------------------------------------------------------

class sending_the_block : public exchange {
protected:
    void SetUp() override {
        exchange::SetUp();
        rec = exchanging("rec");
        rec->client_init_header.set_port_of_sender(c_local);
        rec->client_init_header.set_port_of_receiver(c_port);
        block = block_bytes(rec->client_init_header);
    }
    tcp_record* rec = nullptr;
    bytes block;
};

TEST_F(sending_the_block, whole_asks_for_the_answer) {
    set_clock(4321);
    EXPECT_EQ(EPoll::send_client_init(rec), 0);
    EXPECT_EQ(journal_lines(about::system),
              (lines{"send(rec.fd, 1024, 0)", ctl("tcp_recv", "ADD", "rec.fd", c_recv_mask, "rec")}));
    EXPECT_EQ(rec->send_remain, 0u);
    EXPECT_EQ(rec->recv_remain, c_block_size);
    EXPECT_EQ(rec->send_clock, 4321u);
    EXPECT_EQ(read_bytes(peer_of(rec), c_block_size), block);
}

TEST_F(sending_the_block, goes_on_where_a_partial_send_ended) {
    rec->client_init_header.set_port_of_receiver(0xFFFF);
    block = block_bytes(rec->client_init_header);
    system.cap("send", 1, 3);
    system.cap("send", 2, 1000);
    EXPECT_EQ(EPoll::send_client_init(rec), 0);
    EXPECT_EQ(rec->send_remain, 1021u);
    EXPECT_EQ(journal_lines(about::system),
              (lines{"send(rec.fd, 1024, 0)", ctl("tcp_send", "MOD", "rec.fd", c_send_mask, "rec")}));
    EPoll::send_client_init(rec);
    EPoll::send_client_init(rec);
    auto const sends = system.calls("send");
    ASSERT_EQ(sends.size(), 3u);
    EXPECT_EQ(sends[1].data, part_of(block, 3, 1021));
    EXPECT_EQ(sends[2].data, part_of(block, 1003, 21));
    EXPECT_EQ(read_bytes(peer_of(rec), c_block_size), block);
}

TEST_F(sending_the_block, holds_the_send_lock_from_reading_the_count_to_storing_it) {
    EPoll::send_client_init(rec);
    EXPECT_EQ(journal_lines(about::lock | about::system | about::clock),
              (lines{"rec.send_lock.lock(reference, depth 1)", "send(rec.fd, 1024, 0)", "lemon_clock()",
                     "rec.send_lock.unlock(guard, depth 0)", ctl("tcp_recv", "ADD", "rec.fd", c_recv_mask, "rec")}));
}

TEST_F(sending_the_block, prints_when_the_rest_cannot_be_armed_and_does_nothing_else) {
    system.cap("send", 1, 100);
    system.fail("epoll_ctl", 1, ENOMEM);
    expect_error(text("send_arm_failed"));
    EXPECT_EQ(EPoll::send_client_init(rec), -1);
    EXPECT_EQ(registries_of(rec), "connect");
    EXPECT_NE(rec->fd, -1);
    EXPECT_EQ(system.count("close"), 0u);
}

TEST_F(sending_the_block, fails_when_the_answer_cannot_be_asked_for) {
    system.fail("epoll_ctl", 1, ENOMEM);
    expect_error(text("arm_client_exchange_failed"));
    expect_error(text("request_recv_client_init_failed"));
    EXPECT_EQ(EPoll::send_client_init(rec), -1);
    expect_booked_without_socket(rec);
    EXPECT_EQ(take_shown_traces(),
              (lines{traced('E', text("file_client"), text("fault_request_recv_client")),
                     traced('E', text("file_client"), text("connect_init_failed"), {"127.0.0.1"})}));
}

TEST_F(sending_the_block, leaves_both_cursors_alone) {
    rec->send_ptr = block.data();
    rec->recv_ptr = block.data() + 1;
    EPoll::send_client_init(rec);
    EXPECT_EQ(rec->send_ptr, block.data());
    EXPECT_EQ(rec->recv_ptr, block.data() + 1);
}

TEST_F(sending_the_block, of_a_destination_withdrawn_meanwhile_sends_0_bytes_and_fails) {
    system.cap("send", 1, 100);
    EPoll::send_client_init(rec);
    EPoll::g_remote_server_map[at_port()] = 1;
    INet_Relay::del_client(Zolt::c_local_host, c_port);
    expect_error(text("send_client_init_failed"));
    EXPECT_EQ(EPoll::send_client_init(rec), 0);
    EXPECT_EQ(system.calls("send").back().size, 0u);
    EXPECT_FALSE(lives(rec));
    EXPECT_THAT(EPoll::g_connect_map, IsEmpty());
    EXPECT_THAT(EPoll::g_connect_fail_map, IsEmpty());
}

TEST_F(sending_the_block, lets_what_is_not_a_string_through_and_releases_the_lock) {
    system.on("send", [](system_call const&) { throw 7; });
    expect_error(text("send_went_on"));
    serve(system, EPoll::epoll_thread_tcp_send_entry, EPoll::epoll_tcp_send, {{EPOLLOUT, rec}});
    EXPECT_EQ(registries_of(rec), "connect");
}

class failing_to_send_the_block : public sending_the_block, public ::testing::WithParamInterface<failed_transfer> {};

TEST_P(failing_to_send_the_block, prints_and_books_the_record) {
    script(system, "send", GetParam());
    expect_error(text("send_client_init_failed"));
    EXPECT_EQ(EPoll::send_client_init(rec), 0);
    expect_booked_without_socket(rec);
    EXPECT_EQ(system.count("send"), 1u);
    EXPECT_THAT(take_offers(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(results, failing_to_send_the_block, all_failed_transfers);

// --- the answer is received -------------------------------------------------------------------------------------

class receiving_the_answer : public exchange {
protected:
    void SetUp() override {
        exchange::SetUp();
        rec = awaiting_answer("rec");
    }

    /// The whole answer is there to be read.
    void answer() { write_bytes(peer_of(rec), init_block(1, c_gate)); }

    void serve_one() { serve(system, EPoll::epoll_thread_tcp_recv_entry, EPoll::epoll_tcp_recv, {{EPOLLIN, rec}}); }

    /// By a result other than 0. The host leaves the same errno behind, so that it does not matter what was called last.
    void expect_thread_to_end() {
        spoil_errno(ENOMEM);
        expect_error(text("tcp_recv_ended_by") + text("recv_client_init_ended") + text("ended_errno") + "12\n");
    }

    tcp_record* rec = nullptr;
};

TEST_F(receiving_the_answer, takes_its_steps_in_order) {
    answer();
    EXPECT_EQ(EPoll::recv_client_init(rec), 0);
    EXPECT_EQ(lines_without_numbers(about::system | about::trace | about::center),
              (lines{"recv(rec.fd, 1024, 0)",
                     "zolt_debug_not_send(E, no token, \"success_receive_client_init - size %d , remain size %d\")",
                     ctl("tcp_recv", "MOD", "rec.fd", c_recv_mask, "rec"),
                     "zolt_debug_not_send(t, token, \"tcp received\")", "send_zolt_center(token)"}));
}

TEST_F(receiving_the_answer, makes_the_connection_an_established_one) {
    answer();
    EPoll::recv_client_init(rec);
    EXPECT_EQ(rec->kind, EPoll::c_kind_established_client);
    EXPECT_EQ(rec->gate_port, c_gate);
    EXPECT_EQ(registries_of(rec), "establish");
    EXPECT_EQ(INet_Relay::get_gate_port_of_local(at_port()), c_gate);
    EXPECT_EQ(block_bytes(rec->server_init_header), init_block(1, c_gate));
}

TEST_F(receiving_the_answer, knows_gate_port_and_kind_before_the_next_read_is_armed) {
    answer();
    system.on("epoll_ctl", [this](system_call const&) {
        EXPECT_EQ(rec->gate_port, c_gate);
        EXPECT_EQ(rec->kind, EPoll::c_kind_established_client);
        EXPECT_EQ(fields_of(rec->recv_token).dst_port, c_gate);
        EXPECT_EQ(registries_of(rec), "connect");
    });
    EPoll::recv_client_init(rec);
    EXPECT_EQ(system.count("epoll_ctl"), 1u);
}

TEST_F(receiving_the_answer, looks_at_nothing_but_the_port_of_the_receiver) {
    bytes block(c_block_size);
    std::iota(block.begin(), block.end(), static_cast<unsigned char>(0x5A));
    bytes const port = init_block(0, c_gate);
    std::copy_n(port.begin() + 2, 2, block.begin() + 2);
    write_bytes(peer_of(rec), block);
    EXPECT_EQ(EPoll::recv_client_init(rec), 0);
    EXPECT_EQ(rec->gate_port, c_gate);
    EXPECT_EQ(block_bytes(rec->server_init_header), block);
}

TEST_F(receiving_the_answer, assembles_pieces_at_their_offsets) {
    bytes block(c_block_size);
    std::iota(block.begin(), block.end(), static_cast<unsigned char>(0));
    std::size_t const pieces[] = {1, 500, 523};
    std::size_t read = 0;
    for (std::size_t const piece : pieces) {
        system.deliver("recv", 1, part_of(block, read, piece));
        set_clock(1000 + read);
        EXPECT_EQ(EPoll::recv_client_init(rec), 0);
        read += piece;
    }
    EXPECT_EQ(block_bytes(rec->server_init_header), block);
    EXPECT_EQ(rec->recv_clock, 1501u);
    auto const reads = system.calls("recv");
    ASSERT_EQ(reads.size(), 3u);
    EXPECT_EQ(reads[1].size, 1023u);
    EXPECT_EQ(reads[2].size, 523u);
}

TEST_F(receiving_the_answer, waits_for_the_rest_of_a_piece) {
    rec->recv_ptr = reinterpret_cast<unsigned char*>(rec);
    system.deliver("recv", 1, bytes(100));
    EXPECT_EQ(EPoll::recv_client_init(rec), 0);
    EXPECT_EQ(rec->recv_remain, 924u);
    EXPECT_EQ(rec->kind, EPoll::c_kind_connecting);
    EXPECT_EQ(rec->recv_ptr, reinterpret_cast<unsigned char*>(rec));
    EXPECT_EQ(journal_lines(about::system),
              (lines{"recv(rec.fd, 1024, 0)", ctl("tcp_recv", "MOD", "rec.fd", c_recv_mask, "rec")}));
    EXPECT_EQ(registries_of(rec), "connect");
}

TEST_F(receiving_the_answer, traces_each_piece_with_what_was_missing_before_it) {
    system.deliver("recv", 1, bytes(100));
    system.deliver("recv", 2, bytes(24));
    EPoll::recv_client_init(rec);
    EPoll::recv_client_init(rec);
    EXPECT_EQ(take_shown_traces(), (lines{traced('E', text("file_client"), text("received_piece"), {"100", "1024"}),
                                          traced('E', text("file_client"), text("received_piece"), {"24", "924"})}));
}

TEST_F(receiving_the_answer, that_cannot_wait_for_the_rest_ends_the_thread_without_a_word_of_its_own) {
    system.deliver("recv", 1, bytes(100));
    system.fail("epoll_ctl", 1, ENOMEM);
    expect_thread_to_end();
    serve_one();
    EXPECT_EQ(rec->recv_remain, 924u);
    EXPECT_EQ(registries_of(rec), "connect");
}

TEST_F(receiving_the_answer, that_cannot_go_on_to_packets_ends_connection_and_thread) {
    answer();
    system.fail("epoll_ctl", 1, ENOMEM);
    expect_error(text("arm_client_header_failed"));
    expect_error(text("request_recv_client_header_failed"));
    expect_thread_to_end();
    serve_one();
    EXPECT_FALSE(lives(rec));
    EXPECT_THAT(EPoll::g_connect_map, IsEmpty());
    EXPECT_THAT(live_records(), ElementsAre(EPoll::g_connect_fail_map.at(at_port())));
    EXPECT_THAT(take_offers(), IsEmpty());
}

TEST_F(receiving_the_answer, answers_what_establishing_answered) {
    answer();
    engine.answer("eproc_send_connected_to_server_msg_to_center", 1);
    EXPECT_EQ(EPoll::recv_client_init(rec), -1);
}

TEST_F(receiving_the_answer, of_which_the_center_could_not_be_told_ends_the_thread) {
    answer();
    engine.answer("eproc_send_connected_to_server_msg_to_center", 1);
    expect_thread_to_end();
    serve_one();
    EXPECT_EQ(rec->kind, EPoll::c_kind_established_client);
    EXPECT_EQ(registries_of(rec), "");
    EXPECT_TRUE(lives(rec));
    EXPECT_NE(rec->fd, -1);
}

TEST_F(receiving_the_answer, lets_what_is_not_a_string_through) {
    answer();
    engine.on("eproc_send_connected_to_server_msg_to_center", [](void*) -> int { throw 7; });
    expect_error(text("recv_went_on"));
    serve_one();
    EXPECT_EQ(registries_of(rec), "establish");
}

TEST_F(receiving_the_answer, arms_the_marker_of_a_destination_withdrawn_meanwhile) {
    EPoll::g_remote_server_map[at_port()] = 1;
    INet_Relay::del_client(Zolt::c_local_host, c_port);
    answer();
    forget_calls();
    EXPECT_EQ(EPoll::recv_client_init(rec), 0);
    EXPECT_EQ(lines_without_numbers(about::system | about::center),
              (lines{"recv(rec.fd, 1024, 0)", ctl("tcp_recv", "MOD", "rec.fd", c_recv_mask, "rec"),
                     "send_zolt_center(token)", ctl("tcp_send", "MOD", "rec.fd", c_send_mask, "rec")}));
    EXPECT_THAT(system.calls("epoll_ctl").back().locks, ElementsAre("rec.send_lock"));
    serve(system, EPoll::epoll_thread_tcp_send_entry, EPoll::epoll_tcp_send, {{EPOLLOUT, rec}});
    EXPECT_EQ(system.calls("shutdown").at(0).text, "shutdown(rec.fd, SHUT_WR)");
    EXPECT_THAT(rec->send_q, IsEmpty());
}

TEST_F(receiving_the_answer, prints_when_the_marker_cannot_be_armed_and_stands) {
    rec->send_q.push_back(Zolt::struct_token());
    answer();
    system.fail("epoll_ctl", 2, ENOMEM);
    expect_error(text("send_request_failed"));
    EXPECT_EQ(EPoll::recv_client_init(rec), 0);
    EXPECT_EQ(registries_of(rec), "establish");
    EXPECT_FALSE(rec->send_armed);
}

TEST_F(receiving_the_answer, arms_no_marker_when_the_center_could_not_be_told) {
    rec->send_q.push_back(Zolt::struct_token());
    answer();
    engine.answer("eproc_send_connected_to_server_msg_to_center", 1);
    EXPECT_EQ(EPoll::recv_client_init(rec), -1);
    EXPECT_EQ(system.count("epoll_ctl"), 1u);
}

TEST_F(receiving_the_answer, does_not_arm_what_is_armed_already) {
    rec->send_q.push_back(Zolt::struct_token());
    rec->send_armed = true;
    answer();
    EPoll::recv_client_init(rec);
    EXPECT_EQ(system.count("epoll_ctl"), 1u);
}

class failing_to_receive_the_answer : public receiving_the_answer,
                                      public ::testing::WithParamInterface<failed_transfer> {};

TEST_P(failing_to_receive_the_answer, prints_and_books_the_record_in_silence) {
    script(system, "recv", GetParam());
    expect_error(text("recv_client_init_failed"));
    EXPECT_EQ(EPoll::recv_client_init(rec), 0);
    expect_booked_without_socket(rec);
    EXPECT_THAT(take_offers(), IsEmpty());
    EXPECT_THAT(take_shown_traces(),
                ElementsAre(traced('E', text("file_client"), text("connect_init_failed"), {"127.0.0.1"})));
}

TEST_P(failing_to_receive_the_answer, destroys_the_record_of_a_withdrawn_destination) {
    rec->close_requested = true;
    script(system, "recv", GetParam());
    expect_error(text("recv_client_init_failed"));
    EXPECT_EQ(EPoll::recv_client_init(rec), 0);
    EXPECT_FALSE(lives(rec));
    EXPECT_EQ(registries_of(rec), "");
    EXPECT_THAT(take_offers(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(results, failing_to_receive_the_answer, all_failed_transfers);

// --- established, and not any more ------------------------------------------------------------------------------

class establishing : public exchange {};

TEST_F(establishing, moves_the_entry_under_the_registry_lock) {
    tcp_record* const rec = awaiting_answer("rec");
    EXPECT_EQ(EPoll::establish_connect(rec), 0);
    EXPECT_EQ(registries_of(rec), "establish");
    EXPECT_EQ(journal_lines(about::lock),
              (lines{"g_client_lock.lock(pointer, depth 1)", "g_client_lock.unlock(guard, depth 0)"}));
}

TEST_F(establishing, tells_the_center_afterwards_without_a_lock) {
    tcp_record* const rec = awaiting_answer("rec");
    rec->gate_port = c_gate;
    on_offer([rec](packet_fields const& notice) {
        EXPECT_EQ(registries_of(rec), "establish");
        EXPECT_EQ(notice.dst_port, c_gate);
        return c_center_took;
    });
    EPoll::establish_connect(rec);
    EXPECT_EQ(take_notices(), (one_notice{{c_connected_to_server, 0}}));
}

TEST_F(establishing, stands_whatever_the_center_answers) {
    tcp_record* const rec = awaiting_answer("rec");
    script_center({c_center_refused});
    EXPECT_EQ(EPoll::establish_connect(rec), 0);
    EXPECT_EQ(registries_of(rec), "establish");
}

TEST_F(establishing, keeps_the_entry_of_another_record) {
    tcp_record* const old = established("old");
    tcp_record* const rec = awaiting_answer("rec");
    EXPECT_EQ(EPoll::establish_connect(rec), 0);
    EXPECT_EQ(registries_of(old), "establish");
    EXPECT_THAT(EPoll::g_connect_map, IsEmpty());
    EXPECT_EQ(take_notices(), (one_notice{{c_connected_to_server, 0}}));
}

TEST_F(establishing, of_which_the_center_could_not_be_told_is_undone) {
    tcp_record* const rec = awaiting_answer("rec");
    engine.answer("eproc_send_connected_to_server_msg_to_center", 1);
    EXPECT_EQ(EPoll::establish_connect(rec), -1);
    EXPECT_EQ(registries_of(rec), "");
    EXPECT_TRUE(lives(rec));
    auto const traces = take_traces();
    ASSERT_EQ(traces.size(), 1u);
    EXPECT_EQ(shown(traces[0]), traced('E', text("file_client"), text("fault_connected_to_server")));
    EXPECT_THAT(traces[0].locks, ElementsAre("g_client_lock"));
}

TEST_F(establishing, of_which_the_center_could_not_be_told_leaves_the_entry_of_another_record) {
    tcp_record* const old = established("old");
    engine.answer("eproc_send_connected_to_server_msg_to_center", 1);
    EXPECT_EQ(EPoll::establish_connect(awaiting_answer("rec")), -1);
    EXPECT_EQ(registries_of(old), "establish");
}

class ending_an_established_connection : public exchange {
protected:
    void SetUp() override {
        exchange::SetUp();
        rec = established("rec");
    }

    void serve_one(std::uint32_t mask) {
        serve(system, EPoll::epoll_thread_tcp_recv_entry, EPoll::epoll_tcp_recv, {{mask, rec}});
    }

    /// While the notice is offered the destination has no connection any more, and the record is still there.
    void watch_offer() {
        on_offer([this](packet_fields const&) {
            EXPECT_FALSE(EPoll::g_establish_client_map.contains(at_port()));
            EXPECT_TRUE(lives(rec));
            return c_center_took;
        });
    }

    void expect_replaced() {
        EXPECT_FALSE(lives(rec));
        ASSERT_TRUE(EPoll::g_connect_fail_map.contains(at_port()));
        EXPECT_THAT(live_records(), ElementsAre(EPoll::g_connect_fail_map.at(at_port())));
    }

    tcp_record* rec = nullptr;
};

TEST_F(ending_an_established_connection, unfiles_it_under_the_lock_and_then_tells_the_center) {
    watch_offer();
    EXPECT_EQ(EPoll::unestablish_connect(rec), 0);
    EXPECT_EQ(lines_without_numbers(about::lock | about::center),
              (lines{"g_client_lock.lock(pointer, depth 1)", "g_client_lock.unlock(guard, depth 0)",
                     "send_zolt_center(token)"}));
    EXPECT_EQ(take_notices(), (one_notice{{c_disconnected_from_server, 0}}));
}

TEST_F(ending_an_established_connection, of_which_the_center_could_not_be_told_is_traced) {
    engine.answer("eproc_send_disconnected_from_server_msg_to_center", 1);
    EPoll::unestablish_connect(rec);
    EXPECT_EQ(take_shown_traces(), (lines{traced('E', text("file_client"), text("fault_connected_to_server"))}));
    EXPECT_EQ(registries_of(rec), "");
}

TEST_F(ending_an_established_connection, by_an_error_event_unfiles_tells_and_then_closes) {
    watch_offer();
    serve_one(EPOLLIN | EPOLLERR | EPOLLHUP);
    lines order = lines_without_numbers(about::engine | about::center);
    order.resize(5);
    EXPECT_EQ(order,
              (lines{"EPoll::unestablish_connect(rec)", "EPoll::eproc_send_disconnected_from_server_msg_to_center(rec)",
                     "send_zolt_center(token)", "EPoll::close_client(rec)", "EPoll::delete_overlapped(rec)"}));
    EXPECT_EQ(take_notices(), (one_notice{{c_disconnected_from_server, 0}}));
    expect_replaced();
}

TEST_F(ending_an_established_connection, by_a_failed_read_tells_the_center_once_before_it_is_destroyed) {
    watch_offer();
    system.answer("recv", 1, 0);
    expect_error(text("recv_client_failed"));
    serve_one(EPOLLIN);
    EXPECT_EQ(take_notices(), (one_notice{{c_disconnected_from_server, 0}}));
    expect_replaced();
}

TEST_F(ending_an_established_connection, whose_destination_is_booked_already_adds_no_second_booking) {
    tcp_record* const booked = waiting("booked");
    serve_one(EPOLLIN | EPOLLERR | EPOLLHUP);
    EXPECT_EQ(registries_of(booked), "fail");
    EXPECT_THAT(live_records(), ElementsAre(booked));
}

TEST_F(ending_an_established_connection, lets_the_next_one_of_the_destination_take_its_place) {
    tcp_record* const next = awaiting_answer("next");
    EPoll::establish_connect(next);
    take_offers();
    serve_one(EPOLLIN | EPOLLERR | EPOLLHUP);
    EXPECT_EQ(registries_of(next), "establish");
    EXPECT_EQ(take_notices(), (one_notice{{c_disconnected_from_server, 0}}));
}

TEST_F(ending_an_established_connection, drops_what_waits_for_acknowledgement_without_notice) {
    auto const call = make_token({.call = true});
    rec->ack_q.push_back(call);
    serve_one(EPOLLIN | EPOLLERR | EPOLLHUP);
    EXPECT_EQ(take_notices(), (one_notice{{c_disconnected_from_server, 0}}));
    EXPECT_FALSE(is_live(call));
}

// --- with real peers --------------------------------------------------------------------------------------------

class real_exchange : public running_relay {
protected:
    void SetUp() override {
        running_relay::SetUp();
        listener = &listen();
        port = local_port(*listener);
        INet_Relay::add_client(Zolt::c_local_host, port);
    }

    /// The peer, once it has the whole block of the relay; its answer is still to come.
    descriptor& take_block() {
        descriptor& peer = accept(*listener);
        block = read_bytes(peer, c_block_size);
        return peer;
    }

    descriptor& establish_with(descriptor& peer) {
        write_bytes(peer, init_block(port, c_gate));
        EXPECT_TRUE(wait_until([this] { return is_established(port); }));
        return peer;
    }

    static bool wait_for_pieces(std::ptrdiff_t count) {
        return wait_for_journal([count](std::vector<journal_entry> const& entries) {
            return std::ranges::count_if(entries, [](journal_entry const& entry) {
                       return entry.text.find(text("received_piece")) != std::string::npos;
                   }) >= count;
        });
    }

    descriptor* listener = nullptr;
    std::uint16_t port = 0;
    bytes block;
};

TEST_F(real_exchange, begins_with_the_block_of_the_connecting_side_and_nothing_else) {
    descriptor& peer = take_block();
    sockaddr_in from{};
    socklen_t size = sizeof from;
    ASSERT_EQ(::getpeername(peer.get(), reinterpret_cast<sockaddr*>(&from), &size), 0);
    EXPECT_EQ(block, init_block(ntohs(from.sin_port), port));
    establish_with(peer);
    INet_Relay::del_client(Zolt::c_local_host, port);
    EXPECT_THAT(read_bytes(peer, 1), IsEmpty()) << "more than 1024 bytes before the connection was closed";
}

TEST_F(real_exchange, takes_an_answer_in_pieces) {
    descriptor& peer = take_block();
    bytes const answer = init_block(port, c_gate);
    std::size_t const pieces[] = {1, 2, 1000, 21};
    std::size_t written = 0;
    std::ptrdiff_t count = 0;
    for (std::size_t const piece : pieces) {
        write_bytes(peer, part_of(answer, written, piece));
        written += piece;
        ASSERT_TRUE(wait_for_pieces(++count));
    }
    EXPECT_TRUE(wait_until([this] { return is_established(port); }));
    EXPECT_EQ(INet_Relay::get_gate_port_of_local(at_port(port)), c_gate);
}

TEST_F(real_exchange, whose_peer_closes_is_booked_and_the_center_hears_nothing) {
    descriptor& peer = take_block();
    expect_error(text("recv_client_init_failed"));
    peer.close();
    EXPECT_TRUE(wait_until([this] { return is_booked(port); }));
    EXPECT_THAT(take_offers(), IsEmpty());
}

TEST_F(real_exchange, whose_peer_closes_after_the_withdrawal_leaves_nothing) {
    descriptor& peer = take_block();
    INet_Relay::del_client(Zolt::c_local_host, port);
    expect_error(text("recv_client_init_failed"));
    peer.close();
    EXPECT_TRUE(wait_until([] { return EPoll::g_outgoing.first == nullptr; }));
    EXPECT_THAT(take_offers(), IsEmpty());
}

TEST_F(real_exchange, with_a_silent_peer_ends_at_the_time_out) {
    take_block();
    ASSERT_TRUE(wait_for_lines("epoll_ctl", 4)); // the fourth asks for the answer: the block is stamped
    advance_clock(c_timeout + 1);
    EPoll::timer_cancel_connect(Tesk::OS::lemon_clock());
    EXPECT_TRUE(wait_for_lines("EPoll::failed_connect_init", 1));
    EXPECT_TRUE(wait_until([this] { return is_booked(port); }));
    EXPECT_THAT(take_offers(), IsEmpty());
}

TEST_F(real_exchange, then_reset_tells_the_center_and_books_the_destination) {
    descriptor& peer = establish_with(take_block());
    reset_connection(peer);
    EXPECT_TRUE(wait_for_lines("EPoll::delete_overlapped", 1));
    EXPECT_TRUE(wait_until([this] { return is_booked(port) && !is_established(port); }));
    auto const offers = take_offers();
    ASSERT_EQ(offers.size(), 2u);
    EXPECT_EQ(offers[0].packet.event, c_connected_to_server);
    EXPECT_EQ(offers[1].packet.event, c_disconnected_from_server);
}

} // namespace
