#include "bench/subjects/pinger.hpp"

#include "bench/support/clock.hpp"

namespace relay_bench {
namespace {

constexpr double c_most_per_second = 5e5;

std::size_t room_for(run_plan const& plan) {
    return plan.count != 0 ? plan.count : static_cast<std::size_t>(plan.seconds * c_most_per_second);
}

std::uint64_t after(std::uint64_t moment, double seconds) {
    return moment + static_cast<std::uint64_t>(seconds * 1e9);
}

} // namespace

pinger::pinger(run_plan const& of) : plan(of), trips(room_for(of)) {}

void pinger::run(stage& on, unsigned int over) {
    end = &on.end();
    connections = over;
    measured.emplace(on.far_id());
    warm_until = after(now_nanoseconds(), plan.warm_up);
    ping();
    std::uint64_t seen = 0;
    std::uint64_t seen_at = now_nanoseconds();
    end->serve_until([&] {
        std::uint64_t const now = now_nanoseconds();
        if (std::uint64_t const count = answers.load(std::memory_order_relaxed); count != seen) {
            seen = count;
            seen_at = now;
        } else if (now > after(seen_at, c_patience / 2)) {
            throw failure("an answer stays away");
        }
        return finished.load(std::memory_order_acquire);
    });
}

void pinger::write(figures& to) {
    measured->write(to, answers.load() - warm_answers);
    trips.write(to);
}

void pinger::on_packet(origin) {
    std::uint64_t const now = now_nanoseconds();
    std::uint64_t const count = answers.load(std::memory_order_relaxed) + 1;
    answers.store(count, std::memory_order_relaxed);
    if (measuring) {
        trips.add(now - sent_at);
        if (is_over(now)) {
            measured->finish();
            finished.store(true, std::memory_order_release);
            return;
        }
    } else if (now >= warm_until) {
        measuring = true;
        warm_answers = count;
        over_at = after(measured->begin(), plan.seconds);
    }
    ping();
}

void pinger::ping() {
    unsigned int const connection = next;
    next = next + 1 == connections ? 0 : next + 1;
    sent_at = now_nanoseconds();
    end->send(connection);
}

bool pinger::is_over(std::uint64_t now) const {
    return plan.count != 0 ? answers.load(std::memory_order_relaxed) - warm_answers >= plan.count : now >= over_at;
}

} // namespace relay_bench
