#include "Reference_Center/bench_report.hpp"

#include "Reference_Center/addresses.hpp"

#include <array>
#include <fmt/format.h>

namespace Zolt::Reference_Center {
namespace {

constexpr std::size_t c_most_rows = 16; ///< of a table; more peers are shown together

struct shown_share {
    char const* heading;
    char const* key;
    double share;
};
constexpr std::array<shown_share, 5> c_shares{{{"p50 us", "p50", 0.5},
                                               {"p90 us", "p90", 0.9},
                                               {"p99 us", "p99", 0.99},
                                               {"p99.9 us", "p99_9", 0.999},
                                               {"max us", "max", 1}}};

char const* kind_name(bench_kind kind) {
    switch (kind) {
    case bench_kind::tcp:
        return "tcp";
    case bench_kind::udp:
        return "udp";
    case bench_kind::broadcast:
        break;
    }
    return "broadcast";
}

double microseconds(std::uint64_t nanoseconds) {
    return static_cast<double>(nanoseconds) / 1000;
}

/// Answered, or one way: received, in the seconds measured.
std::uint64_t measured_packets(bench_plan const& plan, bench_result const& result) {
    return plan.one_way ? result.received : result.counts().answered;
}

double rate_of(bench_plan const& plan, bench_result const& result) {
    return result.seconds > 0 ? static_cast<double>(measured_packets(plan, result)) / result.seconds : 0;
}

std::string loop_text(bench_plan const& plan) {
    if (plan.one_way) {
        return fmt::format("one way with {} queued", plan.window);
    }
    return plan.is_open_loop() ? fmt::format("open loop with {:g} a second", plan.rate)
                               : fmt::format("closed loop with {} under way", plan.window);
}

std::string table_head() {
    std::string text = fmt::format("{:<22}{:>11}", "peer", "answers");
    for (shown_share const& shown : c_shares) {
        text += fmt::format("{:>11}", shown.heading);
    }
    return text + "\n";
}

std::string table_row(std::string const& name, latency_histogram const& latencies) {
    std::string text = fmt::format("{:<22}{:>11}", name, latencies.count());
    for (shown_share const& shown : c_shares) {
        text += fmt::format("{:>11.1f}", microseconds(latencies.at_share(shown.share)));
    }
    return text + "\n";
}

std::string table(bench_plan const& plan, bench_result const& result) {
    std::string text = table_head();
    if (result.peers.size() <= c_most_rows) {
        for (auto const& one : result.peers) {
            text += table_row(one->name, one->latencies);
        }
    }
    if (result.peers.size() > 1) {
        text += table_row("all", *result.latencies());
    }
    if (plan.kind == bench_kind::broadcast) {
        text += table_row("whole broadcasts", result.whole);
    }
    if (plan.is_open_loop()) {
        text += table_row("sent late by", result.lateness);
    }
    return text;
}

json_object latencies_json(latency_histogram const& latencies) {
    json_object object{{"count", latencies.count()}, {"min", microseconds(latencies.least())}};
    for (shown_share const& shown : c_shares) {
        object[shown.key] = microseconds(latencies.at_share(shown.share));
    }
    return object;
}

json_object counts_json(bench_plan const& plan, flight_counts const& counts) {
    return {{"sent", counts.sent},
            {plan.one_way ? "received" : "answered", counts.answered},
            {"returned", counts.returned},
            {"lost", counts.lost},
            {"not_finished", counts.not_finished},
            {"balances", counts.balances()}};
}

json_object loop_json(bench_plan const& plan) {
    json_object object{{"bench", kind_name(plan.kind)},
                       {"loop", plan.one_way          ? "one_way"
                                : plan.is_open_loop() ? "open"
                                                      : "closed"}};
    if (plan.is_open_loop()) {
        object["rate"] = plan.rate;
    } else {
        object["window"] = plan.window;
    }
    object["calls"] = plan.calls;
    object["size"] = plan.size;
    object["peers"] = plan.peers;
    object["warm_up"] = in_seconds(plan.warm_up);
    object["duration"] = in_seconds(plan.duration);
    return object;
}

json_object peers_json(bench_plan const& plan, bench_result const& result) {
    json_object list = json_object::array();
    for (auto const& one : result.peers) {
        json_object row{{"peer", one->name}, {"outcomes", counts_json(plan, one->counts)}};
        if (!plan.one_way) {
            row["latency_us"] = latencies_json(one->latencies);
        }
        list.push_back(std::move(row));
    }
    return list;
}

} // namespace

std::optional<failure> find_fault(bench_plan const& plan, bench_result const& result) {
    flight_counts const counts = result.counts();
    if (!counts.balances()) {
        return failure(exit_code::check_failed, "the outcomes of the packets do not balance");
    }
    if (result.interrupted) {
        return failure(exit_code::interrupted, "interrupted; the figures are those until then");
    }
    if (!result.trouble.empty()) {
        return failure(exit_code::failed, result.trouble + "; the figures are those until then");
    }
    if (counts.sent == 0) {
        return failure(exit_code::failed, "nothing of what was to be measured could be sent");
    }
    if (counts.answered == 0) {
        return failure(exit_code::failed,
                       "no packet was answered; a peer answers when it runs with --echo, or over TCP "
                       "with --calls here");
    }
    if (plan.kind == bench_kind::udp) {
        return std::nullopt;
    }
    if (counts.answered != counts.sent) {
        return failure(exit_code::failed,
                       fmt::format("{} of {} packets were not answered", counts.sent - counts.answered, counts.sent));
    }
    if (result.far_arrived && *result.far_arrived != result.handed_over) {
        return failure(exit_code::check_failed, fmt::format("{} packets were sent, and {} reached the other Center",
                                                            result.handed_over, *result.far_arrived));
    }
    return std::nullopt;
}

std::string bench_title(bench_plan const& plan) {
    return fmt::format("{}: {}, {} bytes, {} peer{}", kind_name(plan.kind), loop_text(plan), plan.size, plan.peers,
                       plan.peers == 1 ? "" : "s");
}

std::string bench_text(bench_plan const& plan, bench_result const& result) {
    flight_counts const counts = result.counts();
    std::string text = bench_title(plan) + "\n";
    if (!plan.one_way) {
        text += table(plan, result);
    }
    text += fmt::format("sent {} = {} {} + returned {} + lost {} + not finished {}\n", counts.sent,
                        plan.one_way ? "received" : "answered", counts.answered, counts.returned, counts.lost,
                        counts.not_finished);
    if (result.unsent != 0) {
        text += fmt::format("{} more packets were due and not sent: the peer does not keep up\n", result.unsent);
    }
    double const rate = rate_of(plan, result);
    return text + fmt::format("{:.1f} {} a second, {:.2f} MiB of data a second, over {:.3f} s\n", rate,
                              plan.one_way ? "packets received" : "answers", rate * plan.size / (1 << 20),
                              result.seconds);
}

json_object bench_json(bench_plan const& plan, bench_result const& result) {
    json_object object = loop_json(plan);
    object["seconds"] = result.seconds;
    object["interrupted"] = result.interrupted;
    object["packets_per_second"] = rate_of(plan, result);
    object["outcomes"] = counts_json(plan, result.counts());
    if (plan.is_open_loop()) {
        object["unsent"] = result.unsent;
        object["sent_late_us"] = latencies_json(result.lateness);
    }
    if (!plan.one_way) {
        object["latency_us"] = latencies_json(*result.latencies());
    }
    if (plan.kind == bench_kind::broadcast) {
        object["whole_broadcast_us"] = latencies_json(result.whole);
    }
    object["handed_over"] = result.handed_over;
    object["far_arrived"] = result.far_arrived ? json_object(*result.far_arrived) : json_object(nullptr);
    object["by_peer"] = peers_json(plan, result);
    if (auto const fault = find_fault(plan, result)) {
        object["error"] = {{"code", static_cast<int>(fault->code())}, {"text", fault->what()}};
    }
    return object;
}

} // namespace Zolt::Reference_Center
