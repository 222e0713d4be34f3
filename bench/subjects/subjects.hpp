// What can be measured: one function a subject. Each runs one contender and returns its figures, or throws a failure.
#ifndef BENCH_SUBJECTS_SUBJECTS_HPP
#define BENCH_SUBJECTS_SUBJECTS_HPP

#include "bench/plan.hpp"
#include "bench/support/figures.hpp"

#include <string>
#include <vector>

namespace relay_bench {

struct outcome {
    figures values;
    std::string delivers_on;
};

outcome run_roundtrip(run_plan const& plan);
outcome run_oneway(run_plan const& plan);
outcome run_fanout(run_plan const& plan);
outcome run_setup(run_plan const& plan);
outcome run_memory(run_plan const& plan);
outcome run_idle(run_plan const& plan);
outcome run_udp(run_plan const& plan);

struct subject_row {
    std::string name;
    std::string help;
    outcome (*run)(run_plan const& plan);
};
std::vector<subject_row> const& subjects();

} // namespace relay_bench

#endif
