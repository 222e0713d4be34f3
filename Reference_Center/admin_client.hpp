// Asks the admin endpoint of a running Center.
#ifndef REFERENCE_CENTER_ADMIN_CLIENT_HPP
#define REFERENCE_CENTER_ADMIN_CLIENT_HPP

#include "Host/zolt_packet.hpp"
#include "Reference_Center/output.hpp"

#include <CLI/CLI.hpp>
#include <string>
#include <string_view>

namespace Zolt::Reference_Center {

/// --admin of a command that asks; the place is filled in when it is not given.
void add_asked_admin_option(CLI::App& command, std::string& place);

/// What is told at the path. Throws failure: unreachable when nobody answers within 5 seconds, failed when that is no Center.
json_object ask_admin(struct_node_addr where, std::string_view path);

/// The status with the peers in it, as "status" and "top" show them.
json_object take_snapshot(std::string const& place);

} // namespace Zolt::Reference_Center

#endif
