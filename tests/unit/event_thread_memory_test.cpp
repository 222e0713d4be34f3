// The five event threads alone, without the engine behind them: what serving an event costs beside its handler.
//
// Linked with the objects of the threads only. Their handlers, and the one operation of the host that they call, are
// this program's.
#include "Center/INet_Relay/EPoll/epoll.hpp"
#include "Center/INet_Relay/EPoll/epoll_tcp_method.hpp"
#include "Center/INet_Relay/EPoll/epoll_tcp_method_client.hpp"
#include "Center/INet_Relay/EPoll/epoll_tcp_method_server.hpp"
#include "Center/INet_Relay/EPoll/epoll_thread.hpp"
#include "Center/INet_Relay/EPoll/epoll_udp_method.hpp"
#include "tests/support/allocations.hpp"

#include <gtest/gtest.h>

#include <array>
#include <vector>

#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int g_handled = 0;

int handle() {
    ++g_handled;
    return 0;
}

} // namespace

namespace Zolt::Center::INet_Relay::EPoll {

int epoll_tcp_init = -1;
int epoll_tcp_recv = -1;
int epoll_tcp_send = -1;
int epoll_udp_recv = -1;
int epoll_udp_send = -1;

int accept(struct_epoll_overlapped*) {
    return handle();
}
int recv_udp(struct_epoll_overlapped_ex*) {
    return handle();
}
int send_udp(struct_epoll_overlapped_ex*) {
    return handle();
}
void shutdown_server(struct_epoll_overlapped_tcp*) {
    handle();
}

#define TCP_HANDLER(name)                                                                                              \
    int name(struct_epoll_overlapped_tcp*) {                                                                           \
        return handle();                                                                                               \
    }
TCP_HANDLER(completed_connect)
TCP_HANDLER(failed_connect)
TCP_HANDLER(failed_connect_init)
TCP_HANDLER(recv_client_init)
TCP_HANDLER(send_client_init)
TCP_HANDLER(recv_server_init)
TCP_HANDLER(send_server_init)
TCP_HANDLER(failed_server_init)
TCP_HANDLER(recv_client)
TCP_HANDLER(recv_server)
TCP_HANDLER(send_client)
TCP_HANDLER(send_server)
TCP_HANDLER(failed_send)
TCP_HANDLER(unestablish_connect)
TCP_HANDLER(close_client)
#undef TCP_HANDLER

} // namespace Zolt::Center::INet_Relay::EPoll

namespace Tesk::Utility {

void print_error(char const* text) {
    ADD_FAILURE() << text;
}

} // namespace Tesk::Utility

namespace {

namespace EPoll = Zolt::Center::INet_Relay::EPoll;

/// A thread, and how many handlers one event for each kind of record calls: without an error, and with one.
struct thread_row {
    char const* name;
    int* instance;
    void* (*entry)(Tesk::OS::class_thread*);
    int handled;
    int handled_errors;

    friend void PrintTo(thread_row const& row, std::ostream* out) { *out << row.name; }
};

constexpr int c_kinds = 7; ///< with one that there is not

thread_row const c_threads[] = {
    {"tcp_init", &EPoll::epoll_tcp_init, EPoll::epoll_thread_tcp_init_entry, 2, 1},
    {"tcp_recv", &EPoll::epoll_tcp_recv, EPoll::epoll_thread_tcp_recv_entry, 4, 5},
    {"tcp_send", &EPoll::epoll_tcp_send, EPoll::epoll_thread_tcp_send_entry, 4, 4},
    {"udp_recv", &EPoll::epoll_udp_recv, EPoll::epoll_thread_udp_recv_entry, 1, 0},
    {"udp_send", &EPoll::epoll_udp_send, EPoll::epoll_thread_udp_send_entry, 1, 0},
};

/// Records of every kind, each behind a descriptor that reports one event, and behind them the request to stop.
class event_thread_memory : public ::testing::TestWithParam<thread_row> {
protected:
    void SetUp() override {
        g_handled = 0;
        *GetParam().instance = ::epoll_create1(EPOLL_CLOEXEC);
        for (int kind = 0; kind < c_kinds; ++kind) {
            records.at(static_cast<std::size_t>(kind)).kind = kind;
        }
    }
    void TearDown() override {
        for (int const fd : opened) {
            ::close(fd);
        }
        ::close(*GetParam().instance);
    }

    void watch(int fd, EPoll::struct_epoll_overlapped* record) {
        opened.push_back(fd);
        ::epoll_event event{};
        event.events = EPOLLOUT | EPOLLONESHOT;
        event.data.ptr = record;
        ASSERT_EQ(::epoll_ctl(*GetParam().instance, EPOLL_CTL_ADD, fd, &event), 0);
    }

    /// Runs the thread over what is watched. The number of allocations.
    long serve() {
        watch(::eventfd(0, EFD_CLOEXEC), nullptr);
        long const before = relay_test::count_allocations();
        EXPECT_EQ(GetParam().entry(nullptr), nullptr);
        return relay_test::count_allocations() - before;
    }

    std::array<EPoll::struct_epoll_overlapped, c_kinds> records;
    std::vector<int> opened;
};

TEST_P(event_thread_memory, is_not_asked_for_to_serve_an_event_of_any_kind) {
    for (auto& record : records) {
        watch(::eventfd(0, EFD_CLOEXEC), &record);
    }
    EXPECT_EQ(serve(), 0);
    EXPECT_EQ(g_handled, GetParam().handled);
}

TEST_P(event_thread_memory, is_not_asked_for_to_serve_an_error_of_any_kind) {
    for (auto& record : records) {
        watch(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), &record); // hung up, as it was never connected
    }
    EXPECT_EQ(serve(), 0);
    EXPECT_EQ(g_handled, GetParam().handled_errors);
}

INSTANTIATE_TEST_SUITE_P(each, event_thread_memory, ::testing::ValuesIn(c_threads),
                         ::testing::PrintToStringParamName());

} // namespace
