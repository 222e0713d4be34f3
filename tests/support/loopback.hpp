// Sockets on the loopback for tests: ports from the kernel, waits with a deadline, nothing of it in the journal.
// All waits give up after ten seconds and report a failure.
#ifndef TESTS_SUPPORT_LOOPBACK_HPP
#define TESTS_SUPPORT_LOOPBACK_HPP

#include "tests/support/packets.hpp"

#include <cstddef>
#include <cstdint>
#include <utility>

namespace relay_test {

/// Owns one descriptor.
class descriptor {
public:
    descriptor() = default;
    explicit descriptor(int number);
    ~descriptor();
    descriptor(descriptor&& other) noexcept;
    descriptor& operator=(descriptor&& other) noexcept;

    int get() const;
    /// Gives the descriptor to somebody who closes it.
    int release();
    void close();

private:
    int fd = -1;
};

/// A TCP listener on 127.0.0.1, and its port.
descriptor listen_loopback(int backlog = 16);
/// A TCP socket on 127.0.0.1 that refuses connects for as long as it does not listen.
descriptor bind_loopback_tcp();
/// A bound UDP socket on 127.0.0.1.
descriptor bind_loopback_udp();
/// A port that no socket holds now, free for TCP and UDP alike.
std::uint16_t unused_port();
std::uint16_t local_port(descriptor const& socket);

/// A blocking connection to 127.0.0.1; the other end of one.
descriptor connect_loopback(std::uint16_t port);
descriptor accept_loopback(descriptor const& listener);
/// Both ends of a TCP connection.
std::pair<descriptor, descriptor> connected_pair();

/// Exactly that many bytes; fewer when the peer closes or the deadline passes.
bytes read_bytes(descriptor const& socket, std::size_t size);
void write_bytes(descriptor const& socket, bytes const& data);
bool wait_readable(descriptor const& socket);
/// True when the peer has closed or reset the connection and nothing is left to read.
bool is_closed_by_peer(descriptor const& socket);
/// Closes with a reset instead of a FIN.
void reset_connection(descriptor& socket);

} // namespace relay_test

#endif
