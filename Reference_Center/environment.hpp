// The variables of the process's environment.
#ifndef REFERENCE_CENTER_ENVIRONMENT_HPP
#define REFERENCE_CENTER_ENVIRONMENT_HPP

#include <string>

namespace Zolt::Reference_Center {

/// A variable's text; empty when it is not set. Any thread.
std::string read_variable(char const* name);

/// The same, and removes it. Only while the process has one thread: whoever reads the environment meanwhile may crash.
std::string take_variable(char const* name);

} // namespace Zolt::Reference_Center

#endif
