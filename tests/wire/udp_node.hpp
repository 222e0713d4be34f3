// A node as its Center sees it: the relay as it ships, the reference host, one port, and everything that comes out.
// And a bare UDP socket beside it, for a peer that follows no rules.
#ifndef TESTS_WIRE_UDP_NODE_HPP
#define TESTS_WIRE_UDP_NODE_HPP

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace wire {

using bytes = std::vector<unsigned char>;

inline constexpr std::chrono::seconds c_patience{20};

/// A dotted address in network order.
std::uint32_t ip(char const* dotted);

/// A packet with that number as it travels.
bytes datagram(std::uint64_t sequence, bytes const& data = {});

/// What one packet brought the Center.
struct arrival {
    std::uint64_t sequence = 0;
    std::uint32_t source_ip = 0;
    bool has_data = false;
    bytes data;
};

/// The relay has one state for the whole process, so there is one node at a time. Waits give up after c_patience.
class udp_node {
public:
    /// Takes over the host's output.
    udp_node();
    ~udp_node();
    udp_node(udp_node const&) = delete;
    udp_node& operator=(udp_node const&) = delete;

    /// initialize and add_server, no more: the caller finalizes. On the port of the last time while it is free, else on
    /// another one; a wish is taken as that port. False when no port could be opened.
    bool prepare(std::uint16_t wish = 0);
    /// The same, and start.
    bool start(std::uint16_t wish = 0);
    /// stop, finalize.
    void stop();
    std::uint16_t port() const;

    /// To that address, and the same port there.
    void send(std::uint32_t to, std::uint64_t sequence, bytes const& data = {});
    /// To a multicast group, by the interface with that address.
    void inform(std::uint32_t group, std::uint32_t interface_ip, std::uint64_t sequence);

    /// The next packet for the Center; nothing at the deadline.
    std::optional<arrival> next(std::chrono::milliseconds longest = c_patience);
    /// Its number, or 0.
    std::uint64_t next_sequence();

    /// The lines printed since the last call, once there are that many.
    std::vector<std::string> lines(std::size_t count);

private:
    bool open(std::uint16_t number);

    std::mutex guard;
    std::condition_variable printed;
    std::vector<std::string> collected;
    std::uint16_t served = 0;
    bool is_running = false;
};

/// A UDP socket bound to an address, and to any port unless one is named.
class bare_socket {
public:
    explicit bare_socket(std::uint32_t ip, std::uint16_t port = 0);
    ~bare_socket();
    bare_socket(bare_socket const&) = delete;
    bare_socket& operator=(bare_socket const&) = delete;

    /// 0 when the socket could not be bound.
    std::uint16_t port() const;
    /// Multicast leaves by the interface with that address.
    bool choose_interface(std::uint32_t interface_ip) const;
    bool send(std::uint32_t to, std::uint16_t port, bytes const& data) const;

private:
    int fd;
};

} // namespace wire

#endif
