#include "tests/support/loopback.hpp"

#include "tests/support/journal.hpp"
#include "tests/support/real_calls.hpp"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <random>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>

namespace relay_test {
namespace {

constexpr int c_limit_ms = 30000;

sockaddr_in loopback_address(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

sockaddr const* plain(sockaddr_in const& address) {
    return reinterpret_cast<sockaddr const*>(&address);
}

void must(bool worked, char const* what) {
    if (!worked) {
        report_failure(std::string("loopback: ") + what + ": " + std::strerror(errno));
    }
}

descriptor bound(int type, std::uint16_t port) {
    descriptor socket(__real_socket(AF_INET, type | SOCK_CLOEXEC, 0));
    sockaddr_in const address = loopback_address(port);
    must(__real_bind(socket.get(), plain(address), sizeof address) == 0, "bind");
    return socket;
}

bool wait_for(descriptor const& socket, short events) {
    pollfd waited{socket.get(), events, 0};
    int result = 0;
    do {
        result = ::poll(&waited, 1, c_limit_ms);
    } while (result == -1 && errno == EINTR);
    must(result == 1, "nothing happened in time");
    return result == 1;
}

} // namespace

descriptor::descriptor(int number) : fd(number) {}
descriptor::~descriptor() {
    close();
}
descriptor::descriptor(descriptor&& other) noexcept : fd(other.release()) {}

descriptor& descriptor::operator=(descriptor&& other) noexcept {
    if (this != &other) {
        close();
        fd = other.release();
    }
    return *this;
}

int descriptor::get() const {
    return fd;
}
int descriptor::release() {
    return std::exchange(fd, -1);
}

void descriptor::close() {
    if (fd != -1) {
        real::close(std::exchange(fd, -1));
    }
}

descriptor listen_loopback(int backlog) {
    descriptor socket = bound(SOCK_STREAM, 0);
    must(__real_listen(socket.get(), backlog) == 0, "listen");
    return socket;
}

descriptor bind_loopback_tcp() {
    return bound(SOCK_STREAM, 0);
}

descriptor bind_loopback_udp() {
    return bound(SOCK_DGRAM, 0);
}

namespace {

/// True when nothing on this machine, at whatever address, stands in the way of serving the port.
bool is_free(int type, std::uint16_t port) {
    descriptor const socket(__real_socket(AF_INET, type | SOCK_CLOEXEC, 0));
    sockaddr_in address = loopback_address(port);
    address.sin_addr.s_addr = INADDR_ANY;
    return __real_bind(socket.get(), plain(address), sizeof address) == 0;
}

} // namespace

std::uint16_t unused_port() {
    // Below the range from which the kernel serves connections that name no port, so that none takes it meanwhile.
    constexpr std::uint16_t c_first = 10000;
    constexpr std::uint16_t c_count = 20000;
    static std::mt19937 random{std::random_device{}()};
    for (int attempt = 0; attempt < 1000; ++attempt) {
        auto const port = static_cast<std::uint16_t>(c_first + random() % c_count);
        if (is_free(SOCK_STREAM, port) && is_free(SOCK_DGRAM, port)) {
            return port;
        }
    }
    must(false, "no unused port");
    return 0;
}

std::uint16_t local_port(descriptor const& socket) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    must(__real_getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length) == 0, "getsockname");
    return ntohs(address.sin_port);
}

descriptor connect_loopback(std::uint16_t port) {
    descriptor socket(__real_socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in const address = loopback_address(port);
    must(__real_connect(socket.get(), plain(address), sizeof address) == 0, "connect");
    return socket;
}

descriptor accept_loopback(descriptor const& listener) {
    if (!wait_for(listener, POLLIN)) {
        return {};
    }
    descriptor accepted(__real_accept(listener.get(), nullptr, nullptr));
    must(accepted.get() != -1, "accept");
    return accepted;
}

std::pair<descriptor, descriptor> connected_pair() {
    descriptor const listener = listen_loopback();
    descriptor near_end = connect_loopback(local_port(listener));
    descriptor far_end = accept_loopback(listener);
    return {std::move(near_end), std::move(far_end)};
}

bytes read_bytes(descriptor const& socket, std::size_t size) {
    bytes data(size);
    std::size_t got = 0;
    while (got < size && wait_for(socket, POLLIN)) {
        ssize_t const count = __real_recv(socket.get(), data.data() + got, size - got, 0);
        if (count <= 0) {
            break;
        }
        got += static_cast<std::size_t>(count);
    }
    data.resize(got);
    return data;
}

void write_bytes(descriptor const& socket, bytes const& data) {
    std::size_t written = 0;
    while (written < data.size() && wait_for(socket, POLLOUT)) {
        ssize_t const count = __real_send(socket.get(), data.data() + written, data.size() - written, MSG_NOSIGNAL);
        if (count <= 0) {
            must(false, "send");
            return;
        }
        written += static_cast<std::size_t>(count);
    }
}

bool wait_readable(descriptor const& socket) {
    return wait_for(socket, POLLIN);
}

bool is_closed_by_peer(descriptor const& socket) {
    if (!wait_for(socket, POLLIN)) {
        return false;
    }
    unsigned char byte = 0;
    ssize_t const count = __real_recv(socket.get(), &byte, 1, MSG_DONTWAIT);
    return count == 0 || (count == -1 && errno == ECONNRESET);
}

void reset_connection(descriptor& socket) {
    linger const at_once{1, 0};
    must(__real_setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once) == 0, "SO_LINGER");
    socket.close();
}

} // namespace relay_test
