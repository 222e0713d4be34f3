// The fixture that the lifecycle tests share: the five instances and the nine keys as tables.
#ifndef TESTS_UNIT_LIFECYCLE_FIXTURE_HPP
#define TESTS_UNIT_LIFECYCLE_FIXTURE_HPP

#include "tests/support/relay_fixture.hpp"
#include "tests/unit/configuration_keys.hpp"

#include <array>

namespace relay_test {

/// An instance, its thread, and their names in lines; in the order of creation.
struct instance_row {
    int* instance;
    Tesk::OS::class_thread* thread;
    char const* name;
    char const* thread_name;
};

inline std::array<instance_row, 5> instances() {
    return {{{&EPoll::epoll_tcp_init, &EPoll::epoll_thread_tcp_init, "epoll_tcp_init", "epoll_thread_tcp_init"},
             {&EPoll::epoll_tcp_recv, EPoll::epoll_thread_tcp_recv, "epoll_tcp_recv", "epoll_thread_tcp_recv[0]"},
             {&EPoll::epoll_tcp_send, EPoll::epoll_thread_tcp_send, "epoll_tcp_send", "epoll_thread_tcp_send[0]"},
             {&EPoll::epoll_udp_recv, &EPoll::epoll_thread_udp_recv, "epoll_udp_recv", "epoll_thread_udp_recv"},
             {&EPoll::epoll_udp_send, &EPoll::epoll_thread_udp_send, "epoll_udp_send", "epoll_thread_udp_send"}}};
}

class lifecycle_fixture : public relay_fixture {
protected:
    /// initialize, its lines forgotten, the instances under their own names.
    void initialize() {
        ASSERT_EQ(INet_Relay::initialize(), 0);
        name_instances();
        clear_journal();
        system.clear();
    }

    void name_instances() {
        for (instance_row const& row : instances()) {
            name_descriptor(*row.instance, row.name);
        }
    }

    /// initialize and start with threads that really run.
    void run() {
        start_threads(true);
        ASSERT_EQ(INet_Relay::initialize(), 0);
        ASSERT_EQ(INet_Relay::start(), 0);
    }

    void stop_and_finalize() {
        EXPECT_EQ(INet_Relay::stop(), 0);
        EXPECT_EQ(INet_Relay::finalize(), 0);
    }
};

} // namespace relay_test

#endif
