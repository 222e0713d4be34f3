#include "Host/zolt_global.hpp"
#include "Reference_Host/output_sink.hpp"
#include "Reference_Host/relay_observer.hpp"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace Zolt::Common::Global {
namespace {

// Deliberate: this format comes with two arguments for five conversions, so it is written as it stands (decision 31).
constexpr char c_unexpanded_format[] = "delete %s overlapped %d.%d.%d.%d";

constexpr std::size_t c_text_room = 480;

/// "file:line letter text"; the length written.
std::size_t write_trace(char (&text)[c_text_room], char letter, char const* file, int line, char const* format,
                        std::va_list arguments) {
    int const position = std::snprintf(text, sizeof text, "%s:%d %c ", file, line, letter);
    std::size_t const used = std::min(static_cast<std::size_t>(std::max(position, 0)), sizeof text - 1);
    std::size_t const room = sizeof text - used;
    int const length = std::strcmp(format, c_unexpanded_format) == 0
                           ? std::snprintf(text + used, room, "%s", format)
                           // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the caller has started it
                           : std::vsnprintf(text + used, room, format, arguments);
    return used + std::min(static_cast<std::size_t>(std::max(length, 0)), room - 1);
}

} // namespace

int zolt_debug_not_send(char const& letter, struct_token const& token, char const* const& file, int const& line,
                        char const* format, ...) {
    std::va_list arguments;
    if (auto* const observer = Reference_Host::get_relay_observer()) {
        va_start(arguments, format);
        // A trace may not change its token, which its host may.
        observer->on_trace(format, const_cast<struct_token&>(token), arguments);
        va_end(arguments);
    }
    if (!Reference_Host::is_traced(letter)) {
        return 0;
    }
    char text[c_text_room];
    va_start(arguments, format);
    std::size_t const length = write_trace(text, letter, file, line, format, arguments);
    va_end(arguments);
    Reference_Host::print_line(Reference_Host::line_kind::trace, letter, {text, length});
    return 0;
}

} // namespace Zolt::Common::Global
