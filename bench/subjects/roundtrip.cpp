#include "bench/subjects/pinger.hpp"
#include "bench/subjects/subjects.hpp"

namespace relay_bench {

outcome run_roundtrip(run_plan const& wanted) {
    run_plan plan = wanted;
    plan.flow = pattern::pair;
    plan.echo = true;
    pinger user(plan);
    stage on(plan, user);
    on.connect(on.have_far_listen(), plan.connections);
    user.run(on, plan.connections);
    outcome result{{}, on.end().delivers_on()};
    user.write(result.values);
    return result;
}

} // namespace relay_bench
