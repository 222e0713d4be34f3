// Scenarios for the sweeps: what hosts and peers do in a day, step by step on one thread, whatever fails meanwhile.
#ifndef TESTS_FAULT_SCRIPTS_HPP
#define TESTS_FAULT_SCRIPTS_HPP

#include "tests/fault/stage.hpp"

#include <ostream>
#include <vector>

namespace relay_test {

struct script {
    char const* name;
    void (*run)(stage&);
    enum class kind { traffic, lifecycle, queues };
    kind what = kind::traffic; ///< lifecycle: opens and shuts the relay itself; queues: too long to fail each call
    /// What the Center is told when nothing fails: the script does what its name says.
    char const* told;
    friend void PrintTo(script const& which, std::ostream* out) { *out << which.name; }
};

std::vector<script> const& all_scripts();

} // namespace relay_test

#endif
