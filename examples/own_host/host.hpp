// A whole host for the relay, as small as one can be: what the program around it uses.
#ifndef EXAMPLES_OWN_HOST_HOST_HPP
#define EXAMPLES_OWN_HOST_HOST_HPP

#include "Host/zolt_packet.hpp"

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

namespace own_host {

enum class event { packet, datagram, came_back, connected, disconnected };

/// What the relay handed to the Center, as plain values.
struct arrival {
    event what = event::packet;
    Zolt::struct_node_addr peer; ///< whom it came from, or whom the event is about
    std::string data;
};

constexpr unsigned int c_most_data = 16U << 20; ///< bytes of a packet
constexpr std::size_t c_most_waiting = 10000;   ///< arrivals; the relay waits while there are more

/// A packet of plain data. Owner: the caller, until the relay takes it.
Zolt::struct_token make_packet(Zolt::struct_node_addr to, std::string_view data);
/// Waits for the next arrival. False when none came in that time.
bool wait_for(arrival& next, std::chrono::milliseconds longest);
/// Refuses what arrives from now on: call it before the relay's stop.
void close_inbox();

} // namespace own_host

#endif
