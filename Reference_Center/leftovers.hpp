// The connections that stand when the relay has been finalised.
//
// The relay leaves them to its host, together with the operations that clear its registries. Those are no public
// operations, so their header is none that a Center may include: their names stand here, and nowhere else.
#ifndef REFERENCE_CENTER_LEFTOVERS_HPP
#define REFERENCE_CENTER_LEFTOVERS_HPP

#include "Host/zolt_packet.hpp"

#include <map>

namespace Zolt::Center::INet_Relay::EPoll {

struct struct_epoll_overlapped_tcp;
using connection_registry = std::map<struct_node_addr, struct_epoll_overlapped_tcp*>;

extern connection_registry g_connect_map;
extern connection_registry g_connect_fail_map;
extern connection_registry g_establish_client_map;
extern connection_registry g_establish_server_map;

int clear_establish_map(connection_registry& registry);
int clear_connect_map(connection_registry& registry);

} // namespace Zolt::Center::INet_Relay::EPoll

namespace Zolt::Reference_Center {

/// Closes and frees all of them. Only after finalize.
inline void clear_leftovers() {
    namespace engine = Center::INet_Relay::EPoll;
    engine::clear_establish_map(engine::g_establish_server_map);
    engine::clear_establish_map(engine::g_establish_client_map);
    engine::clear_connect_map(engine::g_connect_map);
    engine::clear_connect_map(engine::g_connect_fail_map);
}

} // namespace Zolt::Reference_Center

#endif
