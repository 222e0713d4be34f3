#include "bench/subjects/streaming.hpp"
#include "bench/subjects/subjects.hpp"
#include "bench/support/clock.hpp"
#include "bench/support/percentiles.hpp"

namespace relay_bench {
namespace {

constexpr double c_most_broadcasts_per_second = 1e5;

/// The near end sends to all, waits until all have it, and sends again.
class broadcaster {
public:
    broadcaster(stage& of, run_plan const& of_run)
        : on(of), plan(of_run),
          rounds(plan.count != 0 ? plan.count / plan.connections + 1
                                 : static_cast<std::size_t>(plan.seconds * c_most_broadcasts_per_second)) {}

    void warm_up() {
        std::uint64_t const over_at = now_nanoseconds() + static_cast<std::uint64_t>(plan.warm_up * 1e9);
        do {
            send_once();
        } while (now_nanoseconds() < over_at);
    }

    /// So many packets, or for as long as the plan says. The packets sent.
    std::uint64_t measure() {
        std::uint64_t const over_at = now_nanoseconds() + static_cast<std::uint64_t>(plan.seconds * 1e9);
        std::uint64_t sent = 0;
        do {
            std::uint64_t const began = now_nanoseconds();
            caller_held += send_once();
            rounds.add(now_nanoseconds() - began);
            sent += plan.connections;
        } while (plan.count != 0 ? sent < plan.count : now_nanoseconds() < over_at);
        return sent;
    }

    void write(figures& to, std::uint64_t packets) {
        to["caller_ns_per_packet"] = static_cast<double>(caller_held) / static_cast<double>(packets);
        rounds.write(to);
    }

private:
    /// How long the caller was held.
    std::uint64_t send_once() {
        std::uint64_t const wanted = on.arrivals().get() + plan.connections;
        std::uint64_t const began = now_nanoseconds();
        on.end().broadcast();
        std::uint64_t const held = now_nanoseconds() - began;
        if (on.arrivals().wait_for(wanted, c_patience) != wanted) {
            throw failure("a broadcast did not reach every peer once");
        }
        return held;
    }

    stage& on;
    run_plan const& plan;
    durations rounds;
    std::uint64_t caller_held = 0;
};

} // namespace

outcome run_fanout(run_plan const& wanted) {
    run_plan plan = wanted;
    plan.flow = pattern::fan;
    plan.tells = true;
    no_packets user;
    stage on(plan, user);
    on.have_far_connect(plan.connections);
    broadcaster packets(on, plan);
    packets.warm_up();
    interval measured(on.far_id());
    measured.begin();
    std::uint64_t const sent = packets.measure();
    measured.finish();
    outcome result{{}, on.end().delivers_on()};
    measured.write(result.values, sent);
    packets.write(result.values, sent);
    return result;
}

} // namespace relay_bench
