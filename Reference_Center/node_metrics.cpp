#include "Reference_Center/node_metrics.hpp"

#include "Reference_Center/addresses.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <iterator>
#include <span>
#include <utility>

namespace Zolt::Reference_Center {
namespace {

constexpr double c_microseconds = 1e-6;
constexpr double c_milliseconds = 1e-3;

struct snapshot {
    status_report const& status;
    std::vector<peer_report> const& all;
    std::span<peer_report const> named; ///< peers that have figures of their own
};

using labels = std::vector<std::pair<std::string_view, std::string>>;

/// Writes the samples of one metric.
class sample_writer {
public:
    sample_writer(std::string& to, std::string_view metric) : text(to), name(metric) {}

    template <typename Number>
    void add(Number value, labels const& of = {}) {
        text += name;
        char before = '{';
        for (auto const& [key, what] : of) {
            fmt::format_to(std::back_inserter(text), "{}{}=\"{}\"", before, key, what);
            before = ',';
        }
        fmt::format_to(std::back_inserter(text), "{} {}\n", of.empty() ? "" : "}", value);
    }
    void add(bool value, labels const& of = {}) { add(value ? 1 : 0, of); }

private:
    std::string& text;
    std::string_view const name;
};

labels labels_of(peer_report const& peer, labels more = {}) {
    labels all{{"peer", address_text(peer.who.address)}, {"over", way_text(peer.who.via)}};
    all.insert(all.end(), std::make_move_iterator(more.begin()), std::make_move_iterator(more.end()));
    return all;
}

template <std::uint64_t traffic_counts::*Figure>
void add_totals(sample_writer& out, snapshot const& now) {
    out.add(now.status.tcp_in.*Figure, {{"transport", "tcp"}, {"direction", "in"}});
    out.add(now.status.tcp_out.*Figure, {{"transport", "tcp"}, {"direction", "out"}});
    out.add(now.status.udp_in.*Figure, {{"transport", "udp"}, {"direction", "in"}});
    out.add(now.status.udp_out.*Figure, {{"transport", "udp"}, {"direction", "out"}});
}

template <std::uint64_t traffic_counts::*Figure>
void add_peer_totals(sample_writer& out, snapshot const& now) {
    for (peer_report const& peer : now.named) {
        out.add(peer.in.*Figure, labels_of(peer, {{"direction", "in"}}));
        out.add(peer.out.*Figure, labels_of(peer, {{"direction", "out"}}));
    }
}

template <std::uint64_t queue_report::*Figure>
void add_peer_queues(sample_writer& out, snapshot const& now) {
    for (peer_report const& peer : now.named) {
        out.add(peer.queue.*Figure, labels_of(peer));
    }
}

template <auto Figure>
void add_listeners(sample_writer& out, snapshot const& now) {
    for (listener_report const& listener : now.status.listeners) {
        out.add(listener.*Figure, {{"port", std::to_string(listener.port)}});
    }
}

/// Without packets there is no latency.
void add_latency(sample_writer& out, latency_summary const& latency, labels const& of) {
    if (latency.count == 0) {
        return;
    }
    std::pair<char const*, double> const figures[] = {
        {"50", latency.p50}, {"90", latency.p90}, {"99", latency.p99}, {"100", latency.max}};
    for (auto const& [percentile, microseconds] : figures) {
        labels with = of;
        with.emplace_back("percentile", percentile);
        out.add(microseconds * c_microseconds, with);
    }
}

void add_peer_latencies(sample_writer& out, snapshot const& now) {
    for (peer_report const& peer : now.named) {
        add_latency(out, peer.latency, labels_of(peer));
    }
}

/// Each way and state has a figure, also when it is 0.
void add_peer_numbers(sample_writer& out, snapshot const& now) {
    for (way const via : {way::accepted, way::outgoing}) {
        for (peer_state const state : {peer_state::established, peer_state::connecting, peer_state::lost}) {
            auto const is_such = [&](peer_report const& peer) { return peer.who.via == via && peer.state == state; };
            if (via == way::outgoing || state == peer_state::established) {
                out.add(std::count_if(now.all.begin(), now.all.end(), is_such),
                        {{"over", way_text(via)}, {"state", peer_state_text(state)}});
            }
        }
    }
}

void add_outcomes(sample_writer& out, snapshot const& now) {
    hand_over_counts const& counts = now.status.outcomes;
    out.add(counts.written, {{"outcome", "written"}});
    out.add(counts.returned, {{"outcome", "returned"}});
    out.add(counts.dropped, {{"outcome", "dropped"}});
    out.add(counts.failed, {{"outcome", "failed"}});
}

void add_closed(sample_writer& out, snapshot const& now) {
    for (std::size_t reason = 0; reason < c_close_reasons; ++reason) {
        out.add(now.status.closed[reason], {{"reason", close_reason_text(static_cast<close_reason>(reason))}});
    }
}

struct metric {
    std::string_view name;
    std::string_view type;
    std::string_view help;
    void (*write)(sample_writer&, snapshot const&);
};

constexpr metric c_metrics[] = {
    {"zolt_build_info", "gauge", "1, with the version of the program.",
     [](sample_writer& out, snapshot const& now) {
         out.add(1, {{"version", now.status.version}});
     }},
    {"zolt_start_time_seconds", "gauge", "When the Center was started, in seconds since 1970.",
     [](sample_writer& out, snapshot const& now) {
         out.add(static_cast<double>(now.status.started_unix_ms) * c_milliseconds);
     }},
    {"zolt_ready", "gauge", "1 while the ports are open and nobody has asked for the end.",
     [](sample_writer& out, snapshot const& now) { out.add(now.status.ready); }},
    {"zolt_healthy", "gauge", "1 while every thread of the relay runs.",
     [](sample_writer& out, snapshot const& now) { out.add(now.status.healthy); }},
    {"zolt_thread_running", "gauge", "1 while that thread of the relay runs; one that ended stays ended.",
     [](sample_writer& out, snapshot const& now) {
         for (thread_report const& thread : now.status.threads) {
             out.add(thread.running, {{"thread", thread.name}});
         }
     }},
    {"zolt_packets_total", "counter", "Packets that arrived and packets handed to the relay, heartbeats not included.",
     add_totals<&traffic_counts::packets>},
    {"zolt_data_bytes_total", "counter", "Data of these packets, without their headers.",
     add_totals<&traffic_counts::bytes>},
    {"zolt_inbox_packets", "gauge", "Packets that arrived and wait for the Center.",
     [](sample_writer& out, snapshot const& now) { out.add(now.status.inbox.packets); }},
    {"zolt_inbox_bytes", "gauge", "Data of the packets that wait for the Center.",
     [](sample_writer& out, snapshot const& now) { out.add(now.status.inbox.bytes); }},
    {"zolt_inbox_taken_total", "counter", "Packets that the inbox took.",
     [](sample_writer& out, snapshot const& now) { out.add(now.status.inbox.taken); }},
    {"zolt_inbox_busy_total", "counter", "Offers that the relay had to repeat because the inbox was full.",
     [](sample_writer& out, snapshot const& now) { out.add(now.status.inbox.busy); }},
    {"zolt_inbox_refused_total", "counter", "Offers that came after the stop.",
     [](sample_writer& out, snapshot const& now) { out.add(now.status.inbox.refused); }},
    {"zolt_inbox_busy_seconds_total", "counter", "For how long the inbox was full; peers see a silent node meanwhile.",
     [](sample_writer& out, snapshot const& now) { out.add(now.status.inbox.busy_time_s); }},
    {"zolt_queue_packets", "gauge", "Packets handed to the relay and not ended yet.",
     [](sample_writer& out, snapshot const& now) { out.add(now.status.queue.packets); }},
    {"zolt_queue_bytes", "gauge", "Bytes of those packets as they travel, headers included.",
     [](sample_writer& out, snapshot const& now) { out.add(now.status.queue.bytes); }},
    {"zolt_queue_limit_bytes", "gauge", "What may be queued at most; absent without a limit.",
     [](sample_writer& out, snapshot const& now) {
         if (now.status.max_queue_bytes) {
             out.add(*now.status.max_queue_bytes);
         }
     }},
    {"zolt_handed_over_total", "counter", "Packets handed to the relay; each ends in one outcome.",
     [](sample_writer& out, snapshot const& now) { out.add(now.status.outcomes.handed_over); }},
    {"zolt_outcomes_total", "counter", "How packets handed to the relay ended.", add_outcomes},
    {"zolt_not_handed_over_total", "counter", "Packets that were not handed to the relay, by the reason.",
     [](sample_writer& out, snapshot const& now) {
         out.add(now.status.outcomes.not_connected, {{"reason", "not_connected"}});
         out.add(now.status.outcomes.refused_by_limit, {{"reason", "refused_by_limit"}});
     }},
    {"zolt_connections_closed_total", "counter", "Connections that ended and attempts that led to none, by the reason.",
     add_closed},
    {"zolt_write_latency_seconds", "gauge",
     "From the hand-over until the kernel had taken the packet, of the last half minute or minute; absent without "
     "packets.",
     [](sample_writer& out, snapshot const& now) { add_latency(out, now.status.latency, {}); }},
    {"zolt_listener_backlog", "gauge", "Connections that wait to be accepted.",
     add_listeners<&listener_report::backlog>},
    {"zolt_listener_backlog_limit", "gauge", "How many connections may wait to be accepted.",
     add_listeners<&listener_report::backlog_limit>},
    {"zolt_listener_knocks_total", "counter", "How often the Center called the relay's attention to those that wait.",
     add_listeners<&listener_report::knocks>},
    {"zolt_lost_lines_total", "counter", "Lines of the relay that could not be written.",
     [](sample_writer& out, snapshot const& now) { out.add(now.status.lost_lines); }},
    {"zolt_folded_lines_total", "counter", "Lines of the relay that were held back as repetitions.",
     [](sample_writer& out, snapshot const& now) { out.add(now.status.folded_lines); }},
    {"zolt_peers", "gauge", "Connections, and destinations without one, by way and state.", add_peer_numbers},
    {"zolt_peers_left_out", "gauge", "Peers that have no figures of their own below; only 100 have.",
     [](sample_writer& out, snapshot const& now) { out.add(now.all.size() - now.named.size()); }},
    {"zolt_peer_established", "gauge", "1 while there is a connection with that peer.",
     [](sample_writer& out, snapshot const& now) {
         for (peer_report const& peer : now.named) {
             out.add(peer.state == peer_state::established, labels_of(peer));
         }
     }},
    {"zolt_peer_packets_total", "counter", "Packets that came from that peer and packets handed over for it.",
     add_peer_totals<&traffic_counts::packets>},
    {"zolt_peer_data_bytes_total", "counter", "Data of these packets, without their headers.",
     add_peer_totals<&traffic_counts::bytes>},
    {"zolt_peer_queue_packets", "gauge", "Packets handed over for that peer and not ended yet.",
     add_peer_queues<&queue_report::packets>},
    {"zolt_peer_queue_bytes", "gauge", "Bytes of those packets as they travel, headers included.",
     add_peer_queues<&queue_report::bytes>},
    {"zolt_peer_write_latency_seconds", "gauge", "As zolt_write_latency_seconds, of that peer's packets.",
     add_peer_latencies},
    {"zolt_peer_silent_seconds", "gauge", "How long nothing has come from that peer, heartbeats included.",
     [](sample_writer& out, snapshot const& now) {
         for (peer_report const& peer : now.named) {
             out.add(peer.silent_s, labels_of(peer));
         }
     }},
};

bool stands_before(peer_report const& a, peer_report const& b) {
    if (a.who.via != b.who.via) {
        return a.who.via == way::outgoing;
    }
    return a.who.via == way::accepted && a.since_s > b.since_s;
}

} // namespace

std::string metrics_text(status_report const& status, std::vector<peer_report> peers) {
    std::stable_sort(peers.begin(), peers.end(), stands_before);
    snapshot const now{status, peers, std::span(peers).first(std::min(peers.size(), c_most_peers_in_metrics))};
    std::string text;
    for (metric const& one : c_metrics) {
        text += fmt::format("# HELP {} {}\n# TYPE {} {}\n", one.name, one.help, one.name, one.type);
        sample_writer out(text, one.name);
        one.write(out, now);
    }
    return text;
}

} // namespace Zolt::Reference_Center
