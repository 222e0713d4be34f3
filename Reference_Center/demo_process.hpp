// A node's process, as the demonstration sees it.
#ifndef REFERENCE_CENTER_DEMO_PROCESS_HPP
#define REFERENCE_CENTER_DEMO_PROCESS_HPP

#include "Reference_Center/output.hpp"

#include <deque>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace Zolt::Reference_Center {

/// How a node is started.
struct node_start {
    std::string name;
    std::vector<std::string> arguments; ///< behind the command
    int network = -1;                   ///< for setns; -1: the one of this process
    int kept_descriptor = -1;           ///< open in the node under the same number
    std::string command = "demo-node";
};

/// Started by the constructor, killed by the destructor, and by the kernel when this process ends.
class node_process {
public:
    /// Throws failure.
    explicit node_process(node_start const& start);
    ~node_process();
    node_process(node_process const&) = delete;
    node_process& operator=(node_process const&) = delete;

    /// One command; what goes wrong shows as the node's end.
    void write_command(json_object const& command);
    /// Readable when the node has said something, or has ended.
    int output() const { return output_fd; }
    int errors() const { return error_fd; }

    /// Reads what is there; false when the node has closed it.
    bool read_output();
    bool read_errors();
    /// A complete line of output that was read.
    std::optional<std::string> next_line();
    /// The last lines of its standard error.
    std::deque<std::string> const& last_words() const { return words; }

    void signal(int number) const;
    /// Waits for the node to end; its exit code, or 128 and the number of the signal that ended it.
    int wait();

private:
    pid_t pid = -1;
    int input_fd = -1;
    int output_fd = -1;
    int error_fd = -1;
    std::string output_text;
    std::string error_text;
    std::deque<std::string> words;
};

} // namespace Zolt::Reference_Center

#endif
