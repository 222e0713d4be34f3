#include "Reference_Center/message_table.hpp"

#include "Reference_Center/page_files.hpp"

#include <fmt/format.h>
#include <stdexcept>

namespace Zolt::Reference_Center {
namespace {

/// A sentence's name in the table, and where it belongs.
struct sentence_row {
    std::string_view name;
    message_sentences message_entry::*language;
    std::string_view message_sentences::*sentence;
};

constexpr sentence_row c_sentences[] = {
    {"meaning", &message_entry::english, &message_sentences::meaning},
    {"cause", &message_entry::english, &message_sentences::cause},
    {"next", &message_entry::english, &message_sentences::next},
    {"의미", &message_entry::korean, &message_sentences::meaning},
    {"원인", &message_entry::korean, &message_sentences::cause},
    {"조치", &message_entry::korean, &message_sentences::next},
};

class table_parser {
public:
    std::vector<message_group> parse(std::string_view table) {
        while (!table.empty()) {
            std::size_t const end = table.find('\n');
            ++number;
            read(table.substr(0, end));
            table.remove_prefix(end == std::string_view::npos ? table.size() : end + 1);
        }
        finish_entry();
        return std::move(groups);
    }

private:
    [[noreturn]] void reject(std::string_view what) const {
        throw std::logic_error(fmt::format("messages.txt:{}: {}", number, what));
    }

    void read(std::string_view line) {
        if (line.empty() || line.starts_with("#")) {
            return;
        }
        if (line.starts_with("== ")) {
            read_group(line.substr(3));
        } else if (line.starts_with("[")) {
            read_code(line);
        } else {
            read_field(line);
        }
    }

    void read_group(std::string_view line) {
        finish_entry();
        std::size_t const first = line.find(" | ");
        std::size_t const second = line.find(" | ", first + 1);
        if (second == std::string_view::npos) {
            reject("a group has a name and two titles");
        }
        groups.push_back(
            {line.substr(0, first), line.substr(first + 3, second - first - 3), line.substr(second + 3), {}});
    }

    void read_code(std::string_view line) {
        finish_entry();
        if (groups.empty() || !line.ends_with("]")) {
            reject("a code stands between brackets, below a group");
        }
        groups.back().entries.push_back({line.substr(1, line.size() - 2), {}, {}, {}});
    }

    message_entry& current() {
        if (groups.empty() || groups.back().entries.empty()) {
            reject("a field stands below a code");
        }
        return groups.back().entries.back();
    }

    void read_field(std::string_view line) {
        std::size_t const colon = line.find(": ");
        if (colon == std::string_view::npos) {
            reject("neither a group, a code nor a field");
        }
        std::string_view const name = line.substr(0, colon);
        std::string_view const value = line.substr(colon + 2);
        if (name == "text" || name == "exact") {
            current().texts.push_back({value, name == "exact"});
            return;
        }
        for (sentence_row const& row : c_sentences) {
            if (row.name == name) {
                current().*row.language.*row.sentence = value;
                return;
            }
        }
        reject("an unknown field");
    }

    /// The entry above is whole.
    void finish_entry() const {
        if (groups.empty() || groups.back().entries.empty()) {
            return;
        }
        message_entry const& entry = groups.back().entries.back();
        bool is_whole = !entry.texts.empty();
        for (sentence_row const& row : c_sentences) {
            is_whole = is_whole && !(entry.*row.language.*row.sentence).empty();
        }
        if (!is_whole) {
            reject(fmt::format("[{}] lacks a text or a sentence", entry.code));
        }
    }

    std::vector<message_group> groups;
    int number = 0;
};

} // namespace

std::vector<message_group> parse_message_table(std::string_view table) {
    return table_parser().parse(table);
}

std::vector<message_group> const& message_groups() {
    static std::vector<message_group> const groups = [] {
        auto const bytes = message_files().front().content;
        return parse_message_table({reinterpret_cast<char const*>(bytes.data()), bytes.size()});
    }();
    return groups;
}

} // namespace Zolt::Reference_Center
