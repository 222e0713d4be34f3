#include "tests/fault/scripts.hpp"

#include "tests/support/real_calls.hpp"

namespace relay_test {
namespace {

constexpr int c_packets = 10;
constexpr int c_listeners = 5;
constexpr int c_many = 70; ///< packets: more than a queue takes memory for at once

// --- steps -----------------------------------------------------------------------------------------------------

peer& accept_one(stage& s) {
    peer& newcomer = s.knock();
    s.serve();
    newcomer.put(stage::block());
    s.serve();
    newcomer.hear();
    return newcomer;
}

void add_client(stage& s, peer const& destination) {
    s.call([&] { INet_Relay::add_client(destination.address.ip, destination.address.port); });
}
void del_client(stage& s, peer const& destination) {
    s.call([&] { INet_Relay::del_client(destination.address.ip, destination.address.port); });
}

/// The peer's half of an exchange that the relay has begun, if it could begin it.
void answer(stage& s, peer& with) {
    s.serve();
    if (with.take_connection()) {
        with.hear();
        with.put(stage::block());
    }
    s.serve();
}

peer& connect_one(stage& s) {
    peer& destination = s.listening();
    add_client(s, destination);
    answer(s, destination);
    return destination;
}

void exchange_packets(stage& s, EPoll::connection_map const& registry, peer& with) {
    for (unsigned number = 0; number < c_packets; ++number) {
        bytes const data(number, 5); // the first is a header only
        s.hand_over(registry, with, {.sequence = number, .data = data});
        with.put(packet_bytes({.sequence = number, .data = data}));
        s.serve();
        with.hear();
    }
}

void part(stage& s, peer& from) {
    from.hang_up();
    s.serve();
    from.hear();
    s.serve();
}

/// Destinations that nobody listens at.
peer& refused(stage& s) {
    peer& destination = s.peers.emplace_back();
    destination.listener = bind_loopback_tcp();
    destination.address = {Zolt::c_local_host, local_port(destination.listener)};
    add_client(s, destination);
    s.serve();
    return destination;
}

// --- scripts ---------------------------------------------------------------------------------------------------

void accept_and_exchange(stage& s) {
    peer& newcomer = accept_one(s);
    exchange_packets(s, accepted(), newcomer);
    part(s, newcomer);
}

void connect_and_exchange(stage& s) {
    peer& destination = connect_one(s);
    exchange_packets(s, outgoing(), destination);
    part(s, destination);
}

void refused_and_retry(stage& s) {
    peer& destination = refused(s);
    s.tick_timer();
    s.serve();
    __real_listen(destination.listener.get(), c_listeners);
    s.tick_timer();
    answer(s, destination);
    part(s, destination);
}

void broadcast_to_five(stage& s) {
    for (int number = 0; number < c_listeners; ++number) {
        accept_one(s);
    }
    for (int number = 0; number < 2; ++number) {
        auto token = make_token({.data = bytes(10, 5)});
        s.call([&] { INet_Relay::send_tcp_broadcast(token, token.get_header_packet()); });
        token.free();
        s.serve();
    }
}

void acknowledgements(stage& s) {
    peer& newcomer = accept_one(s);
    for (int number = 0; number < 3; ++number) {
        s.hand_over(accepted(), newcomer, {.call = true, .data = bytes(10, 5)});
    }
    s.serve();
    newcomer.put(packet_bytes({.call_ack = true}));
    s.serve();
    peer& destination = connect_one(s);
    destination.put(packet_bytes({.call = true}));
    destination.put(packet_bytes({.signal = true, .data = bytes(10, 5)}));
    s.serve();
    destination.hear();
}

void silence(stage& s) {
    peer& newcomer = accept_one(s);
    for (int number = 0; number < 3; ++number) {
        s.hand_over(accepted(), newcomer, {.signal = true});
    }
    connect_one(s);
    s.serve();
    for (int ticks = 0; ticks < 3; ++ticks) {
        s.let_time_pass();
        s.serve();
    }
}

void heartbeats(stage& s) {
    peer& newcomer = accept_one(s);
    peer& destination = connect_one(s);
    for (int ticks = 0; ticks < 3; ++ticks) {
        s.tick_timer();
        newcomer.put(packet_bytes({.heartbeat = true}));
        destination.put(packet_bytes({.heartbeat = true}));
        s.serve();
        newcomer.hear();
        destination.hear();
    }
}

/// Long queues of every kind of packet while the send threads do not run.
void long_queues(stage& s) {
    peer& newcomer = accept_one(s);
    peer& destination = connect_one(s);
    s.hold_senders(true);
    for (int number = 0; number < c_many; ++number) {
        s.hand_over(accepted(), newcomer, {.call = true});
        s.hand_over(outgoing(), destination, {});
        s.hand_over_udp(s.port, {.dst_ip = Zolt::c_local_host});
    }
    for (int number = 0; number < c_many; ++number) {
        auto token = make_token({.data = bytes(10, 5)});
        s.call([&] { INet_Relay::send_tcp_broadcast(token, token.get_header_packet()); });
        token.free();
    }
    for (int number = 0; number < c_many; ++number) {
        s.tick_timer();
    }
    for (int number = 0; number < c_many; ++number) {
        destination.put(packet_bytes({.call = true}));
        s.serve();
    }
    s.hold_senders(false);
    part(s, newcomer);
    part(s, destination);
}

void reset_and_reconnect(stage& s) {
    peer& destination = connect_one(s);
    s.hand_over(outgoing(), destination, {.data = bytes(10, 5)});
    if (destination.socket.get() != -1) {
        reset_connection(destination.socket);
    }
    s.serve();
    s.tick_timer();
    answer(s, destination);
    exchange_packets(s, outgoing(), destination);
}

void withdraw_connecting(stage& s) {
    peer& destination = s.listening();
    add_client(s, destination);
    del_client(s, destination);
    answer(s, destination);
    part(s, destination);
}

void withdraw_exchanging(stage& s) {
    peer& destination = s.listening();
    add_client(s, destination);
    s.serve();
    del_client(s, destination);
    answer(s, destination);
    part(s, destination);
}

void withdraw_established(stage& s) {
    peer& destination = connect_one(s);
    s.hand_over(outgoing(), destination, {.data = bytes(10, 5)});
    del_client(s, destination);
    s.serve();
    part(s, destination);
}

void withdraw_waiting(stage& s) {
    peer& destination = refused(s);
    del_client(s, destination);
    s.tick_timer();
    s.serve();
}

void send_datagrams(stage& s, packet_fields const& fields) {
    for (int number = 0; number < 2; ++number) {
        packet_fields with_data = fields;
        with_data.data = bytes(10, 5);
        s.hand_over_udp(s.port, fields);
        s.hand_over_udp(s.port, with_data);
        s.serve();
    }
}

void datagrams(stage& s) {
    send_datagrams(s, {.dst_ip = Zolt::c_local_host});
    s.throw_datagram(s.port, packet_bytes({.version = 1}));
    s.serve();
    s.throw_datagram(s.port, {});
    s.serve();
}

void broadcast_datagrams(stage& s) {
    send_datagrams(s, {.dst_ip = address_of("127.255.255.255")});
}

void multicast_datagrams(stage& s) {
    unsigned long const group = address_of("232.1.1.1");
    unsigned long const local = Zolt::c_local_host;
    s.call([&] { INet_Relay::add_membership(group, local, local, s.port); });
    send_datagrams(s, {.information_udp = true,
                       .dst_ip = static_cast<std::uint32_t>(group),
                       .mct_ip = static_cast<std::uint32_t>(local)});
    s.call([&] { INet_Relay::drop_membership(group, local, local, s.port); });
}

void start_and_stop(stage& s) {
    s.is_initialized = true;
    if (!s.call([] { INet_Relay::initialize(); })) {
        return;
    }
    for (int number = 0; number < 2; ++number) {
        s.port = unused_port();
        s.call([&s] { INet_Relay::add_server(s.port); });
    }
    s.call([] { INet_Relay::start(); });
    s.is_started = true;
    connect_one(s);
    s.is_started = false;
    s.call([] { INet_Relay::stop(); });
    s.is_initialized = false;
    s.call([] { INet_Relay::finalize(); });
}

std::string repeated(std::string const& word, int times) {
    std::string all;
    for (int number = 0; number < times; ++number) {
        all += word;
    }
    return all;
}

} // namespace

std::vector<script> const& all_scripts() {
    static std::string const ten = repeated(" packet", c_packets);
    static std::string const served = "connected_from_client" + ten + " disconnected_from_client";
    static std::string const used = "connected_to_server" + ten + " disconnected_from_server";
    static std::string const queued = "connected_from_client connected_to_server" + repeated(" packet", c_many) +
                                      " disconnected_from_client" + repeated(" packet", c_many) +
                                      " disconnected_from_server";
    static std::string const reused =
        "connected_to_server disconnected_from_server returned:not_connected connected_to_server" + ten;
    static std::vector<script> const scripts{
        {"accept_and_exchange", accept_and_exchange, script::kind::traffic, served.c_str()},
        {"connect_and_exchange", connect_and_exchange, script::kind::traffic, used.c_str()},
        {"refused_and_retry", refused_and_retry, script::kind::traffic, "connected_to_server disconnected_from_server"},
        {"broadcast_to_five", broadcast_to_five, script::kind::traffic,
         "connected_from_client connected_from_client connected_from_client connected_from_client "
         "connected_from_client"},
        {"acknowledgements", acknowledgements, script::kind::traffic,
         "connected_from_client connected_to_server packet packet"},
        {"silence", silence, script::kind::traffic,
         "connected_from_client connected_to_server returned:disconnected returned:disconnected "
         "returned:disconnected disconnected_from_client disconnected_from_server"},
        {"heartbeats", heartbeats, script::kind::traffic, "connected_from_client connected_to_server"},
        {"long_queues", long_queues, script::kind::queues, queued.c_str()},
        {"reset_and_reconnect", reset_and_reconnect, script::kind::traffic, reused.c_str()},
        {"withdraw_connecting", withdraw_connecting, script::kind::traffic,
         "connected_to_server disconnected_from_server"},
        {"withdraw_exchanging", withdraw_exchanging, script::kind::traffic,
         "connected_to_server disconnected_from_server"},
        {"withdraw_established", withdraw_established, script::kind::traffic,
         "connected_to_server disconnected_from_server"},
        {"withdraw_waiting", withdraw_waiting, script::kind::traffic, ""},
        {"datagrams", datagrams, script::kind::traffic, "packet packet packet packet"},
        {"broadcast_datagrams", broadcast_datagrams, script::kind::traffic, "packet packet packet packet"},
        {"multicast_datagrams", multicast_datagrams, script::kind::traffic, "packet packet packet packet"},
        {"start_and_stop", start_and_stop, script::kind::lifecycle, "connected_to_server"}};
    return scripts;
}

} // namespace relay_test
