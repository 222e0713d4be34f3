// The doctor's look at ports, peers and the sockets of this network.
#include "Reference_Center/addresses.hpp"
#include "Reference_Center/center_processes.hpp"
#include "Reference_Center/doctor.hpp"
#include "Reference_Center/error_description.hpp"
#include "Reference_Center/port_holder.hpp"
#include "Reference_Center/socket_list.hpp"

#include <algorithm>
#include <cerrno>
#include <fmt/format.h>
#include <fstream>
#include <netinet/in.h>
#include <optional>
#include <poll.h>
#include <set>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

namespace Zolt::Reference_Center {
namespace {

constexpr int c_patience_ms = 2000;

std::string port_advice(std::string const& text, int error) {
    if (error != EADDRINUSE) {
        return "serve a port from 1024 on, or give the program CAP_NET_BIND_SERVICE";
    }
    if (text.find("a closed connection") != std::string::npos) {
        return text.find("confirmed") == std::string::npos ? "wait that long, or start with --wait-port 61"
                                                           : "start with --wait-port 180, or serve another port";
    }
    return text.find("pid ") != std::string::npos ? "end that process, or serve another port"
                                                  : "look again as root, or serve another port";
}

// --- sockets ---------------------------------------------------------------------------------------------------

/// Which sockets are ours to look at.
class selection {
public:
    explicit selection(doctor_plan const& given) : plan(given) {
        if (plan.ports.empty() && plan.peers.empty()) {
            for (center_process const& process : find_center_processes()) {
                inodes.insert(process.sockets.begin(), process.sockets.end());
            }
        }
    }

    bool has(listed_socket const& one) const {
        auto const is_remote = [&](struct_node_addr peer) {
            return peer.ip == one.remote.ip && peer.port == one.remote.port;
        };
        bool const is_port = std::find(plan.ports.begin(), plan.ports.end(), one.local.port) != plan.ports.end();
        return is_port || std::any_of(plan.peers.begin(), plan.peers.end(), is_remote) ||
               (one.inode != 0 && inodes.count(one.inode) != 0);
    }

private:
    doctor_plan const& plan;
    std::set<std::uint64_t> inodes;
};

void examine_backlog(listed_socket const& one, diagnoses& found) {
    std::string const check = fmt::format("backlog of port {}", one.local.port);
    std::string const waits =
        fmt::format("{} connections wait to be accepted, {} may", one.waiting_in, one.waiting_out + 1);
    if (one.waiting_in == 0) {
        found.push_back({check, verdict::ok, waits, ""});
    } else if (one.waiting_in <= one.waiting_out) {
        found.push_back({check, verdict::warning, waits, "any further connection to the port lets one more in"});
    } else {
        found.push_back(
            {check, verdict::problem, waits + ": the next one is not answered",
             "connect to the port to let one in; raise SERVER_LISTEN_BACKLOG; see whether the Center runs"});
    }
}

/// True when it stands still.
bool examine_queue(listed_socket const& one, diagnoses& found) {
    bool const does_not_read = one.timer == tcp_timer::probe;
    bool const does_not_answer = one.timer == tcp_timer::retransmission && one.attempts > 0;
    if (!does_not_read && !does_not_answer) {
        return false;
    }
    std::string const check = fmt::format("connection to {}", address_text(one.remote));
    if (does_not_read) {
        found.push_back({check, verdict::problem, fmt::format("the peer does not read; {} bytes wait", one.waiting_out),
                         "see whether the peer's Center hangs or is busy"});
    } else {
        found.push_back(
            {check, verdict::problem,
             fmt::format("the peer does not answer; {} bytes wait, sent again {} times", one.waiting_out, one.attempts),
             "see whether the peer's machine runs and the network between lets packets through"});
    }
    return true;
}

/// A counter of /proc/net/netstat, whose lines come in pairs: names, then numbers.
std::optional<std::uint64_t> read_counter(std::string const& wanted) {
    std::ifstream file("/proc/net/netstat");
    for (std::string names, numbers; std::getline(file, names) && std::getline(file, numbers);) {
        std::istringstream name_columns(names);
        std::istringstream number_columns(numbers);
        for (std::string name, number; name_columns >> name && number_columns >> number;) {
            if (name == wanted) {
                return std::stoull(number);
            }
        }
    }
    return std::nullopt;
}

void examine_overflows(diagnoses& found) {
    auto const overflows = read_counter("ListenOverflows");
    if (!overflows) {
        found.push_back({"backlog overflows", verdict::warning, "the kernel does not tell", ""});
    } else if (*overflows == 0) {
        found.push_back({"backlog overflows", verdict::ok, "no connection found a full backlog", ""});
    } else {
        found.push_back(
            {"backlog overflows", verdict::warning,
             fmt::format("{} times a connection found a full backlog since this network began, of any program",
                         *overflows),
             "raise SERVER_LISTEN_BACKLOG, and net.core.somaxconn with it"});
    }
}

// --- peers -----------------------------------------------------------------------------------------------------

class trial {
public:
    trial() : fd(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
        // Ended hard, it leaves nothing behind that keeps a port.
        linger const at_once{1, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    }
    ~trial() {
        if (fd != -1) {
            ::close(fd);
        }
    }
    trial(trial const&) = delete;
    trial& operator=(trial const&) = delete;

    /// 0, or the error number.
    int connect(struct_node_addr peer) const {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = peer.ip;
        address.sin_port = htons(peer.port);
        if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
            return 0;
        }
        return errno == EINPROGRESS ? wait() : errno;
    }

private:
    int wait() const {
        pollfd connected{fd, POLLOUT, 0};
        if (::poll(&connected, 1, c_patience_ms) != 1) {
            return ETIMEDOUT;
        }
        int error = 0;
        socklen_t size = sizeof error;
        return ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
    }

    int const fd;
};

bool is_own_address(std::uint32_t ip) {
    int const fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ip;
    bool const is_own = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return is_own;
}

std::string connect_advice(int error) {
    switch (error) {
    case ECONNREFUSED:
        return "start the peer's Center, or correct the port";
    case ETIMEDOUT:
        return "see whether the machine runs, a firewall drops packets, or the peer's backlog is full";
    default:
        return "see \"ip route get ADDRESS\" for the way to the peer";
    }
}

void examine_reach(struct_node_addr peer, std::string const& check, diagnoses& found) {
    int const error = trial().connect(peer);
    if (error == 0) {
        found.push_back({check, verdict::ok, "somebody serves the port", ""});
        return;
    }
    found.push_back(
        {check, verdict::problem, fmt::format("no connection: {}", describe_error(error)), connect_advice(error)});
}

/// The connection with the peer that the list has in that state, or null.
listed_socket const* find_connection(std::vector<listed_socket> const& sockets, struct_node_addr peer,
                                     tcp_state state) {
    auto const found = std::find_if(sockets.begin(), sockets.end(), [&](listed_socket const& one) {
        return one.state == state && one.remote.ip == peer.ip && one.remote.port == peer.port;
    });
    return found != sockets.end() ? &*found : nullptr;
}

} // namespace

void examine_port(std::uint16_t port, diagnoses& found) {
    std::string const check = fmt::format("port {}", port);
    port_trouble const trouble = try_port(port);
    if (trouble.error == 0) {
        found.push_back({check, verdict::ok, "free over UDP and TCP", ""});
        return;
    }
    std::string const text = describe(port, trouble);
    if (text.ends_with("(zolt-center)")) {
        found.push_back({check, verdict::warning, text, "a Center serves it; another one needs another port"});
        return;
    }
    found.push_back({check, verdict::problem, text, port_advice(text, trouble.error)});
}

void examine_sockets(doctor_plan const& plan, diagnoses& found) {
    examine_overflows(found);
    auto const sockets = list_tcp_sockets();
    if (!sockets) {
        found.push_back({"sockets", verdict::warning, "the kernel does not list them", "load the module tcp_diag"});
        return;
    }
    selection const ours(plan);
    std::size_t connections = 0;
    std::uint64_t bytes = 0;
    bool stands_still = false;
    for (listed_socket const& one : *sockets) {
        if (!ours.has(one)) {
            continue;
        }
        if (one.state == tcp_state::listening) {
            examine_backlog(one, found);
        } else if (one.state == tcp_state::established) {
            ++connections;
            bytes += one.waiting_out;
            stands_still = examine_queue(one, found) || stands_still;
        }
    }
    if (!stands_still) {
        found.push_back({"send queues", verdict::ok,
                         fmt::format("{} connections with {} bytes on their way", connections, bytes), ""});
    }
}

void examine_peer(struct_node_addr peer, diagnoses& found) {
    std::string const check = fmt::format("peer {}", address_text(peer));
    auto const sockets = list_tcp_sockets().value_or(std::vector<listed_socket>());
    if (auto const* const kept = find_connection(sockets, peer, tcp_state::time_wait)) {
        auto const seconds = std::chrono::ceil<std::chrono::seconds>(kept->timer_left).count();
        found.push_back(
            {check, verdict::warning,
             fmt::format("the kernel keeps a connection that this side closed for {} more seconds", seconds),
             fmt::format("a retry from its port {} is refused until then: wait", kept->local.port)});
    }
    if (is_own_address(peer.ip)) {
        found.push_back(
            {check, verdict::warning, "the address is this machine's own",
             "over UDP two nodes at one address cannot talk: use TCP, or a network namespace for one of them"});
    }
    if (find_connection(sockets, peer, tcp_state::established) != nullptr) {
        found.push_back({check, verdict::ok, "connected", ""});
    } else {
        examine_reach(peer, check, found);
    }
}

} // namespace Zolt::Reference_Center
