// zolt-center doctor: looks for the cause of trouble.
#include "Reference_Center/addresses.hpp"
#include "Reference_Center/doctor.hpp"
#include "Reference_Center/options.hpp"
#include "Reference_Center/output.hpp"
#include "Reference_Center/utf8.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <memory>

namespace Zolt::Reference_Center {
namespace {

struct doctor_options {
    std::vector<std::uint16_t> ports;
    std::vector<std::string> peers;
    std::string configuration;
    bool json = false;
};

char const* verdict_text(verdict what) {
    static constexpr char const* texts[] = {"ok", "warning", "problem"};
    return texts[static_cast<unsigned int>(what)];
}

diagnoses examine(doctor_options const& options) {
    doctor_plan plan{options.ports, {}, options.configuration};
    for (std::string const& peer : options.peers) {
        plan.peers.push_back(*parse_address(peer));
    }
    diagnoses found;
    examine_configuration(plan.configuration, found);
    for (std::uint16_t const port : plan.ports) {
        examine_port(port, found);
    }
    for (struct_node_addr const peer : plan.peers) {
        examine_peer(peer, found);
    }
    examine_sockets(plan, found);
    examine_descriptors(found);
    examine_port_range(plan.ports, found);
    examine_multicast(found);
    examine_networks(found);
    return found;
}

void tell(diagnosis const& one) {
    write_out_line(fmt::format("{:8} {}: {}", verdict_text(one.what), one.check, printable_text(one.text)));
    if (!one.advice.empty()) {
        write_out_line(fmt::format("         {}", one.advice));
    }
}

json_object to_json(diagnoses const& found, std::ptrdiff_t problems, std::ptrdiff_t warnings) {
    json_object checks = json_object::array();
    for (diagnosis const& one : found) {
        checks.push_back(
            {{"check", one.check}, {"result", verdict_text(one.what)}, {"text", one.text}, {"advice", one.advice}});
    }
    return {{"ok", problems == 0}, {"problems", problems}, {"warnings", warnings}, {"checks", checks}};
}

int run_doctor(doctor_options const& options) {
    diagnoses const found = examine(options);
    auto const count = [&](verdict what) {
        return std::count_if(found.begin(), found.end(), [&](diagnosis const& one) { return one.what == what; });
    };
    std::ptrdiff_t const problems = count(verdict::problem);
    std::ptrdiff_t const warnings = count(verdict::warning);
    if (options.json) {
        write_out_object(to_json(found, problems, warnings));
    } else {
        std::for_each(found.begin(), found.end(), tell);
        write_out_line(fmt::format("{} checks; problems: {}, warnings: {}", found.size(), problems, warnings));
    }
    return static_cast<int>(problems == 0 ? exit_code::done : exit_code::check_failed);
}

} // namespace

void add_doctor_command(CLI::App& app, action& chosen) {
    CLI::App& command = *app.add_subcommand("doctor", "Look for the cause of trouble: ports, queues, limits, routes");
    auto const options = std::make_shared<doctor_options>();
    command.add_option("--port", options->ports, "A port that shall be served; may be given more than once")
        ->check(port_check())
        ->type_name("PORT");
    command
        .add_option(
            "--peer", options->peers,
            "A destination that shall be reached, by one connection that ends at once; may be given more than once")
        ->check(address_check())
        ->type_name("IP:PORT");
    command.add_option("--config", options->configuration, "Configuration of the relay; without it ../Config/zolt.ini")
        ->type_name("FILE");
    add_json_option(command, options->json, "Print all checks as one JSON object");
    command.footer(
        "It changes nothing. Exit code 6 when there is a problem; warnings alone are no failure. As root it sees\n"
        "the processes of all users.\n\n"
        "  zolt-center doctor --port 7000 --peer 10.0.0.2:7000");
    command.callback([options, &chosen] { chosen = [options] { return run_doctor(*options); }; });
}

} // namespace Zolt::Reference_Center
