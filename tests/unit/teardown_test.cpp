// The end of an established connection on both sides: what is told, booked and queued at once, who destroys the record,
// and that nothing is left whatever ended it and whatever it was doing.
#include "tests/unit/accepting_fixture.hpp"

#include <cerrno>

namespace {

using namespace relay_test;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr std::uint32_t c_hung_up = EPOLLIN | EPOLLERR | EPOLLHUP;

// --- the outgoing side --------------------------------------------------------------------------------------------

class closing_an_outgoing_connection : public accepting_fixture {
protected:
    void SetUp() override {
        accepting_fixture::SetUp();
        rec = established("rec");
        rec->local_port = 7000;
        rec->recv_clock = 1;
    }

    static tcp_record* booked() {
        auto const entry = EPoll::g_connect_fail_map.find(at_port());
        return entry == EPoll::g_connect_fail_map.end() ? nullptr : entry->second;
    }

    tcp_record* rec = nullptr;
};

TEST_F(closing_an_outgoing_connection, books_a_fresh_record_of_the_destination) {
    EXPECT_EQ(EPoll::close_client(rec), 0);
    ASSERT_NE(booked(), nullptr);
    EXPECT_EQ(booked()->fd, -1);
    EXPECT_EQ(booked()->kind, 3);
    EXPECT_EQ(EPoll::peer_of(booked()), at_port());
    EXPECT_EQ(booked()->local_ip, 0u);
    EXPECT_EQ(booked()->local_port + booked()->gate_port, 0);
    EXPECT_EQ(booked()->recv_clock + booked()->send_clock + booked()->recv_remain + booked()->send_remain, 0u);
    EXPECT_THAT(booked()->send_q, IsEmpty());
    EXPECT_THAT(booked()->ack_q, IsEmpty());
    EXPECT_FALSE(booked()->sending || booked()->sending_header || booked()->close_requested);
    EXPECT_FALSE(lives(rec));
}

TEST_F(closing_an_outgoing_connection, books_under_the_registry_lock_and_destroys_after_it) {
    EPoll::close_client(rec);
    lines const order = journal_lines(about::lock | about::center | about::system);
    ASSERT_GE(order.size(), 2u);
    EXPECT_EQ((lines{order[0], order[1]}), lock_and_unlock("g_client_lock"));
    for (journal_entry const& entry : journal_entries(about::engine | about::system)) {
        EXPECT_EQ(std::ranges::count(entry.locks, "g_client_lock"), 0) << entry.text;
    }
    EXPECT_EQ(engine.records("delete_overlapped"), (std::vector<void const*>{rec}));
}

TEST_F(closing_an_outgoing_connection, has_booked_before_the_old_record_is_destroyed) {
    engine.on("delete_overlapped", [this](void* destroyed) {
        EXPECT_EQ(destroyed, rec);
        EXPECT_NE(booked(), nullptr);
        EXPECT_NE(booked(), rec);
        EXPECT_EQ(held_lock_count(), 0);
        return 0;
    });
    EPoll::close_client(rec);
    EXPECT_EQ(engine.count("delete_overlapped"), 1u);
}

TEST_F(closing_an_outgoing_connection, answers_what_the_destruction_answered) {
    engine.answer("delete_overlapped", 5);
    EXPECT_EQ(EPoll::close_client(rec), 5);
}

TEST_F(closing_an_outgoing_connection, keeps_a_booking_that_is_there) {
    tcp_record* const older = waiting("older");
    EPoll::close_client(rec);
    EXPECT_EQ(booked(), older);
    EXPECT_THAT(EPoll::g_connect_fail_map, SizeIs(1));
    EXPECT_THAT(live_records(), ElementsAre(older));
}

TEST_F(closing_an_outgoing_connection, twice_books_once) {
    tcp_record* const second = unfiled("second");
    EPoll::close_client(rec);
    tcp_record* const first_booking = booked();
    EPoll::close_client(second);
    EXPECT_EQ(booked(), first_booking);
    EXPECT_THAT(live_records(), ElementsAre(first_booking));
}

TEST_F(closing_an_outgoing_connection, of_a_withdrawn_destination_books_nothing) {
    rec->close_requested = true;
    EXPECT_EQ(EPoll::close_client(rec), 0);
    EXPECT_EQ(booked(), nullptr);
    EXPECT_THAT(live_records(), IsEmpty());
}

TEST_F(closing_an_outgoing_connection, of_a_withdrawn_destination_answers_what_the_destruction_answered) {
    rec->close_requested = true;
    engine.answer("delete_overlapped", 5);
    EXPECT_EQ(EPoll::close_client(rec), 5);
    EXPECT_EQ(booked(), nullptr);
}

TEST_F(closing_an_outgoing_connection, tells_the_center_once_when_nobody_did_so_before) {
    EPoll::close_client(rec);
    EXPECT_THAT(take_notices(), ElementsAre(std::pair<unsigned char, std::size_t>{2, 0}));
    EXPECT_FALSE(EPoll::g_establish_client_map.contains(at_port()));
}

TEST_F(closing_an_outgoing_connection, that_was_taken_off_before_tells_nobody) {
    EPoll::unestablish_connect(rec);
    take_offers();
    EPoll::close_client(rec);
    EXPECT_THAT(take_offers(), IsEmpty());
}

TEST_F(closing_an_outgoing_connection, is_tried_again_on_each_tick_until_an_attempt_is_under_way) {
    EPoll::close_client(rec);
    for (int tick = 0; tick < 3; ++tick) {
        system.fail("connect", 1, ECONNREFUSED);
        expect_error(text("connect_failed") + "111\n");
        EPoll::timer_inet(nullptr);
        EXPECT_NE(booked(), nullptr);
    }
    system.fail("connect", 1, EINPROGRESS);
    EPoll::timer_inet(nullptr);
    EPoll::timer_inet(nullptr);
    EXPECT_EQ(booked(), nullptr);
    EXPECT_EQ(system.count("connect"), 4u);
    EXPECT_THAT(EPoll::g_connect_map, SizeIs(1));
}

TEST_F(closing_an_outgoing_connection, while_the_send_thread_has_an_event_due_leaves_the_record_to_it) {
    rec->send_armed = true;
    EXPECT_EQ(EPoll::close_client(rec), 0);
    EXPECT_TRUE(lives(rec));
    EXPECT_TRUE(rec->doomed);
    EXPECT_EQ(system.calls("shutdown").at(0).text, "shutdown(rec.fd, SHUT_RDWR)");
    EXPECT_EQ(engine.count("delete_overlapped"), 0u);
    send_event(EPOLLOUT | EPOLLHUP, rec);
    EXPECT_FALSE(lives(rec));
}

TEST_F(closing_an_outgoing_connection, does_not_wait_for_a_write_that_nobody_will_finish) {
    Zolt::struct_token const token = make_token({.sequence = 1});
    rec->send_q.push_back(token);
    rec->sending = true;
    rec->send_ptr = reinterpret_cast<unsigned char*>(rec);
    on_thread_yield([] { throw std::string("the write was waited for"); });
    EXPECT_EQ(EPoll::close_client(rec), 0);
    EXPECT_FALSE(lives(rec));
}

// --- the accepting side -------------------------------------------------------------------------------------------

class shutting_down_an_accepted_connection : public accepting_fixture {
protected:
    void SetUp() override {
        accepting_fixture::SetUp();
        rec = served("rec");
    }

    /// The Center hands packets over; each is a header.
    void hand_over(std::uint32_t count) {
        for (std::uint32_t sequence = 1; sequence <= count; ++sequence) {
            Zolt::struct_token token = make_token({.sequence = sequence});
            INet_Relay::send_tcp_server(at_port(), token, token.get_header_packet());
        }
        forget_calls();
    }

    static std::string armed() { return ctl("tcp_send", "MOD", "rec.fd", c_send_mask, "rec"); }

    tcp_record* rec = nullptr;
};

TEST_F(shutting_down_an_accepted_connection, tells_the_center_before_anything_is_done_to_the_socket) {
    EPoll::shutdown_server(rec);
    EXPECT_EQ(lines_without_numbers(about::center | about::system), (lines{"send_zolt_center(token)", armed()}));
    EXPECT_EQ(take_notices(), (notices{{c_disconnected_from_client, 0}}));
}

TEST_F(shutting_down_an_accepted_connection, unfiles_it_before_the_center_is_told) {
    on_offer([this](packet_fields const& notice) {
        EXPECT_EQ(filed(), nullptr);
        EXPECT_EQ(notice.src_port, c_port);
        EXPECT_THAT(rec->send_q, IsEmpty());
        return c_center_took;
    });
    EPoll::shutdown_server(rec);
    EXPECT_THAT(take_offers(), SizeIs(1));
}

TEST_F(shutting_down_an_accepted_connection, with_nothing_queued_arms_the_close_marker) {
    rec->send_ptr = reinterpret_cast<unsigned char*>(rec);
    rec->send_remain = 5;
    EPoll::shutdown_server(rec);
    ASSERT_THAT(rec->send_q, SizeIs(1));
    EXPECT_FALSE(has_header_part(rec->send_q.front()));
    EXPECT_EQ(rec->send_ptr, nullptr);
    EXPECT_EQ(rec->send_remain, 0u);
    EXPECT_TRUE(rec->sending_header && rec->sending);
    EXPECT_EQ(journal_lines(about::system), (lines{armed()}));
    EXPECT_THAT(system.calls("epoll_ctl").at(0).locks, ElementsAre("rec.send_lock"));
}

TEST_F(shutting_down_an_accepted_connection, with_packets_queued_appends_the_marker_and_arms_nothing) {
    hand_over(3);
    unsigned char const* const at = rec->send_ptr;
    EPoll::shutdown_server(rec);
    ASSERT_THAT(rec->send_q, SizeIs(4));
    EXPECT_FALSE(has_header_part(rec->send_q.back()));
    EXPECT_EQ(rec->send_ptr, at);
    EXPECT_EQ(rec->send_remain, header_size());
    EXPECT_THAT(journal_lines(about::system), IsEmpty());
}

TEST_F(shutting_down_an_accepted_connection, sends_what_is_queued_before_the_socket_is_shut_down) {
    hand_over(3);
    EPoll::shutdown_server(rec);
    EXPECT_TRUE(serve_until([this] { return is_gone(rec); }));
    bytes const stream = read_bytes(far_end(rec), 3 * header_size());
    for (std::uint32_t at = 0; at < 3; ++at) {
        EXPECT_EQ(read_packet(part_of(stream, at * header_size(), header_size())).sequence, at + 1);
    }
    EXPECT_TRUE(is_closed_by_peer(far_end(rec)));
    lines calls = journal_lines(about::system);
    std::erase_if(calls, [](std::string const& line) { return line.starts_with("epoll_") || line.starts_with("ff"); });
    EXPECT_EQ(calls, (lines{"send(rec.fd, 64, 0)", "send(rec.fd, 64, 0)", "send(rec.fd, 64, 0)",
                            "shutdown(rec.fd, SHUT_WR)", "close(rec.fd)"}));
}

TEST_F(shutting_down_an_accepted_connection, leaves_the_destruction_to_the_send_thread) {
    EPoll::shutdown_server(rec);
    EXPECT_FALSE(is_gone(rec));
    EXPECT_EQ(system.count("shutdown") + system.count("close"), 0u);
    EXPECT_TRUE(rec->doomed);
    send_event(EPOLLOUT, rec);
    EXPECT_TRUE(is_gone(rec));
}

TEST_F(shutting_down_an_accepted_connection, ends_at_the_next_event_of_the_send_thread_whatever_it_reports) {
    for (std::uint32_t const mask :
         {std::uint32_t{EPOLLOUT}, std::uint32_t{EPOLLOUT | EPOLLHUP}, std::uint32_t{EPOLLOUT | EPOLLERR | EPOLLHUP}}) {
        tcp_record* const each = served("each");
        EPoll::shutdown_server(each);
        send_event(mask, each);
        EXPECT_TRUE(is_gone(each)) << hex(mask);
    }
}

TEST_F(shutting_down_an_accepted_connection, prints_when_the_marker_cannot_be_armed_and_destroys_by_itself) {
    system.fail("epoll_ctl", 1, ENOENT);
    expect_error(text("send_request_failed"));
    EPoll::shutdown_server(rec);
    EXPECT_TRUE(is_gone(rec));
    EXPECT_EQ(take_notices(), (notices{{c_disconnected_from_client, 0}}));
}

TEST_F(shutting_down_an_accepted_connection, with_a_queue_at_rest_arms_the_send_thread_and_returns_the_packets) {
    hand_over(2);
    system.fail("send", 1, EPIPE);
    send_event(EPOLLOUT, rec);
    forget_calls();
    take_offers();
    EPoll::shutdown_server(rec);
    EXPECT_EQ(journal_lines(about::system), (lines{armed()}));
    send_event(EPOLLOUT, rec);
    EXPECT_TRUE(is_gone(rec));
    EXPECT_EQ(system.count("send"), 0u);
    auto const offers = take_offers();
    ASSERT_THAT(offers, SizeIs(3));
    EXPECT_EQ(offers[0].packet.event, c_disconnected_from_client);
    EXPECT_EQ(offers[1].packet.error, Zolt::c_zolt_err_not_connected_tcp);
    EXPECT_EQ(offers[2].packet.sequence, 2u);
}

TEST_F(shutting_down_an_accepted_connection, with_a_queue_at_rest_that_cannot_be_armed_destroys_by_itself) {
    hand_over(1);
    system.fail("send", 1, EPIPE);
    send_event(EPOLLOUT, rec);
    system.fail("epoll_ctl", 1, ENOENT);
    expect_error(text("send_request_failed"));
    EPoll::shutdown_server(rec);
    EXPECT_TRUE(is_gone(rec));
}

TEST_F(shutting_down_an_accepted_connection, does_not_wait_for_a_write_that_could_not_be_armed) {
    system.fail("epoll_ctl", 1, ENOENT);
    system.fail("epoll_ctl", 2, ENOENT);
    expect_error(text("send_request_failed"));
    expect_error(text("send_request_failed"));
    hand_over(1);
    on_thread_yield([] { throw std::string("the write was waited for"); });
    EPoll::shutdown_server(rec);
    EXPECT_TRUE(is_gone(rec));
}

TEST_F(shutting_down_an_accepted_connection, takes_its_locks_one_after_the_other) {
    EPoll::shutdown_server(rec);
    lines taken;
    for (journal_entry const& entry : journal_entries(about::lock)) {
        EXPECT_LE(entry.locks.size(), 1u) << entry.text;
        taken.push_back(entry.text.substr(0, entry.text.find('(')));
    }
    EXPECT_EQ(taken, (lines{"g_establish_server_map_lock.lock", "g_establish_server_map_lock.unlock",
                            "g_establish_server_map_lock.lock", "g_establish_server_map_lock.unlock",
                            "rec.send_lock.lock", "rec.send_lock.unlock"}));
}

TEST_F(shutting_down_an_accepted_connection, goes_on_when_the_center_could_not_be_told) {
    engine.answer("unestablish_accept", 1);
    engine.answer("eproc_send_disconnected_from_client_msg_to_center", 1);
    EPoll::shutdown_server(rec);
    EXPECT_THAT(rec->send_q, SizeIs(1));
    EXPECT_EQ(journal_lines(about::system), (lines{armed()}));
}

TEST_F(shutting_down_an_accepted_connection, follows_an_error_event_and_a_failed_read_alike) {
    receive_event(c_hung_up, rec);
    tcp_record* const other = served("other", c_port + 1);
    other->recv_remain = 1;
    unsigned char byte = 0;
    other->recv_ptr = &byte;
    system.answer("recv", 1, 0);
    expect_error(text("recv_server_failed"));
    receive_event(EPOLLIN, other);
    EXPECT_TRUE(rec->doomed && other->doomed);
    EXPECT_THAT(EPoll::g_establish_server_map, IsEmpty());
    EXPECT_EQ(take_notices(), (notices{{c_disconnected_from_client, 0}, {c_disconnected_from_client, 0}}));
}

TEST_F(shutting_down_an_accepted_connection, that_does_not_come_to_its_end_is_cut_off_after_the_time_out) {
    hand_over(1);
    EPoll::shutdown_server(rec);
    std::uint64_t const since = Tesk::OS::lemon_clock();
    EPoll::timer_shutdown_server(since + c_timeout);
    EXPECT_EQ(system.count("shutdown"), 0u);
    EPoll::timer_shutdown_server(since + c_timeout + 1);
    EXPECT_EQ(system.calls("shutdown").at(0).text, "shutdown(rec.fd, SHUT_RDWR)");
    EXPECT_TRUE(serve_until([this] { return is_gone(rec); }));
}

// --- an end that the timer brings about ------------------------------------------------------------------------------

class end_by_the_timer : public accepting_fixture, public ::testing::WithParamInterface<bool> {
protected:
    static bool is_accepted() { return GetParam(); }

    /// A connection that waits for a packet to arrive and has one on its way out.
    tcp_record* busy() {
        EPoll::g_auto_disconnect = true;
        tcp_record* const rec = is_accepted() ? served("rec") : established("rec");
        is_accepted() ? EPoll::request_recv_server_header(rec) : EPoll::request_recv_client_header(rec);
        Zolt::struct_token token = make_token({.sequence = 1});
        auto* const send = is_accepted() ? INet_Relay::send_tcp_server : INet_Relay::send_tcp_client;
        EXPECT_EQ(send(at_port(), token, token.get_header_packet()), 0);
        return rec;
    }

    static void tick_once() {
        auto* const job = is_accepted() ? EPoll::timer_shutdown_server : EPoll::timer_shutdown_client;
        job(Tesk::OS::lemon_clock());
    }

    static int fetch(epoll_event& event, int milliseconds) {
        return __real_epoll_wait(EPoll::epoll_tcp_recv, &event, 1, milliseconds);
    }
};

TEST_P(end_by_the_timer, comes_once_although_it_armed_the_record_in_between) {
    tcp_record* const rec = busy();
    void const* const lock = &rec->send_lock;
    advance_clock(c_timeout + 1);
    tick_once();
    epoll_event first{};
    ASSERT_EQ(fetch(first, c_deadline), 1);
    tick_once(); // before the receive thread has come from the event to its handler
    receive_event(first.events, rec);
    EXPECT_TRUE(rec->doomed);
    epoll_event second{};
    EXPECT_EQ(fetch(second, 0), 0);
    EXPECT_TRUE(serve_until([lock] { return known_object_name(lock).empty(); }));
    EXPECT_EQ(std::ranges::count_if(take_offers(), [](center_offer const& offer) { return offer.packet.event != 0; }),
              1);
}

INSTANTIATE_TEST_SUITE_P(sides, end_by_the_timer, ::testing::Bool(),
                         [](auto const& side) { return std::string(side.param ? "accepted" : "outgoing"); });

// --- whatever ends a connection, and whatever it is doing ---------------------------------------------------------

/// What the connection is doing.
enum class doing { nothing, writing, resting, waiting_for_acknowledgement, closing, exchanging };
/// What happens to it.
enum class ended_by { fin, half_close, reset, silence, kill, withdrawal };

struct whatever {
    bool accepted;
    doing what;
    ended_by how;

    friend void PrintTo(whatever const& given, std::ostream* out) {
        constexpr char const* states[] = {"nothing", "writing",   "resting", "waiting_for_acknowledgement",
                                          "closing", "exchanging"};
        constexpr char const* ends[] = {"fin", "half_close", "reset", "silence", "kill", "withdrawal"};
        *out << (given.accepted ? "accepted_" : "outgoing_") << states[static_cast<int>(given.what)] << "_ended_by_"
             << ends[static_cast<int>(given.how)];
    }
};

std::vector<whatever> all_of_them() {
    std::vector<whatever> all;
    for (bool const accepted : {true, false}) {
        for (auto const what : {doing::nothing, doing::writing, doing::resting, doing::waiting_for_acknowledgement,
                                doing::closing, doing::exchanging}) {
            for (auto const how : {ended_by::fin, ended_by::half_close, ended_by::reset, ended_by::silence,
                                   ended_by::kill, ended_by::withdrawal}) {
                if (how != ended_by::withdrawal || !accepted) {
                    all.push_back({accepted, what, how});
                }
            }
        }
    }
    return all;
}

class end_of_a_connection : public accepting_fixture, public ::testing::WithParamInterface<whatever> {
protected:
    void SetUp() override {
        accepting_fixture::SetUp();
        // Here locks are told apart by name; by address a send_lock can be taken for the ack_lock of a record nearby.
        check_offer_locks(false);
        EPoll::g_auto_disconnect = true;
        EPoll::g_remote_server_map[at_port()] = 1;
        is_exchanging() ? begin_exchange() : begin_established();
        bring_into_state();
        socket = rec->fd;
        lock = &rec->send_lock;
    }

    static bool is_accepted() { return GetParam().accepted; }
    static bool is_exchanging() { return GetParam().what == doing::exchanging; }
    bool is_withdrawn() const { return !is_accepted() && was_withdrawn; }

    void begin_exchange() {
        rec = is_accepted() ? begun("rec") : awaiting_answer("rec");
        EPoll::arm(rec, EPoll::epoll_tcp_recv, EPOLL_CTL_MOD, c_recv_mask);
    }

    void begin_established() {
        rec = is_accepted() ? served("rec") : established("rec");
        is_accepted() ? EPoll::request_recv_server_header(rec) : EPoll::request_recv_client_header(rec);
    }

    void hand_over(packet_fields const& fields) {
        Zolt::struct_token token = make_token(fields);
        auto* const send = is_accepted() ? INet_Relay::send_tcp_server : INet_Relay::send_tcp_client;
        EXPECT_EQ(send(at_port(), token, token.get_header_packet()), 0);
        ++handed_over;
    }

    void write_once() {
        EXPECT_TRUE(serve_until([this] { return system.count("send") == 1; }));
    }

    void bring_into_state() {
        switch (GetParam().what) {
        case doing::nothing:
        case doing::exchanging:
            return;
        case doing::writing:
            hand_over({.sequence = 1});
            hand_over({.sequence = 2});
            system.cap("send", 1, 10);
            return write_once();
        case doing::resting:
            hand_over({.sequence = 1});
            hand_over({.sequence = 2});
            system.fail("send", 1, EPIPE);
            return write_once();
        case doing::waiting_for_acknowledgement:
            hand_over({.call = true, .sequence = 1});
            return write_once();
        case doing::closing:
            hand_over({.sequence = 1});
            return begin_closing();
        }
    }

    void begin_closing() {
        if (!is_accepted()) {
            return withdraw();
        }
        // The receive thread has seen the end of the peer's stream; the send thread has its event still due.
        __real_shutdown(far().get(), SHUT_WR);
        serve_next(EPoll::epoll_thread_tcp_recv_entry, EPoll::epoll_tcp_recv, c_deadline);
        EXPECT_THAT(rec->send_q, SizeIs(2));
    }

    void withdraw() {
        was_withdrawn = true;
        INet_Relay::del_client(Zolt::c_local_host, c_port);
    }

    descriptor& far() { return is_accepted() ? far_end(rec) : peer_of(rec); }

    void end() {
        switch (GetParam().how) {
        case ended_by::withdrawal:
            was_withdrawn ? void() : withdraw();
            far().close();
            return;
        case ended_by::fin:
            far().close();
            return;
        case ended_by::half_close:
            __real_shutdown(far().get(), SHUT_WR);
            return;
        case ended_by::reset:
            reset_connection(far());
            return;
        case ended_by::silence:
            advance_clock(c_timeout + 1);
            return tick_once();
        case ended_by::kill:
            __real_shutdown(rec->fd, SHUT_RDWR);
            return;
        }
    }

    /// The timer's jobs but the retry.
    static void tick_once() {
        EPoll::timer_cancel_connect(Tesk::OS::lemon_clock());
        EPoll::timer_shutdown_server(Tesk::OS::lemon_clock());
        EPoll::timer_shutdown_client(Tesk::OS::lemon_clock());
    }

    /// The record is destroyed, or waits for a retry without a socket.
    bool is_over() const {
        bool const waits = !is_accepted() && is_exchanging() && EPoll::g_connect_fail_map.contains(at_port());
        return closes() == 1 && (waits || known_object_name(lock).empty());
    }

    std::ptrdiff_t closes() const {
        return std::ranges::count(system.calls("close"), socket, &system_call::descriptor);
    }

    /// Packets of which every byte was written.
    std::size_t written() const {
        long sent = 0;
        for (system_call const& call : system.calls("send")) {
            sent += std::max(call.result, 0L);
        }
        return static_cast<std::size_t>(sent) / header_size();
    }

    void expect_known_errors() {
        lines const known{text("recv_server_failed"), text("recv_client_failed"), text("recv_server_init_failed"),
                          text("recv_client_init_failed")};
        lines const printed = error_texts(take_errors());
        EXPECT_LE(printed.size(), 1u);
        for (std::string const& line : printed) {
            EXPECT_EQ(std::ranges::count(known, line), 1) << line;
        }
    }

    tcp_record* rec = nullptr;
    int socket = -1;
    void const* lock = nullptr;
    std::size_t handed_over = 0;
    bool was_withdrawn = false;
};

TEST_P(end_of_a_connection, leaves_no_record_and_no_socket_and_is_told_once_and_loses_no_packet) {
    end();
    EXPECT_TRUE(serve_until([this] { return is_over(); }));
    std::size_t returned = 0;
    std::size_t told = 0;
    for (center_offer const& offer : take_offers()) {
        EXPECT_THAT(offer.locks, Each("rec.send_lock"));
        returned += offer.packet.error == Zolt::c_zolt_err_not_connected_tcp ? 1 : 0;
        told += offer.packet.event == (is_accepted() ? c_disconnected_from_client : 2) ? 1 : 0;
    }
    EXPECT_EQ(told, is_exchanging() ? 0u : 1u);
    EXPECT_EQ(written() + returned, handed_over);
    EXPECT_EQ(closes(), 1);
    EXPECT_TRUE(EPoll::g_establish_server_map.empty() && EPoll::g_establish_client_map.empty());
    EXPECT_EQ(EPoll::g_accepted_exchanging.first, nullptr);
    EXPECT_EQ(EPoll::g_accepted_ending.first, nullptr);
    EXPECT_EQ(EPoll::g_outgoing_ending.first, nullptr);
    EXPECT_EQ(EPoll::g_connect_fail_map.contains(at_port()), !is_accepted() && !is_withdrawn());
    expect_known_errors();
}

INSTANTIATE_TEST_SUITE_P(whatever_it_does, end_of_a_connection, ::testing::ValuesIn(all_of_them()),
                         ::testing::PrintToStringParamName());

// --- with threads -------------------------------------------------------------------------------------------------

class real_teardown : public running_server {
protected:
    void SetUp() override {
        running_server::SetUp();
        peer = &establish();
    }

    void expect_over() {
        EXPECT_TRUE(wait_for_line("close(accepted#1)"));
        expect_no_accepted_record();
        EXPECT_EQ(notices_of(wait_for_offers(2)),
                  (notices{{c_connected_from_client, 0}, {c_disconnected_from_client, 0}}));
        EXPECT_EQ(system.count("connect"), 0u);
    }

    static std::string thread_of(std::string const& line) {
        for (journal_entry const& entry : journal_entries()) {
            if (entry.text == line) {
                return entry.thread;
            }
        }
        return "nobody";
    }

    descriptor* peer = nullptr;
};

TEST_F(real_teardown, follows_the_end_of_the_peers_stream) {
    peer->close();
    expect_error(text("recv_server_failed"));
    expect_over();
}

TEST_F(real_teardown, follows_a_reset) {
    EXPECT_TRUE(wait_for_line("MOD, accepted#1"));
    reset_connection(*peer);
    expect_over();
}

TEST_F(real_teardown, follows_silence) {
    EXPECT_TRUE(wait_for_line("MOD, accepted#1"));
    advance_clock(c_timeout + 1);
    tick(EPoll::inet_timer);
    expect_over();
}

TEST_F(real_teardown, is_finished_by_the_send_thread) {
    __real_shutdown(peer->get(), SHUT_WR);
    expect_error(text("recv_server_failed"));
    EXPECT_TRUE(is_closed_by_peer(*peer));
    expect_over();
    EXPECT_EQ(thread_of("close(accepted#1)"), thread_of("send(accepted#1, 1024, 0)"));
}

TEST_F(real_teardown, of_one_connection_leaves_the_others_alone) {
    descriptor& other = establish();
    peer->close();
    expect_error(text("recv_server_failed"));
    EXPECT_TRUE(wait_for_line("close(accepted#1)"));
    Zolt::struct_token token = make_token({.sequence = 5});
    EXPECT_EQ(INet_Relay::send_tcp_server(at_port(local_port(other)), token, token.get_header_packet()), 0);
    EXPECT_EQ(read_packet(read_bytes(other, header_size())).sequence, 5u);
}

} // namespace
