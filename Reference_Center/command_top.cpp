// zolt-center top: the figures of a running Center, again and again.
#include "Reference_Center/admin_client.hpp"
#include "Reference_Center/live_screen.hpp"
#include "Reference_Center/options.hpp"
#include "Reference_Center/snapshot_view.hpp"
#include "Reference_Center/stop_signals.hpp"

#include <chrono>
#include <memory>
#include <optional>
#include <poll.h>
#include <unistd.h>

namespace Zolt::Reference_Center {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

struct top_options {
    std::string admin;
    std::uint64_t count = 0; ///< 0: without an end
    double interval = 1;
    bool json = false;
};

/// Waits for a signal until then. True when there was one.
bool wait_for_signal(blocked_signals const& signals, steady_clock::time_point until) {
    pollfd waited{signals.descriptor(), POLLIN, 0};
    auto const left = std::chrono::ceil<milliseconds>(until - steady_clock::now()).count();
    return ::poll(&waited, 1, left > 0 ? static_cast<int>(left) : 0) == 1;
}

class watcher {
public:
    explicit watcher(top_options const& given) : options(given) {}

    /// One snapshot after the other; the first one that fails is the end.
    int print() const {
        for (std::uint64_t shown = 1;; ++shown) {
            auto const next = steady_clock::now() + to_milliseconds(options.interval);
            json_object const snapshot = take_snapshot(options.admin);
            write_out(options.json ? to_line(snapshot) : snapshot_text(snapshot) + "\n");
            if (shown == options.count) {
                return static_cast<int>(exit_code::done);
            }
            if (wait_for_signal(signals, next)) {
                return static_cast<int>(exit_code::interrupted);
            }
        }
    }

    /// On a screen. A Center that was there and does not answer any more may come back.
    int watch() const {
        json_object snapshot = take_snapshot(options.admin);
        live_screen screen(signals.descriptor());
        std::vector<view_line> lines = snapshot_lines(snapshot);
        for (std::uint64_t shown = 1;; ++shown) {
            screen.draw(lines);
            if (shown == options.count) {
                return static_cast<int>(exit_code::done);
            }
            if (auto const end = screen.wait(to_milliseconds(options.interval))) {
                return static_cast<int>(*end);
            }
            lines = take_lines(snapshot);
        }
    }

private:
    /// The newest figures, or the last ones under the reason why there are none.
    std::vector<view_line> take_lines(json_object& snapshot) const {
        try {
            snapshot = take_snapshot(options.admin);
            return snapshot_lines(snapshot);
        } catch (failure const& reason) {
            std::vector<view_line> lines = snapshot_lines(snapshot);
            lines.insert(lines.begin(), {reason.what(), look::bad});
            return lines;
        }
    }

    top_options const& options;
    blocked_signals const signals;
};

int run_top(top_options const& options) {
    watcher const watching(options);
    return !options.json && is_terminal(STDOUT_FILENO) ? watching.watch() : watching.print();
}

} // namespace

void add_top_command(CLI::App& app, action& chosen) {
    CLI::App& command = *app.add_subcommand("top", "Show the figures of a running Center again and again");
    auto const options = std::make_shared<top_options>();
    add_asked_admin_option(command, options->admin);
    command.add_option("--interval", options->interval, "Pause between two looks")
        ->check(seconds_check(0.1))
        ->type_name("SECONDS")
        ->capture_default_str();
    command.add_option("--count", options->count, "End after so many looks")
        ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1000000000}).description(""))
        ->type_name("NUMBER");
    add_json_option(command, options->json, "Print one JSON object a line");
    command.footer("On a terminal the figures are drawn in place; q ends it, and so does Ctrl-C with exit code 130.\n"
                   "Elsewhere each look is printed below the last one. Exit code 5 when no Center answers.\n\n"
                   "  zolt-center top --interval 5 --json >> figures.jsonl");
    command.callback([options, &chosen] { chosen = [options] { return run_top(*options); }; });
}

} // namespace Zolt::Reference_Center
