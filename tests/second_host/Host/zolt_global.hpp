#ifndef SECOND_HOST_ZOLT_GLOBAL_HPP
#define SECOND_HOST_ZOLT_GLOBAL_HPP

#include "Host/zolt_packet.hpp"

namespace Zolt::Common::Global {

int send_zolt_center(struct_token& offered);
int zolt_debug_not_send(char const& level, struct_token const& about, char const* const& source, int const& line,
                        char const* text, ...);

} // namespace Zolt::Common::Global

#endif
