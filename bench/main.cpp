// inet_relay_bench: reads the command line, runs one subject with one contender, prints one JSON object.
#include "bench/contender.hpp"
#include "bench/plan.hpp"
#include "bench/subjects/subjects.hpp"
#include "bench/support/figures.hpp"
#include "bench/support/sockets.hpp"

#include <CLI/CLI.hpp>

#include <csignal>
#include <map>
#include <string>

#include <unistd.h>

namespace relay_bench {
namespace {

enum exit_code { c_done = 0, c_failed = 1, c_wrong_usage = 2, c_unsupported = 77 };

/// What the command line says; answer is empty unless it was given.
struct command_line {
    run_plan plan;
    std::string cores = "free";
    std::string answer;
};

std::map<std::string, placement> const c_placements{
    {"one", placement::one}, {"two", placement::two}, {"free", placement::free}};
std::map<std::string, answering> const c_answers{{"receive", answering::receive}, {"center", answering::center}};

template <class Values>
std::vector<std::string> names_of(Values const& values) {
    std::vector<std::string> names;
    for (auto const& [name, value] : values) {
        names.push_back(name);
    }
    return names;
}

void write_whole(std::string const& text) {
    for (std::size_t written = 0; written < text.size();) {
        ssize_t const count = ::write(STDOUT_FILENO, text.data() + written, text.size() - written);
        if (count <= 0) {
            return;
        }
        written += static_cast<std::size_t>(count);
    }
}

figures describe(command_line const& line) {
    run_plan const& plan = line.plan;
    figures answer{{"contender", plan.contender}, {"subject", plan.subject}};
    answer["parameters"] = {{"size", plan.size},
                            {"connections", plan.connections},
                            {"seconds", plan.seconds},
                            {"count", plan.count},
                            {"cores", line.cores},
                            {"window", window_of(plan)},
                            {"answer", plan.answer == answering::receive ? "receive" : "center"}};
    if (plan.subject == "udp") {
        answer["parameters"]["way"] = plan.echo ? "round" : "one";
    }
    return answer;
}

/// Written by the watchdog, which may allocate nothing.
std::string g_late_answer;

void set_watchdog(command_line const& line) {
    constexpr unsigned int c_grace = 240;
    figures answer = describe(line);
    answer["error"] = {{"text", "the run came to no end"}};
    g_late_answer = answer.dump() + "\n";
    ::signal(SIGALRM, [](int) {
        ssize_t const written = ::write(STDOUT_FILENO, g_late_answer.data(), g_late_answer.size());
        ::_exit(written > 0 ? c_failed : c_failed);
    });
    constexpr std::uint64_t c_least_per_second = 5000;
    ::alarm(c_grace + static_cast<unsigned int>(3 * line.plan.seconds) +
            static_cast<unsigned int>(line.plan.count / c_least_per_second));
}

exit_code run(command_line& line, subject_row const& subject) {
    line.plan.subject = subject.name;
    figures answer;
    exit_code code = c_done;
    try {
        contender_row const& row = find_contender(line.plan.contender);
        line.plan.answer = line.answer.empty() ? row.answer : c_answers.at(line.answer);
        line.plan.cores = c_placements.at(line.cores);
        allow_many_descriptors();
        set_watchdog(line);
        outcome const result = subject.run(line.plan);
        answer = describe(line);
        answer["figures"] = result.values;
        answer["notes"] = {{"delivers_on", result.delivers_on}};
    } catch (unsupported const& reason) {
        answer = describe(line);
        answer["error"] = {{"text", line.plan.contender + ": " + reason.what()}, {"unsupported", true}};
        code = c_unsupported;
    } catch (std::exception const& reason) {
        answer = describe(line);
        answer["error"] = {{"text", reason.what()}};
        code = c_failed;
    }
    write_whole(answer.dump() + "\n");
    return code;
}

exit_code list() {
    figures answer{{"contenders", figures::array()}, {"missing", figures::array()}, {"subjects", figures::array()}};
    for (contender_row const& row : contenders()) {
        answer[row.make != nullptr ? "contenders" : "missing"].push_back(row.name);
    }
    for (subject_row const& row : subjects()) {
        answer["subjects"].push_back(row.name);
    }
    write_whole(answer.dump() + "\n");
    return c_done;
}

std::vector<std::string> contender_names() {
    std::vector<std::string> names;
    for (contender_row const& row : contenders()) {
        names.push_back(row.name);
    }
    return names;
}

void add_options(CLI::App& command, command_line& line) {
    command.add_option("--contender", line.plan.contender, "what is measured")
        ->required()
        ->check(CLI::IsMember(contender_names()));
    command.add_option("--size", line.plan.size, "bytes of data in a packet")->check(CLI::Range(0U, 256U << 20));
    command.add_option("--connections", line.plan.connections, "how many")->check(CLI::Range(1U, 20000U));
    command.add_option("--seconds", line.plan.seconds, "how long to measure")->check(CLI::Range(0.001, 3600.0));
    command.add_option("--count", line.plan.count, "how many packets to measure, however long that takes");
    command.add_option("--warm-up", line.plan.warm_up, "seconds before what is measured")->check(CLI::Range(0.0, 60.0));
    command.add_option("--cores", line.cores, "where the two ends run")->check(CLI::IsMember(names_of(c_placements)));
    command.add_option("--answer", line.answer, "the thread that takes packets: the receiving one, or the Center's")
        ->check(CLI::IsMember(names_of(c_answers)));
    if (command.get_name() == "udp") {
        command
            .add_option_function<std::string>(
                "--way", [&](std::string const& way) { line.plan.echo = way == "round"; }, "one way, or round trips")
            ->check(CLI::IsMember({"one", "round"}));
    }
}

} // namespace
} // namespace relay_bench

int main(int count, char** arguments) {
    using namespace relay_bench;
    CLI::App app("Measures the relay against its limit and its peers.", "inet_relay_bench");
    app.require_subcommand(1);
    command_line line;
    exit_code code = c_done;
    app.add_subcommand("list", "which contenders were built")->callback([&] { code = list(); });
    for (subject_row const& subject : subjects()) {
        CLI::App* const command = app.add_subcommand(subject.name, subject.help);
        add_options(*command, line);
        command->callback([&] { code = run(line, subject); });
    }
    try {
        app.parse(count, arguments);
    } catch (CLI::ParseError const& error) {
        return app.exit(error) == 0 ? c_done : c_wrong_usage;
    }
    return code;
}
