#include "Reference_Center/node_report_json.hpp"

#include "Reference_Center/addresses.hpp"

namespace Zolt::Reference_Center {
namespace {

json_object json_of(traffic_counts const& counts) {
    return {{"packets", counts.packets}, {"bytes", counts.bytes}};
}

json_object json_of(queue_report const& queue) {
    return {{"packets", queue.packets}, {"bytes", queue.bytes}};
}

json_object json_of(traffic_rates const& rates) {
    return {{"packets_in_per_s", rates.packets_in_per_s},
            {"packets_out_per_s", rates.packets_out_per_s},
            {"bytes_in_per_s", rates.bytes_in_per_s},
            {"bytes_out_per_s", rates.bytes_out_per_s}};
}

json_object json_of(latency_summary const& latency) {
    return {{"count", latency.count},
            {"p50", latency.p50},
            {"p90", latency.p90},
            {"p99", latency.p99},
            {"max", latency.max}};
}

json_object json_of(inbox_report const& inbox) {
    return {{"packets", inbox.packets}, {"bytes", inbox.bytes},     {"taken", inbox.taken},
            {"busy", inbox.busy},       {"refused", inbox.refused}, {"busy_time_s", inbox.busy_time_s}};
}

json_object json_of(thread_report const& thread) {
    return {{"name", thread.name}, {"running", thread.running}};
}

json_object json_of(listener_report const& listener) {
    return {{"port", listener.port},
            {"backlog", listener.backlog},
            {"backlog_limit", listener.backlog_limit},
            {"knocks", listener.knocks}};
}

json_object json_of(peer_report const& peer) {
    return {{"address", address_text(peer.who.address)},
            {"over", way_text(peer.who.via)},
            {"state", peer_state_text(peer.state)},
            {"since_s", peer.since_s},
            {"in", json_of(peer.in)},
            {"out", json_of(peer.out)},
            {"rates", json_of(peer.rates)},
            {"queue", json_of(peer.queue)},
            {"latency_us", json_of(peer.latency)},
            {"silent_s", peer.silent_s}};
}

json_object json_of(closed_report const& end) {
    return {{"address", address_text(end.who.address)},
            {"over", way_text(end.who.via)},
            {"reason", close_reason_text(end.reason)},
            {"detail", end.detail},
            {"closed_unix_ms", end.closed_unix_ms},
            {"lasted_s", end.lasted_s},
            {"times", end.times},
            {"in", json_of(end.in)},
            {"out", json_of(end.out)}};
}

template <typename Row>
json_object list_of(std::vector<Row> const& rows) {
    json_object list = json_object::array();
    for (Row const& row : rows) {
        list.push_back(json_of(row));
    }
    return list;
}

} // namespace

json_object status_json(status_report const& report) {
    json_object queue = json_of(report.queue);
    queue["max_bytes"] = report.max_queue_bytes ? json_object(*report.max_queue_bytes) : json_object(nullptr);
    return {{"version", report.version},
            {"pid", report.pid},
            {"started_unix_ms", report.started_unix_ms},
            {"uptime_s", report.uptime_s},
            {"ready", report.ready},
            {"healthy", report.healthy},
            {"problems", report.problems},
            {"addresses", report.addresses},
            {"ports", report.ports},
            {"rates", json_of(report.rates)},
            {"totals",
             {{"tcp_in", json_of(report.tcp_in)},
              {"tcp_out", json_of(report.tcp_out)},
              {"udp_in", json_of(report.udp_in)},
              {"udp_out", json_of(report.udp_out)}}},
            {"inbox", json_of(report.inbox)},
            {"queue", queue},
            {"outcomes", hand_over_json(report.outcomes)},
            {"closed", close_counts_json(report.closed)},
            {"latency_us", json_of(report.latency)},
            {"threads", list_of(report.threads)},
            {"listeners", list_of(report.listeners)},
            {"lost_lines", report.lost_lines},
            {"folded_lines", report.folded_lines}};
}

json_object peers_json(std::vector<peer_report> const& peers) {
    return {{"peers", list_of(peers)}};
}

json_object close_counts_json(close_counts const& counts) {
    json_object object;
    for (std::size_t reason = 0; reason < counts.size(); ++reason) {
        object[close_reason_text(static_cast<close_reason>(reason))] = counts[reason];
    }
    return object;
}

json_object closed_json(std::vector<closed_report> const& closed) {
    return {{"closed", list_of(closed)}};
}

} // namespace Zolt::Reference_Center
