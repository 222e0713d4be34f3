// Packets of a load that are under way to one peer, by their numbers, and what became of them.
#ifndef REFERENCE_CENTER_BENCH_FLIGHTS_HPP
#define REFERENCE_CENTER_BENCH_FLIGHTS_HPP

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace Zolt::Reference_Center {

/// Nanoseconds of the steady clock; 0 is no moment.
using bench_time = std::int64_t;
inline bench_time bench_now() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}
inline double in_seconds(bench_time time) {
    return static_cast<double>(time) / 1e9;
}

/// Each packet that was sent ends in one of these.
struct flight_counts {
    std::uint64_t sent = 0;
    std::uint64_t answered = 0;
    std::uint64_t returned = 0;     ///< came back as an error
    std::uint64_t lost = 0;         ///< the answer did not come in time, or the connection ended
    std::uint64_t not_finished = 0; ///< still under way at the end

    bool balances() const { return sent == answered + returned + lost + not_finished; }
    void add(flight_counts const& other) {
        sent += other.sent;
        answered += other.answered;
        returned += other.returned;
        lost += other.lost;
        not_finished += other.not_finished;
    }
};

/// Fixed memory. Numbers run from the first one on without a gap.
class flight_book {
public:
    flight_book(std::size_t room, std::uint64_t first_number);

    /// False when the oldest packet under way holds the place of the next one.
    bool has_room() const { return next - oldest < due_times.size(); }
    std::size_t count() const { return under_way; }
    std::uint64_t next_number() const { return next; }

    /// The packet with the next number is under way, and was due at that moment. Only when there is room.
    void add(bench_time due);
    /// Ends the packet: when it was due, or nothing when no such packet is under way.
    std::optional<bench_time> take(std::uint64_t number);
    /// Ends the oldest packet under way if it was due before that moment.
    std::optional<bench_time> take_oldest(bench_time before);

private:
    bench_time& place_of(std::uint64_t number) { return due_times[number % due_times.size()]; }
    void skip_ended();

    std::vector<bench_time> due_times; ///< 0: ended
    std::uint64_t oldest;
    std::uint64_t next;
    std::size_t under_way = 0;
};

} // namespace Zolt::Reference_Center

#endif
