// zolt-center config: what the relay makes of its configuration file.
#include "Reference_Center/configuration.hpp"
#include "Reference_Center/configuration_check.hpp"
#include "Reference_Center/configuration_report.hpp"
#include "Reference_Center/options.hpp"
#include "Reference_Center/output.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <memory>

namespace Zolt::Reference_Center {
namespace {

struct config_options {
    std::string file;
    bool strict = false;
    bool origin = false;
    bool json = false;
};

// --- check -----------------------------------------------------------------------------------------------------

void tell_finding(std::string const& file, finding const& what) {
    write_out_line(fmt::format("{}:{}: {} {}: {}\n    {}", file, what.line, severity_text(what.weight), what.code,
                               what.reason, what.advice));
}

json_object finding_json(std::string const& file, finding const& what) {
    return {{"file", file},      {"line", what.line},     {"severity", severity_text(what.weight)},
            {"code", what.code}, {"reason", what.reason}, {"advice", what.advice}};
}

std::string count_text(std::ptrdiff_t count, char const* what) {
    return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

void tell_findings(configuration_text const& text, std::vector<finding> const& findings, std::ptrdiff_t errors) {
    for (finding const& what : findings) {
        tell_finding(text.file, what);
    }
    std::ptrdiff_t const warnings = std::ssize(findings) - errors;
    std::string const state = !text.is_present ? "absent; every key has its default"
                              : findings.empty()
                                  ? "nothing to say against it"
                                  : fmt::format("{}, {}", count_text(errors, "error"), count_text(warnings, "warning"));
    write_out_line(fmt::format("{}: {}", text.file, state));
}

void tell_findings_json(configuration_text const& text, std::vector<finding> const& findings, std::ptrdiff_t errors,
                        bool is_valid) {
    json_object list = json_object::array();
    for (finding const& what : findings) {
        list.push_back(finding_json(text.file, what));
    }
    write_out_object({{"file", text.file},
                      {"present", text.is_present},
                      {"valid", is_valid},
                      {"errors", errors},
                      {"warnings", std::ssize(findings) - errors},
                      {"findings", list}});
}

int run_check(config_options const& options) {
    configuration_text const text = read_configuration_text(options.file);
    std::vector<finding> findings;
    if (text.is_present) {
        findings = check_configuration(text.bytes, read_backlog_cap());
    }
    std::ptrdiff_t const errors = std::count_if(findings.begin(), findings.end(),
                                                [](finding const& what) { return what.weight == severity::error; });
    bool const is_valid = errors == 0 && (findings.empty() || !options.strict);
    if (options.json) {
        tell_findings_json(text, findings, errors, is_valid);
    } else {
        tell_findings(text, findings, errors);
    }
    return static_cast<int>(is_valid ? exit_code::done : exit_code::bad_configuration);
}

// --- show ------------------------------------------------------------------------------------------------------

void tell_values(configuration_text const& text, std::vector<key_value> const& values, bool with_origin) {
    for (key_value const& here : values) {
        write_out_line(fmt::format("{} = {}", here.key->name, here.value));
        write_out_line(fmt::format("    effect: {}", here.effect()));
        if (with_origin) {
            write_out_line(fmt::format("    origin: {}", origin_text(text.file, here)));
        }
    }
}

int run_show(config_options const& options) {
    configuration_text const text = read_configuration_text(options.file);
    std::vector<key_value> const values = read_key_values(Reference_Host::parse_ini(text.bytes));
    if (options.json) {
        write_out_object(values_json(text, values));
    } else {
        tell_values(text, values, options.origin);
    }
    return static_cast<int>(exit_code::done);
}

void add_file(CLI::App& command, config_options& options) {
    command.add_option("FILE", options.file, "Configuration of the relay; without it ../Config/zolt.ini");
}

} // namespace

void add_config_command(CLI::App& app, action& chosen) {
    CLI::App& command = *app.add_subcommand("config", "Say what the relay makes of its configuration file");
    command.require_subcommand(1);
    auto const options = std::make_shared<config_options>();

    CLI::App& check = *command.add_subcommand("check", "Name each line that does not mean what it seems to mean");
    add_file(check, *options);
    check.add_flag("--strict", options->strict, "Let warnings fail too");
    add_json_option(check, options->json, "Print the findings as one JSON object");
    check.footer("Each finding has the file, the line, a code for \"zolt-center explain\", the reason and an advice.\n"
                 "Exit code 3 with an error in the file, or when it cannot be read; warnings alone are no failure.\n\n"
                 "  zolt-center config check Config/zolt.ini");
    check.callback([options, &chosen] { chosen = [options] { return run_check(*options); }; });

    CLI::App& show = *command.add_subcommand("show", "List all nine keys with their values and what they do");
    add_file(show, *options);
    show.add_flag("--origin", options->origin, "Say where each value came from");
    add_json_option(show, options->json, "Print all of it as one JSON object");
    show.callback([options, &chosen] { chosen = [options] { return run_show(*options); }; });
}

} // namespace Zolt::Reference_Center
