// What a Center may set about packets as a whole: how large one may be, how much memory is kept for the next ones,
// and who is told when one is gone. Any thread, any lock held; none of these blocks.
#ifndef REFERENCE_HOST_PACKET_LIMITS_HPP
#define REFERENCE_HOST_PACKET_LIMITS_HPP

#include "Host/zolt_packet.hpp"

#include <cstdint>

namespace Zolt::Reference_Host {

/// The largest data part, in bytes; 256 MiB until set. alloc_data of more throws std::bad_alloc, which leaves a TCP
/// connection silent until the relay ends it.
/// Deliberate: for the header of a received datagram alloc_data of more than a datagram can carry answers non-zero
/// instead, because only that answer makes the relay take the datagram out of its socket.
void set_max_data_size(std::uint32_t bytes);
std::uint32_t get_max_data_size();

/// Bytes of large data parts (more than 32 KiB) that are kept to be used again; 64 MiB until set.
void set_kept_bytes_limit(std::uint64_t bytes);
/// Bytes of large data parts kept now.
std::uint64_t get_kept_bytes();
/// Gives all kept memory back to the heap, but for what other threads keep for themselves.
void release_kept_memory();

/// Told when a header part that carries a cookie is destroyed: the cookie, and the packet as it was last.
/// Thread: the one that freed. Locks: any may be held; the observer must neither block nor call the relay.
using release_observer = void (*)(std::uint64_t cookie, struct_packet const& packet);
/// Null takes the observer away. Set it before the first cookie.
void set_release_observer(release_observer observer);
/// Marks a header part; 0 unmarks it. A cookie is not copied by assignment and does not travel.
void set_cookie(struct_packet& packet, std::uint64_t cookie);
std::uint64_t get_cookie(struct_packet const& packet);

} // namespace Zolt::Reference_Host

#endif
