// Command-line options that several commands share.
#ifndef REFERENCE_CENTER_OPTIONS_HPP
#define REFERENCE_CENTER_OPTIONS_HPP

#include "Reference_Center/center.hpp"

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

namespace Zolt::Reference_Center {

/// What the command line asks for; its result is the exit code.
using action = std::function<int()>;

/// Each adds one command, which sets the action when it is chosen.
void add_run_command(CLI::App& app, action& chosen);
void add_send_command(CLI::App& app, action& chosen);
void add_listen_command(CLI::App& app, action& chosen);
void add_ping_command(CLI::App& app, action& chosen);
void add_bench_command(CLI::App& app, action& chosen);
void add_demo_command(CLI::App& app, action& chosen);
void add_demo_node_command(CLI::App& app, action& chosen);
void add_doctor_command(CLI::App& app, action& chosen);
void add_explain_command(CLI::App& app, action& chosen);
void add_completion_command(CLI::App& app, action& chosen);
void add_config_command(CLI::App& app, action& chosen);
void add_manual_command(CLI::App& app, action& chosen);
void add_status_command(CLI::App& app, action& chosen);
void add_top_command(CLI::App& app, action& chosen);
void add_version_command(CLI::App& app, action& chosen);

/// Options as they were written; every command has a part of them.
struct common_options {
    std::vector<std::uint16_t> ports;
    std::string configuration;
    std::uint64_t max_packet = 256U << 20;
    double stop_timeout = 5;
    double wait_port = 0;
    bool json = false;
    bool quiet = false;
    bool verbose = false;

    center_plan plan() const;
    chattiness level() const;
};

/// --config, --max-packet, --stop-timeout, --wait-port, --quiet, --verbose: every command that runs a Center.
void add_center_options(CLI::App& command, common_options& options);
/// An option that serves ports, and a second name for it that the help does not show.
void add_ports_option(CLI::App& command, common_options& options, std::string const& name, std::string const& second);
void add_json_option(CLI::App& command, bool& json, std::string const& text);

/// Each says what is wrong with a text that is none.
CLI::Validator port_check();
CLI::Validator ip_check();
CLI::Validator address_check();
/// A time in seconds that is at least that long and at most a day.
CLI::Validator seconds_check(double least);
/// Makes bytes of a number with a suffix such as K or M, of 1024 and its powers.
CLI::Validator size_value();

std::chrono::milliseconds to_milliseconds(double seconds);

} // namespace Zolt::Reference_Center

#endif
