// What a run answers with.
#ifndef BENCH_SUPPORT_FIGURES_HPP
#define BENCH_SUPPORT_FIGURES_HPP

#include <nlohmann/json.hpp>

namespace relay_bench {

/// Fields stay in the order in which they were written.
using figures = nlohmann::ordered_json;

} // namespace relay_bench

#endif
