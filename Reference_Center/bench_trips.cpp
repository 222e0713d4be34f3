#include "Reference_Center/bench_trips.hpp"

#include "Reference_Center/failure.hpp"

#include <algorithm>
#include <limits>
#include <sys/prctl.h>

namespace Zolt::Reference_Center {
namespace {

using Reference_Host::packet_kind;
using std::chrono::nanoseconds;

constexpr bench_time c_blocked_wait = 1'000'000;
constexpr std::size_t c_sent_at_once = 64;
constexpr bench_time c_never = std::numeric_limits<bench_time>::max();
/// A datagram that is lost holds its place until its time is over; those after it need places of their own.
constexpr std::size_t c_datagram_places = 131072;

std::size_t room_for(bench_plan const& plan) {
    std::size_t const most = plan.most_under_way();
    return plan.kind == bench_kind::udp ? std::max(most, c_datagram_places / plan.peers) : most;
}

} // namespace

bench_trips::bench_trips(bench_plan const& wanted, bench_session& over)
    : plan(wanted), session(over), lanes(is_broadcast() ? 1 : plan.peers),
      oldest_broadcast(static_cast<std::uint64_t>(bench_now())) {
    // Numbers begin at the clock: what an earlier load left on its way is none of this one's.
    flights.assign(plan.peers, flight_book(room_for(plan), oldest_broadcast));
    for (std::size_t i = 0; i < plan.peers; ++i) {
        results.push_back(std::make_unique<peer_result>());
        results.back()->name = session.name_of(i);
    }
}

void bench_trips::run(bench_progress& progress, bench_time begins, bench_time ends) {
    begin = begins;
    end = ends;
    session.use(*this, progress);
    plan.is_open_loop() ? run_open_loop() : run_closed_loop();
    stopped = std::min(bench_now(), end);
    wait_for_rest();
}

// --- sending -----------------------------------------------------------------------------------------------------

bool bench_trips::may_send(std::size_t lane) const {
    std::size_t const under_way = is_broadcast() ? open_broadcasts : flights[lane].count();
    return under_way < plan.most_under_way() && flights[lane].has_room();
}

void bench_trips::send(std::size_t lane, bench_time due) {
    std::uint64_t const number = flights[lane].next_number();
    if (is_broadcast()) {
        broadcasts.push_back({plan.peers, due});
        ++open_broadcasts;
        for (std::size_t to = 0; to < plan.peers; ++to) {
            note_sent(to, due);
        }
        session.broadcast(number);
        return;
    }
    note_sent(lane, due);
    if (!session.send(lane, number, plan.calls ? packet_kind::call_return : packet_kind::data, 0)) {
        on_returned(lane, number);
    }
}

void bench_trips::note_sent(std::size_t to, bench_time due) {
    flights[to].add(due);
    if (is_measured(due)) {
        ++results[to]->counts.sent;
    }
}

/// As many as the window lets through.
void bench_trips::fill(std::size_t lane, bench_time now) {
    while (session.may_go_on() && may_send(lane) && now < end) {
        send(lane, now);
        now = may_send(lane) ? bench_now() : now;
    }
}

void bench_trips::run_closed_loop() {
    for (std::size_t lane = 0; lane < lanes; ++lane) {
        fill(lane, bench_now());
    }
    for (bench_time now = bench_now(); now < end && session.may_go_on(); now = bench_now()) {
        serve(now, std::min(c_longest_serve.count(), end - now));
    }
}

void bench_trips::run_open_loop() {
    // The kernel puts a sleeper's end off by 50 us unless told otherwise.
    ::prctl(PR_SET_TIMERSLACK, 1UL);
    for (bench_time now = bench_now(); now < end && session.may_go_on(); now = bench_now()) {
        bool const is_blocked = !send_due(now);
        bench_time const wait = is_blocked
                                    ? c_blocked_wait
                                    : std::clamp<bench_time>(next_moment() - bench_now(), 0, c_longest_serve.count());
        serve(now, std::min(wait, std::max<bench_time>(end - now, 0)));
    }
}

void bench_trips::serve(bench_time now, bench_time longest) {
    session.serve(now, nanoseconds(longest));
    if (plan.kind == bench_kind::udp) {
        drop_overdue(bench_now() - plan.patience, ending::lost);
    }
}

/// Of an open loop: when the next packet is due. The first one was due when the load was to begin.
bench_time bench_trips::next_moment() const {
    return begin - plan.warm_up + static_cast<bench_time>(static_cast<double>(due_before) * 1e9 / plan.rate);
}

/// Sends what is due by then, a part of it when it is much. False when a peer has too many under way.
bool bench_trips::send_due(bench_time by) {
    for (std::size_t sent = 0; sent < c_sent_at_once; ++sent) {
        bench_time const due = next_moment();
        if (due > by || due >= end) {
            return true;
        }
        std::size_t const lane = due_before % lanes;
        if (!may_send(lane)) {
            return false;
        }
        send(lane, due);
        if (is_measured(due)) {
            lateness.add(static_cast<std::uint64_t>(bench_now() - due));
        }
        ++due_before;
    }
    return true;
}

// --- ends --------------------------------------------------------------------------------------------------------

void bench_trips::on_answer(std::size_t from, std::uint64_t number) {
    auto const due = flights[from].take(number);
    if (!due) {
        return; // it had ended otherwise, or is none of this load's
    }
    bench_time const now = bench_now();
    if (is_measured(*due)) {
        ++results[from]->counts.answered;
        results[from]->latencies.add(static_cast<std::uint64_t>(now - *due));
        last_answer = now;
    }
    if (is_broadcast()) {
        end_broadcast_part(number, now);
    }
    if (!plan.is_open_loop()) {
        fill(is_broadcast() ? 0 : from, now);
    }
}

void bench_trips::end_broadcast_part(std::uint64_t number, bench_time now) {
    open_broadcast& one = broadcasts[number - oldest_broadcast];
    if (--one.missing == 0) {
        --open_broadcasts;
        if (is_measured(one.due)) {
            whole.add(static_cast<std::uint64_t>(now - one.due));
        }
    }
    while (!broadcasts.empty() && broadcasts.front().missing == 0) {
        broadcasts.pop_front();
        ++oldest_broadcast;
    }
}

void bench_trips::on_returned(std::size_t from, std::uint64_t number) {
    if (auto const due = flights[from].take(number)) {
        end_flight(from, *due, ending::returned);
    }
}

void bench_trips::end_flight(std::size_t of, bench_time due, ending how) {
    if (!is_measured(due)) {
        return;
    }
    flight_counts& counts = results[of]->counts;
    switch (how) {
    case ending::returned:
        ++counts.returned;
        break;
    case ending::lost:
        ++counts.lost;
        break;
    case ending::not_finished:
        ++counts.not_finished;
        break;
    }
}

void bench_trips::drop_overdue(bench_time before, ending how) {
    for (std::size_t i = 0; i < flights.size(); ++i) {
        ending const as = session.has_ended(i) ? ending::lost : how;
        while (auto const due = flights[i].take_oldest(before)) {
            end_flight(i, *due, as);
        }
        if (!plan.is_open_loop() && !is_broadcast()) {
            fill(i, bench_now());
        }
    }
}

/// What was due and could not leave in time still leaves, for as long as answers are waited for.
void bench_trips::wait_for_rest() {
    bool const over_udp = plan.kind == bench_kind::udp;
    bench_time const deadline = bench_now() + plan.patience;
    for (bench_time now = bench_now(); now < deadline && !session.is_interrupted() && is_unfinished();
         now = bench_now()) {
        if (plan.is_open_loop() && session.may_go_on()) {
            send_due(now);
        }
        serve(now, std::min(is_behind() ? c_blocked_wait : c_longest_serve.count(), deadline - now));
    }
    // What was never answered over UDP by now was lost, unless nobody waited long enough.
    drop_overdue(c_never, over_udp && !session.is_interrupted() ? ending::lost : ending::not_finished);
}

/// Of an open loop: something was due and has not left.
bool bench_trips::is_behind() const {
    return plan.is_open_loop() && session.may_go_on() && next_moment() < stopped;
}

bool bench_trips::is_unfinished() const {
    return is_behind() ||
           std::any_of(flights.begin(), flights.end(), [](flight_book const& one) { return one.count() != 0; });
}

void bench_trips::write(bench_result& result) {
    result.seconds = static_cast<double>(std::max<bench_time>(std::max(stopped, last_answer) - begin, 0)) * 1e-9;
    if (plan.is_open_loop() && next_moment() < stopped) {
        result.unsent = static_cast<std::uint64_t>(static_cast<double>(stopped - next_moment()) * 1e-9 * plan.rate) + 1;
    }
    result.peers = std::move(results);
    result.whole.merge(whole);
    result.lateness.merge(lateness);
}

} // namespace Zolt::Reference_Center
