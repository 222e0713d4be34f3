// Sockets that report arrivals by edges: what fails there must not leave the rest unheard.
#include "tests/support/allocations.hpp"
#include "tests/unit/udp_fixture.hpp"

#include <cerrno>
#include <new>

namespace {

using namespace relay_test;

constexpr std::uint32_t c_arrival_mask = 0x80000001;
constexpr std::uint32_t c_drain_mask = 0x00000001;

// --- a UDP port ---------------------------------------------------------------------------------------------------

class datagrams_after_a_dropped_one : public udp_fixture {
protected:
    void SetUp() override {
        udp_fixture::SetUp();
        rec = open_bound_port();
    }

    /// The receive thread's work for one event.
    void receive_one() const { EPoll::recv_udp(rec); }

    std::uint32_t due() const { return next_event(recv_instance.get(), rec, c_now); }

    udp_record* rec = nullptr;
};

TEST_F(datagrams_after_a_dropped_one, are_gone_through_from_the_next_tick_on) {
    for (int i = 0; i < 4; ++i) {
        send_to(rec, {1, 2, 3});
        expect_error(text("udp_length_wrong"));
    }
    ASSERT_NE(due(), 0u);
    receive_one();
    ASSERT_EQ(due(), 0u);
    EPoll::timer_look_again();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(due(), static_cast<std::uint32_t>(EPOLLIN));
        receive_one();
    }
    EXPECT_EQ(due(), 0u);
}

TEST_F(datagrams_after_a_dropped_one, bring_the_edge_back_when_one_is_taken) {
    send_to(rec, {1, 2, 3});
    send_to(rec, packet_bytes({}));
    expect_error(text("udp_length_wrong"));
    receive_one();
    EPoll::timer_look_again();
    ASSERT_NE(due(), 0u);
    receive_one();
    EXPECT_EQ(system.calls("epoll_ctl").back().mask, c_arrival_mask);
}

TEST_F(datagrams_after_a_dropped_one, are_looked_at_once_a_tick_when_the_call_itself_failed) {
    send_to(rec, {1, 2, 3});
    system.fail("recvfrom", 1, ENOMEM);
    expect_error(text("udp_nothing_read"));
    receive_one();
    EPoll::timer_look_again();
    EXPECT_EQ(system.calls("epoll_ctl").back().mask, c_arrival_mask);
    EXPECT_NE(due(), 0u);
    expect_error(text("udp_length_wrong"));
    receive_one();
}

TEST_F(datagrams_after_a_dropped_one, are_looked_at_once_a_tick_when_only_its_header_could_be_read) {
    send_to(rec, packet_bytes({}));
    system.fail("recvfrom", 2, ENOMEM);
    expect_error(text("udp_nothing_read"));
    receive_one();
    system.clear();
    EPoll::timer_look_again();
    EXPECT_EQ(system.calls("epoll_ctl").back().mask, c_arrival_mask);
    EXPECT_NE(due(), 0u);
    receive_one();
    EXPECT_EQ(due(), 0u);
}

TEST_F(datagrams_after_a_dropped_one, are_looked_at_when_the_host_refused_it_memory) {
    packet_fields const announcing{.data = {1, 2, 3}};
    send_to(rec, packet_bytes(announcing));
    send_to(rec, {4, 5, 6});
    ASSERT_NE(due(), 0u);
    script_alloc_data({allocation::refused});
    receive_one();
    EPoll::timer_look_again();
    EXPECT_NE(due(), 0u);
}

TEST_F(datagrams_after_a_dropped_one, need_one_look_and_no_more) {
    send_to(rec, {1, 2, 3});
    expect_error(text("udp_length_wrong"));
    receive_one();
    EPoll::timer_look_again();
    EXPECT_EQ(system.calls("epoll_ctl").size(), 1u);
    EXPECT_EQ(system.calls("epoll_ctl").at(0).mask, c_drain_mask);
    EPoll::timer_look_again();
    EXPECT_EQ(system.calls("epoll_ctl").size(), 1u);
}

TEST_F(datagrams_after_a_dropped_one, that_was_taken_are_left_to_the_receive_thread) {
    send_to(rec, packet_bytes({}));
    receive_one();
    system.clear();
    EPoll::timer_look_again();
    EXPECT_TRUE(system.calls("epoll_ctl").empty());
}

TEST_F(datagrams_after_a_dropped_one, of_a_port_that_was_closed_are_forgotten) {
    send_to(rec, {1, 2, 3});
    expect_error(text("udp_length_wrong"));
    receive_one();
    EPoll::udp_finalize();
    system.clear();
    EPoll::timer_look_again();
    EXPECT_TRUE(system.calls("epoll_ctl").empty());
}

// --- a listening port -----------------------------------------------------------------------------------------------

class connections_after_a_failed_accept : public udp_fixture {
protected:
    void SetUp() override {
        udp_fixture::SetUp();
        init_instance = make_instance("tcp_init");
        receive_instance = make_instance("tcp_recv");
        EPoll::epoll_tcp_init = init_instance.get();
        EPoll::epoll_tcp_recv = receive_instance.get();
        port = unused_port();
        ASSERT_EQ(EPoll::request_listen(port), 0);
    }

    void TearDown() override {
        while (EPoll::g_accepted_exchanging.first != nullptr) {
            EPoll::delete_overlapped(EPoll::g_accepted_exchanging.first);
        }
        __real_close(std::exchange(EPoll::g_server_map.at(port), -1));
        EPoll::free_listening_records();
        init_instance.close();
        receive_instance.close();
        udp_fixture::TearDown();
    }

    /// The listening record when an event of it is due, else null.
    EPoll::struct_epoll_overlapped* due(int milliseconds) const {
        epoll_event event{};
        int const count = __real_epoll_wait(init_instance.get(), &event, 1, milliseconds);
        return count == 1 ? static_cast<EPoll::struct_epoll_overlapped*>(event.data.ptr) : nullptr;
    }

    descriptor init_instance;
    descriptor receive_instance;
    std::uint16_t port = 0;
};

TEST_F(connections_after_a_failed_accept, are_taken_with_the_next_tick) {
    descriptor const peer = connect_loopback(port);
    EPoll::struct_epoll_overlapped* const listening = due(c_soon);
    ASSERT_NE(listening, nullptr);
    system.fail("accept", 1, EMFILE);
    expect_error(text("accept_failed"));
    EXPECT_EQ(EPoll::accept(listening), -1);
    ASSERT_EQ(due(c_now), nullptr);
    EPoll::timer_look_again();
    ASSERT_EQ(due(c_now), listening);
    EXPECT_EQ(EPoll::accept(listening), 0);
    EXPECT_NE(EPoll::g_accepted_exchanging.first, nullptr);
}

TEST_F(connections_after_a_failed_accept, are_taken_when_there_was_no_memory_for_it) {
    descriptor const first = connect_loopback(port);
    descriptor const second = connect_loopback(port);
    EPoll::struct_epoll_overlapped* const listening = due(c_soon);
    ASSERT_NE(listening, nullptr);
    record(false); // the harness takes no memory of its own then
    {
        relay_section const section;
        fail_relay_allocation(1);
        EXPECT_THROW(EPoll::accept(listening), std::bad_alloc);
        fail_relay_allocation(0);
    }
    ASSERT_EQ(due(c_now), nullptr);
    EPoll::timer_look_again();
    EXPECT_EQ(due(c_now), listening);
    record(true);
}

TEST_F(connections_after_a_failed_accept, need_no_look_when_it_went_well) {
    descriptor const peer = connect_loopback(port);
    EPoll::struct_epoll_overlapped* const listening = due(c_soon);
    ASSERT_NE(listening, nullptr);
    EXPECT_EQ(EPoll::accept(listening), 0);
    system.clear();
    EPoll::timer_look_again();
    EXPECT_TRUE(system.calls("epoll_ctl").empty());
}

} // namespace
