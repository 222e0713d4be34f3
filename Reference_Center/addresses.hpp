// Addresses, ports and sizes as people write them.
#ifndef REFERENCE_CENTER_ADDRESSES_HPP
#define REFERENCE_CENTER_ADDRESSES_HPP

#include "Host/zolt_packet.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Zolt::Reference_Center {

/// 1 to 65535 in decimal.
std::optional<std::uint16_t> parse_port(std::string_view text);
/// Dotted decimal; network byte order.
std::optional<std::uint32_t> parse_ip(std::string const& text);
/// IP:PORT of this node, where port 0 stands for any.
std::optional<struct_node_addr> parse_local_address(std::string_view text);
/// IP:PORT.
std::optional<struct_node_addr> parse_address(std::string_view text);

std::string ip_text(std::uint32_t ip);
std::string address_text(struct_node_addr address);

/// 224.0.0.0 to 239.255.255.255.
bool is_multicast(std::uint32_t ip);

/// The IPv4 addresses of this machine's interfaces that are up; the loopback one only when there is no other.
std::vector<std::string> own_addresses();

} // namespace Zolt::Reference_Center

#endif
