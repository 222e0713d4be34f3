// The other end of one connection of the soaked node: a socket that makes the exchange, talks and reads.
#ifndef TESTS_SOAK_SOAK_PEER_HPP
#define TESTS_SOAK_SOAK_PEER_HPP

#include <cstddef>
#include <cstdint>

namespace soak {

/// How a peer leaves.
enum class leaving { close, reset, half_close, silence };
inline constexpr std::size_t c_leavings = 4;

class soak_peer {
public:
    /// One that listens on a port of its own, and is connected to.
    soak_peer();
    /// One that connects to that port of this machine.
    explicit soak_peer(std::uint16_t node_port);
    ~soak_peer();
    soak_peer(soak_peer const&) = delete;
    soak_peer& operator=(soak_peer const&) = delete;

    /// Connects, or takes a connection that waits, when there is none; makes the exchange, sees whether the connection
    /// has ended.
    void go_on();
    /// Sends one packet with data, and answers a call of the Center's. False when there is no connection to send on.
    bool talk();
    /// Reads until a packet has come since the last call, or the connection has ended, which is no failure; throws
    /// std::runtime_error when neither happens.
    void await_packet();
    void leave(leaving how);

    bool is_connected() const { return is_exchanged; }
    /// Connected, and neither mute nor half closed.
    bool is_whole() const { return is_exchanged && !is_leaving; }
    /// The tick at which the exchange was done.
    std::uint64_t connected_at() const { return since; }
    /// Connected to, and not the one that connects.
    bool is_destination() const { return node_port == 0; }
    /// The port by which the node knows it.
    std::uint16_t port() const { return own_port; }

private:
    void begin(int connected);
    void end();
    void exchange();
    bool read_some();

    std::uint16_t const node_port; ///< 0: listens
    std::uint16_t own_port = 0;
    int listener = -1;
    int fd = -1;
    bool is_exchanged = false;
    bool is_leaving = false;
    std::uint64_t since = 0;
    std::size_t unread = 0; ///< bytes read since the last packet was awaited
};

} // namespace soak

#endif
