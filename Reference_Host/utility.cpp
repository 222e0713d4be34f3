#include "Host/tesk_utility.hpp"
#include "Reference_Host/output_sink.hpp"
#include "Reference_Host/relay_observer.hpp"

#include <cstdio>
#include <fcntl.h>

namespace Tesk::Utility {

using Zolt::Reference_Host::get_relay_observer;
using Zolt::Reference_Host::line_kind;
using Zolt::Reference_Host::print_line;

namespace {

/// Some of the relay's texts bring their own end of line; a line gets one.
std::string_view without_line_end(char const* message) {
    std::string_view text = message != nullptr ? message : "";
    while (text.ends_with('\n')) {
        text.remove_suffix(1);
    }
    return text;
}

/// Sets the bits of on and clears those of off.
int change_flags(int descriptor, int on, int off) {
    int const flags = ::fcntl(descriptor, F_GETFL);
    return flags == -1 ? -1 : ::fcntl(descriptor, F_SETFL, (flags | on) & ~off);
}

void tell_of_descriptor(int descriptor, int flag, bool is_blocking) {
    auto* const observer = get_relay_observer();
    if (observer != nullptr && flag == O_NONBLOCK) {
        observer->on_descriptor(descriptor, is_blocking);
    }
}

} // namespace

void print_error(char const* message) {
    std::string_view const text = without_line_end(message);
    if (auto* const observer = get_relay_observer()) {
        observer->on_error(text);
    }
    print_line(line_kind::error, 0, text);
}

void print_error(char const* file, int line) {
    char text[256];
    std::snprintf(text, sizeof text, "%s:%d", file != nullptr ? file : "", line);
    print_line(line_kind::position, 0, text);
}

void alert(char const* message, char const* title) {
    char text[512];
    std::string_view const body = without_line_end(message);
    std::snprintf(text, sizeof text, "[%s] %.*s", title != nullptr ? title : "", static_cast<int>(body.size()),
                  body.data());
    print_line(line_kind::alert, 0, text);
}

int fflag_on(int descriptor, int flag) {
    tell_of_descriptor(descriptor, flag, false);
    return change_flags(descriptor, flag, 0);
}

int fflag_off(int descriptor, int flag) {
    tell_of_descriptor(descriptor, flag, true);
    return change_flags(descriptor, 0, flag);
}

} // namespace Tesk::Utility
