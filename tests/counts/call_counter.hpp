// Counts every system call of a process by kind and by thread, inside the process and without another one's help.
//
// A seccomp filter turns each call into a SIGSYS whose handler counts it and then makes it from the one place that the
// filter lets through. Nothing is rounded or sampled, locks inside the C library are seen too, and no right to trace
// is needed. A counted call takes about a microsecond longer. What starts or ends a thread is let through uncounted.
#ifndef TESTS_COUNTS_CALL_COUNTER_HPP
#define TESTS_COUNTS_CALL_COUNTER_HPP

#include <cstdint>
#include <map>
#include <string>

namespace counts {

/// Counts from now on the calls of this thread and of those that it starts; there is no way back. False when the machine
/// does not allow it, or lets calls pass that should be counted.
bool count_calls();

/// Under which name the calling thread's doings are written down from now on; "other" until set.
void set_role(char const* role);
/// A thread that waits on this epoll instance is written down under that name.
void set_role_of_instance(int instance, char const* role);

/// Calls and allocations so far: "ROLE.KIND" to count; allocations are "ROLE.memory". Kinds without a name here are
/// "call_NUMBER".
std::map<std::string, std::uint64_t> read_counts();
/// Calls of epoll_wait by the threads of that role so far.
std::uint64_t count_waits(std::string const& role);

/// Gives the processor away without being counted, for a test that waits.
void yield_uncounted();

/// One allocation of the calling thread.
void note_allocation();

} // namespace counts

#endif
