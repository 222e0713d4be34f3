// A Center on the reference host: sends itself one datagram through the relay and takes it out of the inbox.
#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"
#include "Reference_Host/inbox.hpp"
#include "Reference_Host/packet_building.hpp"

#include <array>
#include <chrono>
#include <cstdio>
#include <string_view>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

namespace relay = Zolt::Center::INet_Relay;
namespace host = Zolt::Reference_Host;

constexpr std::string_view c_greeting = "as installed";
constexpr int c_tries = 50;

/// A port that was free a moment ago.
std::uint16_t find_port() {
    int const descriptor = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in bound{};
    bound.sin_family = AF_INET;
    socklen_t size = sizeof bound;
    ::bind(descriptor, reinterpret_cast<sockaddr*>(&bound), size);
    ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&bound), &size);
    ::close(descriptor);
    return ntohs(bound.sin_port);
}

/// The port that is served, or 0: another process may be faster.
std::uint16_t serve_any() {
    for (int i = 0; i < c_tries; ++i) {
        std::uint16_t const port = find_port();
        if (relay::add_server(port) == 0) {
            return port;
        }
    }
    return 0;
}

void send_greeting(std::uint16_t port) {
    host::packet_plan plan;
    plan.kind = host::packet_kind::command_udp;
    plan.source = plan.destination = {Zolt::c_local_host, port, 0};
    auto const* const bytes = reinterpret_cast<unsigned char const*>(c_greeting.data());
    Zolt::struct_token token = host::make_packet(plan, std::span(bytes, c_greeting.size()));
    relay::send_udp(token, token.get_header_packet());
}

bool take_greeting() {
    std::array<Zolt::struct_token, 1> taken;
    if (host::get_center_inbox().take(taken, std::chrono::seconds(30)) != 1) {
        return false;
    }
    auto const data = host::get_data_span(taken[0]);
    bool const is_right = std::string_view(reinterpret_cast<char const*>(data.data()), data.size()) == c_greeting;
    taken[0].free();
    return is_right;
}

} // namespace

int main() {
    relay::initialize();
    std::uint16_t const port = serve_any();
    relay::start();
    send_greeting(port);
    bool const arrived = take_greeting();
    host::get_center_inbox().stop();
    relay::stop();
    relay::finalize();
    relay::clear_leftovers();
    std::puts(arrived ? "arrived" : "lost");
    return arrived ? 0 : 1;
}
