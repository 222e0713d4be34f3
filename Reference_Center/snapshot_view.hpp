// A running Center's figures as lines of text for people.
#ifndef REFERENCE_CENTER_SNAPSHOT_VIEW_HPP
#define REFERENCE_CENTER_SNAPSHOT_VIEW_HPP

#include "Reference_Center/output.hpp"

#include <string>
#include <vector>

namespace Zolt::Reference_Center {

enum class look { plain, heading, bad };

struct view_line {
    std::string text; ///< printable ASCII
    look as = look::plain;
};

/// Of a snapshot that take_snapshot gave; peers with the most traffic come first. Throws failure when a figure is not there.
std::vector<view_line> snapshot_lines(json_object const& snapshot);
/// The same, ended line by line.
std::string snapshot_text(json_object const& snapshot);

} // namespace Zolt::Reference_Center

#endif
