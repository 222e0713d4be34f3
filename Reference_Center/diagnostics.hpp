// What the program says beside its results: dated lines on standard error.
#ifndef REFERENCE_CENTER_DIAGNOSTICS_HPP
#define REFERENCE_CENTER_DIAGNOSTICS_HPP

#include <cstdint>
#include <string>
#include <string_view>

namespace Zolt::Reference_Center {

enum class chattiness {
    quiet,   ///< warnings only
    normal,  ///< and what happens to connections
    verbose, ///< and the relay's traces
};

/// Opens the log on standard error.
void start_diagnostics(chattiness level);
void log_event(std::string_view text);
void log_warning(std::string_view text);

/// Lines of the relay that were held back as repetitions.
std::uint64_t count_folded_lines();

/// Brings the relay's own lines into the log for as long as it lives. A line that repeats is folded: the first one is
/// written at once, then one a minute with the number held back; the rest when this is destroyed.
class relay_lines {
public:
    relay_lines();
    ~relay_lines();
    relay_lines(relay_lines const&) = delete;
    relay_lines& operator=(relay_lines const&) = delete;
};

} // namespace Zolt::Reference_Center

#endif
