// The relay without its threads and, while packets are measured, without the kernel.
//
// The program's own epoll_wait, epoll_ctl, send and recv stand in the place of the C library's, and the host starts no
// threads: the entries that the relay wants to run are called by hand, one after the other, each until there is no event
// left for it. So what one thread of the relay does can be timed, and counted, alone.
#ifndef BENCH_SUPPORT_STUBBED_KERNEL_HPP
#define BENCH_SUPPORT_STUBBED_KERNEL_HPP

#include "bench/plan.hpp"

#include <cstdint>

namespace relay_bench::stubbed {

/// The relay's threads in the order in which it starts them.
enum class entry : std::size_t { udp_recv, udp_send, tcp_init, tcp_recv, tcp_send, count };

/// Lets one entry of the relay serve the events that are due, from the real kernel; then it returns.
void run(entry which);

/// From now on calls that arm a socket are noted and do not reach the kernel.
void leave_kernel();
/// As before leave_kernel. What was noted is forgotten.
void return_to_kernel();

/// Serves the socket that was armed, as long as it is armed again: each write places all bytes. Only after leave_kernel.
/// How many writes those were.
std::uint64_t run_writes();
/// Serves a socket that has so many whole packets with that many bytes of data to read. Only after leave_kernel, with the
/// registration that the relay made for it last.
void run_reads(std::uint64_t packets, std::uint32_t size);

} // namespace relay_bench::stubbed

#endif
