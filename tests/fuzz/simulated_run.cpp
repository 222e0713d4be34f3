#include "tests/fuzz/simulated_run.hpp"

#include "Reference_Host/packet_limits.hpp"

#include <cstdlib>
#include <string_view>
#include <utility>

#include <sched.h>

namespace fuzz {
namespace {

int g_refused_parts = 0;

/// Actors take turns, so a second core would only make each turn longer.
void stay_on_this_core() {
    static bool const is_done = [] {
        cpu_set_t cores;
        CPU_ZERO(&cores);
        CPU_SET(::sched_getcpu(), &cores);
        return ::sched_setaffinity(0, sizeof cores, &cores) == 0;
    }();
    static_cast<void>(is_done);
}

constexpr std::size_t c_actors = 10; ///< of the smallest schedule
constexpr std::size_t c_most_switches = 16;

simulation::plan take_plan(input_reader& input) {
    simulation::plan plan;
    unsigned const first = input.take_byte();
    plan.how = static_cast<simulation::strategy>(first % 4);
    plan.depth = 2 + static_cast<int>(first / 4 % 2);
    plan.seed = input.take_number();
    plan.tells = std::getenv("FUZZ_TELLS") != nullptr;
    if (plan.how == simulation::strategy::replay) {
        std::uint64_t point = 0;
        for (std::size_t left = first / 4 % c_most_switches; left != 0; --left) {
            point += 1U + input.take_byte();
            plan.switches.push_back({point, static_cast<int>(input.take_below(c_actors))});
        }
    }
    return plan;
}

} // namespace

void run_simulated(input_reader& input, std::function<void()> main_actor) {
    stay_on_this_core();
    Zolt::Reference_Host::set_max_data_size(c_largest_data);
    // What the ledger held back of earlier inputs would be looked through again after this one.
    Zolt::Reference_Host::release_kept_memory();
    g_refused_parts = 0;
    simulation::run_schedule(take_plan(input), std::move(main_actor));
}

int count_refused_parts() {
    return g_refused_parts;
}

bool wait_patiently(char const* where, std::function<bool()> const& condition) {
    constexpr int c_rounds = 20;
    constexpr simulation::moment c_round = 50000;
    for (int round = 0; round < c_rounds; ++round) {
        if (simulation::wait_until(where, simulation::now() + c_round, condition)) {
            return true;
        }
    }
    return false;
}

} // namespace fuzz

extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's --wrap gives these names
/// A failed schedule ends with this call; a signal is what a fuzzer notices.
[[noreturn]] void __wrap__exit(int);
void __wrap__exit(int) {
    std::abort();
}

void __real__ZN4Tesk7Utility11print_errorEPKc(char const* message);
void __wrap__ZN4Tesk7Utility11print_errorEPKc(char const* message);
/// The simulation fails on this line. Here a header may announce more than the host allows, and the line is how the
/// receive thread says that it met the limit and goes on.
void __wrap__ZN4Tesk7Utility11print_errorEPKc(char const* message) {
    if (std::string_view(message) == "epoll_recv_thread_entry catch: ") {
        ++fuzz::g_refused_parts;
        return;
    }
    __real__ZN4Tesk7Utility11print_errorEPKc(message);
}
// NOLINTEND(bugprone-reserved-identifier)

} // extern "C"
