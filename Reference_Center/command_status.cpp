// zolt-center status: one snapshot of a running Center.
#include "Reference_Center/admin_client.hpp"
#include "Reference_Center/options.hpp"
#include "Reference_Center/snapshot_view.hpp"

#include <memory>

namespace Zolt::Reference_Center {
namespace {

struct status_options {
    std::string admin;
    bool json = false;
};

int run_status(status_options const& options) {
    json_object const snapshot = take_snapshot(options.admin);
    write_out(options.json ? to_line(snapshot) : snapshot_text(snapshot));
    bool const is_well = snapshot.value("healthy", false) && snapshot.value("ready", false);
    return static_cast<int>(is_well ? exit_code::done : exit_code::check_failed);
}

} // namespace

void add_status_command(CLI::App& app, action& chosen) {
    CLI::App& command = *app.add_subcommand("status", "Show the figures of a running Center once");
    auto const options = std::make_shared<status_options>();
    add_asked_admin_option(command, options->admin);
    add_json_option(command, options->json, "Print one JSON object");
    command.footer("Exit code 5 when no Center answers, 6 when it is not healthy or not ready.\n\n"
                   "  zolt-center status --admin 127.0.0.1:7979 --json");
    command.callback([options, &chosen] { chosen = [options] { return run_status(*options); }; });
}

} // namespace Zolt::Reference_Center
