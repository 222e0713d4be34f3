// The ledger of every text of the relay: tests/ledger/texts.txt.
// One text a line: an id, a tab, the text. \n stands for a line feed, \s for a space (at the end of a line, where editors
// like to remove it), \\ for a backslash; lines that begin with # and empty lines are comments.
#ifndef TESTS_SUPPORT_TEXTS_HPP
#define TESTS_SUPPORT_TEXTS_HPP

#include <map>
#include <string>

namespace relay_test {

/// All texts by id. Throws std::runtime_error for a missing file, a line without a tab, an id given twice.
std::map<std::string, std::string> const& all_texts();
/// Reads a ledger from its content; the same errors.
std::map<std::string, std::string> parse_texts(std::string const& content);
/// The text with that id. Throws std::runtime_error when there is none.
std::string const& text(std::string const& id);

} // namespace relay_test

#endif
