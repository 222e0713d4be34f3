// Completion scripts for shells, made from the command line's own description.
#ifndef REFERENCE_CENTER_COMPLETION_HPP
#define REFERENCE_CENTER_COMPLETION_HPP

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace Zolt::Reference_Center {

struct completed_option {
    std::vector<std::string> names; ///< with their dashes; none of a positional
    std::string help;
    bool takes_value = false;
    bool takes_file = false;
    std::vector<std::string> choices; ///< of the value, where they are few
};

struct completed_command {
    std::string path; ///< "zolt-center config check"
    std::string help;
    std::vector<completed_option> options;
    std::vector<completed_command> commands;
};

/// What help shows of the command and of those below it, top down. An option's value is a file when it is called FILE, and one
/// of a few words when it is called by them, as in "raw|hex".
completed_command describe_commands(CLI::App const& app);

std::string bash_script(completed_command const& program);
std::string zsh_script(completed_command const& program);
std::string fish_script(completed_command const& program);

} // namespace Zolt::Reference_Center

#endif
