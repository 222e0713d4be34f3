#include "bench/subjects/streaming.hpp"
#include "bench/subjects/subjects.hpp"
#include "bench/support/clock.hpp"
#include "bench/support/percentiles.hpp"

#include <algorithm>

namespace relay_bench {
namespace {

constexpr unsigned int c_most_connections = 8000; // descriptors are bounded

/// How many are measured: those that the command line names, else as many as fit into the seconds.
std::uint64_t count_wanted(run_plan const& plan) {
    return plan.count != 0 ? plan.count : plan.connections > 1 ? plan.connections : 0;
}

} // namespace

outcome run_setup(run_plan const& wanted_run) {
    constexpr unsigned int c_warm_up = 20;
    run_plan plan = wanted_run;
    std::uint64_t const wanted = count_wanted(plan);
    plan.connections = c_most_connections;
    no_packets user;
    stage on(plan, user);
    std::uint16_t const port = on.have_far_listen();
    on.connect(port, c_warm_up);
    durations each(c_most_connections);
    interval measured(on.far_id());
    std::uint64_t now = measured.begin();
    std::uint64_t const over_at = now + static_cast<std::uint64_t>(plan.seconds * 1e9);
    std::uint64_t opened = 0;
    do {
        on.end().connect(port);
        std::uint64_t const then = now;
        now = now_nanoseconds();
        each.add(now - then);
        ++opened;
    } while (opened < c_most_connections && (wanted != 0 ? opened < wanted : now < over_at));
    measured.finish();
    outcome result{{}, on.end().delivers_on()};
    measured.write(result.values, opened);
    each.write(result.values);
    return result;
}

} // namespace relay_bench
