// Where the packet code asks the ledger: in the ledger build each operation on a token or a view passes through here,
// in every other build nothing is left of it. Private to Reference_Host/.
#ifndef REFERENCE_HOST_LEDGER_HOOKS_HPP
#define REFERENCE_HOST_LEDGER_HOOKS_HPP

#include "Host/zolt_packet.hpp"

namespace Zolt::Reference_Host {

#if defined(INET_RELAY_LEDGER)

/// Notes the operation as the creator of what it makes from now on in this thread. False, after a report, when the
/// node is not alive: the operation then does nothing.
bool ledger_admits(char const* operation, struct_token_node const* node);
/// Reports a view of a part that is not alive. The memory may still be read and written.
void ledger_check_view(struct_packet const* view);

#else

inline bool ledger_admits(char const*, struct_token_node const*) {
    return true;
}
inline void ledger_check_view(struct_packet const*) {}

#endif

} // namespace Zolt::Reference_Host

#endif
