// What the second host's Center has seen, for the tests.
#ifndef SECOND_HOST_CENTER_HPP
#define SECOND_HOST_CENTER_HPP

#include "Host/zolt_packet.hpp"

#include <cstddef>
#include <string>
#include <vector>

namespace second_host {

/// Waits until so many packets have been taken in all, at most ten seconds; the count at the end.
std::size_t wait_for_packets(std::size_t count);
/// Waits the same way for printed lines.
std::size_t wait_for_lines(std::size_t count);
/// Handle to the n-th taken packet, counted from 0; this host keeps the reference until forget.
Zolt::struct_token packet(std::size_t index);
/// Every line given to print_error and alert, in order.
std::vector<std::string> printed();
/// Gives all packets back and forgets the lines; only while the relay is stopped.
void forget();

} // namespace second_host

#endif
