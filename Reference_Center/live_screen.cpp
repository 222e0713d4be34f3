#include "Reference_Center/live_screen.hpp"

#include "Reference_Center/output.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <poll.h>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>

namespace Zolt::Reference_Center {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::string_view c_take = "\x1b[?1049h\x1b[?25l"; // the other screen, no cursor
constexpr std::string_view c_give_back = "\x1b[?25h\x1b[?1049l";
constexpr std::string_view c_home = "\x1b[H";
constexpr std::string_view c_plain = "\x1b[0m";
constexpr std::string_view c_end_line = "\x1b[K";
constexpr std::string_view c_end_screen = "\x1b[J";
constexpr std::string_view c_hint = "q ends";

constexpr std::string_view colour_of(look as) {
    return as == look::heading ? "\x1b[1m" : as == look::bad ? "\x1b[31m" : "";
}

struct extent {
    std::size_t rows = 24;
    std::size_t columns = 80;
};

extent measure() {
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == -1 || size.ws_row == 0 || size.ws_col == 0) {
        return {};
    }
    return {size.ws_row, size.ws_col};
}

} // namespace

live_screen::live_screen(int wanted)
    : signals(wanted), has_colour(wants_colour(STDOUT_FILENO)), has_keys(::tcgetattr(STDIN_FILENO, &before) == 0) {
    if (has_keys) {
        termios keys = before;
        keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        keys.c_cc[VSUSP] = _POSIX_VDISABLE; // a stopped program would leave the screen as it is
        ::tcsetattr(STDIN_FILENO, TCSANOW, &keys);
    }
    write_out(c_take);
}

live_screen::~live_screen() {
    // A terminal that is gone needs nothing back.
    static_cast<void>(::write(STDOUT_FILENO, c_give_back.data(), c_give_back.size()) == 0);
    if (has_keys) {
        ::tcsetattr(STDIN_FILENO, TCSANOW, &before);
    }
}

void live_screen::draw(std::vector<view_line> const& lines) const {
    extent const size = measure();
    std::string text(c_home);
    std::size_t const fitting = std::min(lines.size(), size.rows - 1);
    for (std::size_t i = 0; i < fitting; ++i) {
        text += has_colour ? colour_of(lines[i].as) : "";
        text += lines[i].text.substr(0, size.columns);
        text += has_colour ? c_plain : "";
        text += c_end_line;
        text += '\n';
    }
    text += fitting < lines.size() ? fmt::format("{} more; {}", lines.size() - fitting, c_hint) : std::string(c_hint);
    text += c_end_line;
    text += c_end_screen;
    write_out(text);
}

std::optional<exit_code> live_screen::wait(milliseconds longest) const {
    auto const until = steady_clock::now() + longest;
    pollfd waited[] = {{signals, POLLIN, 0}, {has_keys ? STDIN_FILENO : -1, POLLIN, 0}};
    for (;;) {
        auto const left = std::chrono::ceil<milliseconds>(until - steady_clock::now()).count();
        if (left <= 0 || ::poll(waited, 2, static_cast<int>(left)) == 0) {
            return std::nullopt;
        }
        if (waited[0].revents != 0) {
            return exit_code::interrupted;
        }
        char key = 0;
        if (waited[1].revents != 0 && (::read(STDIN_FILENO, &key, 1) != 1 || key == 'q' || key == 'Q')) {
            return exit_code::done;
        }
    }
}

} // namespace Zolt::Reference_Center
