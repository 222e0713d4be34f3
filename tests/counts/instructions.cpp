// A program for an instruction counter: packets go through the relay and the reference host, built as shipped, on one
// thread and with stand-ins for the system calls, so that everything counted is the system's own work.
//
//   send     a Center makes a packet and hands it over; the send thread's loop writes and frees it
//   receive  the receive thread's loop reads a packet and offers it; a Center takes and frees it
//
// The stand-ins' own few dozen instructions are in the figures too.
//
// Without arguments it goes through every row and asks callgrind for a dump named "SIDE SIZE PACKETS" after each, twice
// with different numbers of packets. With --versions it prints on what the figures depend.

#include "Center/INet_Relay/EPoll/epoll.hpp"
#include "Center/INet_Relay/EPoll/epoll_tcp_method_server.hpp"
#include "Center/INet_Relay/EPoll/epoll_thread.hpp"
#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"
#include "Reference_Host/inbox.hpp"
#include "Reference_Host/packet_building.hpp"

#include <cstdio>
#include <cstring>
#include <functional>
#include <span>
#include <string>
#include <thread>

#include <gnu/libc-version.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <time.h>
#include <valgrind/callgrind.h>

namespace {

namespace relay = Zolt::Center::INet_Relay;
namespace host = Zolt::Reference_Host;
namespace engine = relay::EPoll;

constexpr int c_send_instance = 101;
constexpr int c_recv_instance = 102;
constexpr Zolt::struct_node_addr c_peer{Zolt::c_local_host, 9000};

// --- stand-ins -------------------------------------------------------------------------------------------------

/// The kernel's side of one connection.
struct one_connection {
    void* armed = nullptr;
    std::function<bool()> provide;           ///< called before each wait; false: the thread is told to stop
    Zolt::struct_packet* arriving = nullptr; ///< every header that is read
};
one_connection g_connection;

/// Makes a record what the relay knows of it.
void establish(engine::struct_epoll_overlapped_tcp& rec, int kind, engine::connection_map& registry) {
    rec.fd = 100;
    rec.kind = kind;
    rec.remote_ip = c_peer.ip;
    rec.remote_port = c_peer.port;
    rec.phase = engine::outgoing_phase::established;
    registry.emplace(c_peer, &rec);
}

} // namespace

extern "C" {

int epoll_wait(int, epoll_event* event, int, int) {
    bool const goes_on = g_connection.provide();
    event->events = 0;
    event->data.ptr = goes_on ? g_connection.armed : nullptr;
    return 1;
}

int epoll_ctl(int, int, int, epoll_event* event) noexcept {
    g_connection.armed = event->data.ptr;
    return 0;
}

ssize_t send(int, void const*, size_t size, int) {
    return static_cast<ssize_t>(size);
}

/// Data stays as it is.
ssize_t recv(int, void* into, size_t size, int) {
    if (size == g_connection.arriving->get_header_size()) {
        std::memcpy(into, g_connection.arriving->get_header(), size);
    }
    return static_cast<ssize_t>(size);
}

int clock_gettime(clockid_t, timespec* now) noexcept {
    *now = {1, 0};
    return 0;
}
}

namespace {

// --- the two sides ---------------------------------------------------------------------------------------------

Zolt::struct_token make_packet(std::uint32_t size) {
    host::packet_plan plan;
    plan.destination = {c_peer.ip, c_peer.port, 0};
    return host::make_packet(plan, size);
}

/// The queue runs empty for each packet.
void send_packets(std::uint32_t size, int packets) {
    g_connection.armed = nullptr;
    int pieces = 0;
    g_connection.provide = [=]() mutable {
        if (pieces != 0) {
            --pieces;
            return true;
        }
        if (packets-- == 0) {
            return false;
        }
        pieces = size == 0 ? 0 : 1;
        Zolt::struct_token token = make_packet(size);
        return relay::send_tcp_client(c_peer, token, token.get_header_packet()) == 0;
    };
    engine::epoll_thread_tcp_send_entry(nullptr);
}

void receive_packets(std::uint32_t size, int packets) {
    Zolt::struct_token arriving = make_packet(size);
    g_connection.arriving = arriving.get_header_packet();
    g_connection.provide = [=]() mutable {
        Zolt::struct_token token;
        if (host::get_center_inbox().count().packets != 0 &&
            host::get_center_inbox().take(std::span(&token, 1), std::chrono::milliseconds(0)) == 1) {
            token.free();
            --packets;
        }
        return packets != 0;
    };
    engine::epoll_thread_tcp_recv_entry(nullptr);
    arriving.free();
}

void measure(std::string const& side, void (*run)(std::uint32_t, int)) {
    constexpr int c_warm_up = 300;
    for (std::uint32_t const size : {0U, 64U, 1024U}) {
        run(size, c_warm_up);
        // Multiples of the packets for which the send queue takes a block.
        for (int const packets : {640, 1920}) {
            std::string const name = side + " " + std::to_string(size) + " " + std::to_string(packets);
            CALLGRIND_ZERO_STATS;
            run(size, packets);
            CALLGRIND_DUMP_STATS_AT(name.c_str());
        }
    }
}

} // namespace

int main(int count, char**) HOST_NO_LOCK_ANALYSIS {
    if (count > 1) {
        std::printf("compiler %s\nlibc %s\n", __VERSION__, ::gnu_get_libc_version());
        return 0;
    }
    // Locks are cheaper in a process that never had a second thread.
    std::thread([] {}).join();
    engine::epoll_tcp_send = c_send_instance;
    engine::epoll_tcp_recv = c_recv_instance;
    engine::struct_epoll_overlapped_tcp outgoing;
    engine::struct_epoll_overlapped_tcp accepted;
    establish(outgoing, engine::c_kind_established_client, engine::g_establish_client_map);
    establish(accepted, engine::c_kind_established_server, engine::g_establish_server_map);
    measure("send", send_packets);
    engine::request_recv_server_header(&accepted);
    measure("receive", receive_packets);
    return 0;
}
