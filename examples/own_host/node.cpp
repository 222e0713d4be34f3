// A node on this folder's own host: answers what arrives, and says hello to a node that it was told to connect to.
//
//   own_host PORT [IP:PORT]
#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"
#include "examples/own_host/host.hpp"

#include <csignal>
#include <cstdlib>
#include <iostream>

#include <arpa/inet.h>

namespace {

namespace relay = Zolt::Center::INet_Relay;

volatile std::sig_atomic_t g_is_ending = 0;

char const* name_of(own_host::event what) {
    static constexpr char const* c_names[] = {"packet from", "datagram from", "came back from", "connected",
                                              "disconnected"};
    return c_names[static_cast<int>(what)];
}

/// Over the connection to that peer, whoever opened it.
void send(Zolt::struct_node_addr peer, std::string_view text) {
    Zolt::struct_token token = own_host::make_packet(peer, text);
    if (relay::send_tcp_server(peer, token, token.get_header_packet()) != 0 &&
        relay::send_tcp_client(peer, token, token.get_header_packet()) != 0) {
        token.free();
    }
}

void handle(own_host::arrival const& next, Zolt::struct_node_addr greeted) {
    in_addr const ip{next.peer.ip};
    std::cout << name_of(next.what) << ' ' << ::inet_ntoa(ip) << ':' << next.peer.port << ' ' << next.data << std::endl;
    if (next.what == own_host::event::connected && next.peer == greeted) {
        send(next.peer, "hello");
    } else if (next.what == own_host::event::packet && !next.data.starts_with("you said")) {
        send(next.peer, "you said " + next.data);
    }
}

Zolt::struct_node_addr parse(std::string const& text) {
    std::size_t const colon = text.find(':');
    return {::inet_addr(text.substr(0, colon).c_str()),
            static_cast<std::uint16_t>(std::atoi(text.c_str() + colon + 1))};
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::cerr << "usage: own_host PORT [IP:PORT]\n";
        return 2;
    }
    std::signal(SIGINT, [](int) { g_is_ending = 1; });
    std::signal(SIGTERM, [](int) { g_is_ending = 1; });
    relay::initialize();
    if (relay::add_server(static_cast<unsigned short>(std::atoi(argv[1]))) != 0) {
        return 4;
    }
    relay::start();
    Zolt::struct_node_addr const greeted = argc > 2 ? parse(argv[2]) : Zolt::struct_node_addr{};
    if (argc > 2) {
        relay::add_client(greeted.ip, greeted.port);
    }
    std::cout << "ready" << std::endl;
    own_host::arrival next;
    while (g_is_ending == 0) {
        if (own_host::wait_for(next, std::chrono::milliseconds(100))) {
            handle(next, greeted);
        }
    }
    own_host::close_inbox();
    relay::stop();
    relay::finalize();
    relay::clear_leftovers();
}
