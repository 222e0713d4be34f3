#include "Reference_Center/node_account.hpp"

#include "Reference_Center/addresses.hpp"
#include "Reference_Center/diagnostics.hpp"
#include "Reference_Center/moments.hpp"
#include "Reference_Host/inbox.hpp"
#include "Reference_Host/output_sink.hpp"

#include <array>
#include <unistd.h>
#include <utility>

namespace Zolt::Reference_Center {
namespace {

using std::chrono::steady_clock;

/// Latencies are told of the last one or two of these.
constexpr unsigned int c_ticks_of_a_window = 30;

double to_seconds(steady_clock::duration time) {
    return std::chrono::duration<double>(time).count();
}

inbox_report take_inbox() {
    Reference_Host::inbox const& inbox = Reference_Host::get_center_inbox();
    Reference_Host::inbox_counts const counts = inbox.count();
    return {counts.packets, counts.bytes,   counts.taken,
            counts.busy,    counts.refused, to_seconds(inbox.count_busy_time())};
}

queue_report queue_of(traffic_counts const& queued) {
    return {queued.packets, queued.bytes};
}

} // namespace

char const* peer_state_text(peer_state state) {
    static constexpr char const* texts[] = {"established", "connecting", "lost"};
    return texts[static_cast<unsigned int>(state)];
}

char const* close_reason_text(close_reason reason) {
    static constexpr std::array<char const*, c_close_reasons> texts{"peer_closed", "reset",       "silent",
                                                                    "deleted",     "refused",     "connect_timeout",
                                                                    "init_failed", "send_failed", "shutdown"};
    return texts[static_cast<unsigned int>(reason)];
}

void node_account::meter::tick(traffic_counts new_in, traffic_counts new_out, double seconds) {
    auto const rate = [seconds](std::uint64_t now, std::uint64_t before) {
        return static_cast<double>(now - before) / seconds;
    };
    rates = {rate(new_in.packets, in.packets), rate(new_out.packets, out.packets), rate(new_in.bytes, in.bytes),
             rate(new_out.bytes, out.bytes)};
    in = new_in;
    out = new_out;
}

node_account::node_account(std::vector<std::uint16_t> served, std::optional<std::uint64_t> max_queue_bytes)
    : ports(std::move(served)), max_queue(max_queue_bytes), started(steady_clock::now()),
      started_unix_ms(unix_ms_now()), links(ports, closed), udp(std::make_shared<peer_counts>()),
      strangers(std::make_shared<peer_counts>()), ticked(started) {}

// --- reports -------------------------------------------------------------------------------------------------------

status_report node_account::take_status() const {
    status_report report;
    report.version = ZOLT_CENTER_VERSION;
    report.pid = ::getpid();
    report.started_unix_ms = started_unix_ms;
    report.uptime_s = seconds_since(started);
    report.ready = ready.load(std::memory_order_acquire);
    report.threads = threads.look();
    report.problems = find_problems(report.threads);
    report.healthy = report.problems.empty();
    report.addresses = own_addresses();
    report.ports = ports;
    report.tcp_in = tcp.in.read();
    report.tcp_out = tcp.out.read();
    report.udp_in = udp->in.read();
    report.udp_out = udp->out.read();
    report.inbox = take_inbox();
    report.outcomes = count_settled_hand_overs();
    report.closed = closed.count();
    report.queue = {report.outcomes.queued, report.outcomes.queued_bytes};
    report.max_queue_bytes = max_queue;
    report.latency = summarize_hand_overs();
    report.lost_lines = Reference_Host::count_lost_lines();
    report.folded_lines = count_folded_lines();
    std::lock_guard const hold(lock);
    report.rates = speed.rates;
    if (watch != nullptr) {
        report.listeners = watch->look();
    }
    return report;
}

std::vector<std::string> node_account::find_problems(std::vector<thread_report> const& looked_at) const {
    std::vector<std::string> problems;
    // Before the start and after the stop no thread runs, and none should.
    if (!ready.load(std::memory_order_acquire)) {
        return problems;
    }
    for (thread_report const& thread : looked_at) {
        if (!thread.running) {
            problems.push_back("the relay's thread " + thread.name + " has ended; only a restart brings it back");
        }
    }
    return problems;
}

void node_account::fill_state(peer_report& report, line const& known) const {
    report.state = peer_state::established;
    report.since_s = seconds_since(known.since);
    if (known.connections > 0) {
        report.silent_s = links.find_silence(report.who).value_or(0);
        return;
    }
    report.state = peer_state::lost;
    report.silent_s = report.since_s;
    if (auto const attempt_since = links.find_attempt(report.who.address)) {
        report.state = peer_state::connecting;
        report.since_s = seconds_since(*attempt_since);
    }
}

std::vector<peer_report> node_account::take_peers() const {
    std::lock_guard const hold(lock);
    std::vector<peer_report> reports;
    reports.reserve(lines.size());
    for (auto const& [who, known] : lines) {
        peer_report& report = reports.emplace_back();
        report.who = who;
        report.in = known.counts->in.read();
        report.out = known.counts->out.read();
        report.rates = known.speed.rates;
        report.queue = queue_of(known.counts->queued.read());
        report.latency = known.counts->latency.summarize();
        fill_state(report, known);
    }
    return reports;
}

// --- what happens --------------------------------------------------------------------------------------------------

void node_account::note_running(std::unique_ptr<node_watch> made) {
    threads.wait_for_all();
    {
        std::lock_guard const hold(lock);
        watch = std::move(made);
    }
    ready.store(true, std::memory_order_release);
}

void node_account::note_stopping() {
    ready.store(false, std::memory_order_release);
    links.note_stopping();
    if (watch != nullptr) {
        watch->stop();
    }
}

void node_account::note_stopped() {
    std::lock_guard const hold(lock);
    for (auto const& [who, known] : lines) {
        if (known.connections > 0) {
            add_closed(who, known, {close_reason::shutdown, 0});
        }
    }
    lines.clear();
}

void node_account::note_destination(struct_node_addr destination) {
    // One that was withdrawn too often is not connected yet.
    if (links.is_wanted(destination)) {
        std::lock_guard const hold(lock);
        lines.try_emplace({destination, way::outgoing}).first->second.since = steady_clock::now();
    }
}

void node_account::note_withdrawn(struct_node_addr destination) {
    std::lock_guard const hold(lock);
    auto const known = lines.find({destination, way::outgoing});
    if (known != lines.end() && known->second.connections == 0) {
        lines.erase(known);
    }
}

void node_account::note_connected(peer const& who) {
    std::lock_guard const hold(lock);
    line& known = lines[who];
    ++known.connections;
    known.since = steady_clock::now();
    known.in_before = known.counts->in.read();
    known.out_before = known.counts->out.read();
}

bool node_account::note_disconnected(peer const& who, connection_end end) {
    std::lock_guard const hold(lock);
    auto const known = lines.find(who);
    if (known == lines.end() || known->second.connections == 0) {
        return true;
    }
    add_closed(who, known->second, end);
    known->second.since = steady_clock::now();
    if (--known->second.connections > 0) {
        return false;
    }
    if (who.via == way::accepted || !links.is_wanted(who.address)) {
        lines.erase(known);
    }
    return true;
}

void node_account::add_closed(peer const& who, line const& ended, connection_end end) {
    closed_report report;
    report.who = who;
    report.reason = end.reason;
    report.detail = end_text(end);
    report.lasted_s = seconds_since(ended.since);
    report.in = ended.counts->in.read() - ended.in_before;
    report.out = ended.counts->out.read() - ended.out_before;
    closed.add(std::move(report));
}

std::shared_ptr<peer_counts> const& node_account::find_counts(peer const& who) const {
    if (who.via == way::udp) {
        return udp;
    }
    // Lines come and go on this thread only, so it may look without the lock.
    auto const known = lines.find(who);
    return known != lines.end() ? known->second.counts : strangers;
}

void node_account::note_arrival(peer const& from, std::uint64_t size) {
    find_counts(from)->in.add(size);
    if (from.via != way::udp) {
        tcp.in.add(size);
    }
}

void node_account::note_hand_over(way via, peer_counts& to, std::uint64_t size) {
    to.out.add(size);
    if (via != way::udp) {
        tcp.out.add(size);
    }
}

bool node_account::has_room(peer const& to, std::uint64_t size) const {
    if (!max_queue) {
        return true;
    }
    std::uint64_t const waiting = find_counts(to)->queued.read().bytes;
    return waiting == 0 || waiting + size <= *max_queue;
}

// --- from time to time ---------------------------------------------------------------------------------------------

bool node_account::tick() {
    links.sweep();
    if (auto const now = steady_clock::now(); now - ticked >= std::chrono::seconds(1)) {
        tick_meters(now);
    }
    return find_problems(threads.look()).empty();
}

void node_account::tick_meters(moment now) {
    double const seconds = to_seconds(now - ticked);
    bool const turns = ++ticks % c_ticks_of_a_window == 0;
    std::lock_guard const hold(lock);
    ticked = now;
    for (auto& [who, known] : lines) {
        known.speed.tick(known.counts->in.read(), known.counts->out.read(), seconds);
        if (turns) {
            known.counts->latency.turn();
        }
    }
    speed.tick(tcp.in.read() + udp->in.read(), tcp.out.read() + udp->out.read(), seconds);
    if (turns) {
        turn_hand_over_latency();
    }
}

} // namespace Zolt::Reference_Center
