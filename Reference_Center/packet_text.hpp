// A packet as text.
#ifndef REFERENCE_CENTER_PACKET_TEXT_HPP
#define REFERENCE_CENTER_PACKET_TEXT_HPP

#include "Reference_Center/center.hpp"
#include "Reference_Center/output.hpp"

#include <span>
#include <string>

namespace Zolt::Reference_Center {

enum class packet_format { raw, quoted, hex, json };

/// In double quotes; what is not printable ASCII stands as \n, \t, \r, \\, \" or \xHH.
std::string quote(std::span<unsigned char const> bytes);
std::string to_hex(std::span<unsigned char const> bytes);
char const* kind_text(Reference_Host::packet_kind kind);

/// What is written for a packet, its end of line included; raw is the data and nothing else.
std::string format_packet(arrival const& packet, packet_format format);

} // namespace Zolt::Reference_Center

#endif
