#include "bench/subjects/streaming.hpp"

#include "bench/support/clock.hpp"

#include <poll.h>

namespace relay_bench {

void stream::run(double seconds, std::uint64_t count) {
    std::uint64_t const over_at = now_nanoseconds() + static_cast<std::uint64_t>(seconds * 1e9);
    std::uint64_t const wanted = on.arrivals().get() + count;
    contender& end = on.end();
    do {
        for (unsigned int i = 0; i < batch; ++i) {
            end.send(next);
            next = next + 1 == connections ? 0 : next + 1;
        }
        handed_over += batch;
    } while (count != 0 ? on.arrivals().get() < wanted : now_nanoseconds() < over_at);
}

void stream::drain() {
    std::uint64_t const deadline = now_nanoseconds() + static_cast<std::uint64_t>(c_patience * 1e9);
    on.end().serve_until([&] { return on.arrivals().get() >= handed_over || now_nanoseconds() > deadline; });
    if (on.arrivals().get() != handed_over) {
        throw failure(std::to_string(handed_over) + " packets were sent, " + std::to_string(on.arrivals().get()) +
                      " arrived");
    }
}

void stream_figures::write(figures& to) const {
    measured.write(to, arrived);
    to["sent"] = sent;
}

stream_figures measure_stream(stage& on, stream& packets, run_plan const& plan) {
    packets.run(plan.warm_up, 0);
    stream_figures taken{interval(on.far_id()), packets.sent(), 0};
    taken.measured.begin();
    std::uint64_t const arrived_before = packets.arrived();
    packets.run(plan.seconds, plan.count);
    taken.arrived = packets.arrived() - arrived_before;
    taken.measured.finish();
    taken.sent = packets.sent() - taken.sent;
    return taken;
}

} // namespace relay_bench
