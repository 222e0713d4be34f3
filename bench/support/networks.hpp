// Two network namespaces, one for each process of a run, joined by a virtual cable: only so can two relays have the same
// UDP port. They have no names and are gone with the processes. Uses the system's program "ip"; where the system allows none
// of this an unsupported is thrown.
#ifndef BENCH_SUPPORT_NETWORKS_HPP
#define BENCH_SUPPORT_NETWORKS_HPP

#include <sys/types.h>

namespace relay_bench {

inline constexpr char const* c_addresses[] = {"10.77.0.1", "10.77.0.2"}; ///< of the near end, of the far end

/// Moves the calling process, which has one thread, into a network of its own. Without the right to do so directly
/// it becomes the root of a user namespace first.
void enter_network();
/// Near end: lays the cable to the network of the far process and sets this end of it up.
void lay_cable(pid_t far_process);
/// Far end: sets its end of the cable up.
void set_up_far_cable();

} // namespace relay_bench

#endif
