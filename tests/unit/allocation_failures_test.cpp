// What is left when the relay gets no memory while it moves a record from one registry to another, for each allocation
// that the operation makes: no record that nobody finds again, no descriptor, no packet part; and the Center is told.

#include "tests/support/allocations.hpp"
#include "tests/unit/registries_fixture.hpp"

#include <new>

#include <netinet/in.h>

namespace {

using namespace relay_test;

constexpr std::size_t c_full_block = 63; // packets in a queue of which the next one takes memory

class allocation_failures : public registries_fixture {
protected:
    void SetUp() override {
        registries_fixture::SetUp();
        record(false); // the harness takes no memory of its own then
        on_offer([this](packet_fields const&) {
            ++notices;
            return c_center_took;
        });
    }

    void TearDown() override {
        clear();
        record(true);
        registries_fixture::TearDown();
    }

    /// Runs the operation on fresh records with the first, the second, ... allocation failing, as long as there is one. Look
    /// sees the record after each run, and whether the operation threw; then everything is cleared.
    void fail_each(std::function<tcp_record*()> const& make, std::function<void(tcp_record*)> const& operation,
                   std::function<void(tcp_record*, bool threw)> const& look) {
        bool goes_on = true;
        for (long nth = 1; goes_on && !HasFailure(); ++nth) {
            SCOPED_TRACE("allocation " + std::to_string(nth));
            notices = 0;
            tcp_record* const rec = make();
            long const before = count_relay_allocations();
            bool const threw = throws_at(nth, [&] { operation(rec); });
            goes_on = count_relay_allocations() - before >= nth;
            EXPECT_TRUE(goes_on || nth > 1) << "nothing was allocated";
            look(rec, threw);
            EXPECT_EQ(count_lost(), 0);
            clear();
        }
    }

    static bool throws_at(long nth, std::function<void()> const& operation) {
        relay_section const section;
        fail_relay_allocation(nth);
        bool threw = false;
        try {
            operation();
        } catch (std::bad_alloc const&) {
            threw = true;
        }
        fail_relay_allocation(0);
        return threw;
    }

    /// Live outgoing records that the next tick finds neither in a registry nor waiting for a place.
    static int count_lost() {
        int lost = 0;
        for (tcp_record const* rec : live_records()) {
            lost += static_cast<int>(registries_of(rec).empty() && !rec->shadowed);
        }
        return lost;
    }

    /// With the next tick, once there is memory again: a destination that was lost sight of would not be tried.
    static bool is_tried(tcp_record* rec) {
        advance_clock(1);
        EPoll::timer_reconnect_client();
        return rec->send_clock == Tesk::OS::lemon_clock();
    }

    int notices = 0;

private:
    static void clear() {
        EPoll::clear_connect_map(EPoll::g_connect_map);
        EPoll::clear_connect_map(EPoll::g_connect_fail_map);
        EPoll::clear_establish_map(EPoll::g_establish_client_map);
        EPoll::clear_establish_map(EPoll::g_establish_server_map);
        EPoll::g_remote_server_map.clear();
        take_errors();
        release_offers();
    }
};

TEST_F(allocation_failures, of_a_close_leave_no_record_and_the_center_is_told) {
    fail_each([this] { return established("rec"); }, [](tcp_record* rec) { EPoll::close_client(rec); },
              [this](tcp_record* rec, bool threw) {
                  EXPECT_FALSE(lives(rec));
                  EXPECT_EQ(notices, 1);
                  EXPECT_EQ(threw, live_records().empty()) << "a destination without a record is told of";
              });
}

TEST_F(allocation_failures, of_a_refused_connect_keep_the_destination) {
    fail_each([this] { return connecting("rec"); }, [](tcp_record* rec) { EPoll::failed_connect(rec); },
              [](tcp_record* rec, bool) {
                  EXPECT_TRUE(lives(rec));
                  EXPECT_TRUE(is_tried(rec));
              });
}

TEST_F(allocation_failures, of_a_failed_exchange_keep_the_destination) {
    fail_each([this] { return exchanging("rec"); }, [](tcp_record* rec) { EPoll::failed_connect_init(rec); },
              [](tcp_record* rec, bool) {
                  EXPECT_TRUE(lives(rec));
                  EXPECT_TRUE(is_tried(rec));
              });
}

TEST_F(allocation_failures, of_an_added_destination_leave_it_unknown_or_with_one_record) {
    fail_each([]() -> tcp_record* { return nullptr; },
              [](tcp_record*) { INet_Relay::add_client(Zolt::c_local_host, c_port); },
              [](tcp_record*, bool threw) {
                  EXPECT_EQ(live_records().size(), threw ? 0u : 1u);
                  EXPECT_EQ(EPoll::g_remote_server_map.size(), threw ? 0u : 1u);
              });
}

TEST_F(allocation_failures, of_a_retry_keep_the_destination) {
    fail_each([this] { return waiting("rec"); }, [](tcp_record*) { EPoll::timer_reconnect_client(); },
              [](tcp_record* rec, bool threw) {
                  EXPECT_TRUE(lives(rec));
                  EXPECT_TRUE(!threw || is_tried(rec));
              });
}

TEST_F(allocation_failures, of_the_text_of_a_failed_connect_close_the_socket_and_keep_the_destination) {
    std::uint32_t const no_peer = htonl(INADDR_ALLHOSTS_GROUP); // refused by the kernel at once
    fail_each([this] { return waiting("rec"); },
              [no_peer](tcp_record* rec) {
                  rec->remote_ip = no_peer;
                  EPoll::request_connect(rec);
              },
              [](tcp_record* rec, bool) {
                  rec->remote_ip = Zolt::c_local_host;
                  EXPECT_EQ(rec->fd, -1);
                  EXPECT_EQ(registries_of(rec), "fail");
                  EXPECT_TRUE(is_tried(rec));
              });
}

TEST_F(allocation_failures, of_an_establishment_are_made_up_for_with_the_next_tick) {
    fail_each([this] { return awaiting_answer("rec"); },
              [](tcp_record* rec) {
                  rec->kind = EPoll::c_kind_established_client;
                  EPoll::establish_connect(rec);
              },
              [this](tcp_record* rec, bool) {
                  EPoll::timer_reconnect_client();
                  EXPECT_EQ(registries_of(rec), "establish") << "else no packet reaches it";
                  EXPECT_EQ(notices, 1);
              });
}

TEST_F(allocation_failures, of_an_acceptance_destroy_the_record) {
    tcp_record* const rec = listed_accepted("rec");
    auto [near_end, far_end] = connected_pair();
    real::close(std::exchange(rec->fd, near_end.release()));
    rec->send_remain = 1;
    EXPECT_FALSE(throws_at(1, [&] { EPoll::send_server_init(rec); }));
    EXPECT_EQ(EPoll::g_accepted_exchanging.first, nullptr);
    EXPECT_TRUE(EPoll::g_establish_server_map.empty());
    EXPECT_EQ(notices, 0);
}

TEST_F(allocation_failures, of_the_place_of_a_call_leave_it_with_the_caller) {
    tcp_record* const rec = filed_accepted("rec");
    while (rec->ack_q.size() < c_full_block) {
        rec->ack_q.push_back(make_token({.call = true}));
    }
    auto call = make_token({.call = true});
    EXPECT_TRUE(
        throws_at(1, [&] { INet_Relay::send_tcp_server(EPoll::peer_of(rec), call, call.get_header_packet()); }));
    EXPECT_EQ(rec->ack_q.size(), c_full_block);
    EXPECT_TRUE(rec->send_q.empty()) << "an acknowledgement would release another call";
    EXPECT_TRUE(call.has_header());
    call.free();
}

TEST_F(allocation_failures, of_a_place_in_a_broadcast_are_told_to_the_caller_and_leave_nothing_behind) {
    tcp_record* const rec = filed_accepted("rec");
    auto packet = make_token({.data = {1}});
    while (rec->send_q.size() < c_full_block) {
        rec->send_q.push_back(make_token({}));
    }
    EXPECT_TRUE(throws_at(1, [&] { INet_Relay::send_tcp_broadcast(packet, packet.get_header_packet()); }));
    EXPECT_EQ(rec->send_q.size(), c_full_block);
    packet.free();
}

TEST_F(allocation_failures, of_the_place_of_an_answer_leave_no_answer_and_the_call_undelivered) {
    tcp_record* const rec = established("rec");
    while (rec->send_q.size() < c_full_block) {
        rec->send_q.push_back(make_token({}));
    }
    rec->recv_token = make_token({.call = true});
    EXPECT_TRUE(throws_at(1, [&] { EPoll::completed_recv_client_header(rec); }));
    EXPECT_EQ(rec->send_q.size(), c_full_block);
    EXPECT_EQ(notices, 0);
}

TEST_F(allocation_failures, can_hit_a_silent_connection_only_now_and_then_however_many_packets_wait) {
    constexpr int c_waiting = 1000;
    tcp_record* const rec = filed_accepted("rec");
    for (int i = 0; i < c_waiting; ++i) {
        rec->ack_q.push_back(make_token({.call = true}));
    }
    EPoll::g_auto_disconnect = true;
    long const before = count_relay_allocations();
    {
        relay_section const section;
        EPoll::timer_shutdown_server(rec->recv_clock + EPoll::c_connection_timeout + 1);
    }
    EXPECT_LT(count_relay_allocations() - before, 50);
    EXPECT_TRUE(rec->ack_q.empty());
}

} // namespace
