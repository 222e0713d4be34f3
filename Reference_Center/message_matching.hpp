// Which message of the table a line is.
#ifndef REFERENCE_CENTER_MESSAGE_MATCHING_HPP
#define REFERENCE_CENTER_MESSAGE_MATCHING_HPP

#include "Reference_Center/message_table.hpp"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Zolt::Reference_Center {

struct explanation {
    message_group const* group = nullptr;
    message_entry const* entry = nullptr;
    std::string_view text;    ///< of the table, that the line is like
    std::optional<int> error; ///< the system's error number in the line
};

/// The message that fits best, then those that are named within it; none when nothing is known of the line. What a log puts
/// in front of a line and behind it does not count, nor does letter case.
std::vector<explanation> explain_line(std::string_view line);

} // namespace Zolt::Reference_Center

#endif
