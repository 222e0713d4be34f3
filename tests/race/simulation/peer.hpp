// The other end of a connection, in an actor's hand: speaks the exchange and the wire format, and breaks off where it is told.
#ifndef TESTS_RACE_SIMULATION_PEER_HPP
#define TESTS_RACE_SIMULATION_PEER_HPP

#include "Reference_Host/packet_layout.hpp"
#include "tests/race/simulation/center.hpp"
#include "tests/race/simulation/kernel.hpp"

#include <array>
#include <cstdint>
#include <vector>

namespace simulation {

/// How a peer leaves.
enum class farewell { close, reset, half_close, silence, shutdown_both };
inline constexpr std::size_t c_farewells = 5;
farewell choose_farewell();

/// The header of a packet as it travels, that never times out.
std::array<unsigned char, Zolt::Reference_Host::c_header_size> make_header(packet_kind kind, std::uint32_t data_size,
                                                                           std::uint64_t sequence);
/// Bytes of data, at least sizeof(serial) and never more than a small datagram carries.
std::uint32_t any_size();
/// A kind of packet that a Center hands over.
packet_kind any_kind();

/// One connection of a peer; the descriptor is closed with it.
class conversation {
public:
    conversation(kernel& host, int fd, std::uint32_t peer_number, std::uint32_t epoch);
    ~conversation();
    conversation(conversation const&) = delete;
    conversation& operator=(conversation const&) = delete;

    /// Writes that much of the 1024-byte block, in one piece or several. False when the connection has gone.
    bool send_block(std::size_t bytes = 1024);
    /// False when the connection has gone, or nothing came for as long as a peer has patience: one that waits in the
    /// relay's accept queue behind another is not taken before the next one comes.
    bool receive_block();
    /// A numbered packet with that many bytes of data, cut anywhere.
    bool send_packet(packet_kind kind, std::uint32_t size);
    /// Reads what is there, without waiting; false when the connection has ended. Fails when a byte is not as it was sent.
    bool read_waiting();
    /// Reads until the other end is done, or has nothing more to say.
    void read_to_end();
    void leave(farewell how);

    std::uint32_t packets_received() const { return received; }

private:
    bool has_something() const;
    bool write(unsigned char const* data, std::size_t size);
    bool take_bytes(long got);
    void take_packet(std::size_t header_size, std::size_t data_size);
    void answer_call(unsigned char kind);

    kernel& host;
    int fd;
    std::uint32_t number;
    std::uint32_t epoch;
    std::uint32_t next_packet = 0;
    std::uint32_t received = 0;
    std::uint64_t last_sequence = 0;
    bool is_exchanged = false;
    std::vector<unsigned char> unread;
};

/// Opens a connection to that address and makes the exchange. Negative descriptor when it was refused.
int open_connection(kernel& host, address to);

} // namespace simulation

#endif
