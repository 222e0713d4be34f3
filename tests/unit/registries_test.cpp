// Registries and the lists beside them: which record is found where, who may destroy one, and that no entry outlives
// the record that it names.
#include "tests/support/allocations.hpp"
#include "tests/unit/registries_fixture.hpp"

#include <array>
#include <type_traits>

namespace {

using namespace relay_test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::WithParamInterface;

class registries : public registries_fixture {};

// --- keys and values -----------------------------------------------------------------------------------------------

TEST(registry, keys_and_values_have_their_types) {
    using by_address = std::map<Zolt::struct_node_addr, tcp_record*>;
    static_assert(std::is_same_v<decltype(EPoll::g_server_map), std::map<unsigned short, int>>);
    static_assert(std::is_same_v<decltype(EPoll::g_establish_server_map), by_address>);
    static_assert(std::is_same_v<decltype(EPoll::g_connect_map), by_address>);
    static_assert(std::is_same_v<decltype(EPoll::g_establish_client_map), by_address>);
    static_assert(std::is_same_v<decltype(EPoll::g_connect_fail_map), by_address>);
    static_assert(std::is_same_v<decltype(EPoll::g_remote_server_map), std::map<Zolt::struct_node_addr, int>>);
    static_assert(
        std::is_same_v<decltype(EPoll::g_udp_map), std::map<unsigned short, EPoll::struct_epoll_overlapped_ex*>>);
    EXPECT_EQ(EPoll::c_client_side.established, &EPoll::g_establish_client_map);
    EXPECT_EQ(EPoll::c_client_side.registry_lock, &EPoll::g_client_lock);
    EXPECT_EQ(EPoll::c_server_side.established, &EPoll::g_establish_server_map);
    EXPECT_EQ(EPoll::c_server_side.registry_lock, &EPoll::g_establish_server_map_lock);
}

// --- the gate port of a destination --------------------------------------------------------------------------------

TEST_F(registries, answer_the_gate_port_of_an_established_connection) {
    established("rec")->gate_port = 7123;
    EXPECT_EQ(INet_Relay::get_gate_port_of_local(at_port()), 7123);
}

TEST_F(registries, look_the_gate_port_up_under_the_lock_of_the_outgoing_side) {
    established("rec");
    INet_Relay::get_gate_port_of_local(at_port());
    EXPECT_EQ(journal_lines(about::lock),
              (lines{"g_client_lock.lock(pointer, depth 1)", "g_client_lock.unlock(guard, depth 0)"}));
}

TEST_F(registries, answer_0_for_a_destination_without_an_established_connection) {
    connecting("connecting", 9001)->gate_port = 7001;
    waiting("waiting", 9002)->gate_port = 7002;
    filed_accepted("accepted", 9003);
    for (std::uint16_t port = 9001; port <= 9004; ++port) {
        EXPECT_EQ(INet_Relay::get_gate_port_of_local(at_port(port)), 0) << port;
    }
}

// --- lists ---------------------------------------------------------------------------------------------------------

class record_list : public relay_fixture {
protected:
    std::vector<tcp_record*> content() const {
        std::vector<tcp_record*> all;
        for (tcp_record* rec = list.first; rec != nullptr; rec = EPoll::live_list::after(rec)) {
            all.push_back(rec);
        }
        return all;
    }

    EPoll::live_list list;
    std::array<tcp_record, 3> recs;
};

TEST_F(record_list, takes_each_record_at_its_front) {
    for (tcp_record& rec : recs) {
        list.link(&rec);
    }
    EXPECT_THAT(content(), ElementsAre(&recs[2], &recs[1], &recs[0]));
}

TEST_F(record_list, keeps_a_record_that_is_linked_again_where_it_is) {
    list.link(&recs[0]);
    list.link(&recs[1]);
    list.link(&recs[0]);
    EXPECT_THAT(content(), ElementsAre(&recs[1], &recs[0]));
}

TEST_F(record_list, gives_up_a_record_at_any_place) {
    for (std::size_t const place : {0u, 1u, 2u}) {
        for (tcp_record& rec : recs) {
            list.link(&rec);
        }
        std::vector<tcp_record*> left = content();
        left.erase(left.begin() + static_cast<std::ptrdiff_t>(place));
        EPoll::live_list::unlink(content()[place]);
        EXPECT_EQ(content(), left) << place;
        std::ranges::for_each(content(), EPoll::live_list::unlink);
        EXPECT_THAT(content(), IsEmpty());
    }
}

TEST_F(record_list, does_not_mind_a_record_that_is_in_no_list) {
    list.link(&recs[0]);
    EPoll::live_list::unlink(&recs[1]);
    EXPECT_THAT(content(), ElementsAre(&recs[0]));
}

TEST_F(record_list, is_one_of_two_that_a_record_can_be_in) {
    EPoll::ending_list ending;
    list.link(&recs[0]);
    ending.link(&recs[0]);
    EPoll::live_list::unlink(&recs[0]);
    EXPECT_THAT(content(), IsEmpty());
    EXPECT_EQ(ending.first, &recs[0]);
}

TEST_F(record_list, of_those_that_end_notes_since_when) {
    EPoll::ending_list ending;
    set_clock(4321);
    EPoll::begin_ending(ending, &recs[0]);
    EXPECT_EQ(recs[0].reap_clock, 4321u);
    EXPECT_EQ(ending.first, &recs[0]);
}

TEST_F(registries, list_an_outgoing_record_from_its_making_to_its_end) {
    system.answer("connect", 1, 0);
    INet_Relay::add_client(Zolt::c_local_host, c_port);
    tcp_record* const rec = EPoll::g_connect_map.at(at_port());
    EXPECT_THAT(live_records(), ElementsAre(rec));
    EPoll::delete_overlapped(rec);
    EXPECT_THAT(live_records(), IsEmpty());
}

TEST_F(registries, list_an_accepted_record_during_its_exchange_only) {
    tcp_record* const rec = listed_accepted("rec");
    EPoll::establish_accept(rec);
    EXPECT_EQ(EPoll::g_accepted_exchanging.first, nullptr);
    EXPECT_EQ(EPoll::g_establish_server_map.at(at_port()), rec);
    EPoll::delete_overlapped(rec);
}

// --- filing an outgoing record ---------------------------------------------------------------------------------------

class filing : public registries, public WithParamInterface<phase> {
protected:
    static phase place() { return GetParam(); }

    /// The record that the registry names for the destination, or null.
    static tcp_record* named() {
        auto const entry = registry_of(place()).find(at_port());
        return entry == registry_of(place()).end() ? nullptr : entry->second;
    }

    /// An unfiled record of the destination, then filed: in the shadow when there is an entry already.
    tcp_record* filed(std::string const& name) {
        tcp_record* const rec = unfiled(name);
        file(rec, place());
        return rec;
    }
};

TEST_P(filing, gives_a_vacant_place) {
    tcp_record* const rec = unfiled("rec");
    EXPECT_TRUE(file(rec, place()));
    EXPECT_EQ(named(), rec);
    EXPECT_EQ(rec->phase, place());
    EXPECT_FALSE(rec->shadowed);
}

TEST_P(filing, keeps_the_entry_that_is_there_and_leaves_the_record_in_its_shadow) {
    tcp_record* const first = filed("first");
    tcp_record* const second = unfiled("second");
    EXPECT_FALSE(file(second, place()));
    EXPECT_EQ(named(), first);
    EXPECT_TRUE(second->shadowed);
    EXPECT_EQ(second->phase, place());
    EXPECT_EQ(EPoll::g_outgoing_shadowed, 1);
}

TEST_P(filing, again_changes_nothing) {
    tcp_record* const rec = filed("rec");
    EXPECT_TRUE(file(rec, place()));
    EXPECT_EQ(named(), rec);
    EXPECT_FALSE(rec->shadowed);
}

TEST_P(filing, ends_with_the_erasure_of_the_destination) {
    tcp_record* const rec = filed("rec");
    erase(place(), rec);
    EXPECT_EQ(named(), nullptr);
    EXPECT_EQ(rec->phase, phase::none);
}

TEST_P(filing, is_made_up_for_when_the_entry_is_erased) {
    tcp_record* const first = filed("first");
    tcp_record* const second = filed("second");
    erase(place(), first);
    EXPECT_EQ(named(), second);
    EXPECT_FALSE(second->shadowed);
    EXPECT_EQ(EPoll::g_outgoing_shadowed, 0);
}

TEST_P(filing, is_made_up_for_when_the_entry_is_unfiled) {
    tcp_record* const first = filed("first");
    tcp_record* const second = filed("second");
    unfile(first);
    EXPECT_EQ(named(), second);
    EXPECT_EQ(EPoll::g_outgoing_shadowed, 0);
}

TEST_P(filing, is_made_up_for_when_the_record_of_the_entry_is_destroyed) {
    tcp_record* const first = filed("first");
    tcp_record* const second = filed("second");
    EPoll::delete_overlapped(first);
    EXPECT_EQ(named(), second);
}

TEST_P(filing, goes_to_the_newest_of_those_in_the_shadow) {
    tcp_record* const first = filed("first");
    tcp_record* const second = filed("second");
    tcp_record* const third = filed("third");
    erase(place(), first);
    EXPECT_EQ(named(), third);
    erase(place(), third);
    EXPECT_EQ(named(), second);
}

TEST_P(filing, is_made_up_for_without_further_memory) {
    tcp_record* const first = filed("first");
    tcp_record* const second = filed("second");
    record(false);
    fail_allocation(1);
    EXPECT_NO_THROW(unfile(first));
    fail_allocation(0);
    record(true);
    EXPECT_EQ(named(), second);
}

TEST_P(filing, by_key_gives_the_place_back_to_the_record_that_still_stands_there) {
    tcp_record* const first = filed("first");
    tcp_record* const second = filed("second");
    erase(place(), second);
    EXPECT_EQ(named(), first);
    EXPECT_EQ(first->phase, place());
    EXPECT_EQ(second->phase, phase::none);
    EXPECT_EQ(EPoll::g_outgoing_shadowed, 0);
}

TEST_P(filing, by_key_takes_the_place_of_a_record_that_has_moved_on) {
    tcp_record* const first = filed("first");
    first->phase = phase::none;
    erase(place(), unfiled("second"));
    EXPECT_EQ(named(), nullptr);
}

TEST_P(filing, does_not_go_to_a_record_of_another_destination_or_registry) {
    tcp_record* const first = filed("first");
    auto const elsewhere = place() == phase::connecting ? phase::waiting : phase::connecting;
    for (std::uint16_t const port : {c_port, std::uint16_t{9001}}) {
        file(unfiled("a", port), port == c_port ? elsewhere : place());
        file(unfiled("b", port), port == c_port ? elsewhere : place());
    }
    EXPECT_EQ(EPoll::g_outgoing_shadowed, 2);
    erase(place(), first);
    EXPECT_EQ(named(), nullptr);
    EXPECT_EQ(EPoll::g_outgoing_shadowed, 2);
}

TEST_P(filing, in_the_shadow_ends_with_the_record) {
    tcp_record* const first = filed("first");
    EPoll::delete_overlapped(filed("second"));
    EXPECT_EQ(EPoll::g_outgoing_shadowed, 0);
    EPoll::delete_overlapped(first);
    EXPECT_EQ(named(), nullptr);
}

INSTANTIATE_TEST_SUITE_P(as, filing, ::testing::Values(phase::connecting, phase::established, phase::waiting),
                         [](auto const& row) {
                             return row.param == phase::connecting    ? "connecting"
                                    : row.param == phase::established ? "established"
                                                                      : "waiting";
                         });

TEST_F(registries, unfile_every_entry_of_a_record_and_no_other) {
    tcp_record* const rec = connecting("rec");
    file_also(rec, phase::waiting);
    tcp_record* const other = established("other");
    EXPECT_FALSE(unfile(rec));
    EXPECT_EQ(registries_of(rec), "");
    EXPECT_EQ(registries_of(other), "establish");
}

TEST_F(registries, tell_whether_an_unfiled_record_was_established) {
    tcp_record* const first = established("first");
    tcp_record* const shadowed = established("shadowed");
    EXPECT_TRUE(unfile(shadowed));
    EXPECT_TRUE(unfile(first));
    EXPECT_FALSE(unfile(first));
    EXPECT_FALSE(unfile(connecting("connecting", 9001)));
    EXPECT_FALSE(unfile(waiting("waiting", 9002)));
}

TEST_F(registries, do_not_take_a_record_in_the_shadow_for_an_established_one) {
    connecting("connecting");
    EXPECT_FALSE(unfile(connecting("in its shadow")));
    waiting("waiting", 9001);
    EXPECT_FALSE(unfile(waiting("in the shadow of that", 9001)));
}

// --- no entry outlives its record ------------------------------------------------------------------------------------

TEST_F(registries, do_not_name_an_accepted_record_that_is_destroyed) {
    EPoll::delete_overlapped(filed_accepted("rec"));
    EXPECT_TRUE(EPoll::g_establish_server_map.empty());
    EPoll::delete_overlapped(listed_accepted("exchanging"));
    EXPECT_EQ(EPoll::g_accepted_exchanging.first, nullptr);
    tcp_record* const ending = accepted("ending", EPoll::c_kind_established_server);
    EPoll::begin_ending(EPoll::g_accepted_ending, ending);
    EPoll::delete_overlapped(ending);
    EXPECT_EQ(EPoll::g_accepted_ending.first, nullptr);
}

TEST_F(registries, do_not_name_an_outgoing_record_that_is_destroyed) {
    tcp_record* const rec = connecting("rec");
    file_also(rec, phase::waiting);
    file_also(rec, phase::established);
    EPoll::begin_ending(EPoll::g_outgoing_ending, rec);
    EPoll::delete_overlapped(rec);
    EXPECT_TRUE(EPoll::g_connect_map.empty());
    EXPECT_TRUE(EPoll::g_connect_fail_map.empty());
    EXPECT_TRUE(EPoll::g_establish_client_map.empty());
    EXPECT_EQ(EPoll::g_outgoing_ending.first, nullptr);
    EXPECT_THAT(live_records(), IsEmpty());
}

TEST_F(registries, keep_the_entry_of_another_record_with_the_same_key) {
    tcp_record* const filed = filed_accepted("filed");
    EPoll::delete_overlapped(accepted("unfiled", EPoll::c_kind_established_server));
    EXPECT_EQ(EPoll::g_establish_server_map.at(at_port()), filed);
    tcp_record* const entry = established("entry");
    EPoll::delete_overlapped(connecting("connecting"));
    EXPECT_EQ(registries_of(entry), "establish");
}

TEST_F(registries, have_forgotten_a_record_before_its_socket_is_closed) {
    system.on("close", [](system_call const&) {
        EXPECT_TRUE(EPoll::g_establish_client_map.empty());
        EXPECT_TRUE(EPoll::g_establish_server_map.empty());
        EXPECT_THAT(live_records(), IsEmpty());
    });
    EPoll::delete_overlapped(established("outgoing"));
    EPoll::delete_overlapped(filed_accepted("accepted"));
    EXPECT_EQ(gone(), (std::set<std::string>{"outgoing", "accepted"}));
    system.on("close", nullptr);
}

TEST_F(registries, are_locked_by_a_destruction_on_its_own_side_only) {
    std::pair<tcp_record*, char const*> const sides[] = {{accepted("two", 2), "g_establish_server_map_lock"},
                                                         {connecting("three", 9003), "g_client_lock"},
                                                         {accepted("four", 4), "g_establish_server_map_lock"},
                                                         {established("five", 9005), "g_client_lock"}};
    for (auto const& [rec, lock] : sides) {
        clear_journal();
        EPoll::delete_overlapped(rec);
        EXPECT_EQ(outer_holds(lock), 1);
        EXPECT_EQ(outer_holds("g_client_lock") + outer_holds("g_establish_server_map_lock"), 1);
    }
}

TEST_F(registries, are_changed_and_the_retry_is_booked_in_one_hold_before_the_center_is_told) {
    tcp_record* const rec = established("rec");
    on_offer([rec](packet_fields const&) {
        EXPECT_EQ(outer_holds("g_client_lock"), 1);
        EXPECT_EQ(registries_of(rec), "");
        EXPECT_TRUE(EPoll::g_connect_fail_map.contains(at_port()));
        return c_center_took;
    });
    EPoll::close_client(rec);
    EXPECT_THAT(take_offers(), SizeIs(1));
}

// --- booked already ------------------------------------------------------------------------------------------------------

TEST_F(registries, keep_a_booking_when_a_connection_of_the_destination_closes) {
    tcp_record* const booked = waiting("booked");
    EPoll::close_client(established("rec"));
    EXPECT_EQ(EPoll::g_connect_fail_map.size(), 1u);
    EXPECT_EQ(registries_of(booked), "fail");
    EXPECT_THAT(live_records(), ElementsAre(booked)) << "the record made for the retry is destroyed at once";
    EXPECT_EQ(EPoll::g_outgoing_shadowed, 0);
}

TEST_F(registries, keep_a_booking_when_an_attempt_fails_besides) {
    tcp_record* const booked = waiting("booked");
    EPoll::failed_connect_init(connecting("rec"));
    EXPECT_THAT(gone(), ElementsAre("rec"));
    EXPECT_EQ(registries_of(booked), "fail");
    EXPECT_THAT(live_records(), ElementsAre(booked));
}

// --- clearing after the threads have stopped -------------------------------------------------------------------------------

TEST_F(registries, of_the_accepting_side_are_cleared_with_the_records_that_no_entry_names) {
    filed_accepted("filed");
    listed_accepted("exchanging");
    EPoll::begin_ending(EPoll::g_accepted_ending, accepted("ending", EPoll::c_kind_established_server));
    tcp_record* const outgoing = established("outgoing");
    EXPECT_EQ(EPoll::clear_establish_map(EPoll::g_establish_server_map), 0);
    EXPECT_EQ(gone(), (std::set<std::string>{"filed", "exchanging", "ending"}));
    EXPECT_EQ(registries_of(outgoing), "establish");
    EXPECT_EQ(EPoll::g_accepted_exchanging.first, nullptr);
    EXPECT_EQ(EPoll::g_accepted_ending.first, nullptr);
}

TEST_F(registries, of_the_accepting_side_are_cleared_with_a_record_that_found_its_place_taken) {
    filed_accepted("filed");
    EPoll::establish_accept(listed_accepted("late"));
    EPoll::clear_establish_map(EPoll::g_establish_server_map);
    EXPECT_EQ(gone(), (std::set<std::string>{"filed", "late"}));
}

TEST_F(registries, of_the_outgoing_side_are_cleared_with_the_records_that_no_entry_names) {
    using clearing = std::pair<int (*)(EPoll::connection_map&), EPoll::connection_map*>;
    for (auto const& [clear, registry] : {clearing{EPoll::clear_connect_map, &EPoll::g_connect_map},
                                          clearing{EPoll::clear_connect_map, &EPoll::g_connect_fail_map},
                                          clearing{EPoll::clear_establish_map, &EPoll::g_establish_client_map}}) {
        tcp_record* const filed[] = {connecting("a"), waiting("b"), established("c")};
        established("shadowed");
        unfiled("unfiled");
        filed_accepted("accepted");
        forget_calls();
        EXPECT_EQ(clear(*registry), 0);
        EXPECT_THAT(*registry, IsEmpty());
        EXPECT_THAT(gone(), SizeIs(3));
        EXPECT_THAT(live_records(), SizeIs(2)) << "those that the two other registries name";
        EXPECT_EQ(std::ranges::count_if(filed, [](tcp_record const* rec) { return lives(rec); }), 2);
        std::ranges::for_each(live_records(),
                              [](auto* rec) { EPoll::delete_overlapped(const_cast<tcp_record*>(rec)); });
        EPoll::clear_establish_map(EPoll::g_establish_server_map);
    }
}

TEST_F(registries, destroy_a_record_once_that_two_of_them_name) {
    tcp_record* const rec = connecting("rec");
    file_also(rec, phase::waiting);
    EPoll::clear_connect_map(EPoll::g_connect_map);
    EXPECT_TRUE(EPoll::g_connect_fail_map.empty());
    EXPECT_EQ(journal_count("close"), 1u);
    EPoll::clear_connect_map(EPoll::g_connect_fail_map);
    EXPECT_EQ(journal_count("close"), 1u);
}

TEST_F(registries, are_left_alone_by_finalize_and_cleared_afterwards) {
    established("outgoing");
    filed_accepted("accepted");
    waiting("waiting", 9001);
    INet_Relay::finalize();
    EXPECT_THAT(gone(), IsEmpty());
    EPoll::clear_establish_map(EPoll::g_establish_server_map);
    EPoll::clear_establish_map(EPoll::g_establish_client_map);
    EPoll::clear_connect_map(EPoll::g_connect_fail_map);
    EXPECT_EQ(gone(), (std::set<std::string>{"outgoing", "accepted", "waiting"}));
    EXPECT_THAT(live_records(), IsEmpty());
}

TEST_F(registries, leave_no_record_and_no_packet_once_the_leftovers_are_cleared) {
    for (tcp_record* const rec :
         {established("outgoing"), filed_accepted("accepted"), connecting("connecting", 9001)}) {
        rec->send_q.push_back(make_token({.sequence = rec->remote_port}));
    }
    waiting("waiting", 9002);
    INet_Relay::finalize();
    INet_Relay::clear_leftovers();
    EXPECT_EQ(gone(), (std::set<std::string>{"outgoing", "accepted", "connecting", "waiting"}));
    for (EPoll::connection_map const* const registry : all_registries()) {
        EXPECT_THAT(*registry, IsEmpty());
    }
    EXPECT_THAT(EPoll::g_establish_server_map, IsEmpty());
    auto const offers = take_offers();
    ASSERT_THAT(offers, SizeIs(3));
    for (std::size_t i = 0; i < offers.size(); ++i) {
        EXPECT_EQ(offers[i].packet.error, Zolt::c_zolt_err_not_connected_tcp);
        EXPECT_EQ(offers[i].packet.sequence, i == 2 ? 9001u : c_port)
            << "the registries of established ones come first";
    }
}

} // namespace
