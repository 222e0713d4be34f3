#include "bench/subjects/streaming.hpp"
#include "bench/subjects/subjects.hpp"

namespace relay_bench {

outcome run_oneway(run_plan const& wanted) {
    run_plan plan = wanted;
    plan.flow = pattern::stream;
    no_packets user;
    stage on(plan, user);
    on.connect(on.have_far_listen(), plan.connections);
    stream packets(on, plan.size, plan.connections);
    stream_figures const taken = measure_stream(on, packets, plan);
    packets.drain();
    outcome result{{}, on.end().delivers_on()};
    taken.write(result.values);
    return result;
}

} // namespace relay_bench
