#include "Reference_Center/message_matching.hpp"

#include "Reference_Host/ini_file.hpp"

#include <algorithm>
#include <charconv>
#include <map>
#include <tuple>
#include <utility>

namespace Zolt::Reference_Center {
namespace {

/// A text with fewer letters says too little within a longer line.
constexpr std::size_t c_least_letters = 8;
constexpr std::string_view c_number_signs = "0123456789.-%dsx";
constexpr std::string_view c_number_names[] = {"number", "errno", "port", "line", "size", "count", "clock"};
/// What a log or the program puts in front of a line, one after another, and behind it.
constexpr std::string_view c_fronts[] = {"{clock}:{clock}:{clock} ",
                                         "trace ",
                                         "debug ",
                                         "info ",
                                         "warning ",
                                         "error ",
                                         "critical ",
                                         "relay: ",
                                         "zolt-center: ",
                                         "[zolt error] ",
                                         "center/inet_relay/epoll/{file}:{line} {letter} "};
constexpr std::string_view c_back = " (held back {count} times)";

/// Letters small, each run of blanks one blank, none at the ends.
std::string normalize(std::string_view text) {
    std::string plain;
    for (char const c : Reference_Host::to_lower(text)) {
        bool const is_blank = c == ' ' || c == '\t' || c == '\r' || c == '\n';
        if (!is_blank) {
            plain += c;
        } else if (!plain.empty() && plain.back() != ' ') {
            plain += ' ';
        }
    }
    if (!plain.empty() && plain.back() == ' ') {
        plain.pop_back();
    }
    return plain;
}

// --- texts with gaps -------------------------------------------------------------------------------------------

struct piece {
    std::string text; ///< as it stands, or the name of a gap
    bool is_gap = false;
    bool is_number = false;
};

std::vector<piece> cut(std::string_view text) {
    std::vector<piece> pieces;
    for (std::size_t start = 0; start < text.size();) {
        bool const is_gap = text[start] == '{';
        std::size_t const end = std::min(is_gap ? text.find('}', start) : text.find('{', start), text.size());
        std::string_view const part =
            is_gap ? text.substr(start + 1, end - start - 1) : text.substr(start, end - start);
        bool const is_number =
            is_gap && std::find(std::begin(c_number_names), std::end(c_number_names), part) != std::end(c_number_names);
        pieces.push_back({std::string(part), is_gap, is_number});
        start = is_gap ? end + 1 : end;
    }
    return pieces;
}

std::size_t count_letters(std::vector<piece> const& pieces) {
    std::size_t letters = 0;
    for (piece const& one : pieces) {
        letters += one.is_gap ? 0 : one.text.size();
    }
    return letters;
}

using gap_values = std::map<std::string, std::string, std::less<>>;

/// Fits a text with gaps to the front of a line.
class fitting {
public:
    fitting(std::vector<piece> const& wanted, std::string_view whole) : pieces(wanted), line(whole) {}

    /// The length that it takes of the line, or nothing.
    std::optional<std::size_t> run() { return fit(0, 0); }
    gap_values take_gaps() { return std::move(gaps); }

private:
    std::optional<std::size_t> fit(std::size_t which, std::size_t at) {
        if (which == pieces.size()) {
            return at;
        }
        piece const& next = pieces[which];
        if (!next.is_gap) {
            bool const stands_there = line.substr(at).starts_with(next.text);
            return stands_there ? fit(which + 1, at + next.text.size()) : std::nullopt;
        }
        return fill(which, at);
    }

    /// As little as possible for a gap, but all there is for the last one.
    std::optional<std::size_t> fill(std::size_t which, std::size_t at) {
        piece const& gap = pieces[which];
        std::size_t const longest = gap.is_number ? number_length(at) : line.size() - at;
        bool const is_last = which + 1 == pieces.size();
        for (std::size_t length = is_last ? longest : 1; length <= longest && length != 0; ++length) {
            if (auto const end = fit(which + 1, at + length)) {
                gaps.emplace(gap.text, line.substr(at, length));
                return end;
            }
        }
        return std::nullopt;
    }

    std::size_t number_length(std::size_t at) const {
        std::size_t const end = line.find_first_not_of(c_number_signs, at);
        return std::min(end, line.size()) - at;
    }

    std::vector<piece> const& pieces;
    std::string_view line;
    gap_values gaps;
};

/// How much of a line, from its front, a text with gaps takes; nothing when it does not fit.
std::optional<std::size_t> fitting_length(std::string_view text, std::string_view line) {
    std::vector<piece> const pieces = cut(text);
    return fitting(pieces, line).run();
}

/// Without one of the texts in front, if there is one.
std::string_view without_front(std::string_view line) {
    for (std::string_view const front : c_fronts) {
        if (auto const length = fitting_length(front, line)) {
            return line.substr(*length);
        }
    }
    return line;
}

std::string_view without_back(std::string_view line) {
    std::size_t const back = line.rfind(c_back.substr(0, c_back.find('{')));
    bool const is_there =
        back != std::string_view::npos && fitting_length(c_back, line.substr(back)) == line.size() - back;
    return line.substr(0, is_there ? back : line.size());
}

/// A line without what a log or the program puts around it.
std::string strip(std::string_view whole) {
    std::string_view line = without_back(whole);
    for (std::string_view inner = without_front(line); inner.size() < line.size(); inner = without_front(line)) {
        line = inner;
    }
    return std::string(line);
}

bool is_letter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || static_cast<unsigned char>(c) >= 0x80;
}

// --- the best one ----------------------------------------------------------------------------------------------

/// How well a message fits; a larger one is better.
using fitness = std::tuple<bool, std::size_t>;

struct candidate {
    explanation what;
    fitness fit;
    gap_values gaps;
    bool is_whole = false; ///< it takes all of the line
};

class matcher {
public:
    explicit matcher(std::string_view given) : line(strip(normalize(given))) {}

    std::optional<candidate> run() {
        for (message_group const& group : message_groups()) {
            for (message_entry const& entry : group.entries) {
                for (message_text const& text : entry.texts) {
                    try_text(group, entry, text);
                }
            }
        }
        return std::move(best);
    }

private:
    void try_text(message_group const& group, message_entry const& entry, message_text const& text) {
        std::vector<piece> const pieces = cut(normalize(text.text));
        std::size_t const letters = count_letters(pieces);
        bool const must_be_whole = text.is_whole_line || letters < c_least_letters;
        for (std::size_t start = 0; start < line.size(); ++start) {
            bool const begins_here = start == 0 || (!must_be_whole && !is_letter(line[start - 1]));
            if (begins_here) {
                try_at(start, pieces, must_be_whole,
                       {{&group, &entry, text.text, std::nullopt}, {false, letters}, {}, false});
            }
        }
    }

    void try_at(std::size_t start, std::vector<piece> const& pieces, bool must_be_whole, candidate made) {
        fitting trial(pieces, std::string_view(line).substr(start));
        auto const length = trial.run();
        if (!length) {
            return;
        }
        bool const reaches_end = start + *length == line.size();
        made.is_whole = start == 0 && reaches_end;
        std::get<0>(made.fit) = reaches_end;
        bool const is_cut = !reaches_end && is_letter(line[start + *length]) && is_letter(line[start + *length - 1]);
        if ((must_be_whole && !made.is_whole) || is_cut || (best && best->fit >= made.fit)) {
            return;
        }
        made.gaps = trial.take_gaps();
        best = std::move(made);
    }

    std::string line;
    std::optional<candidate> best;
};

std::optional<int> read_number(gap_values const& gaps, std::string_view name) {
    auto const found = gaps.find(name);
    int number = 0;
    if (found == gaps.end()) {
        return std::nullopt;
    }
    char const* const end = found->second.data() + found->second.size();
    auto const [stop, error] = std::from_chars(found->second.data(), end, number);
    return error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

} // namespace

std::vector<explanation> explain_line(std::string_view line) {
    std::vector<explanation> found;
    auto best = matcher(line).run();
    // A message within a message has to be one on its own.
    while (best && (found.empty() || best->is_whole)) {
        best->what.error = read_number(best->gaps, "errno");
        found.push_back(best->what);
        auto const inner = best->gaps.find("why");
        best = inner != best->gaps.end() ? matcher(std::string(inner->second)).run() : std::nullopt;
    }
    return found;
}

} // namespace Zolt::Reference_Center
