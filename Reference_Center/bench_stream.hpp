// A load in one direction: as many packets as the peers take.
#ifndef REFERENCE_CENTER_BENCH_STREAM_HPP
#define REFERENCE_CENTER_BENCH_STREAM_HPP

#include "Reference_Center/bench_plan.hpp"
#include "Reference_Center/bench_session.hpp"

#include <vector>

namespace Zolt::Reference_Center {

/// The receiver says how many packets it has: now and again one is a call, which its Center acknowledges when it has taken
/// that one and so everything before it.
class bench_stream final : public bench_load {
public:
    bench_stream(bench_plan const& plan, bench_session& session);

    /// Warms up, measures and waits until everything is acknowledged.
    void run(bench_progress& progress, bench_time begins, bench_time ends);
    /// Once, after run: what came of it.
    void write(bench_result& result);

    void on_answer(std::size_t from, std::uint64_t number) override;
    void on_returned(std::size_t from, std::uint64_t number) override;

private:
    /// How many packets all receivers had at a moment.
    struct reading {
        std::uint64_t received = 0;
        bench_time at = 0;
    };

    void send_some();
    void send(std::size_t to, bool is_call);

    bench_plan const& plan;
    bench_session& session;
    std::uint64_t const call_every; ///< packets to one peer
    std::vector<std::unique_ptr<peer_result>> results;
    std::uint64_t received = 0;
    std::size_t next = 0;
    bench_time begin = 0;
    bench_time end = 0;
    reading first;
    reading last;
};

} // namespace Zolt::Reference_Center

#endif
