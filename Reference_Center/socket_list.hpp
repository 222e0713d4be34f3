// The TCP sockets of this network, as the kernel lists them for everybody.
#ifndef REFERENCE_CENTER_SOCKET_LIST_HPP
#define REFERENCE_CENTER_SOCKET_LIST_HPP

#include "Host/zolt_packet.hpp"

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

namespace Zolt::Reference_Center {

/// The kernel's numbers.
enum class tcp_state : std::uint8_t { established = 1, time_wait = 6, listening = 10 };
enum class tcp_timer : std::uint8_t { none = 0, retransmission = 1, probe = 4 };

struct listed_socket {
    tcp_state state = tcp_state::established;
    struct_node_addr local{};  ///< address 0: all, or one of IPv6
    struct_node_addr remote{}; ///< likewise
    /// Of a listening socket: connections that wait, and how many may; of another one: bytes.
    std::uint32_t waiting_in = 0;
    std::uint32_t waiting_out = 0;
    tcp_timer timer = tcp_timer::none;
    std::uint32_t attempts = 0; ///< of the timer, without an answer
    std::chrono::milliseconds timer_left{0};
    std::uint64_t inode = 0; ///< 0 when no process has it
};

/// Nothing when the kernel does not tell. Sockets of other states are there too, with their own numbers.
std::optional<std::vector<listed_socket>> list_tcp_sockets();

} // namespace Zolt::Reference_Center

#endif
