// How the program ends.
#ifndef REFERENCE_CENTER_FAILURE_HPP
#define REFERENCE_CENTER_FAILURE_HPP

#include "Reference_Center/error_description.hpp"

#include <cerrno>
#include <stdexcept>
#include <string>

namespace Zolt::Reference_Center {

/// The program's exit codes; scripts rely on the numbers.
enum class exit_code : int {
    done = 0,
    failed = 1,            ///< while running
    wrong_usage = 2,       ///< of the command line
    bad_configuration = 3, ///< a configuration file that cannot be read or understood
    port_unavailable = 4,  ///< taken, or not permitted
    unreachable = 5,       ///< a peer did not answer
    check_failed = 6,      ///< what was checked is not as it should be
    skipped = 77,          ///< nothing of it can run here
    interrupted = 130,     ///< by a signal, with a partial result
};

/// Ends a command: the text is the one line that the user gets to read.
class failure : public std::runtime_error {
public:
    failure(exit_code code, std::string const& text) : std::runtime_error(text), ending(code) {}
    exit_code code() const { return ending; }

private:
    exit_code ending;
};

/// The descriptor that a system call answered; throws failure when it is -1, by errno.
inline int checked(int descriptor, char const* what) {
    if (descriptor == -1) {
        throw failure(exit_code::failed, std::string(what) + ": " + describe_error(errno));
    }
    return descriptor;
}

} // namespace Zolt::Reference_Center

#endif
