// What peers send to the relay's UDP ports, whole or spoilt, and what becomes of it.
#ifndef TESTS_RACE_SIMULATION_ARRIVING_DATAGRAMS_HPP
#define TESTS_RACE_SIMULATION_ARRIVING_DATAGRAMS_HPP

#include "Host/zolt_packet.hpp"
#include "Reference_Host/inbox.hpp"
#include "tests/race/simulation/kernel.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace simulation {

/// How a datagram differs from a packet.
enum class flaw {
    none,
    empty,
    cut_header,
    foreign,   ///< another protocol's
    too_long,  ///< for what its header announces
    too_short, ///< the same
    too_large, ///< announces more than a datagram can carry
};
inline constexpr std::size_t c_flaws = 7;

class arriving_datagrams {
public:
    arriving_datagrams();

    /// Sends one from that peer's socket to that port of the relay. Result: its number, for has_arrived.
    std::size_t send(kernel& host, int fd, std::uint32_t peer, std::uint16_t port, flaw what);
    /// One that the relay delivered to the Center; fails unless it is due.
    void take(Zolt::struct_token& token);
    bool has_arrived(std::size_t number) const { return sent[number].has_arrived; }
    std::size_t count_whole() const { return sent.size() - count_spoilt(); }
    std::size_t count_spoilt() const;

    /// Compares what was sent with what was offered to the Center and printed since the beginning. Unless everything came
    /// into a socket and out of it there may be fewer offers and lines, never more.
    void check(std::vector<std::string> const& printed, bool is_complete) const;

private:
    struct sent_datagram {
        std::uint32_t peer = 0;
        std::uint16_t port = 0;
        flaw what = flaw::none;
        std::uint32_t size = 0; ///< bytes of data
        bool has_arrived = false;
    };

    std::vector<unsigned char> make(sent_datagram const& one, std::size_t number) const;
    void check_lines(std::vector<std::string> const& printed, bool is_complete) const;

    Zolt::Reference_Host::inbox_counts before; ///< the inbox lives longer than a schedule
    std::vector<sent_datagram> sent;
    std::map<std::pair<std::uint32_t, std::uint16_t>, std::uint64_t> last_taken; ///< of a peer at a port
};

} // namespace simulation

#endif
