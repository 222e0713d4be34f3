// The host's clocks and its timer, moved by hand: they take the place of the reference host's own, which is a shared
// library here and finds these first.
#ifndef TESTS_SOAK_VIRTUAL_TIME_HPP
#define TESTS_SOAK_VIRTUAL_TIME_HPP

#include <cstdint>

namespace soak {

/// One second passes, and the timer that was created last is called, on the calling thread.
void tick();
/// Seconds that have passed since the program began.
std::uint64_t count_ticks();

} // namespace soak

#endif
