// Where the demonstration plays: its nodes, what they told, and waiting for something to be true.
#ifndef REFERENCE_CENTER_DEMO_STAGE_HPP
#define REFERENCE_CENTER_DEMO_STAGE_HPP

#include "Reference_Center/demo_process.hpp"
#include "Reference_Center/demo_view.hpp"
#include "Reference_Center/stop_signals.hpp"

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Zolt::Reference_Center {

/// What a node told of a connection.
struct link_event {
    bool connected;
    std::string peer; ///< IP:PORT
    std::string over; ///< accepted or outgoing
    std::chrono::steady_clock::time_point at;
};

class stage_node {
public:
    explicit stage_node(node_start const& how) : start(how) { begin(); }

    /// A process without a past.
    void begin();
    /// Takes in what the process said. Throws failure when it has ended by itself.
    void look(bool has_output, bool has_errors);
    /// Ends the process by force; that it ends is in order then.
    void kill();

    node_start start;
    std::unique_ptr<node_process> process;
    bool ready = false;
    bool ended = false;
    std::string condition;
    json_object state = json_object::object();
    json_object done;    ///< of the last task; null until it is finished
    json_object stopped; ///< its last word; null until then
    std::vector<link_event> events;

    /// True when it told its sum, the sum balances, and its exit code is 0. Waits for its end when that has begun.
    bool has_stopped_well();
    /// The last line of its standard error.
    std::string last_word() const;

    /// Connections of that way that stand.
    std::size_t count_links(std::string const& over) const;
    /// Connections that peers have opened so far, the ended ones included.
    std::size_t count_accepted() const;
    /// The connection that a peer opened last.
    std::string newest_accepted() const;
    /// When the connection to that peer ended; nothing while it stands.
    std::optional<std::chrono::steady_clock::time_point> end_of(std::string const& peer) const;
    /// A figure of its state, by JSON pointer; 0 until it was told.
    std::uint64_t figure(char const* pointer) const;
    std::string text(char const* pointer) const;
    void command(json_object const& what);

private:
    void take(json_object const& line);
};

class demo_stage {
public:
    demo_stage(demo_view& view, blocked_signals const& signals, std::chrono::steady_clock::time_point deadline);

    stage_node& add(node_start const& start);
    stage_node& node(std::string const& name) { return *nodes.at(name); }

    /// Lets time pass until the condition is true; false when that takes longer, or the stage's deadline comes first.
    /// Throws failure when a signal asks to stop, or a node ends that should not.
    bool wait(std::chrono::milliseconds longest, std::function<bool()> const& condition);
    /// Gives a task and waits until it is finished.
    bool perform(stage_node& who, json_object const& task, std::chrono::milliseconds longest);

private:
    void pump(std::chrono::milliseconds longest);
    void show();

    demo_view& view;
    blocked_signals const& signals;
    std::chrono::steady_clock::time_point const deadline;
    std::map<std::string, std::unique_ptr<stage_node>> nodes;
};

} // namespace Zolt::Reference_Center

#endif
