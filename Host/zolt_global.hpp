// The Center's entry point and the packet trace: what the relay calls in its host.
#ifndef HOST_ZOLT_GLOBAL_HPP
#define HOST_ZOLT_GLOBAL_HPP

#include "Host/zolt_packet.hpp"

namespace Zolt::Common::Global {

/// Offers one packet to the Center.
/// Thread: any of the relay's, several at once. Locks: a record's send_lock may be held; the Center must not call the
/// relay, nor wait for a thread that does. Result: c_zolt_err_none when the Center took it, 0x40000008 when it is busy and
/// the relay shall wait a little and offer again, 0x40000007 when it refuses; any other value: offer again at once. Must answer within a bound, and refuse once
/// the relay's stop was called. Owner: when taken, the Center owns both parts, and the header stays readable until
/// this thread's next offer; otherwise the relay does.
int send_zolt_center(struct_token& token);

/// Reports an event about a packet; sends nothing.
/// Thread: any. Locks: any of the relay's may be held, so it must not wait for one. Letter: t, T, C or E. Token: may be
/// empty. File: source path from Center/ on, without an extension. Format: printf's, with its arguments; a host
/// must not expand "delete %s overlapped %d.%d.%d.%d", which comes with two. Result: passed on by one caller, else unused.
int zolt_debug_not_send(char const& letter, struct_token const& token, char const* const& file, int const& line,
                        char const* format, ...);

} // namespace Zolt::Common::Global

#endif
