#include "bench/support/sockets.hpp"

#include "bench/plan.hpp"

#include <cerrno>
#include <cstring>
#include <random>

#include <arpa/inet.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace relay_bench {

void must(bool worked, std::string const& what) {
    if (!worked) {
        throw failure(what + ": " + std::strerror(errno));
    }
}

sockaddr_in socket_address(std::uint32_t ip, std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = ip;
    return address;
}

std::uint32_t loopback_address(unsigned int connection) {
    return htonl(INADDR_LOOPBACK + 1 + connection);
}

std::string loopback_url(unsigned int connection, std::uint16_t port) {
    in_addr const address{loopback_address(connection)};
    char text[INET_ADDRSTRLEN];
    must(::inet_ntop(AF_INET, &address, text, sizeof text) != nullptr, "inet_ntop");
    return std::string("tcp://") + text + ":" + std::to_string(port);
}

int listen_anywhere() {
    int const fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    must(fd != -1, "socket");
    sockaddr_in const address = socket_address(INADDR_ANY, 0);
    must(::bind(fd, plain(address), sizeof address) == 0, "bind");
    must(::listen(fd, SOMAXCONN) == 0, "listen");
    return fd;
}

std::uint16_t local_port(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    must(::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0, "getsockname");
    return ntohs(address.sin_port);
}

void set_option_bytes(int fd, int level, int option, void const* value, std::size_t size, char const* what) {
    must(::setsockopt(fd, level, option, value, static_cast<socklen_t>(size)) == 0, what);
}

namespace {

bool is_unused(int type, std::uint16_t port) {
    int const fd = ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
    must(fd != -1, "socket");
    sockaddr_in const address = socket_address(INADDR_ANY, port);
    bool const unused = ::bind(fd, plain(address), sizeof address) == 0;
    ::close(fd);
    return unused;
}

} // namespace

std::uint16_t find_unused_port() {
    constexpr std::uint16_t c_lowest = 10000;
    constexpr std::uint16_t c_highest = 29999;
    std::random_device seed;
    std::uniform_int_distribution<std::uint16_t> some(c_lowest, c_highest);
    for (int attempt = 0; attempt < 1000; ++attempt) {
        std::uint16_t const port = some(seed);
        if (is_unused(SOCK_STREAM, port) && is_unused(SOCK_DGRAM, port)) {
            return port;
        }
    }
    throw failure("no port is unused");
}

void allow_many_descriptors() {
    rlimit limit{};
    must(::getrlimit(RLIMIT_NOFILE, &limit) == 0, "getrlimit");
    limit.rlim_cur = limit.rlim_max;
    must(::setrlimit(RLIMIT_NOFILE, &limit) == 0, "setrlimit");
}

} // namespace relay_bench
