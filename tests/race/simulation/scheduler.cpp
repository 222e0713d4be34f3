#include "tests/race/simulation/scheduler.hpp"

#include "tests/race/simulation/parking.hpp"

#include <algorithm>
#include <cstdio>
#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

namespace simulation {
namespace {

constexpr std::uint64_t c_longest_schedule = 400000; ///< points; a schedule that goes on for longer has no end
constexpr std::size_t c_switch_chances = 4;          ///< strategy::random: one point in so many is anybody's
constexpr std::size_t c_jump_chances = 512; ///< and at one in so many time passes although somebody could go on
constexpr moment c_longest_jump = 1000000;  ///< no more than one tick of the relay's timer

struct actor_state {
    std::string name;
    parking_place place;
    std::function<bool()> condition; ///< empty: can go on
    moment deadline = c_never;
    char const* where = "start";
    bool ended = false;
    std::uint64_t priority = 0;
};

struct schedule {
    explicit schedule(plan const& how) : what(how), strategy_dice(how.seed * 2 + 1), scenario(how.seed) {}

    plan what;
    dice strategy_dice;
    dice scenario;
    std::deque<actor_state> actors;
    actor running = 0;
    int living = 0;
    moment clock = 0;
    moment overtaken = 0;
    std::uint64_t points = 0;
    std::uint64_t switches = 0;
    std::size_t next_replayed = 0;
    std::vector<std::uint64_t> change_points;
    std::uint64_t lowest_priority = 1U << 20;
    actor victim = 0;
    std::vector<actor> runnable;
    parking_place all_ended;
};

std::unique_ptr<schedule> g_schedule;
switch_log* g_log = nullptr;

void write_down(schedule& s, int chosen) {
    ++s.switches;
    if (g_log == nullptr) {
        return;
    }
    if (g_log->count < g_log->switches.size()) {
        g_log->switches[g_log->count] = {s.points, chosen};
    }
    ++g_log->count;
}

bool can_go_on(actor_state& who) {
    return !who.ended && (!who.condition || who.deadline <= g_schedule->clock || who.condition());
}

void find_runnable(schedule& s) {
    s.runnable.clear();
    for (std::size_t i = 0; i < s.actors.size(); ++i) {
        if (can_go_on(s.actors[i])) {
            s.runnable.push_back(static_cast<actor>(i));
        }
    }
}

moment find_nearest_deadline(schedule const& s) {
    moment nearest = c_never;
    for (actor_state const& who : s.actors) {
        if (!who.ended && who.condition) {
            nearest = std::min(nearest, who.deadline);
        }
    }
    return nearest;
}

bool is_runnable(schedule const& s, actor who) {
    return std::find(s.runnable.begin(), s.runnable.end(), who) != s.runnable.end();
}

/// Time passes because nobody can go on, or because the strategy says so.
void jump_to(schedule& s, moment deadline) {
    s.clock = std::max(s.clock, deadline);
    find_runnable(s);
}

// --- the strategies: who goes on, out of those that can -----------------------------------------------------------

/// Whoever ran stays; else the next in order of number.
actor plain_choice(schedule const& s) {
    if (is_runnable(s, s.running)) {
        return s.running;
    }
    auto const next = std::upper_bound(s.runnable.begin(), s.runnable.end(), s.running);
    return next == s.runnable.end() ? s.runnable.front() : *next;
}

actor random_choice(schedule& s) {
    return s.strategy_dice.one_in(c_switch_chances) ? s.runnable[s.strategy_dice.below(s.runnable.size())]
                                                    : plain_choice(s);
}

actor starving_choice(schedule& s) {
    if (s.runnable.size() > 1) {
        std::erase(s.runnable, s.victim);
    }
    return random_choice(s);
}

actor highest_choice(schedule& s) {
    if (std::find(s.change_points.begin(), s.change_points.end(), s.points) != s.change_points.end()) {
        s.actors[static_cast<std::size_t>(s.running)].priority = --s.lowest_priority;
    }
    return *std::max_element(s.runnable.begin(), s.runnable.end(), [&](actor a, actor b) {
        return s.actors[static_cast<std::size_t>(a)].priority < s.actors[static_cast<std::size_t>(b)].priority;
    });
}

bool replays_here(schedule const& s, bool of_clock) {
    return s.next_replayed < s.what.switches.size() && s.what.switches[s.next_replayed].point == s.points &&
           (s.what.switches[s.next_replayed].actor == c_clock) == of_clock;
}

actor replayed_choice(schedule& s) {
    while (s.next_replayed < s.what.switches.size() && s.what.switches[s.next_replayed].point < s.points) {
        ++s.next_replayed;
    }
    if (replays_here(s, false)) {
        actor const wanted = s.what.switches[s.next_replayed++].actor;
        if (is_runnable(s, wanted)) {
            return wanted;
        }
    }
    return plain_choice(s);
}

actor choose(schedule& s) {
    switch (s.what.how) {
    case strategy::random:
        return random_choice(s);
    case strategy::starving:
        return starving_choice(s);
    case strategy::changes:
        return highest_choice(s);
    case strategy::replay:
        return replayed_choice(s);
    }
    return s.running;
}

bool jumps_now(schedule& s) {
    if (s.what.how == strategy::replay) {
        return replays_here(s, true) && ++s.next_replayed != 0;
    }
    return s.strategy_dice.one_in(c_jump_chances);
}

// --- passing the turn --------------------------------------------------------------------------------------------

void tell(schedule const& s, char const* where) {
    std::fprintf(stderr, "%6llu %10llu us  %-12s %s\n", static_cast<unsigned long long>(s.points),
                 static_cast<unsigned long long>(s.clock), s.actors[static_cast<std::size_t>(s.running)].name.c_str(),
                 where);
}

void let_time_pass(schedule& s) {
    moment const nearest = find_nearest_deadline(s);
    if (s.runnable.empty()) {
        if (nearest == c_never) {
            fail("deadlock: nobody can go on and nothing is to come");
        }
        jump_to(s, nearest);
        return;
    }
    if (nearest > s.clock && nearest - s.clock <= c_longest_jump && jumps_now(s)) {
        write_down(s, c_clock);
        s.overtaken += nearest - s.clock;
        jump_to(s, nearest);
    }
}

/// The next one to go on.
actor find_next(schedule& s) {
    ++s.points;
    ++s.clock;
    if (g_log != nullptr) {
        g_log->points = s.points;
    }
    if (s.points > c_longest_schedule) {
        fail("no end: the schedule goes on and on");
    }
    find_runnable(s);
    let_time_pass(s);
    actor const plain = plain_choice(s);
    actor const chosen = choose(s);
    if (chosen != plain) {
        write_down(s, chosen);
    }
    return chosen;
}

void pass_turn(schedule& s, actor to) {
    s.running = to;
    s.actors[static_cast<std::size_t>(to)].place.wake();
}

/// Lets the chosen one go on, and comes back when this one is chosen again.
void take_turns(char const* where) {
    schedule& s = *g_schedule;
    actor const self = s.running;
    actor_state& me = s.actors[static_cast<std::size_t>(self)];
    me.where = where;
    if (s.what.tells) {
        tell(s, where);
    }
    actor const next = find_next(s);
    if (next != self) {
        pass_turn(s, next);
        me.place.park();
    }
}

void end_actor(actor self) {
    schedule& s = *g_schedule;
    s.actors[static_cast<std::size_t>(self)].ended = true;
    if (--s.living == 0) {
        s.all_ended.wake();
        return;
    }
    pass_turn(s, find_next(s));
}

void choose_change_points(schedule& s) {
    for (int i = 1; i < s.what.depth; ++i) {
        s.change_points.push_back(1 + s.strategy_dice.below(static_cast<std::size_t>(s.what.expected_points)));
    }
}

char const* word_for(strategy how) {
    constexpr char const* c_words[] = {"random", "changes", "starving", "replay"};
    return c_words[static_cast<int>(how)];
}

} // namespace

std::uint64_t dice::roll() {
    state += 0x9E3779B97F4A7C15U;
    std::uint64_t mixed = (state ^ (state >> 30)) * 0xBF58476D1CE4E5B9U;
    mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBU;
    return mixed ^ (mixed >> 31);
}

outcome run_schedule(plan const& how, std::function<void()> main_actor) {
    constexpr std::size_t c_victims = 10;
    g_schedule = std::make_unique<schedule>(how);
    schedule& s = *g_schedule;
    if (g_log != nullptr) {
        g_log->count = 0;
    }
    choose_change_points(s);
    s.victim = static_cast<actor>(s.strategy_dice.below(c_victims));
    spawn("main", std::move(main_actor));
    pass_turn(s, 0);
    s.all_ended.park();
    return {s.points, s.switches, s.clock};
}

void write_switches_to(switch_log* log) {
    g_log = log;
}

actor spawn(std::string const& name, std::function<void()> body) {
    schedule& s = *g_schedule;
    auto const self = static_cast<actor>(s.actors.size());
    actor_state& fresh = s.actors.emplace_back();
    fresh.name = name;
    fresh.priority = (std::uint64_t{1} << 30) + s.strategy_dice.below(std::size_t{1} << 20);
    ++s.living;
    run_on_a_worker([self, work = std::move(body)] {
        g_schedule->actors[static_cast<std::size_t>(self)].place.park();
        work();
        end_actor(self);
    });
    return self;
}

bool has_ended(actor who) {
    return g_schedule->actors[static_cast<std::size_t>(who)].ended;
}

actor current_actor() {
    return g_schedule->running;
}

std::string const& name_of(actor who) {
    return g_schedule->actors[static_cast<std::size_t>(who)].name;
}

int count_living() {
    return g_schedule->living;
}

void point(char const* where) {
    take_turns(where);
}

void yield(char const* where) {
    schedule& s = *g_schedule;
    // Under fixed priorities who spins would go on for ever.
    s.actors[static_cast<std::size_t>(s.running)].priority = --s.lowest_priority;
    find_runnable(s);
    auto const others = s.runnable.size() - 1;
    bool asked = false;
    wait_until(where, s.clock + 1000, [&] { return others == 0 || std::exchange(asked, true); });
}

bool wait_until(char const* where, moment deadline, std::function<bool()> const& condition) {
    actor_state& me = g_schedule->actors[static_cast<std::size_t>(g_schedule->running)];
    me.condition = condition;
    me.deadline = deadline;
    take_turns(where);
    me.condition = nullptr;
    me.deadline = c_never;
    return condition();
}

void pass_time(moment duration) {
    wait_until("sleep", g_schedule->clock + duration, [] { return false; });
}

moment now() {
    return g_schedule->clock;
}

moment overtaken() {
    return g_schedule->overtaken;
}

dice& scenario_dice() {
    return g_schedule->scenario;
}

bool is_telling() {
    return g_schedule->what.tells;
}

void note(std::string const& line) {
    if (is_telling()) {
        std::fprintf(stderr, "       %10llu us  %-12s   %s\n", static_cast<unsigned long long>(g_schedule->clock),
                     name_of(g_schedule->running).c_str(), line.c_str());
    }
}

void fail(std::string const& reason) {
    schedule const& s = *g_schedule;
    std::fprintf(stderr, "schedule failed: %s\n  seed %llu, strategy %s, point %llu, %llu us, in %s\n", reason.c_str(),
                 static_cast<unsigned long long>(s.what.seed), word_for(s.what.how),
                 static_cast<unsigned long long>(s.points), static_cast<unsigned long long>(s.clock),
                 s.actors[static_cast<std::size_t>(s.running)].name.c_str());
    for (actor_state const& who : s.actors) {
        if (!who.ended) {
            std::fprintf(stderr, "  %-12s at %s%s\n", who.name.c_str(), who.where, who.condition ? ", waiting" : "");
        }
    }
    ::_exit(1);
}

} // namespace simulation
