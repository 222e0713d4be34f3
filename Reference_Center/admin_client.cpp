#include "Reference_Center/admin_client.hpp"

#include "Reference_Center/addresses.hpp"
#include "Reference_Center/admin_site.hpp"
#include "Reference_Center/error_description.hpp"
#include "Reference_Center/failure.hpp"
#include "Reference_Center/options.hpp"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Zolt::Reference_Center {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds c_answer_time{5000};
constexpr std::size_t c_longest_answer = 64U << 20;
constexpr std::string_view c_end_of_headers = "\r\n\r\n";
constexpr std::string_view c_good_answer = " 200 ";

/// One request over a connection of its own, which the other side ends after its answer.
class admin_request {
public:
    explicit admin_request(struct_node_addr asked)
        : where(asked), socket(checked(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), "socket")) {}
    ~admin_request() { ::close(socket); }
    admin_request(admin_request const&) = delete;
    admin_request& operator=(admin_request const&) = delete;

    std::string run(std::string_view path) const {
        connect();
        // An old version, so that the answer comes in one piece and ends with the connection.
        std::string const request = fmt::format("GET {} HTTP/1.0\r\nHost: {}\r\n\r\n", path, address_text(where));
        wait_for(POLLOUT);
        require(::send(socket, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size()));
        return read_to_end();
    }

private:
    void connect() const {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = where.ip;
        address.sin_port = htons(where.port);
        if (::connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
            return;
        }
        require(errno == EINPROGRESS);
        wait_for(POLLOUT);
        socklen_t size = sizeof errno;
        require(::getsockopt(socket, SOL_SOCKET, SO_ERROR, &errno, &size) == 0 && errno == 0);
    }

    std::string read_to_end() const {
        std::string answer;
        char piece[16384];
        for (;;) {
            wait_for(POLLIN);
            ssize_t const count = ::recv(socket, piece, sizeof piece, 0);
            require(count >= 0);
            if (count == 0 && answer.empty()) {
                errno = ECONNRESET; // as a Center that ends just then
                require(false);
            }
            if (count == 0 || answer.size() > c_longest_answer) {
                return answer;
            }
            answer.append(piece, static_cast<std::size_t>(count));
        }
    }

    void wait_for(short what) const {
        pollfd waited{socket, what, 0};
        auto const left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now()).count();
        if (::poll(&waited, 1, left > 0 ? static_cast<int>(left) : 0) != 1) {
            errno = ETIMEDOUT;
            require(false);
        }
    }

    /// Throws failure by errno when it is not so.
    void require(bool is_so) const {
        if (!is_so) {
            throw failure(exit_code::unreachable,
                          fmt::format("no Center answers at {}: {}", address_text(where), describe_error(errno)));
        }
    }

    struct_node_addr const where;
    int const socket;
    steady_clock::time_point const deadline = steady_clock::now() + c_answer_time;
};

} // namespace

void add_asked_admin_option(CLI::App& command, std::string& place) {
    place = c_default_admin;
    command.add_option("--admin", place, "Where the Center's admin endpoint is; its ready line says so")
        ->check(address_check())
        ->type_name("IP:PORT")
        ->capture_default_str();
}

json_object ask_admin(struct_node_addr where, std::string_view path) {
    std::string const answer = admin_request(where).run(path);
    std::string_view const whole = answer;
    std::size_t const end = whole.find(c_end_of_headers);
    std::string_view const first_line = whole.substr(0, whole.find("\r\n"));
    if (end == std::string_view::npos || first_line.find(c_good_answer) == std::string_view::npos) {
        throw failure(exit_code::failed, fmt::format("what answers at {} is no Center", address_text(where)));
    }
    try {
        return json_object::parse(whole.substr(end + c_end_of_headers.size()));
    } catch (json_object::exception const&) {
        throw failure(exit_code::failed,
                      fmt::format("what answers at {} is no Center: {} has no JSON", address_text(where), path));
    }
}

json_object take_snapshot(std::string const& place) {
    struct_node_addr const where = *parse_address(place);
    json_object snapshot = ask_admin(where, "/api/v1/status");
    json_object const peers = ask_admin(where, "/api/v1/peers");
    if (!snapshot.is_object() || !peers.is_object() || !peers.contains("peers")) {
        throw failure(exit_code::failed, fmt::format("what answers at {} is no Center", place));
    }
    snapshot["peers"] = peers["peers"];
    return snapshot;
}

} // namespace Zolt::Reference_Center
