// One node of the demonstration: a Center that takes commands, one JSON object a line, from standard input and tells what
// happens to it, one JSON object a line, on standard output. It ends on the command to stop or at the input's end.
#ifndef REFERENCE_CENTER_DEMO_NODE_HPP
#define REFERENCE_CENTER_DEMO_NODE_HPP

#include "Reference_Center/center.hpp"

namespace Zolt::Reference_Center {

/// The exit code.
int run_demo_node(center_plan const& plan);

} // namespace Zolt::Reference_Center

#endif
