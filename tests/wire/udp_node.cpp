#include "tests/wire/udp_node.hpp"

#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"
#include "Reference_Host/inbox.hpp"
#include "Reference_Host/output_sink.hpp"
#include "Reference_Host/packet_building.hpp"
#include "Reference_Host/packet_reading.hpp"

#include <span>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace wire {
namespace {

namespace relay = Zolt::Center::INet_Relay;
namespace host = Zolt::Reference_Host;

constexpr int c_port_attempts = 100;

sockaddr_in address(std::uint32_t ip, std::uint16_t port) {
    sockaddr_in made{};
    made.sin_family = AF_INET;
    made.sin_addr.s_addr = ip;
    made.sin_port = htons(port);
    return made;
}

sockaddr const* plain(sockaddr_in const& address) {
    return reinterpret_cast<sockaddr const*>(&address);
}

} // namespace

std::uint32_t ip(char const* dotted) {
    in_addr parsed{};
    return ::inet_pton(AF_INET, dotted, &parsed) == 1 ? parsed.s_addr : 0;
}

bytes datagram(std::uint64_t sequence, bytes const& data) {
    host::packet_plan plan;
    plan.sequence = sequence;
    Zolt::struct_token token = host::make_packet(plan, data);
    Zolt::struct_packet* const header = token.get_header_packet();
    unsigned char const* const first = header->get_header();
    bytes travelling(first, first + header->get_header_size());
    travelling.insert(travelling.end(), data.begin(), data.end());
    token.free();
    return travelling;
}

udp_node::udp_node() {
    host::set_output_target(
        [](host::output_line const& line, void* self) {
            auto* const node = static_cast<udp_node*>(self);
            std::lock_guard const hold(node->guard);
            node->collected.emplace_back(line.text);
            node->printed.notify_all();
        },
        this);
    // The thread that writes lines is made by the first one; from here on it is there.
    host::print_line(host::line_kind::trace, 't', "output taken over");
    host::drain_output(c_patience);
    lines(1);
}

udp_node::~udp_node() {
    stop();
    while (next(std::chrono::milliseconds(0))) {
    }
    host::drain_output(c_patience);
    host::set_output_target(nullptr, nullptr);
}

bool udp_node::open(std::uint16_t number) {
    if (number == 0 || relay::add_server(number) != 0) {
        return false;
    }
    served = number;
    return true;
}

bool udp_node::prepare(std::uint16_t wish) {
    relay::initialize();
    bool is_open = open(wish != 0 ? wish : served);
    for (int attempt = 0; !is_open && wish == 0 && attempt < c_port_attempts; ++attempt) {
        // Somebody else was faster; what was printed about it is of no interest.
        std::uint16_t const number = bare_socket(INADDR_ANY).port();
        is_open = open(number);
        host::drain_output(c_patience);
        lines(0);
    }
    return is_open;
}

bool udp_node::start(std::uint16_t wish) {
    bool const is_open = prepare(wish);
    relay::start();
    is_running = true;
    return is_open;
}

void udp_node::stop() {
    if (std::exchange(is_running, false)) {
        relay::stop();
        relay::finalize();
    }
}

std::uint16_t udp_node::port() const {
    return served;
}

namespace {

void hand_over(host::packet_plan plan, std::uint64_t sequence, host::packet_end const& destination, bytes const& data) {
    plan.sequence = sequence;
    plan.destination = destination;
    Zolt::struct_token token = host::make_packet(plan, data);
    relay::send_udp(token, token.get_header_packet());
}

} // namespace

void udp_node::send(std::uint32_t to, std::uint64_t sequence, bytes const& data) {
    hand_over({}, sequence, {to, served, 0}, data);
}

void udp_node::inform(std::uint32_t group, std::uint32_t interface_ip, std::uint64_t sequence) {
    host::packet_plan plan;
    plan.kind = host::packet_kind::information_udp;
    plan.multicast_interface = interface_ip;
    hand_over(plan, sequence, {group, served, 0}, {});
}

std::optional<arrival> udp_node::next(std::chrono::milliseconds longest) {
    Zolt::struct_token token;
    if (host::get_center_inbox().take(std::span(&token, 1), longest) == 0) {
        return std::nullopt;
    }
    Zolt::struct_packet const& header = *token.get_header_packet();
    std::span<unsigned char const> const data = host::get_data_span(token);
    arrival came{host::get_sequence(header), host::get_source(header).ip, token.has_data(), {data.begin(), data.end()}};
    token.free();
    return came;
}

std::uint64_t udp_node::next_sequence() {
    return next().value_or(arrival{}).sequence;
}

std::vector<std::string> udp_node::lines(std::size_t count) {
    std::unique_lock hold(guard);
    printed.wait_for(hold, c_patience, [&] { return collected.size() >= count; });
    return std::exchange(collected, {});
}

bare_socket::bare_socket(std::uint32_t ip, std::uint16_t port) : fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in const here = address(ip, port);
    if (::bind(fd, plain(here), sizeof here) != 0) {
        ::close(std::exchange(fd, -1));
    }
}

bare_socket::~bare_socket() {
    if (fd != -1) {
        ::close(fd);
    }
}

std::uint16_t bare_socket::port() const {
    sockaddr_in here{};
    socklen_t length = sizeof here;
    bool const is_known = ::getsockname(fd, reinterpret_cast<sockaddr*>(&here), &length) == 0;
    return is_known ? ntohs(here.sin_port) : std::uint16_t{0};
}

bool bare_socket::choose_interface(std::uint32_t interface_ip) const {
    in_addr const chosen{interface_ip};
    return ::setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &chosen, sizeof chosen) == 0;
}

bool bare_socket::send(std::uint32_t to, std::uint16_t port, bytes const& data) const {
    sockaddr_in const there = address(to, port);
    return ::sendto(fd, data.data(), data.size(), 0, plain(there), sizeof there) == static_cast<ssize_t>(data.size());
}

} // namespace wire
