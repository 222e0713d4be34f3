// The configuration file's dialect. Any thread; no lock; nothing here throws but for lack of memory.
//
//   [section]            a key belongs to the section above it, or to the section "" at the top
//   key = value          blanks around key and value do not count; quotes (") around a value are taken off
//   ; text   # text      a comment: at the start of a line, or after a blank behind a value without quotes
//
// Section and key names: letter case of ASCII does not count. Of a key given twice the last one counts.
// Lines end with LF, CRLF or the file's end, and may be of any length; a UTF-8 byte order mark is skipped.
#ifndef REFERENCE_HOST_INI_FILE_HPP
#define REFERENCE_HOST_INI_FILE_HPP

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Zolt::Reference_Host {

/// One line that gives a key a value.
struct ini_entry {
    std::string section; ///< letter case as in the file
    std::string key;     ///< letter case as in the file
    std::string value;   ///< letter case as in the file
    int line = 0;        ///< from 1
};

/// A line that means nothing; reading goes on behind it.
struct ini_fault {
    int line = 0;       ///< from 1
    std::string reason; ///< one sentence without an end of line
};

/// What was read.
struct ini_content {
    std::vector<ini_entry> entries; ///< in the file's order, duplicates included
    std::vector<ini_fault> faults;  ///< in the file's order
    int error = 0;                  ///< errno of the file that could not be read; then there are no entries
};

/// Reads a text that is in memory.
ini_content parse_ini(std::string_view text);
/// The file's bytes as they stand there; 0, or errno. Files above 1 MiB are refused with EFBIG.
int read_ini_text(char const* path, std::string& text);
/// Both together.
ini_content read_ini_file(char const* path);
/// The entry that counts, or null.
ini_entry const* find_entry(ini_content const& content, std::string_view section, std::string_view key);
/// A decimal integer with an optional sign and nothing else, in the range of int; otherwise nothing.
std::optional<int> parse_integer(std::string_view text);
/// ASCII letters in lower case, all other bytes as they are.
std::string to_lower(std::string_view text);

/// From now on the two reading operations of Tesk::Utility read that file, whichever they are asked for; with an empty path
/// the one they are asked for. No other thread may read or redirect meanwhile.
void redirect_ini_files(std::string path);

} // namespace Zolt::Reference_Host

#endif
