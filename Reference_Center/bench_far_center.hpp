// The other end of a load that was given none: a Center of its own in a child process, which sends back what arrives.
#ifndef REFERENCE_CENTER_BENCH_FAR_CENTER_HPP
#define REFERENCE_CENTER_BENCH_FAR_CENTER_HPP

#include "Reference_Center/demo_process.hpp"
#include "Reference_Center/failure.hpp"
#include "Reference_Center/stop_signals.hpp"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Zolt::Reference_Center {

/// Ends with this object at the latest.
class far_center {
public:
    /// Runs when it returns. Arguments: of the command run; network: for setns, or -1. Throws failure, with the code that
    /// the child ended with.
    far_center(std::vector<std::string> const& arguments, int network, stop_signals const& signals);

    /// Takes in what it said. Throws failure when it has ended by itself.
    void look();
    /// Stops it in order: how many packets reached it. Nothing when it does not stop in order.
    std::optional<std::uint64_t> stop();

private:
    /// The next event of that name; null when it ended, or did not come in time.
    json_object wait_for(char const* event, std::chrono::steady_clock::time_point deadline,
                         stop_signals const* signals);
    void take(bool has_output, bool has_errors);
    std::string last_word() const;

    node_process process;
    std::string complaint; ///< the text of an error object
    bool ended = false;
};

} // namespace Zolt::Reference_Center

#endif
