// The reader of the configuration file, held against what must not change what a text means.

#include "Host/tesk_utility.hpp"
#include "Reference_Host/ini_file.hpp"
#include "tests/fuzz/target.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>
#include <string_view>

namespace {

using namespace Zolt::Reference_Host;

void require(bool condition, char const* reason) {
    if (!condition) {
        std::fprintf(stderr, "%s\n", reason);
        std::abort();
    }
}

bool has_same_meaning(ini_content const& a, ini_content const& b, bool with_lines) {
    return std::equal(a.entries.begin(), a.entries.end(), b.entries.begin(), b.entries.end(),
                      [with_lines](ini_entry const& x, ini_entry const& y) {
                          return x.section == y.section && x.key == y.key && x.value == y.value &&
                                 (!with_lines || x.line == y.line);
                      });
}

std::string replace_all(std::string_view text, std::string_view what, std::string_view by) {
    std::string replaced(text);
    for (std::size_t at = 0; (at = replaced.find(what, at)) != std::string::npos; at += by.size()) {
        replaced.replace(at, what.size(), by);
    }
    return replaced;
}

void check_shape(std::string_view text, ini_content const& content) {
    auto const lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
    int last = 0;
    for (ini_entry const& entry : content.entries) {
        require(entry.line > last && static_cast<std::size_t>(entry.line) <= lines, "an entry stands on no line");
        require(!entry.key.empty() && entry.key.find('\n') == std::string::npos, "a key that no line can have");
        require(text.find(entry.key) != std::string_view::npos, "a key that the text does not have");
        require(text.find(entry.value) != std::string_view::npos, "a value that the text does not have");
        last = entry.line;
    }
    require(content.error == 0, "a text cannot fail to be read");
    require(content.faults.size() <= lines, "more faults than lines");
}

void check_unchanged_by(std::string_view text, ini_content const& content) {
    std::string const whole(text);
    require(has_same_meaning(content, parse_ini(whole + "\n"), true), "a last line feed changes the meaning");
    require(has_same_meaning(content, parse_ini(whole + "\n; k = v\n#k=v\n \t\r\n"), true), "a comment has a meaning");
    require(has_same_meaning(content, parse_ini(replace_all(text, "\n", "\r\n")), true), "CRLF changes the meaning");
    require(has_same_meaning(content, parse_ini(replace_all(text, "\n", "\n\n")), false), "empty lines have a meaning");
    if (!text.starts_with("\xEF\xBB\xBF")) {
        require(has_same_meaning(content, parse_ini("\xEF\xBB\xBF" + whole), true), "a byte order mark has a meaning");
    }
}

/// Written anew in plain form, the entries are read as they were.
void check_round_trip(ini_content const& content) {
    std::string written;
    for (ini_entry const& entry : content.entries) {
        bool const is_quotable = entry.value.find('"') == std::string::npos;
        bool const is_plain = entry.key.front() != '[' && entry.section.find(']') == std::string::npos;
        if (!is_quotable || !is_plain) {
            return;
        }
        written += "[" + entry.section + "]\n" + entry.key + "=\"" + entry.value + "\"\n";
    }
    require(has_same_meaning(content, parse_ini(written), false), "what was read and written is read differently");
}

void check_finding(ini_content const& content) {
    for (ini_entry const& entry : content.entries) {
        ini_entry const* const found = find_entry(content, to_lower(entry.section), to_lower(entry.key));
        require(found != nullptr && found->line >= entry.line, "an entry is not found, or an earlier one is");
        require(to_lower(found->key) == to_lower(entry.key), "another key was found");
        require(to_lower(found->section) == to_lower(entry.section), "a key of another section was found");
    }
}

/// The same question, asked of the C library.
void check_integer(std::string const& text) {
    bool const is_signed = !text.empty() && (text.front() == '+' || text.front() == '-');
    std::string_view const digits = std::string_view(text).substr(is_signed ? 1 : 0);
    bool const is_number =
        !digits.empty() && std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; });
    errno = 0;
    long long const value = std::strtoll(text.c_str(), nullptr, 10);
    bool const fits =
        errno == 0 && value >= std::numeric_limits<int>::min() && value <= std::numeric_limits<int>::max();
    auto const parsed = parse_integer(text);
    require(parsed.has_value() == (is_number && fits), "an integer is taken that is none, or the other way round");
    require(!parsed || *parsed == value, "an integer is read wrongly");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const text(reinterpret_cast<char const*>(data), size);
    ini_content const content = parse_ini(text);
    check_shape(text, content);
    check_unchanged_by(text, content);
    check_round_trip(content);
    check_finding(content);
    for (ini_entry const& entry : content.entries) {
        check_integer(entry.value);
    }
    check_integer(std::string(text));
    return 0;
}
