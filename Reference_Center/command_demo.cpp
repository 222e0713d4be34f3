// zolt-center demo: a story with several nodes that shows and checks what the relay does.
#include "Reference_Center/addresses.hpp"
#include "Reference_Center/configuration.hpp"
#include "Reference_Center/demo_story.hpp"
#include "Reference_Center/environment.hpp"
#include "Reference_Center/error_description.hpp"
#include "Reference_Center/options.hpp"
#include "Reference_Center/port_holder.hpp"
#include "Reference_Center/private_networks.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <fmt/format.h>
#include <memory>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace Zolt::Reference_Center {
namespace {

using std::chrono::steady_clock;

constexpr std::array<cable_end, 2> c_demo_ends{cable_end{"alpha", "10.77.0.1"}, cable_end{"beta", "10.77.0.2"}};
constexpr std::uint16_t c_port = 7000;
constexpr std::size_t c_written_at_once = 1U << 20;
constexpr std::uint64_t c_largest_file = 1U << 30;

enum class story_part { all, udp, tcp };

struct demo_options {
    story_part part = story_part::all;
    std::string file;
    std::string configuration = "/dev/null";
    std::uint64_t udp_bytes = 8U << 20;
    std::uint64_t tcp_bytes = 64U << 20;
    unsigned int drop_percent = 0;
    double seconds = 60;
    bool loopback = false;
    bool quiet = false;
    bool json = false;
};

// --- the file that travels -------------------------------------------------------------------------------------

[[noreturn]] void fail_with_errno(std::string const& what) {
    throw failure(exit_code::failed, fmt::format("{}: {}", what, describe_error(errno)));
}

/// Bytes without a pattern, the same in every run.
std::vector<std::uint64_t> make_noise(std::uint64_t& state) {
    std::vector<std::uint64_t> words(c_written_at_once / sizeof(std::uint64_t));
    for (std::uint64_t& word : words) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        word = state;
    }
    return words;
}

/// A file that has no name any more when this returns, so that nothing has to be cleaned up.
int make_file(std::uint64_t size) {
    std::string const folder = read_variable("TMPDIR");
    std::string name = (folder.empty() ? "/tmp" : folder) + "/zolt-center-demo-XXXXXX";
    int const fd = ::mkostemp(name.data(), O_CLOEXEC);
    if (fd == -1) {
        fail_with_errno("cannot make a temporary file " + name);
    }
    ::unlink(name.c_str());
    std::uint64_t state = 0x9E3779B97F4A7C15U;
    for (std::uint64_t done = 0; done < size;) {
        auto const noise = make_noise(state);
        ssize_t const written = ::write(fd, noise.data(), std::min<std::uint64_t>(c_written_at_once, size - done));
        if (written <= 0) {
            fail_with_errno("cannot write the temporary file");
        }
        done += static_cast<std::uint64_t>(written);
    }
    return fd;
}

/// The user's file, or one made for the occasion. What is sent of it is cut to its size.
int open_file(demo_options& options) {
    if (options.file.empty()) {
        return make_file(std::max(options.udp_bytes, options.tcp_bytes));
    }
    int const fd = ::open(options.file.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat info {};
    if (fd == -1 || ::fstat(fd, &info) != 0) {
        fail_with_errno("cannot read " + options.file);
    }
    auto const size = static_cast<std::uint64_t>(info.st_size);
    if (!S_ISREG(info.st_mode) || size == 0 || size > c_largest_file) {
        throw failure(exit_code::wrong_usage, options.file + " is no file of 1 byte to 1 GiB");
    }
    options.udp_bytes = size;
    options.tcp_bytes = size;
    return fd;
}

// --- where it plays --------------------------------------------------------------------------------------------

/// Networks when they are wanted and allowed; why not, if not.
std::unique_ptr<private_networks> make_networks(demo_options const& options, std::string& why_not) {
    why_not = options.loopback ? "--loopback was given" : why_no_private_networks(c_demo_ends);
    std::unique_ptr<private_networks> networks;
    if (why_not.empty()) {
        networks = std::make_unique<private_networks>(c_demo_ends);
    }
    return networks;
}

story_plan make_plan(demo_options const& options, private_networks const* networks) {
    story_plan plan;
    plan.plays_tcp = options.part != story_part::udp;
    plan.plays_udp = options.part != story_part::tcp && networks != nullptr;
    plan.udp_bytes = options.udp_bytes;
    plan.tcp_bytes = options.tcp_bytes;
    plan.drop_percent = options.drop_percent;
    plan.node_arguments = {"--quiet", "--config", options.configuration};
    if (networks != nullptr) {
        plan.networks[0] = networks->network(0);
        plan.networks[1] = networks->network(1);
        plan.alpha = {*parse_ip(c_demo_ends[0].address), c_port};
        plan.beta = {*parse_ip(c_demo_ends[1].address), c_port};
    } else {
        plan.alpha = {c_local_host, find_free_port(0)};
        plan.beta = {c_local_host, find_free_port(plan.alpha.port)};
    }
    return plan;
}

// --- the verdict -----------------------------------------------------------------------------------------------

json_object to_json(step_result const& step) {
    return {{"name", step.name},
            {"passed", step.passed},
            {"seconds", step.seconds},
            {"text", step.text},
            {"figures", step.figures}};
}

/// Ended early: why the story did not come to its end; null when it did.
int tell_verdict(demo_options const& options, demo_story const& story, bool with_networks, double seconds,
                 failure const* ended_early) {
    auto const& steps = story.results();
    auto const passed = std::count_if(steps.begin(), steps.end(), [](step_result const& step) { return step.passed; });
    bool const all = ended_early == nullptr && static_cast<std::size_t>(passed) == steps.size();
    if (options.json) {
        json_object object{{"passed", all}, {"seconds", seconds}, {"networks", with_networks}};
        if (ended_early != nullptr) {
            object["error"] = {{"code", static_cast<int>(ended_early->code())}, {"text", ended_early->what()}};
        }
        for (step_result const& step : steps) {
            object["steps"].push_back(to_json(step));
        }
        write_out_object(object);
    } else {
        write_out_line(fmt::format("{}: {} of {} steps passed in {:.1f} s", all ? "passed" : "FAILED", passed,
                                   steps.size(), seconds));
    }
    if (ended_early != nullptr) {
        if (!options.json) {
            report_failure(*ended_early, false);
        }
        return static_cast<int>(ended_early->code());
    }
    return static_cast<int>(all ? exit_code::done : exit_code::check_failed);
}

int run_demo(demo_options options) {
    use_configuration(options.configuration);
    auto const begin = steady_clock::now();
    std::string why_not;
    auto const networks = make_networks(options, why_not);
    if (networks == nullptr && options.part == story_part::udp) {
        throw failure(exit_code::skipped,
                      "two nodes on one machine cannot share a UDP port, and two networks are not to be had: " +
                          why_not);
    }
    if (networks == nullptr && options.part == story_part::all) {
        write_error_line(
            "zolt-center: only the TCP part is played, on the loopback interface; two networks are not to be had: " +
            why_not);
    }
    blocked_signals const signals;
    demo_view view(options.quiet, options.json);
    int const file = open_file(options);
    story_plan plan = make_plan(options, networks.get());
    plan.file = file;
    demo_stage stage(view, signals, begin + to_milliseconds(options.seconds));
    demo_story story(plan, stage, view);
    std::optional<failure> ended_early;
    try {
        story.play();
    } catch (failure const& reason) {
        ended_early = reason;
    }
    ::close(file);
    view.erase();
    return tell_verdict(options, story, networks != nullptr,
                        std::chrono::duration<double>(steady_clock::now() - begin).count(),
                        ended_early ? &*ended_early : nullptr);
}

} // namespace

void add_demo_command(CLI::App& app, action& chosen) {
    CLI::App& command = *app.add_subcommand("demo", "Show and check what the relay does, with several nodes");
    auto const options = std::make_shared<demo_options>();
    command.add_option("--part", options->part, "Which part of it")
        ->transform(CLI::CheckedTransformer(std::map<std::string, story_part>{{"all", story_part::all},
                                                                              {"udp", story_part::udp},
                                                                              {"tcp", story_part::tcp}})
                        .description(""))
        ->type_name("all|udp|tcp")
        ->default_str("all");
    command.add_option("--file", options->file, "Send this file instead of a generated one")->type_name("FILE");
    command.add_option("--udp-size", options->udp_bytes, "Bytes of the generated file that travel over UDP")
        ->transform(size_value())
        ->check(CLI::Range(std::uint64_t{1}, c_largest_file).description(""))
        ->type_name("BYTES")
        ->default_str("8M");
    command.add_option("--tcp-size", options->tcp_bytes, "Bytes of the generated file that travel over TCP")
        ->transform(size_value())
        ->check(CLI::Range(std::uint64_t{1}, c_largest_file).description(""))
        ->type_name("BYTES")
        ->default_str("64M");
    command
        .add_option("--drop", options->drop_percent,
                    "Throw away that many of a hundred chunks over UDP, as a bad network would")
        ->check(CLI::Range(0U, 50U).description(""))
        ->type_name("PERCENT")
        ->capture_default_str();
    command.add_option("--seconds", options->seconds, "How long the whole may take")
        ->check(seconds_check(1))
        ->type_name("SECONDS")
        ->capture_default_str();
    command
        .add_option("--config", options->configuration,
                    "Configuration of the nodes' relays; built-in values without it")
        ->type_name("FILE");
    command.add_flag("--loopback", options->loopback, "Do without networks of its own; then there is no UDP part");
    command.add_flag("-q,--quiet", options->quiet, "Print no progress");
    add_json_option(command, options->json, "Print the result as one JSON object");
    command.footer(
        "The nodes live in two private networks that vanish with them. Where these are not allowed it says so and\n"
        "plays the TCP part on the loopback interface. Exit code 0 when every step passed, 6 when one failed, 77\n"
        "when nothing could be played.");
    command.callback([options, &chosen] { chosen = [options] { return run_demo(*options); }; });
}

} // namespace Zolt::Reference_Center
