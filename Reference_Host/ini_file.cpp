#include "Reference_Host/ini_file.hpp"

#include "Host/tesk_utility.hpp"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace Zolt::Reference_Host {
namespace {

constexpr std::string_view c_blanks = " \t\r\v\f";
constexpr std::string_view c_byte_order_mark = "\xEF\xBB\xBF";
constexpr std::size_t c_largest_file = 1U << 20;

std::string_view trim(std::string_view text) {
    std::size_t const first = text.find_first_not_of(c_blanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(c_blanks) - first + 1);
}

bool is_comment_sign(char c) {
    return c == ';' || c == '#';
}

/// Cuts a comment off: a sign at the start or behind a blank.
std::string_view cut_comment(std::string_view text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        bool const behind_blank = i == 0 || c_blanks.find(text[i - 1]) != std::string_view::npos;
        if (is_comment_sign(text[i]) && behind_blank) {
            return text.substr(0, i);
        }
    }
    return text;
}

/// The value between the quotes, or the bare value without its comment.
std::string_view read_value(std::string_view text) {
    std::string_view const bare = trim(text);
    if (bare.size() >= 2 && bare.front() == '"') {
        std::size_t const end = bare.find('"', 1);
        if (end != std::string_view::npos && trim(cut_comment(bare.substr(end + 1))).empty()) {
            return bare.substr(1, end - 1);
        }
    }
    return trim(cut_comment(text));
}

char to_lower_letter(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool is_same_name(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return to_lower_letter(x) == to_lower_letter(y); });
}

void read_section(std::string_view line, int number, std::string& section, ini_content& content) {
    std::size_t const end = line.find(']');
    if (end == std::string_view::npos) {
        content.faults.push_back({number, "section without ]"});
    }
    // Without its bracket the line still names the section: the keys below it must not fall to the one above.
    section = trim(line.substr(1, end == std::string_view::npos ? end : end - 1));
}

void read_line(std::string_view line, int number, std::string& section, ini_content& content) {
    std::string_view const text = trim(line);
    if (text.empty() || is_comment_sign(text.front())) {
        return;
    }
    if (text.front() == '[') {
        read_section(text, number, section, content);
        return;
    }
    std::size_t const equals = text.find('=');
    if (equals == std::string_view::npos) {
        content.faults.push_back({number, "neither section, comment nor key = value"});
        return;
    }
    std::string_view const key = trim(text.substr(0, equals));
    if (key.empty()) {
        content.faults.push_back({number, "value without a key"});
        return;
    }
    content.entries.push_back({section, std::string(key), std::string(read_value(text.substr(equals + 1))), number});
}

class descriptor {
public:
    explicit descriptor(int number) : fd(number) {}
    ~descriptor() {
        if (fd != -1) {
            ::close(fd);
        }
    }
    descriptor(descriptor const&) = delete;
    descriptor& operator=(descriptor const&) = delete;

    int const fd;
};

} // namespace

int read_ini_text(char const* path, std::string& text) {
    // Without waiting: a pipe of that name must not hold the caller up.
    descriptor const file(::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file.fd == -1) {
        return errno;
    }
    char piece[4096];
    while (text.size() <= c_largest_file) {
        ssize_t const count = ::read(file.fd, piece, sizeof piece);
        if (count == 0) {
            return 0;
        }
        if (count > 0) {
            text.append(piece, static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return EFBIG;
}

ini_content parse_ini(std::string_view text) {
    ini_content content;
    std::string section;
    if (text.starts_with(c_byte_order_mark)) {
        text.remove_prefix(c_byte_order_mark.size());
    }
    for (int number = 1; !text.empty(); ++number) {
        std::size_t const end = text.find('\n');
        read_line(text.substr(0, end), number, section, content);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return content;
}

ini_content read_ini_file(char const* path) {
    std::string text;
    if (int const error = read_ini_text(path, text); error != 0) {
        ini_content failed;
        failed.error = error;
        return failed;
    }
    return parse_ini(text);
}

ini_entry const* find_entry(ini_content const& content, std::string_view section, std::string_view key) {
    auto const found = std::find_if(content.entries.rbegin(), content.entries.rend(), [&](ini_entry const& entry) {
        return is_same_name(entry.section, section) && is_same_name(entry.key, key);
    });
    return found != content.entries.rend() ? &*found : nullptr;
}

std::optional<int> parse_integer(std::string_view text) {
    if (text.size() > 1 && text.front() == '+' && text[1] != '-') {
        text.remove_prefix(1);
    }
    int value = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

std::string to_lower(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(), to_lower_letter);
    return lower;
}

namespace {

std::string& redirection() {
    static std::string path;
    return path;
}

/// The file that is read for one that was asked for.
ini_content read_asked_file(char const* file) {
    std::string const& instead = redirection();
    return read_ini_file(instead.empty() ? file : instead.c_str());
}

} // namespace

void redirect_ini_files(std::string path) {
    redirection() = std::move(path);
}

} // namespace Zolt::Reference_Host

namespace Tesk::Utility {

using namespace Zolt::Reference_Host;

int get_integer_from_ini_file(char const* file, char const* section, char const* key, int fallback) {
    ini_content const content = read_asked_file(file);
    ini_entry const* const entry = find_entry(content, section, key);
    return entry != nullptr ? parse_integer(entry->value).value_or(fallback) : fallback;
}

char const* get_lwr_string_from_ini_file(char const* file, char const* section, char const* key, char const* fallback) {
    static thread_local std::string answer;
    ini_content const content = read_asked_file(file);
    ini_entry const* const entry = find_entry(content, section, key);
    answer = entry != nullptr ? to_lower(entry->value) : fallback;
    return answer.c_str();
}

} // namespace Tesk::Utility
