#include "bench/subjects/pinger.hpp"
#include "bench/subjects/streaming.hpp"
#include "bench/subjects/subjects.hpp"

#include <poll.h>

namespace relay_bench {
namespace {

outcome run_round_trips(run_plan const& plan) {
    pinger user(plan);
    stage on(plan, user);
    on.open_datagrams();
    user.run(on, 1);
    outcome result{{}, on.end().delivers_on()};
    user.write(result.values);
    return result;
}

/// What was sent last may still be on its way: waits until nothing more arrives.
std::uint64_t wait_for_last(stage& on) {
    constexpr int c_quiet = 100; // milliseconds
    std::uint64_t seen = 0;
    for (std::uint64_t now = on.arrivals().get(); now != seen; now = on.arrivals().get()) {
        seen = now;
        ::poll(nullptr, 0, c_quiet);
    }
    return seen;
}

outcome run_one_way(run_plan const& plan) {
    no_packets user;
    stage on(plan, user);
    on.open_datagrams();
    stream packets(on, plan.size, 1);
    stream_figures const taken = measure_stream(on, packets, plan);
    auto const received_at_all = static_cast<double>(wait_for_last(on));
    outcome result{{}, on.end().delivers_on()};
    taken.write(result.values);
    result.values["received"] = taken.arrived;
    result.values["lost_ratio"] = 1.0 - received_at_all / static_cast<double>(packets.sent());
    return result;
}

} // namespace

outcome run_udp(run_plan const& wanted) {
    run_plan plan = wanted;
    plan.connections = 1;
    plan.datagrams = true;
    plan.flow = plan.echo ? pattern::pair : pattern::stream;
    return plan.echo ? run_round_trips(plan) : run_one_way(plan);
}

} // namespace relay_bench
