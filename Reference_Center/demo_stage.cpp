#include "Reference_Center/demo_stage.hpp"

#include <algorithm>
#include <csignal>
#include <fmt/format.h>
#include <poll.h>

namespace Zolt::Reference_Center {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds c_longest_pump{50};
constexpr char c_killed[] = "killed";

bool is_acceptance(link_event const& event) {
    return event.connected && event.over == "accepted";
}

} // namespace

// --- a node ----------------------------------------------------------------------------------------------------

void stage_node::begin() {
    process = nullptr;
    ready = false;
    ended = false;
    condition = "starting";
    state = json_object::object();
    done = nullptr;
    stopped = nullptr;
    events.clear();
    process = std::make_unique<node_process>(start);
}

void stage_node::look(bool has_output, bool has_errors) {
    if (has_errors) {
        process->read_errors();
    }
    if (!has_output) {
        return;
    }
    ended = !process->read_output();
    while (auto const line = process->next_line()) {
        take(json_object::parse(*line));
    }
    if (ended && stopped.is_null() && condition != c_killed) {
        process->read_errors();
        throw failure(exit_code::check_failed, fmt::format("node {} ended by itself: {}", start.name, last_word()));
    }
}

bool stage_node::has_stopped_well() {
    return ended && !stopped.is_null() && process->wait() == 0 && stopped.at("packets").at("balances").get<bool>();
}

std::string stage_node::last_word() const {
    auto const& words = process->last_words();
    return words.empty() ? "without a word" : words.back();
}

void stage_node::kill() {
    condition = c_killed;
    process->signal(SIGKILL);
}

void stage_node::take(json_object const& line) {
    std::string const event = line.at("event").get<std::string>();
    if (event == "ready") {
        ready = true;
        condition = "running";
    } else if (event == "state") {
        state = line;
    } else if (event == "done") {
        done = line;
    } else if (event == "stopped") {
        stopped = line;
        condition = "stopped";
    } else {
        events.push_back({event == "connected", line.at("peer").get<std::string>(), line.at("over").get<std::string>(),
                          steady_clock::now()});
    }
}

std::size_t stage_node::count_links(std::string const& over) const {
    auto const count = [&](bool connected) {
        return std::count_if(events.begin(), events.end(), [&](link_event const& event) {
            return event.over == over && event.connected == connected;
        });
    };
    return static_cast<std::size_t>(count(true) - count(false));
}

std::size_t stage_node::count_accepted() const {
    return static_cast<std::size_t>(std::count_if(events.begin(), events.end(), is_acceptance));
}

std::string stage_node::newest_accepted() const {
    auto const newest = std::find_if(events.rbegin(), events.rend(), is_acceptance);
    return newest != events.rend() ? newest->peer : "";
}

std::optional<steady_clock::time_point> stage_node::end_of(std::string const& peer) const {
    auto const last =
        std::find_if(events.rbegin(), events.rend(), [&](link_event const& event) { return event.peer == peer; });
    return last != events.rend() && !last->connected ? std::optional(last->at) : std::nullopt;
}

std::uint64_t stage_node::figure(char const* pointer) const {
    json_object::json_pointer const where(pointer);
    return state.contains(where) ? state.at(where).get<std::uint64_t>() : 0;
}

std::string stage_node::text(char const* pointer) const {
    json_object::json_pointer const where(pointer);
    return state.contains(where) ? state.at(where).get<std::string>() : "";
}

void stage_node::command(json_object const& what) {
    process->write_command(what);
}

// --- the stage -------------------------------------------------------------------------------------------------

demo_stage::demo_stage(demo_view& shown, blocked_signals const& watched, steady_clock::time_point end)
    : view(shown), signals(watched), deadline(end) {}

stage_node& demo_stage::add(node_start const& start) {
    return *(nodes[start.name] = std::make_unique<stage_node>(start));
}

bool demo_stage::wait(milliseconds longest, std::function<bool()> const& condition) {
    auto const end = std::min(deadline, steady_clock::now() + longest);
    while (!condition()) {
        auto const left = std::chrono::ceil<milliseconds>(end - steady_clock::now());
        if (left.count() <= 0) {
            return false;
        }
        pump(std::min(left, c_longest_pump));
        show();
    }
    return true;
}

bool demo_stage::perform(stage_node& who, json_object const& task, milliseconds longest) {
    who.done = nullptr;
    who.command(task);
    return wait(longest, [&] { return !who.done.is_null(); });
}

void demo_stage::pump(milliseconds longest) {
    std::vector<pollfd> waited{{signals.descriptor(), POLLIN, 0}};
    std::vector<stage_node*> asked;
    for (auto const& [name, node] : nodes) {
        if (!node->ended) {
            waited.push_back({node->process->output(), POLLIN, 0});
            waited.push_back({node->process->errors(), POLLIN, 0});
            asked.push_back(node.get());
        }
    }
    ::poll(waited.data(), waited.size(), static_cast<int>(longest.count()));
    if (signals.take()) {
        throw failure(exit_code::interrupted, "interrupted");
    }
    for (std::size_t i = 0; i < asked.size(); ++i) {
        asked[i]->look(waited[2 * i + 1].revents != 0, waited[2 * i + 2].revents != 0);
    }
}

void demo_stage::show() {
    std::map<std::string, node_picture> pictures;
    for (auto const& [name, node] : nodes) {
        pictures[name] = {node->condition,           node->figure("/links"),
                          node->figure("/tcp_in/1"), node->figure("/tcp_out/1"),
                          node->figure("/udp_in/0"), node->figure("/udp_out/0"),
                          node->figure("/queued")};
    }
    view.show(pictures);
}

} // namespace Zolt::Reference_Center
