#include "Reference_Center/options.hpp"

#include "Reference_Center/addresses.hpp"

#include <fmt/format.h>

namespace Zolt::Reference_Center {
namespace {

constexpr double c_longest_seconds = 86400;
/// The relay counts a packet's bytes in 32 bits.
constexpr double c_largest_packet = 2147483647;

} // namespace

center_plan common_options::plan() const {
    center_plan plan;
    plan.ports = ports;
    plan.configuration = configuration;
    plan.max_packet = static_cast<std::uint32_t>(max_packet);
    plan.stop_timeout = to_milliseconds(stop_timeout);
    plan.wait_for_ports = to_milliseconds(wait_port);
    return plan;
}

chattiness common_options::level() const {
    if (quiet) {
        return chattiness::quiet;
    }
    return verbose ? chattiness::verbose : chattiness::normal;
}

CLI::Validator port_check() {
    return CLI::Validator(
        [](std::string& text) {
            return parse_port(text) ? "" : fmt::format("\"{}\" is no port; a port is a number from 1 to 65535", text);
        },
        "");
}

CLI::Validator ip_check() {
    return CLI::Validator(
        [](std::string& text) {
            return parse_ip(text) ? "" : fmt::format("\"{}\" is no IPv4 address such as 10.0.0.2", text);
        },
        "");
}

CLI::Validator address_check() {
    return CLI::Validator(
        [](std::string& text) {
            return parse_address(text)
                       ? ""
                       : fmt::format("\"{}\" is no address such as 10.0.0.2:7000, with a port from 1 to 65535", text);
        },
        "");
}

CLI::Validator seconds_check(double least) {
    return CLI::Range(least, c_longest_seconds).description("");
}

CLI::Validator size_value() {
    return CLI::AsSizeValue(false).description("");
}

std::chrono::milliseconds to_milliseconds(double seconds) {
    return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
}

void add_center_options(CLI::App& command, common_options& options) {
    command
        .add_option("--config", options.configuration,
                    "Configuration of the relay; without it ../Config/zolt.ini is read if it is there")
        ->type_name("FILE");
    command
        .add_option("--max-packet", options.max_packet,
                    "Largest data of a packet that may arrive; a connection that brings more is ended as silent")
        ->transform(size_value())
        ->check(CLI::Range(1.0, c_largest_packet).description(""))
        ->type_name("BYTES")
        ->default_str("256M");
    command.add_option("--wait-port", options.wait_port, "How long to wait for a port that is taken")
        ->check(seconds_check(0))
        ->type_name("SECONDS")
        ->capture_default_str();
    command.add_option("--stop-timeout", options.stop_timeout, "How long the relay may take to stop")
        ->check(seconds_check(0.1))
        ->type_name("SECONDS")
        ->capture_default_str();
    CLI::Option* const quiet = command.add_flag("-q,--quiet", options.quiet, "Write warnings only");
    command.add_flag("-v,--verbose", options.verbose, "Write the relay's traces too")->excludes(quiet);
}

void add_ports_option(CLI::App& command, common_options& options, std::string const& name, std::string const& second) {
    auto const take = [&ports = options.ports](std::vector<std::uint16_t> const& more) {
        ports.insert(ports.end(), more.begin(), more.end());
    };
    for (std::string const& one : {name, second}) {
        command.add_option_function<std::vector<std::uint16_t>>(one, take)
            ->description("Serve a port over UDP and TCP; may be given more than once")
            ->check(port_check())
            ->type_name("PORT");
    }
    command.get_option(second)->group("");
}

void add_json_option(CLI::App& command, bool& json, std::string const& text) {
    command.add_flag("--json", json, text);
}

} // namespace Zolt::Reference_Center
