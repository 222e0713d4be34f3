// The handle of a traffic node: starts it, gives it commands, reads what it answers, ends it.
#ifndef TESTS_RACE_TRAFFIC_NODE_PROCESS_HPP
#define TESTS_RACE_TRAFFIC_NODE_PROCESS_HPP

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace traffic {

/// What a node has answered; see traffic_node.cpp.
struct node_answer {
    /// Sender and flow, and the ranges in their order.
    using ranges = std::map<std::pair<int, int>, std::vector<std::pair<std::uint32_t, std::uint32_t>>>;

    std::map<std::string, std::uint64_t> figures;
    std::map<std::string, std::uint64_t> printed; ///< how often each text
    ranges under_way;                             ///< handed over to connections that are open: the head, and the last
    ranges returned;
    ranges received;
    std::vector<std::string> faults;
};

/// All waits give up after twenty seconds and report a failure.
class node_process {
public:
    explicit node_process(std::uint16_t sender);
    /// Ends its input, and after a while the process.
    ~node_process();
    node_process(node_process const&) = delete;
    node_process& operator=(node_process const&) = delete;

    std::uint16_t port() const { return served; }
    node_answer ask(std::string const& command);
    node_answer ask(std::string const& command, std::uint16_t port) {
        return ask(command + " " + std::to_string(port));
    }
    /// Ends the node and waits for it: its exit code, or 128 and the signal's number.
    int finish();

private:
    /// The next line of its standard output; empty at the end or the deadline.
    std::string read_line();

    ::pid_t pid = -1;
    int to = -1;
    int from = -1;
    std::string unread;
    std::uint16_t served = 0;
};

} // namespace traffic

#endif
