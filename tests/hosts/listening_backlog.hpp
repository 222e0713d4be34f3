// The operator's remedy for the relay's one accept per edge: while connections wait, further ones bring them in.
#ifndef TESTS_HOSTS_LISTENING_BACKLOG_HPP
#define TESTS_HOSTS_LISTENING_BACKLOG_HPP

#include <cstdint>

namespace hosts {

/// For each connection that waits to be accepted on the port, makes one more and closes it at once. Waits for nothing;
/// what fails is left for the next call.
void knock_for_waiting(std::uint16_t port);

} // namespace hosts

#endif
