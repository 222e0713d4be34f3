// Who may touch a record and who destroys it, what becomes of its socket, and destinations that are withdrawn while
// something happens to their records.
#include "tests/unit/registries_fixture.hpp"

#include <cerrno>
#include <random>

namespace {

using namespace relay_test;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

constexpr std::uint32_t c_hung_up = 0x019;

class ownership : public registries_fixture {};

// --- who destroys ------------------------------------------------------------------------------------------------------

TEST_F(ownership, of_an_accepted_record_in_its_exchange_is_with_the_thread_that_has_its_event) {
    using entry = std::pair<thread_entry, int>;
    for (auto const& [thread, instance] : {entry{EPoll::epoll_thread_tcp_recv_entry, EPoll::epoll_tcp_recv},
                                           entry{EPoll::epoll_thread_tcp_send_entry, EPoll::epoll_tcp_send}}) {
        tcp_record* const rec = listed_accepted("rec");
        clear_journal();
        serve(system, thread, instance, {{c_hung_up, rec}});
        EXPECT_THAT(gone(), ElementsAre("rec"));
        EXPECT_EQ(EPoll::g_accepted_exchanging.first, nullptr);
    }
}

TEST_F(ownership, of_a_withdrawn_record_that_fails_is_with_the_thread_that_has_its_event) {
    struct failure {
        thread_entry thread;
        int instance;
        std::uint32_t mask;
    };
    for (auto const& [thread, instance, mask] :
         {failure{EPoll::epoll_thread_tcp_init_entry, EPoll::epoll_tcp_init, 0x01C},
          failure{EPoll::epoll_thread_tcp_recv_entry, EPoll::epoll_tcp_recv, c_hung_up},
          failure{EPoll::epoll_thread_tcp_send_entry, EPoll::epoll_tcp_send, 0x01C}}) {
        tcp_record* const rec = connecting("rec");
        register_destination();
        del_client();
        clear_journal();
        serve(system, thread, instance, {{mask, rec}});
        EXPECT_THAT(gone(), ElementsAre("rec"));
        EXPECT_TRUE(EPoll::g_connect_map.empty());
    }
}

TEST_F(ownership, of_a_record_that_waits_for_its_retry_is_with_the_withdrawal) {
    waiting("rec");
    register_destination();
    del_client();
    EXPECT_THAT(gone(), ElementsAre("rec"));
    EXPECT_TRUE(EPoll::g_connect_fail_map.empty());
}

TEST_F(ownership, of_an_established_accepted_record_is_with_the_send_thread) {
    tcp_record* const rec = filed_accepted("rec");
    serve(system, EPoll::epoll_thread_tcp_recv_entry, EPoll::epoll_tcp_recv, {{c_hung_up, rec}});
    EXPECT_TRUE(EPoll::g_establish_server_map.empty());
    EXPECT_THAT(gone(), IsEmpty());
    serve(system, EPoll::epoll_thread_tcp_send_entry, EPoll::epoll_tcp_send, {{0x01C, rec}});
    EXPECT_THAT(gone(), ElementsAre("rec"));
}

TEST_F(ownership, of_an_established_accepted_record_is_with_the_receive_thread_when_the_send_thread_cannot_be_armed) {
    tcp_record* const rec = filed_accepted("rec");
    system.fail("epoll_ctl", 1, ENOMEM);
    expect_error(text("send_request_failed"));
    serve(system, EPoll::epoll_thread_tcp_recv_entry, EPoll::epoll_tcp_recv, {{c_hung_up, rec}});
    EXPECT_THAT(gone(), ElementsAre("rec"));
}

TEST_F(ownership, of_an_established_outgoing_record_is_with_the_receive_thread_when_the_send_thread_has_no_event_due) {
    tcp_record* const rec = established("rec");
    serve(system, EPoll::epoll_thread_tcp_recv_entry, EPoll::epoll_tcp_recv, {{c_hung_up, rec}});
    EXPECT_THAT(gone(), ElementsAre("rec"));
}

TEST_F(ownership, of_an_established_outgoing_record_is_with_the_send_thread_when_it_has_an_event_due) {
    tcp_record* const rec = established("rec");
    rec->send_armed = true;
    serve(system, EPoll::epoll_thread_tcp_recv_entry, EPoll::epoll_tcp_recv, {{c_hung_up, rec}});
    EXPECT_THAT(gone(), IsEmpty());
    EXPECT_EQ(registries_of(rec), "");
    serve(system, EPoll::epoll_thread_tcp_send_entry, EPoll::epoll_tcp_send, {{0x01C, rec}});
    EXPECT_THAT(gone(), ElementsAre("rec"));
}

// --- a record is used only under the lock of the registry in which it was found ------------------------------------------

class found_record : public ownership {
protected:
    /// Every call that reached the record's socket was made under the lock; at least one was.
    void expect_calls_under(std::string const& lock) {
        auto calls = system.all_calls();
        std::erase_if(calls,
                      [](system_call const& call) { return call.name != "epoll_ctl" && call.name != "shutdown"; });
        EXPECT_THAT(calls, Not(IsEmpty()));
        for (system_call const& call : calls) {
            EXPECT_THAT(call.locks, Contains(lock)) << call.text;
        }
        for (journal_entry const& entry : journal_entries(about::lock)) {
            bool const takes_send_lock = entry.name == "lock" && entry.text.starts_with("rec.send_lock");
            EXPECT_TRUE(!takes_send_lock || std::ranges::count(entry.locks, lock) == 1) << entry.text;
        }
        EXPECT_EQ(held_lock_count(), 0);
    }

    /// A packet that the record's queue frees, or the fixture.
    static Zolt::struct_token packet() { return make_token({.data = {1}}); }

    void silence(tcp_record* rec) {
        EPoll::g_auto_disconnect = true;
        rec->recv_clock = Tesk::OS::lemon_clock() - c_timeout - 1;
    }
};

TEST_F(found_record, by_a_sender_is_armed_under_the_lock_of_its_side) {
    auto token = packet();
    established("rec");
    INet_Relay::send_tcp_client(at_port(), token, token.get_header_packet());
    expect_calls_under("g_client_lock");
    forget_calls();
    auto other = packet();
    filed_accepted("rec");
    INet_Relay::send_tcp_server(at_port(), other, other.get_header_packet());
    expect_calls_under("g_establish_server_map_lock");
}

TEST_F(found_record, by_a_broadcast_is_armed_under_the_lock_of_its_side) {
    auto token = packet();
    filed_accepted("rec");
    INet_Relay::send_tcp_broadcast(token, token.get_header_packet());
    expect_calls_under("g_establish_server_map_lock");
    token.free();
}

TEST_F(found_record, by_the_timer_gets_its_heartbeat_under_the_lock_of_its_side) {
    established("rec")->recv_clock = Tesk::OS::lemon_clock();
    EPoll::timer_shutdown_client(Tesk::OS::lemon_clock());
    expect_calls_under("g_client_lock");
    forget_calls();
    filed_accepted("rec")->recv_clock = Tesk::OS::lemon_clock();
    EPoll::timer_shutdown_server(Tesk::OS::lemon_clock());
    expect_calls_under("g_establish_server_map_lock");
}

TEST_F(found_record, by_the_timer_is_shut_down_under_the_lock_of_its_side) {
    silence(established("rec"));
    EPoll::timer_shutdown_client(Tesk::OS::lemon_clock());
    expect_calls_under("g_client_lock");
    forget_calls();
    silence(filed_accepted("rec"));
    EPoll::timer_shutdown_server(Tesk::OS::lemon_clock());
    expect_calls_under("g_establish_server_map_lock");
}

TEST_F(found_record, by_the_timer_gives_tokens_out_of_the_lock_and_nothing_else) {
    tcp_record* const rec = filed_accepted("rec");
    silence(rec);
    auto sent = make_token({.call = true});
    EPoll::wait_ack(rec, sent, sent.get_header_packet());
    EPoll::timer_shutdown_server(Tesk::OS::lemon_clock());
    auto const offers = take_offers();
    ASSERT_THAT(offers, SizeIs(1));
    EXPECT_THAT(offers[0].locks, IsEmpty());
    sent.free();
}

TEST_F(found_record, by_the_timer_is_cancelled_under_the_lock_of_its_side) {
    connecting("rec")->send_clock = Tesk::OS::lemon_clock() - c_timeout - 1;
    EPoll::timer_cancel_connect(Tesk::OS::lemon_clock());
    expect_calls_under("g_client_lock");
}

TEST_F(found_record, by_a_withdrawal_is_armed_under_the_lock_of_its_side) {
    established("rec");
    register_destination();
    del_client();
    expect_calls_under("g_client_lock");
}

// --- sockets -----------------------------------------------------------------------------------------------------------

class sockets : public ownership {};
class sockets_and_instances : public relay_fixture {};

TEST_F(sockets, of_a_record_that_failed_before_establishment_are_closed_in_the_hold_that_files_it_again) {
    tcp_record* const rec = connecting("rec");
    EPoll::failed_connect_init(rec);
    EXPECT_THAT(system.calls("close"), ElementsAre(Field(&system_call::locks, ElementsAre("g_client_lock"))));
    EXPECT_EQ(rec->fd, -1);
    EXPECT_EQ(outer_holds("g_client_lock"), 1);
    EXPECT_EQ(registries_of(rec), "connect fail");
}

TEST_F(sockets, of_a_record_whose_connect_could_not_begin_are_closed_in_the_hold_that_keeps_it_filed) {
    tcp_record* const rec = waiting("rec");
    system.fail("connect", 1, ENETUNREACH);
    expect_error(text("connect_failed") + std::to_string(ENETUNREACH) + "\n");
    EPoll::timer_reconnect_client();
    EXPECT_THAT(system.calls("close"), ElementsAre(Field(&system_call::locks, ElementsAre("g_client_lock"))));
    EXPECT_EQ(rec->fd, -1);
    EXPECT_EQ(registries_of(rec), "fail");
}

TEST_F(sockets_and_instances, are_kept_from_child_programs) {
    std::uint16_t const port = unused_port();
    INet_Relay::initialize();
    ASSERT_EQ(INet_Relay::add_server(port), 0);
    auto* const listening = static_cast<EPoll::struct_epoll_overlapped*>(system.calls("epoll_ctl").back().pointer);
    descriptor const peer = connect_loopback(port);
    ASSERT_EQ(EPoll::accept(listening), 0);
    INet_Relay::add_client(Zolt::c_local_host, port);
    INet_Relay::stop();
    lines made;
    for (system_call const& call : system.all_calls()) {
        bool const makes = call.name == "socket" || call.name == "accept" || call.name == "epoll_create1";
        if (makes && call.result >= 0) {
            made.push_back(std::to_string(call.result));
        }
    }
    lines kept;
    for (system_call const& call : system.calls("fcntl")) {
        EXPECT_EQ(call.arguments, (std::vector<long>{call.descriptor, F_SETFD, FD_CLOEXEC}));
        kept.push_back(std::to_string(call.descriptor));
    }
    EXPECT_THAT(made, SizeIs(10)) << "five instances, two ports, an accepted, an outgoing and a waking socket";
    EXPECT_EQ(kept, made);
    INet_Relay::finalize();
    EPoll::clear_establish_map(EPoll::g_establish_server_map);
    EPoll::clear_connect_map(EPoll::g_connect_map);
}

// --- withdrawn destinations ----------------------------------------------------------------------------------------------

/// A destination that is withdrawn.
class withdrawn : public ownership {};

TEST_F(withdrawn, by_the_center_when_it_hears_of_the_end_it_stays_away) {
    register_destination();
    on_offer([](packet_fields const&) {
        del_client();
        return c_center_took;
    });
    EPoll::close_client(established("rec"));
    EXPECT_THAT(live_records(), IsEmpty());
    EXPECT_TRUE(EPoll::g_connect_fail_map.empty());
    EXPECT_TRUE(EPoll::g_remote_server_map.empty());
}

TEST_F(withdrawn, between_the_notice_and_the_close_it_stays_away) {
    register_destination();
    tcp_record* const rec = established("rec");
    on_offer([](packet_fields const&) {
        del_client();
        return c_center_took;
    });
    serve(system, EPoll::epoll_thread_tcp_recv_entry, EPoll::epoll_tcp_recv, {{c_hung_up, rec}});
    EXPECT_THAT(take_offers(), SizeIs(1));
    EXPECT_THAT(live_records(), IsEmpty());
    EXPECT_TRUE(EPoll::g_connect_fail_map.empty());
}

TEST_F(withdrawn, it_marks_every_record_that_it_has_and_no_other) {
    tcp_record* const filed = established("filed");
    tcp_record* const shadowed = established("shadowed");
    tcp_record* const between = unfiled("between");
    connecting("connecting");
    waiting("waiting");
    tcp_record* const other = established("other", 9001);
    register_destination();
    del_client();
    EXPECT_TRUE(filed->close_requested && shadowed->close_requested && between->close_requested);
    EXPECT_TRUE(EPoll::g_connect_map.at(at_port())->close_requested);
    EXPECT_THAT(gone(), ElementsAre("waiting"));
    EXPECT_FALSE(other->close_requested);
}

TEST_F(withdrawn, while_connecting_in_the_shadow_of_another_it_ends_like_the_other) {
    tcp_record* const filed = connecting("filed");
    tcp_record* const shadowed = connecting("shadowed");
    ASSERT_TRUE(shadowed->shadowed);
    register_destination();
    del_client();
    for (tcp_record* const rec : {filed, shadowed}) {
        EXPECT_TRUE(rec->close_requested && rec->sending);
        EXPECT_EQ(rec->send_ptr, nullptr);
        EXPECT_EQ(rec->send_remain, 0u);
        ASSERT_THAT(rec->send_q, SizeIs(1)) << "the close marker";
        EXPECT_FALSE(rec->send_q.front().has_header());
        EXPECT_NE(rec->ending.back, nullptr) << "to be gone within the time-out";
    }
}

TEST_F(withdrawn, it_marks_its_records_under_their_send_locks_too) {
    unfiled("a");
    connecting("b");
    established("c");
    register_destination();
    del_client();
    lines taken = journal_lines(about::lock);
    std::erase_if(taken,
                  [](std::string const& line) { return !line.ends_with(".send_lock.lock(reference, depth 1)"); });
    EXPECT_THAT(taken,
                UnorderedElementsAre("a.send_lock.lock(reference, depth 1)", "b.send_lock.lock(reference, depth 1)",
                                     "c.send_lock.lock(reference, depth 1)"));
}

/// A destination that is withdrawn and added again at once: the old record still stands where it stood.
class added_again : public ownership {
protected:
    tcp_record* add_again() {
        system.answer("connect", 1, 0);
        INet_Relay::add_client(Zolt::c_local_host, c_port);
        tcp_record* const rec = EPoll::g_outgoing.first;
        name_record(rec, "new");
        return rec;
    }

    static void withdraw() {
        register_destination();
        del_client();
    }

    static void establish(tcp_record* rec) {
        rec->kind = EPoll::c_kind_established_client;
        rec->gate_port = 7999;
        EPoll::establish_connect(rec);
    }

    void expect_one_working(tcp_record* rec) {
        EXPECT_EQ(registries_of(rec), "establish");
        EXPECT_EQ(INet_Relay::get_gate_port_of_local(at_port()), 7999);
        EXPECT_FALSE(rec->close_requested);
        EXPECT_THAT(live_records(), ElementsAre(rec));
        EXPECT_EQ(EPoll::g_connect_map.size() + EPoll::g_connect_fail_map.size(), 0u);
        EXPECT_EQ(EPoll::g_outgoing_shadowed, 0);
        EXPECT_EQ(EPoll::g_remote_server_map.at(at_port()), 1);
    }
};

TEST_F(added_again, works_when_the_old_connection_ends_after_the_new_one_is_there) {
    tcp_record* const old = established("old");
    withdraw();
    tcp_record* const fresh = add_again();
    establish(fresh);
    EXPECT_EQ(registries_of(old), "establish");
    old->send_armed = false;
    EPoll::close_client(old);
    expect_one_working(fresh);
}

TEST_F(added_again, works_when_the_old_connection_ends_before_the_new_one_is_there) {
    tcp_record* const old = established("old");
    withdraw();
    tcp_record* const fresh = add_again();
    old->send_armed = false;
    EPoll::close_client(old);
    EXPECT_EQ(registries_of(fresh), "connect");
    establish(fresh);
    expect_one_working(fresh);
}

TEST_F(added_again, works_when_the_old_attempt_fails_before_the_new_one_succeeds) {
    tcp_record* const old = connecting("old");
    withdraw();
    tcp_record* const fresh = add_again();
    EXPECT_EQ(registries_of(old), "connect");
    EPoll::failed_connect(old);
    EXPECT_EQ(registries_of(fresh), "connect");
    establish(fresh);
    expect_one_working(fresh);
}

TEST_F(added_again, works_when_the_old_attempt_fails_after_the_new_one_succeeds) {
    tcp_record* const old = connecting("old");
    withdraw();
    tcp_record* const fresh = add_again();
    establish(fresh);
    EXPECT_EQ(registries_of(old), "connect");
    EPoll::failed_connect(old);
    expect_one_working(fresh);
}

TEST_F(added_again, works_when_an_error_ends_the_old_connection) {
    tcp_record* const old = established("old");
    withdraw();
    tcp_record* const fresh = add_again();
    establish(fresh);
    take_offers();
    old->send_armed = false;
    serve(system, EPoll::epoll_thread_tcp_recv_entry, EPoll::epoll_tcp_recv, {{c_hung_up, old}});
    EXPECT_THAT(take_offers(), SizeIs(1));
    expect_one_working(fresh);
}

TEST_F(added_again, keeps_the_old_entry_when_the_new_connection_ends_in_its_shadow) {
    tcp_record* const old = established("old");
    withdraw();
    tcp_record* const fresh = add_again();
    establish(fresh);
    take_offers();
    serve(system, EPoll::epoll_thread_tcp_recv_entry, EPoll::epoll_tcp_recv, {{c_hung_up, fresh}});
    EXPECT_THAT(take_offers(), SizeIs(1)) << "the Center had been told of the new one";
    EXPECT_EQ(registries_of(old), "establish");
    EXPECT_TRUE(EPoll::g_connect_fail_map.contains(at_port())) << "the destination is still wanted";
}

TEST_F(added_again, and_withdrawn_again_ends_with_nothing) {
    tcp_record* const old = established("old");
    withdraw();
    tcp_record* const fresh = add_again();
    del_client();
    EXPECT_TRUE(fresh->close_requested);
    old->send_armed = false;
    EPoll::close_client(old);
    EPoll::failed_connect(fresh);
    EXPECT_THAT(live_records(), IsEmpty());
    EXPECT_TRUE(EPoll::g_connect_fail_map.empty());
}

// --- any order of events -------------------------------------------------------------------------------------------------

/// Two destinations that are added, withdrawn, connected, established and cut in an order drawn by chance. Events go to
/// records that can have them; what the registries then hold is checked after each.
class any_order_of_events : public ownership, public ::testing::WithParamInterface<unsigned> {
protected:
    void SetUp() override {
        ownership::SetUp();
        system.on("connect", [this](system_call const& call) {
            draw(4) == 0 ? system.fail("connect", 1, ENETUNREACH) : system.answer("connect", 1, 0);
            epoll_event event{};
            __real_epoll_ctl(EPoll::epoll_tcp_send, EPOLL_CTL_ADD, call.descriptor, &event);
        });
    }

    void forget_step() {
        forget_calls();
        EXPECT_THAT(error_texts(take_errors()), Each(text("connect_failed") + std::to_string(ENETUNREACH) + "\n"));
    }

    unsigned draw(unsigned below) { return std::uniform_int_distribution<unsigned>(0, below - 1)(chance); }

    void happen() {
        auto const port = static_cast<std::uint16_t>(c_port + draw(2));
        switch (draw(6)) {
        case 0:
            return add(port);
        case 1:
            return withdraw(port);
        case 2:
            return EPoll::timer_reconnect_client();
        default:
            return befall_some_record();
        }
    }

    static void add(std::uint16_t port) { INet_Relay::add_client(Zolt::c_local_host, port); }

    static void withdraw(std::uint16_t port) {
        if (EPoll::g_remote_server_map.contains(at_port(port))) {
            del_client(port);
        }
    }

    void befall_some_record() {
        auto const all = live_records();
        if (!all.empty()) {
            befall(const_cast<tcp_record*>(all[draw(static_cast<unsigned>(all.size()))]));
        }
    }

    void befall(tcp_record* rec) {
        rec->send_armed = false; // the send thread has no event due: whoever ends the record destroys it
        if (rec->kind == EPoll::c_kind_established_client) {
            if (draw(2) == 0) {
                EPoll::unestablish_connect(rec);
            }
            EPoll::close_client(rec);
        } else if (rec->fd != -1 && draw(2) == 0) {
            rec->kind = EPoll::c_kind_established_client;
            EPoll::establish_connect(rec);
        } else if (rec->fd != -1) {
            draw(2) == 0 ? EPoll::failed_connect(rec) : EPoll::failed_connect_init(rec);
        }
    }

    static void expect_sound_registries() {
        int shadowed = 0;
        for (tcp_record const* rec : live_records()) {
            auto const place = registry_of(rec->phase).find(EPoll::peer_of(rec));
            bool const has_place = rec->phase != phase::none && place != registry_of(rec->phase).end();
            ASSERT_TRUE(has_place) << "a record that nothing leads to";
            ASSERT_EQ(place->second == rec, !rec->shadowed);
            shadowed += rec->shadowed ? 1 : 0;
        }
        ASSERT_EQ(shadowed, EPoll::g_outgoing_shadowed);
        for (auto const* const registry : all_registries()) {
            for (auto const& [key, rec] : *registry) {
                ASSERT_TRUE(lives(rec)) << "an entry that names a destroyed record";
                ASSERT_EQ(key, EPoll::peer_of(rec));
            }
        }
    }

    std::mt19937 chance{GetParam()};
};

TEST_P(any_order_of_events, leaves_each_record_in_its_place_and_none_after_the_withdrawal) {
    for (int step = 0; step < 2000; ++step) {
        happen();
        forget_step();
        ASSERT_NO_FATAL_FAILURE(expect_sound_registries()) << "step " << step;
    }
    for (auto const& [destination, count] : std::map(EPoll::g_remote_server_map)) {
        for (int left = count; left > 0; --left) {
            del_client(destination.port);
        }
    }
    for (int round = 0; round < 100 && !live_records().empty(); ++round) {
        befall_some_record();
    }
    EXPECT_THAT(live_records(), IsEmpty());
    for (auto const* const registry : all_registries()) {
        EXPECT_THAT(*registry, IsEmpty());
    }
}

INSTANTIATE_TEST_SUITE_P(drawn_from, any_order_of_events, ::testing::Range(1u, 6u));

} // namespace
