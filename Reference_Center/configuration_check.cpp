#include "Reference_Center/configuration_check.hpp"

#include "Reference_Center/configuration_keys.hpp"
#include "Reference_Center/utf8.hpp"
#include "Reference_Center/word_distance.hpp"
#include "Reference_Host/ini_file.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <fstream>
#include <limits>
#include <optional>

namespace Zolt::Reference_Center {
namespace {

using Reference_Host::ini_content;
using Reference_Host::ini_entry;
using Reference_Host::to_lower;

/// Longer lines are read whole here, but few editors and no other reader are made for them.
constexpr std::size_t c_long_line = 1024;
constexpr std::string_view c_blanks = " \t\r\v\f";
constexpr std::string_view c_utf16_marks[] = {"\xFF\xFE", "\xFE\xFF"};

// --- words -----------------------------------------------------------------------------------------------------

constexpr std::string_view c_clear_words[] = {"yes", "on", "true", "1", "y", "no"};
constexpr std::string_view c_words_for_off[] = {"",  "off",     "false",    "0",     "n",  "none",
                                                "-", "disable", "disabled", "never", "not"};
/// Blanks that the reader does not take for any, and signs without a width.
constexpr std::string_view c_strange_blanks[] = {"\xC2\xA0", "\xE3\x80\x80", "\xE2\x80\x8B", "\xE2\x80\xAF",
                                                 "\xEF\xBB\xBF"};
constexpr std::string_view c_strange_quotes[] = {"'",           "`", "\xE2\x80\x9C", "\xE2\x80\x9D", "\xE2\x80\x98",
                                                 "\xE2\x80\x99"};
constexpr std::string_view c_foreign_comments[] = {"//", "--", "/*", "%", "!", "'"};

template <class Words>
bool contains_word(Words const& words, std::string_view word) {
    return std::find(std::begin(words), std::end(words), word) != std::end(words);
}

template <class Pieces>
bool has_piece(Pieces const& pieces, std::string_view text) {
    return std::any_of(std::begin(pieces), std::end(pieces),
                       [&](std::string_view piece) { return text.find(piece) != std::string_view::npos; });
}

template <class Pieces>
bool starts_with_piece(Pieces const& pieces, std::string_view text) {
    return std::any_of(std::begin(pieces), std::end(pieces),
                       [&](std::string_view piece) { return text.starts_with(piece); });
}

std::string_view trim(std::string_view text) {
    std::size_t const first = text.find_first_not_of(c_blanks);
    return first == std::string_view::npos ? std::string_view()
                                           : text.substr(first, text.find_last_not_of(c_blanks) - first + 1);
}

bool is_digits(std::string_view text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

std::string_view without_sign(std::string_view text) {
    return !text.empty() && (text.front() == '+' || text.front() == '-') ? text.substr(1) : text;
}

/// "; did you mean X?" for names of that kind.
std::string suggest(std::vector<std::string> const& names, std::string_view word, std::string const& otherwise) {
    std::string upper(word);
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
    std::string const similar = find_similar(names, upper, std::max<std::size_t>(2, word.size() / 2));
    return similar.empty() ? otherwise : fmt::format("did you mean {}?", similar);
}

// --- the check -------------------------------------------------------------------------------------------------

class checker {
public:
    checker(std::string_view given, int cap)
        : text(given), backlog_cap(cap), content(Reference_Host::parse_ini(given)) {
        for (std::string_view rest = text; !rest.empty();) {
            std::size_t const end = rest.find('\n');
            lines.push_back(rest.substr(0, end));
            rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
        }
    }

    std::vector<finding> run() {
        if (starts_with_piece(c_utf16_marks, text)) {
            add(1, severity::error, "not-utf8", "the file is written in UTF-16; nothing in it is understood",
                "save it as UTF-8");
            return found;
        }
        check_bytes();
        check_sections();
        for (Reference_Host::ini_fault const& fault : content.faults) {
            check_fault(fault.line);
        }
        for (ini_entry const& entry : content.entries) {
            check_entry(entry);
        }
        std::stable_sort(found.begin(), found.end(),
                         [](finding const& a, finding const& b) { return a.line < b.line; });
        return found;
    }

private:
    void add(int line, severity weight, std::string_view code, std::string const& reason, std::string advice) {
        found.push_back({line, weight, code, printable_text(reason), std::move(advice)});
    }
    void error(int line, std::string_view code, std::string const& reason, std::string advice) {
        add(line, severity::error, code, reason, std::move(advice));
    }
    void warn(int line, std::string_view code, std::string const& reason, std::string advice) {
        add(line, severity::warning, code, reason, std::move(advice));
    }

    std::string_view line_text(int number) const { return lines[static_cast<std::size_t>(number) - 1]; }

    void check_bytes() {
        int number = 0;
        for (std::string_view const line : lines) {
            check_line_bytes(++number, line);
        }
    }

    void check_line_bytes(int number, std::string_view line) {
        if (std::size_t const byte = find_wrong_byte(line); byte != 0) {
            error(number, "not-utf8", fmt::format("byte {} is no UTF-8", byte),
                  "save the file as UTF-8; names and values are plain ASCII");
        }
        if (line.find('\0') != std::string_view::npos) {
            error(number, "null-byte", "there is a byte of value 0 in the line", "save the file as plain UTF-8 text");
        }
        std::size_t const stray = line.find('\r');
        if (stray != std::string_view::npos && stray + 1 != line.size()) {
            error(number, "line-end-cr", "a carriage return ends no line: what follows belongs to the same line",
                  "end lines with LF or CRLF");
        }
        if (line.size() > c_long_line) {
            warn(number, "line-long", fmt::format("the line has {} bytes", line.size()),
                 fmt::format("keep lines below {} bytes; this reader takes them whole, others may cut them",
                             c_long_line));
        }
    }

    // --- sections ---

    /// The section that a line opens, as the reader takes it.
    std::optional<std::string> opened_section(std::string_view line) const {
        std::string_view const start = line.starts_with("\xEF\xBB\xBF") ? line.substr(3) : line;
        if (!trim(start).starts_with("[")) {
            return std::nullopt;
        }
        return Reference_Host::parse_ini(std::string(line) + "\nkey=").entries.front().section;
    }

    void check_sections() {
        int first_line = 0;
        for (int number = 1; number <= static_cast<int>(lines.size()); ++number) {
            auto const section = opened_section(line_text(number));
            if (!section) {
                continue;
            }
            check_rest_of_section(number);
            if (!is_relays(*section)) {
                error(number, "section-unknown", fmt::format("the relay does not read section [{}]", *section),
                      suggest({std::string(c_relays_section)}, *section,
                              fmt::format("its keys belong below [{}]", c_relays_section)));
            } else if (first_line != 0) {
                warn(number, "section-repeated",
                     fmt::format("section [{}] began in line {} already; both count", c_relays_section, first_line),
                     "keep the keys together");
            } else {
                first_line = number;
            }
        }
        if (first_line == 0) {
            warn(1, "section-missing",
                 fmt::format("there is no section [{}]: every key has its default", c_relays_section),
                 fmt::format("put [{}] above the keys", c_relays_section));
        }
    }

    static bool is_relays(std::string_view section) { return to_lower(section) == to_lower(c_relays_section); }

    void check_rest_of_section(int number) {
        std::string_view const line = line_text(number);
        std::size_t const end = line.find(']');
        std::string_view const rest = end == std::string_view::npos ? "" : trim(line.substr(end + 1));
        if (!rest.empty() && rest.front() != ';' && rest.front() != '#') {
            error(number, "text-after-section", fmt::format("\"{}\" behind the section's name is not read", rest),
                  "begin a new line for each key");
        }
    }

    // --- lines without meaning ---

    void check_fault(int number) {
        std::string_view const line = trim(line_text(number));
        if (line.starts_with("[")) {
            error(number, "section-unclosed", "the section's name is not closed", "end it with ]");
        } else if (line.starts_with("=")) {
            error(number, "value-without-key", "there is a value without a key", "write KEY = VALUE");
        } else {
            error(number, "line-without-meaning", fmt::format("\"{}\" is no key = value", line.substr(0, 60)),
                  advice_for_line(line));
        }
    }

    static std::string advice_for_line(std::string_view line) {
        if (starts_with_piece(c_foreign_comments, line)) {
            return "comments begin with ; or #";
        }
        return line.find(':') != std::string_view::npos ? "key and value are joined by =, not by :"
                                                        : "write KEY = VALUE, or ; in front of a comment";
    }

    // --- keys ---

    void check_entry(ini_entry const& entry) {
        configuration_key const* const key = find_key(entry.key);
        if (!is_relays(entry.section)) {
            check_place(entry, key);
            return;
        }
        if (key == nullptr) {
            check_unknown(entry);
            return;
        }
        ini_entry const* const counting = Reference_Host::find_entry(content, entry.section, entry.key);
        if (counting != &entry) {
            error(
                entry.line, "key-duplicate",
                fmt::format("{} is given again in line {}, which counts; this one does not", key->name, counting->line),
                "keep one of them");
            return;
        }
        check_value(entry, *key);
    }

    void check_place(ini_entry const& entry, configuration_key const* key) {
        if (key != nullptr || entry.section.empty()) {
            error(entry.line, "key-outside-section",
                  entry.section.empty() ? fmt::format("{} stands above every section and is not read", entry.key)
                                        : fmt::format("{} stands in [{}] and is not read", entry.key, entry.section),
                  fmt::format("move it below [{}]", c_relays_section));
        }
    }

    void check_unknown(ini_entry const& entry) {
        bool const is_comment = starts_with_piece(c_foreign_comments, entry.key);
        error(entry.line, "key-unknown", fmt::format("the relay has no key {}", entry.key),
              is_comment ? "comments begin with ; or #"
                         : suggest(key_names(), entry.key, "\"zolt-center config show\" lists the nine keys"));
    }

    // --- values ---

    void check_value(ini_entry const& entry, configuration_key const& key) {
        if (!key.has_effect) {
            if (to_lower(entry.value) != key.fallback) {
                warn(entry.line, "key-no-effect", fmt::format("{} is read but has no effect", key.name),
                     "leave it out; nothing changes with it");
            }
            return;
        }
        if (is_written_wrong(entry, key)) {
            return;
        }
        if (key.kind == key_kind::on_off) {
            check_switch(entry, key);
        } else {
            check_number(entry, key);
        }
    }

    /// What the relay takes in place of a value that it does not understand.
    static std::string taken_instead(configuration_key const& key) {
        return key.kind == key_kind::on_off ? "counts as yes"
                                            : fmt::format("is no number: the default {} counts", key.fallback);
    }

    /// Signs around the value that became part of it.
    bool is_written_wrong(ini_entry const& entry, configuration_key const& key) {
        std::string const what = fmt::format("{} = {} {}", key.name, entry.value, taken_instead(key));
        if (entry.value.find_first_of(";#") != std::string::npos) {
            error(entry.line, "comment-in-value", what + ": a comment needs a blank in front of it",
                  "put a blank before the ; or #, or the comment on a line of its own");
            return true;
        }
        if (starts_with_piece(c_strange_quotes, entry.value) || entry.value.starts_with("\"")) {
            error(entry.line, "quote-in-value", what + ": the quotes belong to the value",
                  "write the value without quotes, or between two \" and nothing behind them");
            return true;
        }
        bool const has_blanks = has_piece(c_strange_blanks, entry.value) || trim(entry.value) != entry.value;
        if (has_blanks) {
            error(entry.line, "blank-in-value", what + ": a blank belongs to the value",
                  "write the value with plain blanks around it, or with none between quotes");
        }
        return has_blanks;
    }

    void check_switch(ini_entry const& entry, configuration_key const& key) {
        std::string const word = to_lower(entry.value);
        std::string const advice = fmt::format("only no switches it off: write {} = no, or yes", key.name);
        if (contains_word(c_words_for_off, word)) {
            error(entry.line, "switch-not-off",
                  fmt::format("{} = {} counts as yes", key.name, word.empty() ? "(nothing)" : entry.value), advice);
        } else if (!contains_word(c_clear_words, word)) {
            error(entry.line, "switch-unclear", fmt::format("{} = {} counts as yes", key.name, entry.value), advice);
        }
    }

    void check_number(ini_entry const& entry, configuration_key const& key) {
        auto const number = Reference_Host::parse_integer(entry.value);
        if (number) {
            check_backlog(entry, *number);
            return;
        }
        std::string_view const unsigned_text = without_sign(entry.value);
        std::string const advice = fmt::format("write a whole decimal number from {} to {}",
                                               std::numeric_limits<int>::min(), std::numeric_limits<int>::max());
        std::string const what = fmt::format("{} = {}", key.name, entry.value.empty() ? "(nothing)" : entry.value);
        std::string const counts = fmt::format("the default {} counts", key.fallback);
        if (is_digits(unsigned_text)) {
            error(entry.line, "number-out-of-range", what + " is beyond the range of numbers: " + counts, advice);
        } else if (is_digits(unsigned_text.substr(0, 1))) {
            error(entry.line, "number-trailing-text", what + " has text behind the number: " + counts, advice);
        } else {
            error(entry.line, "number-invalid", what + " is no number: " + counts, advice);
        }
    }

    void check_backlog(ini_entry const& entry, int backlog) {
        std::string const what = fmt::format("a backlog of {}", backlog);
        if (backlog > backlog_cap) {
            warn(entry.line, "backlog-capped", fmt::format("{} is cut to {} by the kernel", what, backlog_cap),
                 fmt::format("raise the cap: sysctl -w net.core.somaxconn={}", backlog));
        } else if (backlog < 0) {
            warn(entry.line, "backlog-negative", fmt::format("{} means the kernel's cap, {}", what, backlog_cap),
                 "write the number of connections that may wait");
        } else if (backlog == 0) {
            warn(entry.line, "backlog-zero", what + " lets one connection wait and drops the next",
                 "write the size of the largest burst of connections");
        }
    }

    std::string_view text;
    int const backlog_cap;
    ini_content content;
    std::vector<std::string_view> lines;
    std::vector<finding> found;
};

} // namespace

char const* severity_text(severity weight) {
    return weight == severity::error ? "error" : "warning";
}

std::vector<finding> check_configuration(std::string_view text, int backlog_cap) {
    return checker(text, backlog_cap).run();
}

int read_backlog_cap() {
    std::ifstream file("/proc/sys/net/core/somaxconn");
    int cap = 0;
    return file >> cap ? cap : std::numeric_limits<int>::max();
}

} // namespace Zolt::Reference_Center
