#include "Reference_Center/message_markdown.hpp"

#include <fmt/format.h>
#include <iterator>

namespace Zolt::Reference_Center {
namespace {

constexpr std::string_view c_page_head = R"TEXT(# Messages

Every text that the relay and `zolt-center` print, and the codes that they use, with meaning, cause and next step in English and
Korean. Made from `Reference_Center/messages.txt` by `zolt-center explain --markdown`; a test compares the two.
`zolt-center explain TEXT` finds the entry of a line as it was printed. Names in braces stand for what is filled in.

릴레이와 `zolt-center`가 출력하는 모든 문구와 코드의 의미, 원인, 조치를 영어와 한국어로 정리한 문서입니다.
`zolt-center explain 문구`는 출력된 줄 그대로를 받아 해당 항목을 찾아 줍니다. 중괄호 안의 이름은 채워 넣는 값을 나타냅니다.
)TEXT";

/// For the cell of a table.
std::string cell(std::string_view text) {
    std::string safe;
    for (char const c : text) {
        safe += c == '|' ? std::string("\\|") : std::string(1, c);
    }
    return safe;
}

void write_entry(std::string& page, message_entry const& entry) {
    auto const out = std::back_inserter(page);
    fmt::format_to(out, "\n### {}\n\n", entry.code);
    for (message_text const& text : entry.texts) {
        fmt::format_to(out, "- `{}`\n", text.text);
    }
    fmt::format_to(out, "\n| | English | 한국어 |\n|---|---|---|\n");
    fmt::format_to(out, "| meaning 의미 | {} | {} |\n", cell(entry.english.meaning), cell(entry.korean.meaning));
    fmt::format_to(out, "| cause 원인 | {} | {} |\n", cell(entry.english.cause), cell(entry.korean.cause));
    fmt::format_to(out, "| next 조치 | {} | {} |\n", cell(entry.english.next), cell(entry.korean.next));
}

} // namespace

std::string message_page(std::vector<message_group> const& groups) {
    std::string page(c_page_head);
    for (message_group const& group : groups) {
        fmt::format_to(std::back_inserter(page), "\n## {} / {}\n", group.english, group.korean);
        for (message_entry const& entry : group.entries) {
            write_entry(page, entry);
        }
    }
    return page;
}

} // namespace Zolt::Reference_Center
