// One input, one schedule of the simulation: the input says who goes on when, and what everybody does.
//
// A finding ends the process with a signal, so that a fuzzer keeps the input: a failed check of the simulation, of the
// target or of a sanitizer. With FUZZ_TELLS in the environment the schedule is told on standard error. What a schedule leaves behind is a finding too: records, descriptors, parts of packets, locks.
#ifndef TESTS_FUZZ_SIMULATED_RUN_HPP
#define TESTS_FUZZ_SIMULATED_RUN_HPP

#include "tests/fuzz/input_reader.hpp"
#include "tests/race/simulation/scheduler.hpp"

#include <cstddef>
#include <functional>
#include <vector>

namespace fuzz {

/// Largest data part of the fuzzed node. A header that announces more leaves its connection silent.
inline constexpr std::size_t c_largest_data = 3000; ///< bytes

/// Takes the plan of a schedule from the front of the input and runs the actor.
void run_simulated(input_reader& input, std::function<void()> main_actor);

/// How often an event thread has met the limit of data parts and gone on, since the schedule began.
int count_refused_parts();

/// Waits until the condition holds (true), or a second of virtual time has passed in twenty steps (false): a schedule may
/// let time jump now and then although somebody could go on.
bool wait_patiently(char const* where, std::function<bool()> const& condition);

} // namespace fuzz

#endif
