#include "Reference_Center/addresses.hpp"

#include <arpa/inet.h>
#include <array>
#include <charconv>
#include <net/if.h>
#include <netinet/in.h>
#include <span>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Zolt::Reference_Center {

namespace {

std::optional<std::uint16_t> parse_any_port(std::string_view text) {
    std::uint16_t port = 0;
    char const* const end = text.data() + text.size();
    auto const [stop, error] = std::from_chars(text.data(), end, port);
    if (error != std::errc() || stop != end) {
        return std::nullopt;
    }
    return port;
}

} // namespace

std::optional<std::uint16_t> parse_port(std::string_view text) {
    auto const port = parse_any_port(text);
    return port == 0 ? std::nullopt : port;
}

std::optional<std::uint32_t> parse_ip(std::string const& text) {
    in_addr address{};
    if (::inet_pton(AF_INET, text.c_str(), &address) != 1) {
        return std::nullopt;
    }
    return address.s_addr;
}

std::optional<struct_node_addr> parse_local_address(std::string_view text) {
    std::size_t const colon = text.rfind(':');
    if (colon == std::string_view::npos) {
        return std::nullopt;
    }
    auto const ip = parse_ip(std::string(text.substr(0, colon)));
    auto const port = parse_any_port(text.substr(colon + 1));
    if (!ip || !port) {
        return std::nullopt;
    }
    return struct_node_addr{*ip, *port};
}

std::optional<struct_node_addr> parse_address(std::string_view text) {
    auto const address = parse_local_address(text);
    return address && address->port == 0 ? std::nullopt : address;
}

std::string ip_text(std::uint32_t ip) {
    char text[INET_ADDRSTRLEN] = "";
    in_addr const address{ip};
    ::inet_ntop(AF_INET, &address, text, sizeof text);
    return text;
}

std::string address_text(struct_node_addr address) {
    return ip_text(address.ip) + ":" + std::to_string(address.port);
}

bool is_multicast(std::uint32_t ip) {
    return IN_MULTICAST(ntohl(ip));
}

std::vector<std::string> own_addresses() {
    // Asked of an IPv4 socket: where a service may open no other kind, getifaddrs has nothing to ask.
    int const fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    std::array<::ifreq, 64> interfaces{};
    ::ifconf list{};
    list.ifc_len = static_cast<int>(sizeof interfaces);
    list.ifc_req = interfaces.data();
    std::vector<std::string> addresses;
    std::vector<std::string> loopback;
    std::size_t const length = ::ioctl(fd, SIOCGIFCONF, &list) == 0 ? static_cast<std::size_t>(list.ifc_len) : 0;
    for (::ifreq& one : std::span(interfaces).first(length / sizeof(::ifreq))) {
        auto const ip = reinterpret_cast<::sockaddr_in const&>(one.ifr_addr).sin_addr.s_addr;
        if (::ioctl(fd, SIOCGIFFLAGS, &one) == 0 && (one.ifr_flags & IFF_UP) != 0) {
            ((one.ifr_flags & IFF_LOOPBACK) != 0 ? loopback : addresses).push_back(ip_text(ip));
        }
    }
    ::close(fd);
    return addresses.empty() ? loopback : addresses;
}

} // namespace Zolt::Reference_Center
