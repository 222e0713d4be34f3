#include "bench/subjects/streaming.hpp"
#include "bench/subjects/subjects.hpp"
#include "bench/support/clock.hpp"

#include <algorithm>
#include <array>

namespace relay_bench {
namespace {

struct both_ends {
    process_usage near_end;
    process_usage far_end;
};

both_ends measure(stage& on) {
    process_usage const far_end = on.measure_far();
    return {on.measure_near(), far_end};
}

std::int64_t grown(std::uint64_t process_usage::*what, process_usage const& before, process_usage const& after) {
    return static_cast<std::int64_t>(after.*what) - static_cast<std::int64_t>(before.*what);
}

/// How often the heap is looked at while packets pass.
constexpr std::size_t c_points = 10;

/// Pools fill and empty with the traffic, so two looks differ. What is never given back lifts the heap for good: its
/// lowest point in the later half then lies above its highest in the earlier one. By how much; below 0: it does not.
std::int64_t lasting_growth(std::array<both_ends, c_points> const& points, process_usage both_ends::*end) {
    auto const by_heap = [end](both_ends const& one, both_ends const& other) {
        return (one.*end).heap_bytes < (other.*end).heap_bytes;
    };
    auto const half = points.begin() + c_points / 2;
    return grown(&process_usage::heap_bytes, (*std::max_element(points.begin(), half, by_heap)).*end,
                 (*std::min_element(half, points.end(), by_heap)).*end);
}

/// Packets over one connection, so many at a time that what waits for somebody is soon as much as it ever gets.
class traffic {
public:
    explicit traffic(stage& of) : on(of) {}

    /// For so long, or, where a count is given, at least so many.
    void run(double seconds, std::uint64_t count) {
        std::uint64_t const over_at = now_nanoseconds() + static_cast<std::uint64_t>(seconds * 1e9);
        std::uint64_t const wanted = handed_over + count;
        do {
            send_burst();
        } while (count != 0 ? handed_over < wanted : now_nanoseconds() < over_at);
    }
    std::uint64_t sent() const { return handed_over; }

private:
    void send_burst() {
        constexpr std::uint64_t c_burst = 256;
        for (std::uint64_t i = 0; i < c_burst; ++i) {
            on.end().send(0);
        }
        handed_over += c_burst;
        if (on.arrivals().wait_for(handed_over, c_patience) != handed_over) {
            throw failure("packets were lost");
        }
    }

    stage& on;
    std::uint64_t handed_over = 0;
};

} // namespace

outcome run_memory(run_plan const& wanted) {
    run_plan plan = wanted;
    plan.flow = pattern::stream;
    plan.tells = true;
    plan.connections += 1; // the first one is there before anything is measured
    no_packets user;
    stage on(plan, user);
    std::uint16_t const port = on.have_far_listen();
    on.connect(port, 1);
    traffic packets(on);
    packets.run(plan.warm_up, 0);
    measure(on); // what measuring itself takes once

    both_ends const before = measure(on);
    on.connect(port, wanted.connections);
    both_ends const connected = measure(on);
    packets.run(plan.warm_up, plan.count / 10);
    interval measured(on.far_id());
    std::uint64_t const sent_before = packets.sent();
    std::array<both_ends, c_points> points;
    measured.begin();
    for (both_ends& point : points) {
        packets.run(plan.seconds / c_points, plan.count / c_points);
        point = measure(on);
    }
    measured.finish();

    outcome result{{}, on.end().delivers_on()};
    measured.write(result.values, packets.sent() - sent_before);
    auto const each = [&](std::uint64_t process_usage::*what, process_usage both_ends::*end) {
        return static_cast<double>(grown(what, before.*end, connected.*end)) / wanted.connections;
    };
    result.values["heap_near_bytes_per_connection"] = each(&process_usage::heap_bytes, &both_ends::near_end);
    result.values["heap_far_bytes_per_connection"] = each(&process_usage::heap_bytes, &both_ends::far_end);
    result.values["resident_near_bytes_per_connection"] = each(&process_usage::resident_bytes, &both_ends::near_end);
    result.values["resident_far_bytes_per_connection"] = each(&process_usage::resident_bytes, &both_ends::far_end);
    result.values["growth_near_bytes"] = lasting_growth(points, &both_ends::near_end);
    result.values["growth_far_bytes"] = lasting_growth(points, &both_ends::far_end);
    return result;
}

} // namespace relay_bench
