// The connections that ended last, and the attempts that led to none. Any thread.
#ifndef REFERENCE_CENTER_CLOSED_CONNECTIONS_HPP
#define REFERENCE_CENTER_CLOSED_CONNECTIONS_HPP

#include "Reference_Center/node_report.hpp"

#include <cstddef>
#include <deque>
#include <mutex>
#include <vector>

namespace Zolt::Reference_Center {

/// Milliseconds since 1970.
std::int64_t unix_ms_now();

class closed_connections {
public:
    static constexpr std::size_t c_most = 1000;

    /// Now. A failed attempt that is like the newest entry of its address is counted there: of a destination that was
    /// told last for the same reason, and of a node whose accepted connections never came about.
    void add(closed_report report);
    /// Newest first.
    std::vector<closed_report> take() const;
    /// All since the start.
    close_counts count() const;

private:
    mutable std::mutex lock;
    std::deque<closed_report> entries; ///< newest first
    close_counts counts{};
};

} // namespace Zolt::Reference_Center

#endif
