// What a load came to, for people and for programs.
#ifndef REFERENCE_CENTER_BENCH_REPORT_HPP
#define REFERENCE_CENTER_BENCH_REPORT_HPP

#include "Reference_Center/bench_plan.hpp"
#include "Reference_Center/failure.hpp"
#include "Reference_Center/output.hpp"

#include <optional>
#include <string>

namespace Zolt::Reference_Center {

/// Why the load is no success; nothing when it is one.
std::optional<failure> find_fault(bench_plan const& plan, bench_result const& result);

/// In one line: what was done.
std::string bench_title(bench_plan const& plan);
/// A table of the latencies, then the outcomes.
std::string bench_text(bench_plan const& plan, bench_result const& result);
json_object bench_json(bench_plan const& plan, bench_result const& result);

} // namespace Zolt::Reference_Center

#endif
