// What in a configuration file does not mean what it seems to mean.
#ifndef REFERENCE_CENTER_CONFIGURATION_CHECK_HPP
#define REFERENCE_CENTER_CONFIGURATION_CHECK_HPP

#include <string>
#include <string_view>
#include <vector>

namespace Zolt::Reference_Center {

enum class severity {
    warning, ///< the relay does what is written, or all that can be done of it
    error,   ///< the relay reads something else than what is written
};

char const* severity_text(severity weight);

struct finding {
    int line = 0; ///< from 1
    severity weight = severity::error;
    std::string_view code; ///< stays the same from version to version
    std::string reason;
    std::string advice;
};

/// Findings in the order of their lines. The cap is what the kernel makes of a larger backlog (net.core.somaxconn).
std::vector<finding> check_configuration(std::string_view text, int backlog_cap);

/// net.core.somaxconn of this machine, or the largest int when it does not tell.
int read_backlog_cap();

} // namespace Zolt::Reference_Center

#endif
