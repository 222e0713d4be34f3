#include "Reference_Center/options.hpp"
#include "Reference_Center/output.hpp"
#include "Reference_Host/packet_layout.hpp"

#include <fmt/format.h>
#include <memory>

namespace Zolt::Reference_Center {
namespace {

int run_version(bool as_json) {
    if (as_json) {
        write_out_object(json_object{{"name", "zolt-center"},
                                     {"version", ZOLT_CENTER_VERSION},
                                     {"packet_header_version", Reference_Host::c_header_version},
                                     {"packet_header_bytes", Reference_Host::c_header_size}});
    } else {
        write_out_line(fmt::format("zolt-center {} (packet header version {}, {} bytes)", ZOLT_CENTER_VERSION,
                                   Reference_Host::c_header_version, Reference_Host::c_header_size));
    }
    return 0;
}

} // namespace

void add_version_command(CLI::App& app, action& chosen) {
    CLI::App& command = *app.add_subcommand("version", "Print the version of the program and of the packet header");
    auto const as_json = std::make_shared<bool>(false);
    add_json_option(command, *as_json, "Print one JSON object");
    command.callback([as_json, &chosen] { chosen = [as_json] { return run_version(*as_json); }; });
}

} // namespace Zolt::Reference_Center
