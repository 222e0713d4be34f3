// Records that were destroyed are kept apart, filled with a pattern, until the schedule ends; so a use of one is
// noticed in the schedule that makes it.
#ifndef TESTS_RACE_SIMULATION_MEMORY_HPP
#define TESTS_RACE_SIMULATION_MEMORY_HPP

namespace simulation {

/// Fails when the pointer names a destroyed record.
void check_alive(void const* record);
/// Fails when the bytes lie inside a destroyed record.
void check_readable(void const* bytes);
/// Fails when somebody wrote into a destroyed record; then gives them all back. Between schedules.
void release_destroyed();

} // namespace simulation

#endif
