// What the counting host knows about the relay's objects.
#ifndef LEDGER_LOADING_COUNTING_HOST_HPP
#define LEDGER_LOADING_COUNTING_HOST_HPP

#include <cstddef>

namespace loading {

/// destructor: of an object that the host does not see, put down for the end as soon as the object is constructed.
enum class kind { none, thread, lock, timer, token, destructor };

/// How many threads, locks and timers live now.
std::size_t objects();

/// Writes down that this was constructed.
void note(kind what, void const* where);
/// The number of the first note of it, from that number on; c_not_noted without one.
std::size_t find_note(kind what, void const* where, std::size_t from);
inline constexpr std::size_t c_not_noted = static_cast<std::size_t>(-1);

/// Written to standard output when the last object is destroyed, provided that each went before those made earlier.
inline constexpr char const* c_gone_in_reverse = "gone in reverse order\n";

} // namespace loading

#endif
