#include "tests/fuzz/registry_model.hpp"

#include <algorithm>

namespace fuzz {
namespace {

using microseconds = registry_model::microseconds;

/// A destination that waits is tried with each tick, once a second.
constexpr microseconds c_until_next_try = 2200000;
/// An attempt that meets nothing is given up after 8 seconds, and noticed one or two ticks later.
constexpr microseconds c_longest_attempt = 14000000;
/// A connection that the node itself ended keeps its local address for a minute, and a retry binds that address.
constexpr microseconds c_longest_kept_address = 80000000;

} // namespace

registry_model::entry const& registry_model::find(std::size_t destination) const {
    static entry const c_unknown;
    auto const found = entries.find(destination);
    return found == entries.end() ? c_unknown : found->second;
}

/// What was uncertain and has become certain with time.
void registry_model::settle(entry& of, microseconds now) {
    if (of.is_wanted && of.met == reach::open && !of.is_connected) {
        of.is_connected = now >= of.due;
        of.may_be_connected = true;
    }
}

void registry_model::add(std::size_t destination, microseconds now) {
    entry& of = entries[destination];
    if (of.count) {
        ++*of.count;
        return;
    }
    of.count = 1;
    of.is_wanted = true;
    of.is_connected = of.may_be_connected = false;
    of.due = now;
    if (of.met == reach::lost || now < of.remains) {
        of.due = now + c_longest_kept_address;
        of.remains = now + c_longest_attempt;
    }
}

void registry_model::withdraw(std::size_t destination, microseconds now) {
    entry& of = entries[destination];
    settle(of, now);
    of.count = of.count.value_or(0) - 1;
    if (*of.count != 0) {
        return;
    }
    of.count.reset();
    if (of.is_wanted && (!of.is_connected || now < of.remains)) {
        of.remains = now + c_longest_attempt;
    }
    of.is_wanted = of.is_connected = of.may_be_connected = false;
}

void registry_model::set_reach(std::size_t destination, reach met, microseconds now) {
    entry& of = entries[destination];
    settle(of, now);
    bool const was_lost = of.met == reach::lost;
    of.met = met;
    if (was_lost && of.is_wanted && !of.is_connected) {
        of.remains = now + c_longest_attempt;
    }
    of.due = now + (was_lost || now < of.remains ? c_longest_kept_address : c_until_next_try);
}

void registry_model::lose(std::size_t destination, microseconds now) {
    entry& of = entries[destination];
    of.is_connected = of.may_be_connected = false;
    of.due = now + (now < of.remains ? c_longest_kept_address : c_until_next_try);
}

std::optional<int> registry_model::count(std::size_t destination) const {
    return find(destination).count;
}

bool registry_model::is_wanted(std::size_t destination) const {
    return find(destination).is_wanted;
}

bool registry_model::has_remains(std::size_t destination, microseconds now) const {
    return now < find(destination).remains;
}

unsigned registry_model::allowed(std::size_t destination, microseconds now) const {
    entry const& of = find(destination);
    unsigned const remains = now < of.remains ? unsigned{c_connecting} : 0U;
    if (!of.is_wanted) {
        // An attempt that succeeds after all is ended at once.
        return c_nowhere | remains | (remains != 0 ? unsigned{c_established} : 0U);
    }
    if (of.is_connected || (of.met == reach::open && now >= of.due)) {
        return c_established;
    }
    unsigned const perhaps = of.may_be_connected || of.met == reach::open ? unsigned{c_established} : 0U;
    bool const is_trying = of.met != reach::refused || remains != 0 || now < of.due;
    return c_waiting | perhaps | (is_trying ? unsigned{c_connecting} : 0U);
}

} // namespace fuzz
