// zolt-center explain: what a printed text or a code means, in English and Korean.
#include "Reference_Center/environment.hpp"
#include "Reference_Center/message_markdown.hpp"
#include "Reference_Center/message_matching.hpp"
#include "Reference_Center/message_table.hpp"
#include "Reference_Center/options.hpp"
#include "Reference_Center/output.hpp"
#include "Reference_Center/utf8.hpp"
#include "Reference_Center/word_distance.hpp"

#include <cstring>
#include <fmt/format.h>
#include <memory>

namespace Zolt::Reference_Center {
namespace {

struct explain_options {
    std::vector<std::string> words;
    std::string language;
    bool all = false;
    bool markdown = false;
    bool json = false;
};

// --- languages -------------------------------------------------------------------------------------------------

struct language_row {
    std::string_view name;
    std::string_view message_group::*title;
    message_sentences message_entry::*sentences;
    std::string_view meaning;
    std::string_view cause;
    std::string_view next;
};

constexpr language_row c_languages[] = {
    {"en", &message_group::english, &message_entry::english, "meaning", "cause", "next"},
    {"ko", &message_group::korean, &message_entry::korean, "의미", "원인", "조치"},
};

/// The user's, as the environment tells.
std::string users_language() {
    for (char const* const name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        std::string const value = read_variable(name);
        if (!value.empty()) {
            return value.starts_with("ko") ? "ko" : "en";
        }
    }
    return "en";
}

std::vector<language_row> wanted_languages(std::string const& chosen) {
    std::string const name = chosen.empty() ? users_language() : chosen;
    std::vector<language_row> rows;
    for (language_row const& row : c_languages) {
        if (name == "both" || name == row.name) {
            rows.push_back(row);
        }
    }
    return rows;
}

// --- output ----------------------------------------------------------------------------------------------------

std::string error_text(int number) {
    char const* const name = ::strerrorname_np(number);
    return name != nullptr ? fmt::format("{} {}: {}", number, name, ::strerrordesc_np(number)) : std::to_string(number);
}

void tell(explanation const& what, std::vector<language_row> const& languages) {
    for (language_row const& row : languages) {
        message_sentences const& sentences = what.entry->*row.sentences;
        write_out_line(fmt::format("{} ({})\n  {}: {}\n  {}: {}\n  {}: {}", what.entry->code, what.group->*row.title,
                                   row.meaning, sentences.meaning, row.cause, sentences.cause, row.next,
                                   sentences.next));
    }
    if (what.error) {
        write_out_line(fmt::format("  errno {}", error_text(*what.error)));
    }
}

json_object to_json(explanation const& what, std::vector<language_row> const& languages) {
    json_object object{{"code", what.entry->code}, {"group", what.group->name}, {"text", what.text}};
    if (what.error) {
        object["errno"] = error_text(*what.error);
    }
    for (language_row const& row : languages) {
        message_sentences const& sentences = what.entry->*row.sentences;
        object[std::string(row.name)] = {
            {"meaning", sentences.meaning}, {"cause", sentences.cause}, {"next", sentences.next}};
    }
    return object;
}

void tell_all(std::vector<explanation> const& found, explain_options const& options) {
    auto const languages = wanted_languages(options.language);
    if (!options.json) {
        for (explanation const& what : found) {
            tell(what, languages);
        }
        return;
    }
    json_object list = json_object::array();
    for (explanation const& what : found) {
        list.push_back(to_json(what, languages));
    }
    write_out_object({{"explanations", list}});
}

// --- what is asked for -----------------------------------------------------------------------------------------

std::vector<explanation> whole_table() {
    std::vector<explanation> all;
    for (message_group const& group : message_groups()) {
        for (message_entry const& entry : group.entries) {
            all.push_back({&group, &entry, entry.texts.front().text, std::nullopt});
        }
    }
    return all;
}

std::vector<std::string> known_codes() {
    std::vector<std::string> codes;
    for (explanation const& what : whole_table()) {
        codes.emplace_back(what.entry->code);
    }
    return codes;
}

/// A code is an exact name; everything else is looked for as a text.
std::vector<explanation> find_explanations(std::string const& text) {
    for (explanation const& what : whole_table()) {
        if (what.entry->code == text) {
            return {what};
        }
    }
    std::vector<explanation> found = explain_line(text);
    if (!found.empty()) {
        return found;
    }
    std::string const similar = find_similar(known_codes(), text, 2);
    std::string const shown = printable_text(text);
    throw failure(exit_code::wrong_usage,
                  similar.empty()
                      ? fmt::format("nothing is known of \"{}\"; \"zolt-center explain --all\" lists what is", shown)
                      : fmt::format("nothing is known of \"{}\"; did you mean \"{}\"?", shown, similar));
}

int run_explain(explain_options const& options) {
    if (options.words.empty() != (options.all || options.markdown)) {
        throw failure(exit_code::wrong_usage, "explain: give either a text, --all or --markdown");
    }
    if (options.markdown) {
        write_out(message_page(message_groups()));
    } else {
        std::string const text = fmt::format("{}", fmt::join(options.words, " "));
        tell_all(options.all ? whole_table() : find_explanations(text), options);
    }
    return static_cast<int>(exit_code::done);
}

} // namespace

void add_explain_command(CLI::App& app, action& chosen) {
    CLI::App& command = *app.add_subcommand("explain", "Say what a printed text or a code means, and what to do");
    auto const options = std::make_shared<explain_options>();
    command.add_option("TEXT", options->words,
                       "A line as it was printed, or a code such as 0x40000008, silent or exit code 4");
    command
        .add_option("--lang", options->language, "English, Korean or both; without it the language of the environment")
        ->check(CLI::IsMember({"en", "ko", "both"}).description(""))
        ->type_name("en|ko|both");
    CLI::Option* const all = command.add_flag("--all", options->all, "Explain everything that is known");
    command.add_flag("--markdown", options->markdown, "Print docs/messages.md, which has everything in both languages")
        ->excludes(all);
    add_json_option(command, options->json, "Print the explanations as one JSON object");
    command.footer("  zolt-center explain 'recv client 에러'\n"
                   "  zolt-center explain --lang both connect err:111");
    command.callback([options, &chosen] { chosen = [options] { return run_explain(*options); }; });
}

} // namespace Zolt::Reference_Center
