#include "Reference_Center/port_holder.hpp"

#include "Reference_Center/error_description.hpp"
#include "Reference_Center/failure.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <netinet/in.h>
#include <optional>
#include <sstream>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace Zolt::Reference_Center {
namespace {

namespace fs = std::filesystem;

/// The kernel's numbers of the states of a TCP connection that this side has closed.
enum closed_state : unsigned int { fin_wait_1 = 4, fin_wait_2 = 5, time_wait = 6, last_ack = 9, closing = 11 };

constexpr unsigned long c_ticks_per_second = 100;

/// A line of /proc/net/tcp and its kin.
struct socket_row {
    unsigned long port = 0;
    unsigned int state = 0;
    unsigned long timer_ticks = 0; ///< until the timer that runs for it
    std::string inode;             ///< "0" when no process has it
};

int try_bind(int type, std::uint16_t port) {
    int const fd = ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
    if (fd == -1) {
        return errno;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    int const error = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 ? 0 : errno;
    ::close(fd);
    return error;
}

/// The hexadecimal number behind the last colon.
unsigned long hex_behind_colon(std::string_view text) {
    std::string_view const digits = text.substr(text.rfind(':') + 1);
    unsigned long value = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
    return value;
}

/// Columns: number, local address, remote address, state, queues, timer, retransmissions, user, time-out, inode.
std::optional<socket_row> parse_row(std::string const& line) {
    std::istringstream columns(line);
    std::array<std::string, 10> column;
    for (std::string& one : column) {
        if (!(columns >> one)) {
            return std::nullopt;
        }
    }
    return socket_row{hex_behind_colon(column[1]), static_cast<unsigned int>(hex_behind_colon(column[3])),
                      hex_behind_colon(column[5]), column[9]};
}

/// The sockets on a local port, over IPv4 and IPv6: one on all addresses of IPv6 takes the port from IPv4 too.
std::vector<socket_row> find_sockets(std::uint16_t port, protocol over) {
    std::vector<socket_row> found;
    std::string const name = over == protocol::udp ? "/proc/net/udp" : "/proc/net/tcp";
    for (std::string const& file : {name, name + "6"}) {
        std::ifstream table(file);
        for (std::string line; std::getline(table, line);) {
            auto const row = parse_row(line);
            if (row && row->port == port) {
                found.push_back(*row);
            }
        }
    }
    return found;
}

bool is_number(std::string const& name) {
    return !name.empty() && name.find_first_not_of("0123456789") == std::string::npos;
}

bool has_socket(fs::path const& process, std::string const& link) {
    std::error_code denied;
    for (auto const& entry : fs::directory_iterator(process / "fd", denied)) {
        std::error_code gone;
        if (fs::read_symlink(entry.path(), gone).native() == link) {
            return true;
        }
    }
    return false;
}

/// "pid N (name)" of a process that has the socket open.
std::optional<std::string> find_process(std::string const& inode) {
    std::string const link = "socket:[" + inode + "]";
    std::error_code denied;
    for (auto const& process : fs::directory_iterator("/proc", denied)) {
        std::string const pid = process.path().filename();
        if (!is_number(pid) || !has_socket(process.path(), link)) {
            continue;
        }
        std::string name;
        std::getline(std::ifstream(process.path() / "comm"), name);
        return fmt::format("pid {} ({})", pid, name);
    }
    return std::nullopt;
}

} // namespace

port_trouble try_port(std::uint16_t port) {
    if (int const error = try_bind(SOCK_DGRAM, port); error != 0) {
        return {error, protocol::udp};
    }
    return {try_bind(SOCK_STREAM, port), protocol::tcp};
}

std::uint16_t find_free_port(std::uint16_t not_this) {
    for (int attempt = 0; attempt < 100; ++attempt) {
        int const fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        socklen_t length = sizeof address;
        bool const bound = ::bind(fd, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                           ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0;
        ::close(fd);
        std::uint16_t const port = ntohs(address.sin_port);
        if (bound && port != not_this && try_port(port).error == 0) {
            return port;
        }
    }
    throw failure(exit_code::port_unavailable, "no port is free over both TCP and UDP");
}

/// What the kernel goes on with by itself for a connection that nobody has any more; empty when it is none.
std::string describe_closed(socket_row const& socket) {
    if (socket.inode != "0") {
        return "";
    }
    switch (socket.state) {
    case fin_wait_1:
    case last_ack:
    case closing:
        return "a closed connection whose peer has not confirmed all that the kernel sent";
    case fin_wait_2:
    case time_wait:
        return fmt::format("a closed connection that the kernel keeps for {} more seconds",
                           (socket.timer_ticks + c_ticks_per_second - 1) / c_ticks_per_second);
    default:
        return "";
    }
}

std::string describe_holder(std::uint16_t port, protocol over) {
    std::vector<socket_row> const sockets = find_sockets(port, over);
    for (socket_row const& socket : sockets) {
        if (socket.inode == "0") {
            continue;
        }
        if (auto const process = find_process(socket.inode)) {
            return *process;
        }
    }
    for (socket_row const& socket : sockets) {
        if (std::string closed = describe_closed(socket); !closed.empty()) {
            return closed;
        }
    }
    return sockets.empty() ? "a socket that the system does not list" : "nobody you may look at";
}

std::string describe(std::uint16_t port, port_trouble const& trouble) {
    char const* const over = trouble.over == protocol::udp ? "UDP" : "TCP";
    if (trouble.error == EADDRINUSE) {
        return fmt::format("port {} is taken over {}: by {}", port, over, describe_holder(port, trouble.over));
    }
    return fmt::format("port {} cannot be served over {}: {}", port, over, describe_error(trouble.error));
}

} // namespace Zolt::Reference_Center
