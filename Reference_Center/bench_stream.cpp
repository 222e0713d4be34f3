#include "Reference_Center/bench_stream.hpp"

#include "Reference_Center/hand_over_book.hpp"
#include "Reference_Center/link_message.hpp"

#include <algorithm>
#include <limits>

namespace Zolt::Reference_Center {
namespace {

using Reference_Host::packet_kind;
using std::chrono::nanoseconds;

constexpr std::uint64_t c_sent_between_looks = 32; ///< between two looks at the clock and the queue
constexpr std::uint32_t c_large = 4096;            ///< bytes; of such packets one at once
constexpr std::uint64_t c_any_bytes = std::numeric_limits<std::uint64_t>::max() - 1;

} // namespace

bench_stream::bench_stream(bench_plan const& wanted, bench_session& over)
    : plan(wanted), session(over), call_every(std::max<std::uint64_t>(plan.window / 4, 1)) {
    for (std::size_t i = 0; i < plan.peers; ++i) {
        results.push_back(std::make_unique<peer_result>());
        results.back()->name = session.name_of(i);
    }
}

void bench_stream::run(bench_progress& progress, bench_time begins, bench_time ends) {
    begin = begins;
    end = ends;
    session.use(*this, progress);
    std::uint64_t const most_queued = plan.window * plan.peers;
    for (bench_time now = bench_now(); now < end && session.may_go_on(); now = bench_now()) {
        if (count_hand_overs().queued >= most_queued) {
            wake_when_queue_is_below(c_any_bytes, most_queued / 2);
            session.serve(now, c_longest_serve);
        } else {
            send_some();
            session.serve(now, nanoseconds(0));
        }
    }
    for (std::size_t to = 0; to < plan.peers && session.may_go_on(); ++to) {
        send(to, true);
    }
    auto const is_behind = [](auto const& one) { return one->counts.answered != one->counts.sent; };
    bench_time const deadline = bench_now() + plan.patience;
    for (bench_time now = bench_now();
         now < deadline && session.may_go_on() && std::any_of(results.begin(), results.end(), is_behind);
         now = bench_now()) {
        session.serve(now, c_longest_serve);
    }
}

void bench_stream::send_some() {
    for (std::uint64_t left = plan.size < c_large ? c_sent_between_looks : 1; left != 0; --left) {
        // Each peer at another time: what all have received is then known evenly.
        std::uint64_t const shifted = results[next]->counts.sent + next * call_every / plan.peers;
        send(next, shifted % call_every == 0);
        next = next + 1 == plan.peers ? 0 : next + 1;
    }
}

void bench_stream::send(std::size_t to, bool is_call) {
    flight_counts& counts = results[to]->counts;
    ++counts.sent;
    // Marked as an answer, it is not answered again.
    if (!session.send(to, counts.sent, is_call ? packet_kind::call_return : packet_kind::data,
                      to_flags(link_message::echo))) {
        ++counts.returned;
    }
}

void bench_stream::on_answer(std::size_t from, std::uint64_t number) {
    flight_counts& counts = results[from]->counts;
    received += number - counts.answered;
    counts.answered = number;
    bench_time const now = bench_now();
    if (now < begin || now > end) {
        return;
    }
    last = {received, now};
    first = first.at == 0 ? last : first;
}

void bench_stream::on_returned(std::size_t from, std::uint64_t) {
    ++results[from]->counts.returned;
}

void bench_stream::write(bench_result& result) {
    for (std::size_t i = 0; i < results.size(); ++i) {
        flight_counts& counts = results[i]->counts;
        std::uint64_t const open = counts.sent - std::min(counts.sent, counts.answered + counts.returned);
        (session.has_ended(i) ? counts.lost : counts.not_finished) = open;
    }
    result.seconds = static_cast<double>(last.at - first.at) * 1e-9;
    result.received = last.received - first.received;
    result.peers = std::move(results);
}

} // namespace Zolt::Reference_Center
