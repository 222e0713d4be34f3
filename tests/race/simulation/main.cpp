// Runs schedules: many of them, each from its seed; or one again; and makes one that fails as short as it can.

#include "tests/race/simulation/scenarios.hpp"
#include "tests/race/simulation/scheduler.hpp"
#include "tests/race/simulation/shrinking.hpp"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace simulation;

struct options {
    std::optional<std::string> scenario;
    std::optional<std::string> strategy;
    std::uint64_t seed = 1;
    std::uint64_t count = 1;
    std::uint64_t jobs = 1;
    bool tells = false;
};

constexpr char const* c_usage =
    "usage: relay_simulation [--scenario NAME] [--strategy NAME] [--seed N] [--count N] [--jobs N] [--tell]\n"
    "Runs the schedules of N seeds, the scenarios and strategies in turn unless named. Strategies: random, changes2,\n"
    "changes3, starving. --tell writes each step to standard error. Status 0: no finding; 1: a schedule failed and "
    "was\n"
    "made short; 2: wrong usage.\n";

[[noreturn]] void refuse(std::string const& reason) {
    std::fprintf(stderr, "%s\n%s  scenarios:\n", reason.c_str(), c_usage);
    for (scenario const& one : all_scenarios()) {
        std::fprintf(stderr, "    %-14s %s\n", one.name, one.what);
    }
    std::exit(2);
}

std::uint64_t read_number(std::string const& option, char const* text) {
    char* end = nullptr;
    std::uint64_t const number = std::strtoull(text, &end, 10);
    if (*text == '\0' || *end != '\0') {
        refuse(option + " needs a number, not \"" + text + "\"");
    }
    return number;
}

void read_option(options& read, std::string const& option, char const* value) {
    if (option == "--scenario") {
        read.scenario = value;
    } else if (option == "--strategy") {
        read.strategy = value;
    } else if (option == "--seed") {
        read.seed = read_number(option, value);
    } else if (option == "--count") {
        read.count = read_number(option, value);
    } else if (option == "--jobs") {
        read.jobs = std::max<std::uint64_t>(1, read_number(option, value));
    } else {
        refuse("unknown option: " + option);
    }
}

options read_options(int count, char** arguments) {
    options read;
    for (int i = 1; i < count; ++i) {
        std::string const option = arguments[i];
        if (option == "--tell") {
            read.tells = true;
        } else if (i + 1 < count) {
            read_option(read, option, arguments[++i]);
        } else {
            refuse(option + " needs a value");
        }
    }
    return read;
}

constexpr std::array<char const*, 4> c_strategies{"random", "changes2", "changes3", "starving"};

std::size_t find_strategy(std::string const& name) {
    auto const found = std::find(c_strategies.begin(), c_strategies.end(), name);
    if (found == c_strategies.end()) {
        refuse("unknown strategy: " + name);
    }
    return static_cast<std::size_t>(found - c_strategies.begin());
}

std::size_t find_scenario(std::string const& name) {
    auto const all = all_scenarios();
    auto const found = std::find_if(all.begin(), all.end(), [&](scenario const& one) { return name == one.name; });
    if (found == all.end()) {
        refuse("unknown scenario: " + name);
    }
    return static_cast<std::size_t>(found - all.begin());
}

/// The schedule of a seed: scenario and strategy go round unless they were named.
run_request request_of(options const& read, std::uint64_t seed) {
    std::size_t const scenarios = all_scenarios().size();
    std::size_t const which =
        read.scenario ? find_scenario(*read.scenario) : static_cast<std::size_t>(seed % scenarios);
    std::size_t const how = read.strategy ? find_strategy(*read.strategy)
                                          : static_cast<std::size_t>(seed / scenarios % c_strategies.size());
    run_request request;
    request.what = &all_scenarios()[which];
    request.how.seed = seed;
    request.how.how = how == 0 ? strategy::random : how == 3 ? strategy::starving : strategy::changes;
    request.how.depth = how == 1 ? 2 : 3;
    request.how.tells = read.tells;
    request.strategy_name = c_strategies[how];
    return request;
}

} // namespace

int main(int count, char** arguments) {
    options const read = read_options(count, arguments);
    auto const at = [&read](std::uint64_t index) { return request_of(read, read.seed + index); };
    at(0); // names are checked before anything runs
    campaign const result = run_campaign(at, read.count, read.jobs);
    std::printf("schedules %llu, scheduling points %llu, switches %llu, failed %llu\n",
                static_cast<unsigned long long>(result.schedules), static_cast<unsigned long long>(result.points),
                static_cast<unsigned long long>(result.switches), static_cast<unsigned long long>(result.failed));
    if (!result.first_failed) {
        return 0;
    }
    report_shortest(at(*result.first_failed), *result.first_failed + read.seed);
    return 1;
}
