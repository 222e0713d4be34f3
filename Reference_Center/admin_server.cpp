#include "Reference_Center/admin_server.hpp"

#include "Reference_Center/addresses.hpp"
#include "Reference_Center/failure.hpp"
#include "Reference_Center/output.hpp"
#include "Reference_Center/port_holder.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <optional>
#include <poll.h>
#include <pthread.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace Zolt::Reference_Center {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr unsigned int c_most_connections = 64;
constexpr std::size_t c_connection_memory = 16384;
constexpr milliseconds c_connection_time{5000};

/// What goes out with every answer. The page needs its own script, style and data, and nothing of anybody else's.
constexpr std::array<std::pair<char const*, char const*>, 7> c_headers{
    {{"Cache-Control", "no-store"},
     {"X-Content-Type-Options", "nosniff"},
     {"Content-Security-Policy",
      "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; base-uri 'none'; "
      "form-action 'none'; frame-ancestors 'none'"},
     {"Referrer-Policy", "no-referrer"},
     {"Cross-Origin-Resource-Policy", "same-origin"},
     {"Allow", "GET, HEAD"},
     {"Connection", "close"}}};

/// A descriptor that is closed at the end.
class owned_descriptor {
public:
    owned_descriptor(int descriptor, char const* what) : value(checked(descriptor, what)) {}
    ~owned_descriptor() { ::close(value); }
    owned_descriptor(owned_descriptor const&) = delete;
    owned_descriptor& operator=(owned_descriptor const&) = delete;

    int get() const { return value; }

private:
    int value;
};

[[noreturn]] void fail_to_open(struct_node_addr where, int error) {
    throw failure(exit_code::port_unavailable,
                  fmt::format("the admin endpoint cannot be at {}: {}", address_text(where),
                              describe(where.port, {error, protocol::tcp})));
}

void listen_at(int descriptor, struct_node_addr where) {
    int const on = 1;
    ::setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = where.ip;
    address.sin_port = htons(where.port);
    if (::bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) == -1 ||
        ::listen(descriptor, static_cast<int>(c_most_connections)) == -1) {
        fail_to_open(where, errno);
    }
}

std::uint16_t port_of(int descriptor) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

/// A browser that was lured here by a foreign name says that name; an address or "localhost" cannot be made to mean this
/// machine by somebody else. Programs may leave the header out.
bool names_this_machine(char const* host) {
    if (host == nullptr) {
        return true;
    }
    std::string name = host;
    if (std::size_t const colon = name.rfind(':'); colon != std::string::npos) {
        name.resize(colon);
    }
    return parse_ip(name).has_value() || ::strcasecmp(name.c_str(), "localhost") == 0;
}

MHD_Result send_answer(MHD_Connection* connection, http_answer& answer) {
    MHD_Response* const response =
        MHD_create_response_from_buffer(answer.body.size(), answer.body.data(), MHD_RESPMEM_MUST_COPY);
    if (response == nullptr) {
        return MHD_NO; // the connection is closed
    }
    MHD_add_response_header(response, "Content-Type", answer.type.c_str());
    for (auto const& [name, value] : c_headers) {
        MHD_add_response_header(response, name, value);
    }
    MHD_Result const result = MHD_queue_response(connection, answer.status, response);
    MHD_destroy_response(response);
    return result;
}

/// Blocks all signals of the calling thread, and with that of threads that it starts, until the end.
class signal_blocker {
public:
    signal_blocker() {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &before);
    }
    ~signal_blocker() { ::pthread_sigmask(SIG_SETMASK, &before, nullptr); }
    signal_blocker(signal_blocker const&) = delete;
    signal_blocker& operator=(signal_blocker const&) = delete;

private:
    sigset_t before;
};

std::thread start_without_signals(std::function<void()> const& body) {
    signal_blocker const blocker;
    return std::thread(body);
}

/// Connections in the order of their arrival, and what they are cut by.
class open_connections {
public:
    void add(MHD_Connection* connection) { list.push_back({connection, steady_clock::now() + c_connection_time}); }
    void remove(MHD_Connection const* connection) {
        std::erase_if(list, [&](entry const& one) { return one.connection == connection; });
        has_room = true;
    }

    /// True once after a connection has gone. The library that had stopped accepting looks at that only when it runs again.
    bool take_room() { return std::exchange(has_room, false); }

    /// Shuts down who had his time, and the oldest when all places are taken. The library closes them when it notices.
    void cut() const {
        auto const now = steady_clock::now();
        for (std::size_t i = 0; i < list.size(); ++i) {
            bool const is_in_the_way = list.size() - i >= c_most_connections;
            if (!is_in_the_way && now < list[i].deadline) {
                return;
            }
            ::shutdown(MHD_get_connection_info(list[i].connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd,
                       SHUT_RDWR);
        }
    }

    /// How long it may be until the next cut.
    std::optional<milliseconds> patience() const {
        if (list.empty()) {
            return std::nullopt;
        }
        return std::max(milliseconds(1), std::chrono::ceil<milliseconds>(list.front().deadline - steady_clock::now()));
    }

private:
    struct entry {
        MHD_Connection* connection;
        steady_clock::time_point deadline;
    };
    std::vector<entry> list;
    bool has_room = false;
};

} // namespace

/// The library runs on this class's thread and never on one of its own.
class admin_server::engine {
public:
    engine(struct_node_addr wanted, handler given)
        : answers(std::move(given)),
          listener(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), "socket"),
          end(::eventfd(0, EFD_CLOEXEC), "eventfd"), where(open(wanted)),
          is_loopback((ntohl(where.ip) >> IN_CLASSA_NSHIFT) == IN_LOOPBACKNET), daemon(start_daemon()),
          thread(start_without_signals([this] { run(); })) {
        ::pthread_setname_np(thread.native_handle(), "admin");
    }

    ~engine() {
        std::uint64_t const one = 1;
        // An event descriptor takes a small number in any state.
        static_cast<void>(::write(end.get(), &one, sizeof one) == 0);
        thread.join();
        MHD_stop_daemon(daemon);
    }

    engine(engine const&) = delete;
    engine& operator=(engine const&) = delete;

    struct_node_addr address() const { return where; }

private:
    struct_node_addr open(struct_node_addr wanted) const {
        listen_at(listener.get(), wanted);
        return {wanted.ip, port_of(listener.get())};
    }

    MHD_Daemon* start_daemon() {
        MHD_Daemon* const made =
            MHD_start_daemon(MHD_USE_EPOLL, 0, nullptr, nullptr, on_request, this, MHD_OPTION_LISTEN_SOCKET,
                             ::fcntl(listener.get(), F_DUPFD_CLOEXEC, 0), MHD_OPTION_CONNECTION_LIMIT,
                             c_most_connections, MHD_OPTION_CONNECTION_MEMORY_LIMIT, c_connection_memory,
                             MHD_OPTION_NOTIFY_CONNECTION, on_connection, this, MHD_OPTION_END);
        if (made == nullptr) {
            throw failure(exit_code::failed, "the admin endpoint cannot be started");
        }
        return made;
    }

    void run() {
        std::array<pollfd, 2> waited{
            {{end.get(), POLLIN, 0}, {MHD_get_daemon_info(daemon, MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd, POLLIN, 0}}};
        while (waited[0].revents == 0) {
            ::poll(waited.data(), waited.size(), patience());
            MHD_run(daemon);
            connections.cut();
        }
    }

    /// Milliseconds for poll.
    int patience() {
        MHD_UNSIGNED_LONG_LONG library = 0;
        if (connections.take_room() || (MHD_get_timeout(daemon, &library) == MHD_YES && library == 0)) {
            return 0;
        }
        auto const ours = connections.patience();
        return ours ? static_cast<int>(ours->count()) : -1;
    }

    http_answer answer(char const* method, char const* path, char const* host) const {
        if (std::strcmp(method, MHD_HTTP_METHOD_GET) != 0 && std::strcmp(method, MHD_HTTP_METHOD_HEAD) != 0) {
            return refuse(MHD_HTTP_METHOD_NOT_ALLOWED,
                          fmt::format("{} is not possible here, only GET and HEAD", method));
        }
        if (is_loopback && !names_this_machine(host)) {
            return refuse(MHD_HTTP_MISDIRECTED_REQUEST,
                          "the Host header has to be an address or localhost, so that no other site can read this");
        }
        try {
            return answers(path);
        } catch (std::exception const& reason) {
            return refuse(MHD_HTTP_INTERNAL_SERVER_ERROR, reason.what());
        }
    }

    static MHD_Result on_request(void* self, MHD_Connection* connection, char const* path, char const* method,
                                 char const*, char const*, std::size_t*, void**) {
        http_answer answered = static_cast<engine*>(self)->answer(
            method, path, MHD_lookup_connection_value(connection, MHD_HEADER_KIND, "Host"));
        return send_answer(connection, answered);
    }

    static void on_connection(void* self, MHD_Connection* connection, void**, MHD_ConnectionNotificationCode what) {
        open_connections& all = static_cast<engine*>(self)->connections;
        if (what == MHD_CONNECTION_NOTIFY_STARTED) {
            all.add(connection);
        } else {
            all.remove(connection);
        }
    }

    handler const answers;
    owned_descriptor const listener;
    owned_descriptor const end;
    struct_node_addr const where;
    bool const is_loopback;
    open_connections connections; ///< the thread's, and once it has ended its destructor's
    MHD_Daemon* const daemon;
    std::thread thread;
};

http_answer refuse(unsigned int status, std::string const& text) {
    return {status, "application/json", to_line(json_object{{"error", text}})};
}

admin_server::admin_server(struct_node_addr where, handler answers)
    : running(std::make_unique<engine>(where, std::move(answers))) {}

admin_server::~admin_server() = default;

struct_node_addr admin_server::address() const {
    return running->address();
}

} // namespace Zolt::Reference_Center
