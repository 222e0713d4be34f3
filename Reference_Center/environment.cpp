#include "Reference_Center/environment.hpp"

#include <cstdlib>

namespace Zolt::Reference_Center {

std::string read_variable(char const* name) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): only take_variable changes the environment, before there are threads
    char const* const value = std::getenv(name);
    return value != nullptr ? value : "";
}

std::string take_variable(char const* name) {
    std::string text = read_variable(name);
    ::unsetenv(name); // NOLINT(concurrency-mt-unsafe): there is one thread
    return text;
}

} // namespace Zolt::Reference_Center
