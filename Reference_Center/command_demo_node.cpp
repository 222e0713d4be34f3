// zolt-center demo-node: what the demonstration starts once for each of its nodes.
#include "Reference_Center/demo_node.hpp"
#include "Reference_Center/options.hpp"

#include <memory>

namespace Zolt::Reference_Center {

void add_demo_node_command(CLI::App& app, action& chosen) {
    // Without a group it is left out of the help.
    CLI::App& command = *app.add_subcommand("demo-node", "A node of the demonstration")->group("");
    auto const options = std::make_shared<common_options>();
    command.add_option("--listen", options->ports, "Serve a port")->check(port_check())->type_name("PORT");
    add_center_options(command, *options);
    command.callback([options, &chosen] {
        chosen = [options] {
            start_diagnostics(options->level());
            return run_demo_node(options->plan());
        };
    });
}

} // namespace Zolt::Reference_Center
