// What the counting host knows about the relay's objects.
#ifndef LEDGER_LOADING_COUNTING_HOST_HPP
#define LEDGER_LOADING_COUNTING_HOST_HPP

#include <cstddef>

namespace loading {

enum class kind { none, thread, lock, timer };

/// One object of the host's that the relay constructed.
struct made_object {
    kind what;
    void const* where;
};

/// How many live now.
std::size_t objects();
/// The n-th of those that live, in the order of construction.
made_object object(std::size_t index);

/// Written to standard output when the last object is destroyed, provided that each went before those made earlier.
inline constexpr char const* c_gone_in_reverse = "gone in reverse order\n";

} // namespace loading

#endif
