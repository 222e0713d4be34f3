// zolt-center: chooses the command, and turns every way of failing into one line and an exit code.
#include "Reference_Center/failure.hpp"
#include "Reference_Center/options.hpp"
#include "Reference_Center/output.hpp"
#include "Reference_Center/word_distance.hpp"

#include <algorithm>
#include <csignal>
#include <fmt/format.h>
#include <sstream>
#include <string>
#include <vector>

namespace Zolt::Reference_Center {
namespace {

constexpr std::size_t c_close_enough = 2;
constexpr std::size_t c_help_column = 34;

/// Commands that the help shows.
std::vector<std::string> command_names(CLI::App const& app) {
    std::vector<std::string> names;
    for (CLI::App const* const command : app.get_subcommands([](CLI::App const*) { return true; })) {
        if (!command->get_group().empty()) {
            names.push_back(command->get_name());
        }
    }
    return names;
}

/// A first word that is no command gets an answer of its own.
void check_command(CLI::App const& app, std::vector<std::string> const& arguments) {
    auto const is_meant = [&](CLI::App const* command) { return command->check_name(arguments.front()); };
    if (arguments.empty() || arguments.front().starts_with("-") || !app.get_subcommands(is_meant).empty()) {
        return;
    }
    std::vector<std::string> const names = command_names(app);
    std::string const similar = find_similar(names, arguments.front(), c_close_enough);
    throw failure(exit_code::wrong_usage, similar.empty() ? fmt::format("unknown command \"{}\"; the commands are {}",
                                                                        arguments.front(), fmt::join(names, ", "))
                                                          : fmt::format("unknown command \"{}\"; did you mean \"{}\"?",
                                                                        arguments.front(), similar));
}

void describe_program(CLI::App& app, action& chosen) {
    app.require_subcommand(1);
    app.get_formatter()->column_width(c_help_column);
    add_run_command(app, chosen);
    add_demo_command(app, chosen);
    add_send_command(app, chosen);
    add_listen_command(app, chosen);
    add_ping_command(app, chosen);
    add_bench_command(app, chosen);
    add_status_command(app, chosen);
    add_top_command(app, chosen);
    add_config_command(app, chosen);
    add_doctor_command(app, chosen);
    add_explain_command(app, chosen);
    add_completion_command(app, chosen);
    add_manual_command(app, chosen);
    add_version_command(app, chosen);
    add_demo_node_command(app, chosen);
    app.footer(
        "Exit codes: 0 done, 1 failed while running, 2 wrong usage, 3 configuration not valid, 4 port taken or not\n"
        "permitted, 5 peer not reachable, 6 a check failed, 77 skipped, 130 interrupted.\n"
        "\"zolt-center COMMAND --help\" tells more about one command.");
}

/// What is missing; or rather what is wrong, when something stands there that nobody knows.
std::string describe_missing(CLI::App const& app, CLI::RequiredError const& error) {
    for (std::string const& argument : app.remaining(true)) {
        if (argument != "--json") {
            return fmt::format("The following argument was not expected: {}", argument);
        }
    }
    return error.what();
}

/// True when help was asked for, and given.
bool parse(CLI::App& app, std::vector<std::string> arguments) {
    std::reverse(arguments.begin(), arguments.end());
    try {
        app.parse(arguments);
        return false;
    } catch (CLI::Success const& asked) {
        std::ostringstream text;
        std::ostringstream unused;
        app.exit(asked, text, unused);
        write_out(text.str());
        return true;
    } catch (CLI::RequiredError const& error) {
        throw failure(exit_code::wrong_usage, describe_missing(app, error));
    } catch (CLI::ParseError const& error) {
        throw failure(exit_code::wrong_usage, error.what());
    }
}

int run(std::vector<std::string> const& arguments) {
    CLI::App app("A Center on the relay: runs one, shows what it does, and sends and receives its packets.",
                 "zolt-center");
    action chosen;
    describe_program(app, chosen);
    check_command(app, arguments);
    return parse(app, arguments) ? 0 : chosen();
}

int run_and_report(std::vector<std::string> const& arguments) {
    bool const as_json = std::find(arguments.begin(), arguments.end(), "--json") != arguments.end();
    try {
        return run(arguments);
    } catch (failure const& reason) {
        report_failure(reason, as_json);
        return static_cast<int>(reason.code());
    } catch (std::exception const& reason) {
        report_failure(failure(exit_code::failed, reason.what()), as_json);
        return static_cast<int>(exit_code::failed);
    }
}

} // namespace
} // namespace Zolt::Reference_Center

int main(int argc, char** argv) {
    // A reader of standard output that goes away is found by write's answer.
    std::signal(SIGPIPE, SIG_IGN);
    return Zolt::Reference_Center::run_and_report(std::vector<std::string>(argv + 1, argv + argc));
}
