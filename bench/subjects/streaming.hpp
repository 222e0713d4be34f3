// The near end of streams: sends as fast as the window lets it.
#ifndef BENCH_SUBJECTS_STREAMING_HPP
#define BENCH_SUBJECTS_STREAMING_HPP

#include "bench/stage.hpp"

#include <cstdint>

namespace relay_bench {

/// Nothing arrives at the near end of a stream.
class no_packets final : public packet_user {
public:
    void on_packet(origin) override { throw failure("a packet arrived where none is sent to"); }
};

class stream {
public:
    stream(stage& of, std::uint32_t size, unsigned int over) : on(of), connections(over), batch(size < 4096 ? 32 : 1) {}

    /// Sends over all connections in turn for so long, or, where a count is given, until so many more have arrived.
    void run(double seconds, std::uint64_t count);
    /// Waits until everything has arrived, as it must over connections. Throws when it does not.
    void drain();
    std::uint64_t sent() const { return handed_over; }
    std::uint64_t arrived() const { return on.arrivals().get(); }

private:
    stage& on;
    unsigned int const connections;
    unsigned int const batch; ///< packets between two looks at the clock
    unsigned int next = 0;
    std::uint64_t handed_over = 0;
};

/// What was measured of a stream.
struct stream_figures {
    interval measured;
    std::uint64_t sent;
    std::uint64_t arrived;

    /// Those that every subject has, by what arrived, and sent.
    void write(figures& to) const;
};

/// Warms up and measures, as the plan says.
stream_figures measure_stream(stage& on, stream& packets, run_plan const& plan);

} // namespace relay_bench

#endif
