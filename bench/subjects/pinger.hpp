// The near end of round trips: sends the next packet when the answer to the one before has come.
#ifndef BENCH_SUBJECTS_PINGER_HPP
#define BENCH_SUBJECTS_PINGER_HPP

#include "bench/stage.hpp"
#include "bench/support/percentiles.hpp"

#include <atomic>
#include <cstdint>
#include <optional>

namespace relay_bench {

class pinger final : public packet_user {
public:
    explicit pinger(run_plan const& plan);

    /// Warms up and measures, over so many of the stage's connections in turn. Throws when an answer stays away.
    void run(stage& on, unsigned int connections);
    void write(figures& to);

    void on_packet(origin from) override;

private:
    void ping();
    bool is_over(std::uint64_t now) const;

    run_plan const& plan;
    durations trips;
    contender* end = nullptr;
    unsigned int connections = 1;
    unsigned int next = 0;
    std::optional<interval> measured;
    bool measuring = false;
    std::uint64_t warm_until = 0;
    std::uint64_t over_at = 0;
    std::uint64_t sent_at = 0;
    std::atomic<std::uint64_t> answers{0};
    std::uint64_t warm_answers = 0;
    std::atomic<bool> finished{false};
};

} // namespace relay_bench

#endif
