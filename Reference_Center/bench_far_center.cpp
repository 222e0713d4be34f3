#include "Reference_Center/bench_far_center.hpp"

#include <array>
#include <csignal>
#include <fmt/format.h>
#include <poll.h>

namespace Zolt::Reference_Center {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds c_longest_wait{50};
constexpr std::chrono::seconds c_start_time{20};
constexpr std::chrono::seconds c_stop_time{20};

node_start start_of(std::vector<std::string> const& arguments, int network) {
    node_start start;
    start.name = "far";
    start.arguments = {"--echo", "--json", "--quiet", "--admin", "none"};
    start.arguments.insert(start.arguments.end(), arguments.begin(), arguments.end());
    start.network = network;
    start.command = "run";
    return start;
}

} // namespace

far_center::far_center(std::vector<std::string> const& arguments, int network, stop_signals const& signals)
    : process(start_of(arguments, network)) {
    if (!wait_for("ready", steady_clock::now() + c_start_time, &signals).is_null()) {
        return;
    }
    if (signals.is_requested()) {
        throw failure(exit_code::interrupted, "interrupted before the load began");
    }
    process.signal(SIGKILL);
    int const code = process.wait();
    throw failure(code == static_cast<int>(exit_code::port_unavailable) ? exit_code::port_unavailable
                                                                        : exit_code::failed,
                  "the Center of its own did not start: " + last_word());
}

void far_center::look() {
    std::array<pollfd, 2> waited{{{process.output(), POLLIN, 0}, {process.errors(), POLLIN, 0}}};
    if (::poll(waited.data(), waited.size(), 0) > 0) {
        take(waited[0].revents != 0, waited[1].revents != 0);
    }
    // What it tells of connections is of no use here.
    while (process.next_line()) {
    }
    if (ended) {
        throw failure(exit_code::failed, "the Center of its own has ended: " + last_word());
    }
}

std::optional<std::uint64_t> far_center::stop() {
    process.signal(SIGTERM);
    json_object const sum = wait_for("stopped", steady_clock::now() + c_stop_time, nullptr);
    if (sum.is_null()) {
        process.signal(SIGKILL);
    }
    bool const in_order = process.wait() == static_cast<int>(exit_code::done);
    return in_order && !sum.is_null() ? std::optional(sum.at("arrived").get<std::uint64_t>()) : std::nullopt;
}

json_object far_center::wait_for(char const* event, steady_clock::time_point deadline, stop_signals const* signals) {
    while (!ended && steady_clock::now() < deadline && (signals == nullptr || !signals->is_requested())) {
        std::array<pollfd, 2> waited{{{process.output(), POLLIN, 0}, {process.errors(), POLLIN, 0}}};
        ::poll(waited.data(), waited.size(), static_cast<int>(c_longest_wait.count()));
        take(waited[0].revents != 0, waited[1].revents != 0);
        while (auto const line = process.next_line()) {
            json_object told = json_object::parse(*line);
            if (told.contains("error")) {
                complaint = told["error"].value("text", "");
            }
            if (told.value("event", "") == event) {
                return told;
            }
        }
    }
    return nullptr;
}

void far_center::take(bool has_output, bool has_errors) {
    if (has_errors) {
        process.read_errors();
    }
    if (has_output && !process.read_output()) {
        ended = true;
    }
}

std::string far_center::last_word() const {
    if (!complaint.empty() || process.last_words().empty()) {
        return complaint.empty() ? "it says nothing" : complaint;
    }
    return process.last_words().back();
}

} // namespace Zolt::Reference_Center
