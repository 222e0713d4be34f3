// How the demonstration looks while it runs: a table that is drawn again and again on a terminal, or one plain line a
// second for each node elsewhere. Both go to standard error; results go to standard output.
#ifndef REFERENCE_CENTER_DEMO_VIEW_HPP
#define REFERENCE_CENTER_DEMO_VIEW_HPP

#include <chrono>
#include <cstdint>
#include <map>
#include <string>

namespace Zolt::Reference_Center {

/// What is shown of a node.
struct node_picture {
    std::string condition; ///< running, frozen, ...
    std::uint64_t links = 0;
    std::uint64_t tcp_in = 0; ///< bytes
    std::uint64_t tcp_out = 0;
    std::uint64_t udp_in = 0; ///< packets
    std::uint64_t udp_out = 0;
    std::uint64_t queued = 0;
};

class demo_view {
public:
    /// Quiet: nothing but results. With as_json the result lines are progress too, and go where that goes.
    demo_view(bool quiet, bool as_json);
    ~demo_view();
    demo_view(demo_view const&) = delete;
    demo_view& operator=(demo_view const&) = delete;

    /// Shows the nodes when it is time to.
    void show(std::map<std::string, node_picture> const& nodes);
    /// A result line, above the table.
    void print(std::string const& line);
    /// Takes the table away.
    void erase();

private:
    void mention(std::string const& line);
    void draw(std::map<std::string, node_picture> const& nodes);

    bool const is_quiet;
    bool const results_are_progress;
    bool const is_live;
    std::size_t drawn_lines = 0;
    std::chrono::steady_clock::time_point due{};
    std::chrono::steady_clock::time_point const begin = std::chrono::steady_clock::now();
};

} // namespace Zolt::Reference_Center

#endif
