// The host of the simulated node: locks, threads, timer, clocks and output on the scheduler, system calls on the
// simulated kernel. The packets, tokens and the inbox are the reference host's own, with their ledger.
#ifndef TESTS_RACE_SIMULATION_HOST_HPP
#define TESTS_RACE_SIMULATION_HOST_HPP

#include "tests/race/simulation/kernel.hpp"

#include <string>
#include <vector>

namespace simulation {

/// The kernel that the relay's system calls go to; null outside a schedule.
void set_relay_kernel(kernel* k);
kernel& relay_kernel();

/// What the relay printed since the last call, oldest first.
std::vector<std::string> take_errors();
/// Locks made and not destroyed: two of the relay's own, two a record of TCP, one a record of UDP.
long count_locks();
/// A value of the configuration file, for the next initialize.
void set_integer(std::string const& key, int value);

} // namespace simulation

#endif
