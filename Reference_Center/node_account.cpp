#include "Reference_Center/node_account.hpp"

#include "Reference_Host/inbox.hpp"
#include "Reference_Host/output_sink.hpp"

#include <unistd.h>
#include <utility>

namespace Zolt::Reference_Center {
namespace {

using std::chrono::steady_clock;

std::int64_t unix_ms_now() {
    auto const since = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(since).count();
}

double seconds_since(steady_clock::time_point then) {
    return std::chrono::duration<double>(steady_clock::now() - then).count();
}

inbox_report take_inbox() {
    Reference_Host::inbox_counts const counts = Reference_Host::get_center_inbox().count();
    return {counts.packets, counts.bytes, counts.taken, counts.busy, counts.refused, 0};
}

} // namespace

char const* peer_state_text(peer_state state) {
    static constexpr char const* texts[] = {"established", "connecting", "lost"};
    return texts[static_cast<unsigned int>(state)];
}

char const* close_reason_text(close_reason reason) {
    static constexpr char const* texts[] = {"peer_closed",     "reset",       "silent",      "deleted", "refused",
                                            "connect_timeout", "init_failed", "send_failed", "shutdown"};
    return texts[static_cast<unsigned int>(reason)];
}

node_account::node_account(std::vector<std::uint16_t> served)
    : ports(std::move(served)), started(steady_clock::now()), started_unix_ms(unix_ms_now()) {}

status_report node_account::take_status() const {
    status_report report;
    report.version = ZOLT_CENTER_VERSION;
    report.pid = ::getpid();
    report.started_unix_ms = started_unix_ms;
    report.uptime_s = seconds_since(started);
    report.ready = ready.load(std::memory_order_relaxed);
    report.healthy = true;
    report.ports = ports;
    report.tcp_in = tcp_in.read();
    report.tcp_out = tcp_out.read();
    report.udp_in = udp_in.read();
    report.udp_out = udp_out.read();
    report.inbox = take_inbox();
    report.outcomes = count_hand_overs();
    report.queue = {report.outcomes.queued, report.outcomes.queued_bytes};
    report.lost_lines = Reference_Host::count_lost_lines();
    return report;
}

std::vector<peer_report> node_account::take_peers() const {
    std::lock_guard const hold(lock);
    std::vector<peer_report> reports;
    reports.reserve(lines.size());
    for (auto const& [who, known] : lines) {
        peer_report& report = reports.emplace_back();
        report.who = who;
        report.state = known.state;
        report.since_s = seconds_since(known.since);
        report.in = known.counts->in.read();
        report.out = known.counts->out.read();
    }
    return reports;
}

std::vector<closed_report> node_account::take_closed() const {
    std::lock_guard const hold(lock);
    return {closed.rbegin(), closed.rend()};
}

void node_account::note_destination(struct_node_addr destination) {
    std::lock_guard const hold(lock);
    lines.try_emplace({destination, way::outgoing}, line{peer_state::connecting, steady_clock::now()});
}

void node_account::note_withdrawn(struct_node_addr destination) {
    std::lock_guard const hold(lock);
    lines.erase({destination, way::outgoing});
}

void node_account::note_connected(peer const& who) {
    std::lock_guard const hold(lock);
    line& known = lines[who];
    known.state = peer_state::established;
    known.since = steady_clock::now();
}

void node_account::note_disconnected(peer const& who) {
    std::lock_guard const hold(lock);
    auto const known = lines.find(who);
    if (known == lines.end()) {
        return;
    }
    if (who.via == way::accepted) {
        lines.erase(known);
        return;
    }
    known->second.state = peer_state::lost;
    known->second.since = steady_clock::now();
}

peer_counts* node_account::find_counts(peer const& who) {
    // The Center's thread alone changes the map, so it may read without the lock.
    auto const known = lines.find(who);
    return known != lines.end() ? known->second.counts.get() : nullptr;
}

void node_account::note_arrival(peer const& from, std::uint64_t size) {
    (from.via == way::udp ? udp_in : tcp_in).add(size);
    if (peer_counts* const counts = find_counts(from)) {
        counts->in.add(size);
    }
}

void node_account::note_hand_over(peer const& to, std::uint64_t size) {
    (to.via == way::udp ? udp_out : tcp_out).add(size);
    if (peer_counts* const counts = find_counts(to)) {
        counts->out.add(size);
    }
}

} // namespace Zolt::Reference_Center
