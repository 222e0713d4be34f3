#include "bench/subjects/pinger.hpp"
#include "bench/subjects/subjects.hpp"
#include "bench/support/clock.hpp"

#include <algorithm>

namespace relay_bench {
namespace {

/// Half a period: so a rest of whole periods holds as many ticks, and none of them where it begins or ends.
constexpr auto c_until_first_tick = static_cast<std::uint64_t>(c_tick_period * 1e9 / 2);

/// What a process did while its connections were at rest.
void write_rest(figures& to, std::string const& end, process_usage const& before, process_usage const& after,
                double seconds) {
    to["wakeups_" + end + "_per_second"] = static_cast<double>(after.wakeups - before.wakeups) / seconds;
    to["tick_" + end + "_ns"] =
        static_cast<double>(after.ticks_nanoseconds - before.ticks_nanoseconds) / (seconds / c_tick_period);
}

void rest(stage& on, double seconds) {
    std::uint64_t const over_at = now_nanoseconds() + static_cast<std::uint64_t>(seconds * 1e9);
    on.end().serve_until([&] { return now_nanoseconds() >= over_at; });
}

} // namespace

outcome run_idle(run_plan const& wanted) {
    run_plan plan = wanted;
    plan.flow = pattern::pair;
    plan.echo = true;
    pinger user(plan);
    stage on(plan, user);
    on.connect(on.have_far_listen(), plan.connections);

    on.set_ticking(now_nanoseconds() + c_until_first_tick);
    process_usage const near_before = on.measure_near();
    process_usage const far_before = on.measure_far();
    interval resting(on.far_id());
    resting.begin();
    rest(on, plan.seconds);
    resting.finish();
    process_usage const far_after = on.measure_far();
    process_usage const near_after = on.measure_near();
    on.set_ticking(0);

    user.run(on, 1);
    outcome result{{}, on.end().delivers_on()};
    user.write(result.values);
    figures at_rest;
    resting.write(at_rest, 1);
    result.values["rest_seconds"] = resting.seconds();
    result.values["rest_cpu_near_seconds"] = at_rest["cpu_near_seconds"];
    result.values["rest_cpu_far_seconds"] = at_rest["cpu_far_seconds"];
    write_rest(result.values, "near", near_before, near_after, resting.seconds());
    write_rest(result.values, "far", far_before, far_after, resting.seconds());
    return result;
}

} // namespace relay_bench
