// The scenarios that the matrix names: what is set up while all is well, and the step during which the fault is in force.
#ifndef TESTS_FAULT_MATRIX_SCENARIOS_HPP
#define TESTS_FAULT_MATRIX_SCENARIOS_HPP

#include "tests/fault/probes.hpp"

#include <string>

namespace relay_test {

class matrix_stage : public probing_stage {
public:
    /// The subject of the scenario, once it exists.
    peer& subject() { return peers.front(); }
    std::string returned = "-"; ///< what an operation of the host's returned, where the step is one
};

struct matrix_scenario {
    using step = void (*)(matrix_stage&);
    /// What the column of records tells.
    enum class tells { connections, udp_ports, instances };

    step prepare;
    step act;
    char const* handler = ""; ///< whose result is told; "": the host's operation
    tells records = tells::connections;
    bool probes_elsewhere = false; ///< the probe opens a port of its own
};

/// By name; throws std::runtime_error for one that is not there.
matrix_scenario const& scenario_named(std::string const& name);

} // namespace relay_test

#endif
