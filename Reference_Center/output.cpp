#include "Reference_Center/output.hpp"

#include "Reference_Center/environment.hpp"
#include "Reference_Center/error_description.hpp"

#include <cerrno>
#include <poll.h>
#include <unistd.h>

namespace Zolt::Reference_Center {
namespace {

/// 0, or errno.
int write_whole(int descriptor, std::string_view text) {
    while (!text.empty()) {
        ssize_t const done = ::write(descriptor, text.data(), text.size());
        if (done >= 0) {
            text.remove_prefix(static_cast<std::size_t>(done));
            continue;
        }
        if (errno == EAGAIN) {
            pollfd writable{descriptor, POLLOUT, 0};
            ::poll(&writable, 1, -1);
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

} // namespace

std::string to_line(json_object const& object) {
    // Bytes that are no UTF-8 can only come from file names and arguments.
    return object.dump(-1, ' ', false, json_object::error_handler_t::replace) + "\n";
}

void write_out(std::string_view text) {
    if (int const error = write_whole(STDOUT_FILENO, text); error != 0) {
        throw failure(exit_code::failed, "cannot write to standard output: " + describe_error(error));
    }
}

void write_out_line(std::string_view line) {
    write_out(std::string(line) + "\n");
}

void write_out_object(json_object const& object) {
    write_out(to_line(object));
}

void write_error_line(std::string_view line) {
    write_whole(STDERR_FILENO, std::string(line) + "\n");
}

void report_failure(failure const& reason, bool as_json) {
    json_object const object{{"error", {{"code", static_cast<int>(reason.code())}, {"text", reason.what()}}}};
    // An object that nobody can read is a line after all.
    if (!as_json || write_whole(STDOUT_FILENO, to_line(object)) != 0) {
        write_error_line(std::string("zolt-center: ") + reason.what());
    }
}

bool is_terminal(int descriptor) {
    std::string const kind = read_variable("TERM");
    return ::isatty(descriptor) == 1 && !kind.empty() && kind != "dumb";
}

bool wants_colour(int descriptor) {
    return is_terminal(descriptor) && read_variable("NO_COLOR").empty();
}

} // namespace Zolt::Reference_Center
