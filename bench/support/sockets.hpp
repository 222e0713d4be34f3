// The few socket operations that several contenders need. What the kernel refuses is thrown as a failure.
#ifndef BENCH_SUPPORT_SOCKETS_HPP
#define BENCH_SUPPORT_SOCKETS_HPP

#include <cstddef>
#include <cstdint>
#include <string>

#include <netinet/in.h>

namespace relay_bench {

/// Throws "what: reason" with the text of errno unless worked.
void must(bool worked, std::string const& what);

sockaddr_in socket_address(std::uint32_t ip, std::uint16_t port);
inline sockaddr const* plain(sockaddr_in const& address) {
    return reinterpret_cast<sockaddr const*>(&address);
}

/// The address to which connection number n goes: 127.0.0.2 and on, network byte order.
std::uint32_t loopback_address(unsigned int connection);

/// The same as "tcp://address:port".
std::string loopback_url(unsigned int connection, std::uint16_t port);

/// A listening TCP socket on all addresses, at a port that the kernel chose, and that port.
int listen_anywhere();
std::uint16_t local_port(int fd);

template <class Value>
void set_option(int fd, int level, int option, Value const& value, char const* what);
void set_option_bytes(int fd, int level, int option, void const* value, std::size_t size, char const* what);

template <class Value>
void set_option(int fd, int level, int option, Value const& value, char const* what) {
    set_option_bytes(fd, level, option, &value, sizeof value, what);
}

/// A port that no socket of TCP or UDP holds now, below the range from which the kernel serves those who name none.
std::uint16_t find_unused_port();

/// As many descriptors as the system lets this process have.
void allow_many_descriptors();

} // namespace relay_bench

#endif
