// Where a thread waits for its turn, and the threads that actors run on.
//
// A schedule hands over some hundred times in a millisecond, so a place is one futex and nothing that spins; the threads stay
// for the next schedule.
#ifndef TESTS_RACE_SIMULATION_PARKING_HPP
#define TESTS_RACE_SIMULATION_PARKING_HPP

#include <atomic>
#include <cstdint>
#include <functional>

namespace simulation {

/// One thread parks, another wakes it; a wake that comes first is kept.
class parking_place {
public:
    void park();
    void wake();

private:
    std::atomic<std::uint32_t> is_woken{0};
};

/// Runs the work on a thread kept for that, now or as soon as one is made. Any thread.
void run_on_a_worker(std::function<void()> work);

} // namespace simulation

#endif
