// Threads that take turns: real threads of which exactly one runs, chosen at each scheduling point by a strategy
// from a seed, in virtual time.
//
// An actor is one such thread. It runs until it reaches a scheduling point, waits, or ends; then the strategy names who goes
// on. Whoever waits gives a condition, which is looked at again at every choice, so no wake-up can be lost. When nobody
// can go on, time jumps to the nearest deadline; without one the schedule has come to a deadlock, which is a failure.
// A schedule is its seed, its strategy and its list of switches: the same three give the same run, instruction for
// instruction, provided that the code under test asks nobody else for time, randomness or scheduling.
#ifndef TESTS_RACE_SIMULATION_SCHEDULER_HPP
#define TESTS_RACE_SIMULATION_SCHEDULER_HPP

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

namespace simulation {

/// Virtual microseconds since the schedule began.
using moment = std::uint64_t;
inline constexpr moment c_never = std::numeric_limits<moment>::max();

/// Numbers from a seed; the same on every machine.
class dice {
public:
    explicit dice(std::uint64_t seed) : state(seed) {}
    std::uint64_t roll();
    /// 0 to below limit; limit is not 0.
    std::size_t below(std::size_t limit) { return static_cast<std::size_t>(roll() % limit); }
    bool one_in(std::size_t chances) { return below(chances) == 0; }

private:
    std::uint64_t state;
};

inline constexpr int c_clock = -1;

enum class strategy {
    random,   ///< at a point, now and then anybody
    changes,  ///< fixed priorities, which change at a few points chosen beforehand
    starving, ///< one actor goes on only when nobody else can
    replay,   ///< the switches given, and no other
};

/// At that point, counted from 1, that actor went on, and not the one that the plain rule names: whoever ran stays, and
/// when it cannot, the next one in order of number.
struct switch_over {
    std::uint64_t point = 0;
    int actor = 0; ///< c_clock: time jumped to the nearest deadline although somebody could go on

    friend bool operator==(switch_over const&, switch_over const&) = default;
};

struct plan {
    std::uint64_t seed = 0;
    strategy how = strategy::random;
    int depth = 3;                        ///< strategy::changes: priority changes
    std::uint64_t expected_points = 2000; ///< strategy::changes: among how many points they lie
    std::vector<switch_over> switches{};  ///< strategy::replay
    bool tells = false;                   ///< each point and note goes to standard error
};

/// What came of one schedule.
struct outcome {
    std::uint64_t points = 0;   ///< scheduling points passed
    std::uint64_t switches = 0; ///< how often another actor went on than the plain rule would have named
    moment ended_at = 0;
};

/// Runs `main_actor` as the first actor and returns when every actor has ended. A failure ends the process, see fail.
outcome run_schedule(plan const& how, std::function<void()> main_actor);

/// Where the switches of a schedule are written down as they happen, so that somebody else can read them when the process
/// has died. Those that find no room are counted only.
struct switch_log {
    std::uint64_t count = 0;
    std::uint64_t points = 0;
    std::array<switch_over, 65536> switches{};
};
/// From the next schedule on; null: nowhere. The log outlives the schedules.
void write_switches_to(switch_log* log);

// --- inside a schedule: called by the actor that runs -----------------------------------------------------------

using actor = int;

/// Starts another actor; it runs when it is chosen.
actor spawn(std::string const& name, std::function<void()> body);
bool has_ended(actor who);
actor current_actor();
std::string const& name_of(actor who);
/// How many actors have not ended, the caller included.
int count_living();

/// A scheduling point: somebody else may go on first. The text stands in the deadlock report and the telling.
void point(char const* where);
/// Like point, and whoever else can go on goes first.
void yield(char const* where);
/// Goes on when the condition holds (true), or at the deadline (false). A condition that holds already is a point too.
bool wait_until(char const* where, moment deadline, std::function<bool()> const& condition);
inline void wait_for(char const* where, std::function<bool()> const& condition) {
    wait_until(where, c_never, condition);
}
/// Goes on when that many virtual microseconds have passed.
void pass_time(moment duration);
moment now();
/// Of that time, what passed although somebody could go on.
moment overtaken();

/// Numbers for what the scenario does, apart from those that the strategy uses.
dice& scenario_dice();

/// Whether the schedule is being told; a note costs nothing otherwise when its text is made only then.
bool is_telling();
/// A line of the story, on standard error, when the schedule is being told.
void note(std::string const& line);
/// Ends the schedule as failed: the reason, the actors and what they wait for, on standard error; then the process.
[[noreturn]] void fail(std::string const& reason);
/// Fails unless the condition holds.
inline void require(bool condition, char const* reason) {
    if (!condition) {
        fail(reason);
    }
}

} // namespace simulation

#endif
