// What happens in a schedule: each scenario is the main actor of one.
#ifndef TESTS_RACE_SIMULATION_SCENARIOS_HPP
#define TESTS_RACE_SIMULATION_SCENARIOS_HPP

#include <span>

namespace simulation {

struct scenario {
    char const* name;
    char const* what;
    void (*run)();
};

std::span<scenario const> all_scenarios();

} // namespace simulation

#endif
