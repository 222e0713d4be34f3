// A load of round trips: packets that the peers answer, each with the time that it took.
#ifndef REFERENCE_CENTER_BENCH_TRIPS_HPP
#define REFERENCE_CENTER_BENCH_TRIPS_HPP

#include "Reference_Center/bench_plan.hpp"
#include "Reference_Center/bench_session.hpp"

#include <deque>
#include <vector>

namespace Zolt::Reference_Center {

class bench_trips final : public bench_load {
public:
    bench_trips(bench_plan const& plan, bench_session& session);

    /// Warms up, measures and waits for the last answers.
    void run(bench_progress& progress, bench_time begins, bench_time ends);
    /// Once, after run: what came of it.
    void write(bench_result& result);

    void on_answer(std::size_t from, std::uint64_t number) override;
    void on_returned(std::size_t from, std::uint64_t number) override;

private:
    /// A broadcast of which not all peers have answered.
    struct open_broadcast {
        std::size_t missing;
        bench_time due;
    };
    /// What a packet's moment says about its end.
    enum class ending { returned, lost, not_finished };

    bool is_broadcast() const { return plan.kind == bench_kind::broadcast; }
    bool is_measured(bench_time due) const { return due >= begin; }
    bool may_send(std::size_t lane) const;
    void send(std::size_t lane, bench_time due);
    void note_sent(std::size_t to, bench_time due);
    void fill(std::size_t lane, bench_time now);
    void end_flight(std::size_t of, bench_time due, ending how);
    void end_broadcast_part(std::uint64_t number, bench_time now);
    void drop_overdue(bench_time before, ending how);

    void run_closed_loop();
    void run_open_loop();
    void serve(bench_time now, bench_time longest);
    bench_time next_moment() const;
    bool send_due(bench_time by);
    bool is_behind() const;
    bool is_unfinished() const;
    void wait_for_rest();

    bench_plan const& plan;
    bench_session& session;
    std::size_t const lanes; ///< one for each peer, one for all peers of a broadcast
    std::vector<flight_book> flights;
    std::vector<std::unique_ptr<peer_result>> results;
    std::deque<open_broadcast> broadcasts; ///< those before the oldest one open have ended
    std::uint64_t oldest_broadcast;
    std::size_t open_broadcasts = 0;
    latency_histogram whole;
    latency_histogram lateness;
    bench_time begin = 0;
    bench_time end = 0;
    bench_time last_answer = 0;
    bench_time stopped = 0;       ///< when the last packet could be sent
    std::uint64_t due_before = 0; ///< of an open loop: packets that were sent, each at its turn
};

} // namespace Zolt::Reference_Center

#endif
