// What this program's nodes tell each other in the part of a packet's flags that belongs to the application.
#ifndef REFERENCE_CENTER_LINK_MESSAGE_HPP
#define REFERENCE_CENTER_LINK_MESSAGE_HPP

#include "Host/zolt_packet.hpp"

#include <cstdint>

namespace Zolt::Reference_Center {

/// The numbers travel, in bits 8 to 15 of the flags.
enum class link_message : std::uint8_t {
    none = 0,
    echo = 1,    ///< sent back by "run --echo"; never sent back again
    counted = 2, ///< one of a numbered stream: code is the stream, sequence counts from 0
    chunk = 3,   ///< piece of a file: code is its index, sequence counts the transmissions
    report = 4,  ///< what has arrived of a file
};

link_message get_message(struct_packet const& packet);
/// The flags that say so.
std::uint16_t to_flags(link_message message);

} // namespace Zolt::Reference_Center

#endif
