// docs/messages.md, made from the table of messages.
#ifndef REFERENCE_CENTER_MESSAGE_MARKDOWN_HPP
#define REFERENCE_CENTER_MESSAGE_MARKDOWN_HPP

#include "Reference_Center/message_table.hpp"

#include <string>

namespace Zolt::Reference_Center {

std::string message_page(std::vector<message_group> const& groups);

} // namespace Zolt::Reference_Center

#endif
