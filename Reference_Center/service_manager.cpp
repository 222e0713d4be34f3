#include "Reference_Center/service_manager.hpp"

#include "Reference_Center/environment.hpp"

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace Zolt::Reference_Center {
namespace {

std::optional<std::int64_t> parse_number(std::string_view text) {
    std::int64_t number = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && number > 0 ? std::optional(number)
                                                                                  : std::nullopt;
}

} // namespace

service_manager::service_manager() : address(take_variable("NOTIFY_SOCKET")) {
    auto const time = parse_number(take_variable("WATCHDOG_USEC"));
    std::string const watched = take_variable("WATCHDOG_PID");
    if (!address.empty() && time && (watched.empty() || parse_number(watched) == ::getpid())) {
        watchdog = std::chrono::microseconds(*time);
    }
}

void service_manager::tell(std::string_view state) const {
    ::sockaddr_un to{};
    if (address.empty() || address.size() >= sizeof to.sun_path) {
        return;
    }
    to.sun_family = AF_UNIX;
    std::memcpy(to.sun_path, address.data(), address.size());
    if (address.front() == '@') {
        to.sun_path[0] = '\0'; // a name that is no file
    }
    auto const length = static_cast<::socklen_t>(offsetof(::sockaddr_un, sun_path) + address.size());
    int const fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd == -1) {
        return;
    }
    // A manager that does not read must not hold up a thread that serves.
    ::sendto(fd, state.data(), state.size(), MSG_NOSIGNAL | MSG_DONTWAIT, reinterpret_cast<::sockaddr*>(&to), length);
    ::close(fd);
}

} // namespace Zolt::Reference_Center
