// Schedules in processes of their own, so that one that crashes is a finding like any other; and the shortest list of
// switches that still fails.
#ifndef TESTS_RACE_SIMULATION_SHRINKING_HPP
#define TESTS_RACE_SIMULATION_SHRINKING_HPP

#include "tests/race/simulation/scenarios.hpp"
#include "tests/race/simulation/scheduler.hpp"

#include <cstdint>
#include <functional>
#include <optional>

namespace simulation {

struct run_request {
    scenario const* what = nullptr;
    plan how;
    char const* strategy_name = "";
};

struct campaign {
    std::uint64_t schedules = 0; ///< that came to their end
    std::uint64_t points = 0;
    std::uint64_t switches = 0;
    std::uint64_t failed = 0;
    std::optional<std::uint64_t> first_failed; ///< index of the lowest one known
};

/// Runs the schedules 0 to count - 1, so many processes at a time, each on a core of its own as far as they go; stops a
/// process at its first failure.
campaign run_campaign(std::function<run_request(std::uint64_t)> const& at, std::uint64_t count, std::uint64_t jobs);

/// Runs a failing schedule again, makes its list of switches as short as it can, and tells the story of that on standard
/// error with the command that repeats the original.
void report_shortest(run_request const& failing, std::uint64_t seed);

} // namespace simulation

#endif
