// zolt-center demo-node: what the demonstration starts once for each of its nodes.
#include "Reference_Center/demo_node.hpp"
#include "Reference_Center/options.hpp"

#include <memory>

namespace Zolt::Reference_Center {
namespace {

constexpr std::uint64_t c_capture_limit = 64U << 20;

struct demo_node_options : common_options {
    std::string capture;
};

} // namespace

void add_demo_node_command(CLI::App& app, action& chosen) {
    // Without a group it is left out of the help.
    CLI::App& command = *app.add_subcommand("demo-node", "A node of the demonstration")->group("");
    auto const options = std::make_shared<demo_node_options>();
    command.add_option("--listen", options->ports, "Serve a port")->check(port_check())->type_name("PORT");
    command.add_option("--pcap", options->capture, "Write the packets into a capture file")->type_name("FILE");
    add_center_options(command, *options);
    command.callback([options, &chosen] {
        chosen = [options] {
            start_diagnostics(options->level());
            center_plan plan = options->plan();
            plan.capture = options->capture;
            plan.capture_limit = c_capture_limit;
            return run_demo_node(plan);
        };
    });
}

} // namespace Zolt::Reference_Center
