#include "tests/race/live_relay.hpp"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <thread>

namespace relay_test {
namespace {

using namespace std::chrono_literals;

constexpr std::uint32_t c_loopback = Zolt::c_local_host;
constexpr int c_small_buffer = 4096;

void shrink(descriptor const& socket, int option) {
    ::setsockopt(socket.get(), SOL_SOCKET, option, &c_small_buffer, sizeof c_small_buffer);
}

::sockaddr_in loopback_address(std::uint16_t port) {
    ::sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = c_loopback;
    return address;
}

/// A connection whose window stays small.
descriptor connect_narrow(std::uint16_t port) {
    descriptor socket(::socket(AF_INET, SOCK_STREAM, 0));
    shrink(socket, SO_RCVBUF);
    ::sockaddr_in const address = loopback_address(port);
    EXPECT_EQ(::connect(socket.get(), reinterpret_cast<::sockaddr const*>(&address), sizeof address), 0);
    return socket;
}

bytes init_block() {
    return bytes(c_init_block, 0);
}

} // namespace

bool eventually(std::function<bool()> const& holds) {
    auto const deadline = std::chrono::steady_clock::now() + 30s;
    for (int tries = 0; !holds(); ++tries) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        tries < 50 ? std::this_thread::yield() : static_cast<void>(::poll(nullptr, 0, 1));
    }
    return true;
}

void heard::forget() {
    for (auto* const count : {&connected, &disconnected, &unsent, &unanswered, &delivered}) {
        count->store(0);
    }
}

int heard::note(packet_fields const& packet) {
    if (packet.control) {
        ++(packet.event % 2 == 1 ? connected : disconnected);
    } else if (packet.error == Zolt::c_zolt_err_not_connected_tcp) {
        ++unsent;
    } else if (packet.error == Zolt::c_zolt_err_disconnected_tcp) {
        ++unanswered;
    } else {
        ++delivered;
    }
    return c_center_took;
}

void live_relay::SetUp() {
    relay_fixture::SetUp();
    record(is_recorded());
    start_threads(true);
    on_offer([this](packet_fields const& packet) { return center.note(packet); });
    INet_Relay::initialize();
    // A port that the kernel gives out may be taken again, by a connection, before it is served.
    ASSERT_TRUE(eventually([this] { return INet_Relay::add_server(port = unused_port()) == 0; }));
    take_errors();
    INet_Relay::start();
    resting = count_ledger();
    resting_locks = count_locks().made - count_locks().destroyed;
}

void live_relay::TearDown() {
    INet_Relay::stop();
    INet_Relay::finalize();
    EPoll::clear_establish_map(EPoll::g_establish_server_map);
    for (auto* const registry : {&EPoll::g_connect_map, &EPoll::g_establish_client_map, &EPoll::g_connect_fail_map}) {
        EPoll::clear_connect_map(*registry);
    }
    on_offer(nullptr);
    EPoll::g_server_map.clear();
    take_errors();
    relay_fixture::TearDown();
}

connection live_relay::begin(side which) {
    connection made;
    made.which = which;
    if (which == side::accepted) {
        made.peer = connect_narrow(port);
        made.address = {c_loopback, local_port(made.peer)};
        return made;
    }
    made.listener = listen_loopback();
    shrink(made.listener, SO_RCVBUF);
    made.address = {c_loopback, local_port(made.listener)};
    INet_Relay::add_client(made.address.ip, made.address.port);
    made.peer = accept_loopback(made.listener);
    return made;
}

bool live_relay::finish(connection& made) {
    if (made.which == side::outgoing) {
        EXPECT_EQ(read_bytes(made.peer, c_init_block).size(), c_init_block);
    }
    write_bytes(made.peer, init_block());
    if (made.which == side::accepted) {
        EXPECT_EQ(read_bytes(made.peer, c_init_block).size(), c_init_block);
    }
    return eventually([&] { return center.connected.load() == 1 && with_record(made, [](tcp_record*) {}); });
}

bool live_relay::with_record(connection const& made, std::function<void(tcp_record*)> const& look) {
    bool const is_client = made.which == side::outgoing;
    auto& registry = is_client ? EPoll::g_establish_client_map : EPoll::g_establish_server_map;
    Tesk::OS::class_locker const guard(is_client ? &EPoll::g_client_lock : &EPoll::g_establish_server_map_lock,
                                       nullptr);
    auto const entry = registry.find(made.address);
    if (entry == registry.end()) {
        return false;
    }
    look(entry->second);
    return true;
}

bool live_relay::with_exchanging(connection const& made, std::function<void(tcp_record*)> const& look) {
    bool const is_client = made.which == side::outgoing;
    Tesk::OS::class_locker const guard(is_client ? &EPoll::g_client_lock : &EPoll::g_establish_server_map_lock,
                                       nullptr);
    tcp_record* rec = is_client ? EPoll::g_outgoing.first : EPoll::g_accepted_exchanging.first;
    if (rec == nullptr || rec->fd == -1) {
        return false;
    }
    look(rec);
    return true;
}

bool live_relay::hand_over(connection const& made, packet_fields fields) {
    auto token = make_token(std::move(fields));
    auto const send = made.which == side::outgoing ? INet_Relay::send_tcp_client : INet_Relay::send_tcp_server;
    if (send(made.address, token, token.get_header_packet()) == 0) {
        return true;
    }
    token.free();
    return false;
}

void live_relay::let_time_pass() {
    advance_clock(c_past_time_out);
    tick(EPoll::inet_timer);
}

bool live_relay::is_gone() {
    {
        Tesk::OS::class_locker const guard(&EPoll::g_client_lock, nullptr);
        if (EPoll::g_outgoing.first != nullptr) {
            return false;
        }
    }
    {
        Tesk::OS::class_locker const guard(&EPoll::g_establish_server_map_lock, nullptr);
        if (!EPoll::g_establish_server_map.empty() || EPoll::g_accepted_exchanging.first != nullptr ||
            EPoll::g_accepted_ending.first != nullptr) {
            return false;
        }
    }
    // Who destroys a record has finished with what it offered; only then may the Center give its packets back.
    lock_counts const locks = count_locks();
    if (locks.made - locks.destroyed != resting_locks) {
        return false;
    }
    if (!recording()) {
        return true; // each thread still holds what it offered last; the fixture counts after they have ended
    }
    release_offers();
    return count_ledger() == resting;
}

} // namespace relay_test
