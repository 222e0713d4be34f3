// The table of messages.txt: what each printed text and each code means. Any thread.
#ifndef REFERENCE_CENTER_MESSAGE_TABLE_HPP
#define REFERENCE_CENTER_MESSAGE_TABLE_HPP

#include <string_view>
#include <vector>

namespace Zolt::Reference_Center {

struct message_sentences {
    std::string_view meaning;
    std::string_view cause;
    std::string_view next;
};

/// A text as it is printed; {name} stands for what is filled in.
struct message_text {
    std::string_view text;
    bool is_whole_line = false; ///< nothing else may stand in the line
};

struct message_entry {
    std::string_view code;
    std::vector<message_text> texts;
    message_sentences english;
    message_sentences korean;
};

struct message_group {
    std::string_view name;
    std::string_view english;
    std::string_view korean;
    std::vector<message_entry> entries;
};

/// Throws std::logic_error when a line of the table is not understood, or an entry has not all of its sentences.
std::vector<message_group> parse_message_table(std::string_view table);
/// The program's own table, parsed once.
std::vector<message_group> const& message_groups();

} // namespace Zolt::Reference_Center

#endif
