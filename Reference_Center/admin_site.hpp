// What the admin endpoint answers, and where it is.
#ifndef REFERENCE_CENTER_ADMIN_SITE_HPP
#define REFERENCE_CENTER_ADMIN_SITE_HPP

#include "Reference_Center/admin_server.hpp"
#include "Reference_Center/node_account.hpp"

#include <CLI/CLI.hpp>
#include <memory>
#include <string>

namespace Zolt::Reference_Center {

/// Where a Center's admin endpoint is unless told otherwise.
inline constexpr char const* c_default_admin = "127.0.0.1:7979";

/// --admin of a command that runs a Center. Empty when it was not given.
void add_admin_option(CLI::App& command, std::string& place);

/// Opens the endpoint at the place of --admin. The default place is given up for any free port when it is taken, so that it
/// stops no Center; then, and with "none", there may be no endpoint. Throws failure for a place that was asked for.
/// The account has to outlive it. Configuration: the file of --config, or nothing.
std::unique_ptr<admin_server> open_admin(std::string const& place, node_account const& account,
                                         std::string const& configuration);

/// The endpoint's address, or nothing.
std::string admin_text(admin_server const* admin);

} // namespace Zolt::Reference_Center

#endif
