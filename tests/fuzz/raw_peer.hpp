// The other end of a connection as a fuzz input drives it: any bytes, cut anywhere, read or left unread.
#ifndef TESTS_FUZZ_RAW_PEER_HPP
#define TESTS_FUZZ_RAW_PEER_HPP

#include "tests/race/simulation/kernel.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace fuzz {

inline constexpr std::size_t c_block_size = 1024; ///< bytes of the block that each end sends first
inline constexpr std::uint16_t c_peer_port = 7000;

/// How a peer leaves.
enum class leaving { half_close, close, reset, shut_both };
inline constexpr std::size_t c_leavings = 4;

/// The block of a well-behaved peer.
std::array<unsigned char, c_block_size> make_block(std::uint16_t sender_port, std::uint16_t receiver_port);

/// A packet as it travels: a header of that kind that announces the data, and the data.
std::vector<unsigned char> make_packet_bytes(std::uint8_t kind, std::span<unsigned char const> data);

/// One connection. No call waits longer than a second of virtual time.
class raw_peer {
public:
    /// Connects to that address; an end that failed is over.
    raw_peer(simulation::kernel& host, simulation::address to);
    /// Takes a connection that waits at the listening descriptor, as soon as there is one; over when none comes.
    raw_peer(simulation::kernel& host, int listener);
    ~raw_peer();
    raw_peer(raw_peer const&) = delete;
    raw_peer& operator=(raw_peer const&) = delete;

    /// Sends in pieces of that many bytes, each on its own way, or of a hundredth when those would be more than a hundred;
    /// 0: in one piece. False when not all could be sent.
    bool write(std::span<unsigned char const> bytes, std::size_t piece = 0);
    /// Reads what is there.
    void read_available();
    /// Reads until that many bytes were received in all, the end is over, or nothing comes for a second.
    void read_until(std::size_t size);
    /// True when the end came before the deadline.
    bool read_to_end(simulation::moment deadline);
    void leave(leaving how);

    bool is_over() const { return over; }
    std::vector<unsigned char> const& sent() const { return written; }
    std::vector<unsigned char> const& received() const { return read; }
    simulation::address local() const;
    /// Whose connection was taken.
    simulation::address taken_from() const { return from; }

private:
    bool write_piece(std::span<unsigned char const> bytes);

    simulation::kernel& host;
    int fd = -1;
    simulation::address from;
    bool over = false;
    std::vector<unsigned char> written;
    std::vector<unsigned char> read;
};

} // namespace fuzz

#endif
