#include "Reference_Center/socket_facts.hpp"

#include <netinet/in.h>
#include <sys/socket.h>

namespace Zolt::Reference_Center {
namespace {

/// An option's value as it was before when it cannot be read.
template <typename Value>
bool read_option(int descriptor, int level, int name, Value& value) {
    ::socklen_t length = sizeof value;
    return ::getsockopt(descriptor, level, name, &value, &length) == 0;
}

} // namespace

std::uint64_t read_socket_cookie(int descriptor) {
    std::uint64_t cookie = 0;
    read_option(descriptor, SOL_SOCKET, SO_COOKIE, cookie);
    return cookie;
}

std::optional<::tcp_info> read_tcp_info(int descriptor) {
    ::tcp_info info{};
    return read_option(descriptor, IPPROTO_TCP, TCP_INFO, info) ? std::optional(info) : std::nullopt;
}

bool is_listening(int descriptor) {
    int answer = 0;
    return read_option(descriptor, SOL_SOCKET, SO_ACCEPTCONN, answer) && answer != 0;
}

std::optional<struct_node_addr> read_remote_address(int descriptor) {
    ::sockaddr_in address{};
    ::socklen_t length = sizeof address;
    if (::getpeername(descriptor, reinterpret_cast<::sockaddr*>(&address), &length) != 0) {
        return std::nullopt;
    }
    return struct_node_addr{address.sin_addr.s_addr, ntohs(address.sin_port)};
}

std::uint16_t read_local_port(int descriptor) {
    ::sockaddr_in address{};
    ::socklen_t length = sizeof address;
    ::getsockname(descriptor, reinterpret_cast<::sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

int take_socket_error(int descriptor) {
    int error = 0;
    read_option(descriptor, SOL_SOCKET, SO_ERROR, error);
    return error;
}

} // namespace Zolt::Reference_Center
