// A terminal that is drawn in place: the whole screen, taken at the beginning and given back at the end.
#ifndef REFERENCE_CENTER_LIVE_SCREEN_HPP
#define REFERENCE_CENTER_LIVE_SCREEN_HPP

#include "Reference_Center/failure.hpp"
#include "Reference_Center/snapshot_view.hpp"

#include <chrono>
#include <optional>
#include <termios.h>
#include <vector>

namespace Zolt::Reference_Center {

class live_screen {
public:
    /// On standard output; keys come from standard input if that is a terminal. Signals: readable when the end is wanted.
    explicit live_screen(int signals);
    ~live_screen();
    live_screen(live_screen const&) = delete;
    live_screen& operator=(live_screen const&) = delete;

    /// As many lines and as much of each as fit.
    void draw(std::vector<view_line> const& lines) const;
    /// Waits that long. How the user ended it, if he did: done by a key, interrupted by a signal.
    std::optional<exit_code> wait(std::chrono::milliseconds longest) const;

private:
    int const signals;
    bool const has_colour;
    termios before{};
    bool const has_keys;
};

} // namespace Zolt::Reference_Center

#endif
