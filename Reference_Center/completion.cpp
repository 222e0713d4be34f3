#include "Reference_Center/completion.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <functional>
#include <iterator>

namespace Zolt::Reference_Center {
namespace {

using lines = std::back_insert_iterator<std::string>;

// --- from the command line's description -----------------------------------------------------------------------

bool is_placeholder(std::string const& word) {
    return word.empty() || std::any_of(word.begin(), word.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
}

/// The words of "raw|hex"; of "IP:PORT|none" only the one that is meant as it stands.
std::vector<std::string> read_choices(std::string const& type) {
    std::vector<std::string> words;
    if (type.find('|') != std::string::npos) {
        words = CLI::detail::split(type, '|');
        words.erase(std::remove_if(words.begin(), words.end(), is_placeholder), words.end());
    }
    return words;
}

completed_option describe_option(CLI::Option const& option) {
    std::string const type = option.nonpositional() ? option.get_type_name() : option.get_name(true);
    completed_option made;
    made.help = option.get_description();
    made.takes_value = option.get_items_expected_max() > 0;
    made.takes_file = type == "FILE";
    made.choices = read_choices(type);
    for (std::string const& name : option.get_lnames()) {
        made.names.push_back("--" + name);
    }
    for (std::string const& name : option.get_snames()) {
        made.names.push_back("-" + name);
    }
    return made;
}

completed_command describe(CLI::App const& app, std::string const& path) {
    completed_command made{path, app.get_description(), {}, {}};
    for (CLI::Option const* const option : app.get_options()) {
        if (!option->get_group().empty()) {
            made.options.push_back(describe_option(*option));
        }
    }
    for (CLI::App const* const command : app.get_subcommands([](CLI::App const*) { return true; })) {
        if (!command->get_group().empty()) {
            made.commands.push_back(describe(*command, path + " " + command->get_name()));
        }
    }
    return made;
}

// --- what all scripts are made of ------------------------------------------------------------------------------

void visit(completed_command const& command, std::function<void(completed_command const&)> const& each) {
    each(command);
    for (completed_command const& below : command.commands) {
        visit(below, each);
    }
}

void visit_options(completed_command const& program,
                   std::function<void(completed_command const&, completed_option const&)> const& each) {
    visit(program, [&](completed_command const& command) {
        for (completed_option const& option : command.options) {
            each(command, option);
        }
    });
}

std::string last_word(std::string const& path) {
    return path.substr(path.rfind(' ') + 1);
}

/// Between single quotes of any of the shells.
std::string quoted(std::string const& text) {
    std::string safe;
    for (char const c : text) {
        safe += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return "'" + safe + "'";
}

/// A pattern of case for each command, or each option with its command in front, of which the condition is true.
std::string option_patterns(completed_command const& program,
                            std::function<bool(completed_option const&)> const& condition) {
    std::vector<std::string> patterns;
    visit_options(program, [&](completed_command const& command, completed_option const& option) {
        for (std::string const& name : option.names) {
            if (condition(option)) {
                patterns.push_back(fmt::format("\"{} {}\"", command.path, name));
            }
        }
    });
    return fmt::format("{}", fmt::join(patterns, " | "));
}

std::string command_patterns(completed_command const& program) {
    std::vector<std::string> patterns;
    visit(program, [&](completed_command const& command) {
        if (&command != &program) {
            patterns.push_back("\"" + command.path + "\"");
        }
    });
    return fmt::format("{}", fmt::join(patterns, " | "));
}

bool is_file(completed_option const& option) {
    return option.takes_file;
}

bool is_free_value(completed_option const& option) {
    return option.takes_value && !option.takes_file && option.choices.empty();
}

/// What may stand where a new word of the command begins.
std::vector<std::string> first_words(completed_command const& command) {
    std::vector<std::string> words;
    for (completed_command const& below : command.commands) {
        words.push_back(last_word(below.path));
    }
    for (completed_option const& option : command.options) {
        auto const& more = option.names.empty() ? option.choices : option.names;
        words.insert(words.end(), more.begin(), more.end());
    }
    return words;
}

bool takes_file(completed_command const& command) {
    return std::any_of(command.options.begin(), command.options.end(),
                       [](completed_option const& option) { return option.names.empty() && option.takes_file; });
}

/// The arms of a case, one for each option with a few words to choose from.
void write_choices(lines out, completed_command const& program, char const* line) {
    visit_options(program, [&](completed_command const& command, completed_option const& option) {
        for (std::string const& name : option.names) {
            if (!option.choices.empty()) {
                fmt::format_to(out, "    \"{} {}\")\n", command.path, name);
                fmt::format_to(out, fmt::runtime(line), fmt::join(option.choices, " "));
            }
        }
    });
}

// --- bash ------------------------------------------------------------------------------------------------------

constexpr char c_bash_head[] =
    R"TEXT(# Completion of zolt-center for bash, made by "zolt-center completion bash". For one session:
#   source <(zolt-center completion bash)
_zolt_center() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} path=zolt-center words="" files="" i
    COMPREPLY=()
    # --option=value arrives as three words.
    if [[ $word == "=" ]]; then
        word=""
    elif [[ $before == "=" ]]; then
        before=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    for ((i = 1; i < COMP_CWORD; i++)); do
        case "$path ${COMP_WORDS[i]}" in
)TEXT";

constexpr char c_bash_tail[] = R"TEXT(    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
    if [[ -n $files && $word != -* ]]; then
        compopt -o filenames 2>/dev/null
        mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -f -- "$word")
    fi
}
complete -F _zolt_center zolt-center
)TEXT";

} // namespace

completed_command describe_commands(CLI::App const& app) {
    return describe(app, app.get_name());
}

std::string bash_script(completed_command const& program) {
    std::string script = c_bash_head;
    lines const out(script);
    fmt::format_to(out, "        {}) path+=\" ${{COMP_WORDS[i]}}\" ;;\n        esac\n    done\n",
                   command_patterns(program));
    fmt::format_to(out, "    case \"$path $before\" in\n");
    fmt::format_to(out, "    {}) return ;;\n", option_patterns(program, is_free_value));
    fmt::format_to(out, "    {}) path=file ;;\n", option_patterns(program, is_file));
    write_choices(out, program, "        path=choice words=\"{}\" ;;\n");
    fmt::format_to(out, "    esac\n    case $path in\n    file) files=yes ;;\n");
    visit(program, [&](completed_command const& command) {
        fmt::format_to(out, "    \"{}\") words=\"{}\"{} ;;\n", command.path, fmt::join(first_words(command), " "),
                       takes_file(command) ? " files=yes" : "");
    });
    return script + c_bash_tail;
}

// --- zsh -------------------------------------------------------------------------------------------------------

namespace {

constexpr char c_zsh_head[] = R"TEXT(#compdef zolt-center
# Completion of zolt-center for zsh, made by "zolt-center completion zsh": a file _zolt-center in a folder of $fpath.
_zolt_center() {
    local so_far=zolt-center before=${words[CURRENT-1]} i
    local -a proposals
    if [[ ${words[CURRENT]} == --*=* ]]; then
        before=${words[CURRENT]%%=*}
        compset -P '*='
    fi
    for ((i = 2; i < CURRENT; i++)); do
        case "$so_far ${words[i]}" in
)TEXT";

constexpr char c_zsh_tail[] = R"TEXT(    esac
    _describe 'zolt-center' proposals
}
if [[ $funcstack[1] == _zolt-center ]]; then
    _zolt_center "$@"
else
    compdef _zolt_center zolt-center
fi
)TEXT";

/// "name:what it does", for _describe.
std::vector<std::string> zsh_proposals(completed_command const& command) {
    std::vector<std::string> proposals;
    for (completed_command const& below : command.commands) {
        proposals.push_back(quoted(last_word(below.path) + ":" + below.help));
    }
    for (completed_option const& option : command.options) {
        for (std::string const& name : option.names) {
            proposals.push_back(quoted(name + ":" + option.help));
        }
        if (option.names.empty()) {
            proposals.insert(proposals.end(), option.choices.begin(), option.choices.end());
        }
    }
    return proposals;
}

} // namespace

std::string zsh_script(completed_command const& program) {
    std::string script = c_zsh_head;
    lines const out(script);
    fmt::format_to(out, "        {}) so_far+=\" ${{words[i]}}\" ;;\n        esac\n    done\n",
                   command_patterns(program));
    fmt::format_to(out, "    case \"$so_far $before\" in\n");
    fmt::format_to(out, "    {}) return 1 ;;\n", option_patterns(program, is_free_value));
    fmt::format_to(out, "    {}) _files; return ;;\n", option_patterns(program, is_file));
    write_choices(out, program, "        compadd -- {}; return ;;\n");
    fmt::format_to(out, "    esac\n    case $so_far in\n");
    visit(program, [&](completed_command const& command) {
        fmt::format_to(out, "    \"{}\") {}proposals=({}) ;;\n", command.path, takes_file(command) ? "_files; " : "",
                       fmt::join(zsh_proposals(command), " "));
    });
    return script + c_zsh_tail;
}

// --- fish ------------------------------------------------------------------------------------------------------

namespace {

/// True in fish when the command's words stand there and none of a command below it.
std::string fish_condition(completed_command const& command) {
    std::vector<std::string> tests;
    for (std::size_t space = command.path.find(' '); space != std::string::npos;) {
        std::size_t const next = command.path.find(' ', space + 1);
        tests.push_back("__fish_seen_subcommand_from " + command.path.substr(space + 1, next - space - 1));
        space = next;
    }
    std::vector<std::string> below;
    for (completed_command const& one : command.commands) {
        below.push_back(last_word(one.path));
    }
    if (!below.empty()) {
        tests.push_back(fmt::format("not __fish_seen_subcommand_from {}", fmt::join(below, " ")));
    }
    return quoted(fmt::format("{}", fmt::join(tests, "; and ")));
}

std::string fish_names(completed_option const& option) {
    std::string names;
    for (std::string const& name : option.names) {
        names += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
    }
    return names;
}

std::string fish_value(completed_option const& option) {
    if (option.takes_file) {
        return option.names.empty() ? " -F" : " -r -F";
    }
    if (!option.choices.empty()) {
        return fmt::format(" -x -a \"{}\"", fmt::join(option.choices, " "));
    }
    return option.takes_value ? " -x" : "";
}

} // namespace

std::string fish_script(completed_command const& program) {
    std::string script = "# Completion of zolt-center for fish, made by \"zolt-center completion fish\": a file\n"
                         "# zolt-center.fish in ~/.config/fish/completions.\n"
                         "complete -c zolt-center -f\n";
    lines const out(script);
    visit(program, [&](completed_command const& command) {
        std::string const condition = fish_condition(command);
        for (completed_command const& below : command.commands) {
            fmt::format_to(out, "complete -c zolt-center -n {} -a {} -d {}\n", condition, last_word(below.path),
                           quoted(below.help));
        }
        for (completed_option const& option : command.options) {
            fmt::format_to(out, "complete -c zolt-center -n {}{}{} -d {}\n", condition, fish_names(option),
                           fish_value(option), quoted(option.help));
        }
    });
    return script;
}

} // namespace Zolt::Reference_Center
