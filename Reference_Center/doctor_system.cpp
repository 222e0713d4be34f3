// The doctor's look at the configuration and at what the system allows.
#include "Reference_Center/addresses.hpp"
#include "Reference_Center/center_processes.hpp"
#include "Reference_Center/configuration.hpp"
#include "Reference_Center/configuration_check.hpp"
#include "Reference_Center/doctor.hpp"
#include "Reference_Center/error_description.hpp"
#include "Reference_Center/failure.hpp"
#include "Reference_Center/private_networks.hpp"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <fmt/format.h>
#include <fstream>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Zolt::Reference_Center {
namespace {

/// A node takes five, a port two, a connection one; fewer than these are few.
constexpr std::size_t c_few_descriptors = 256;
constexpr double c_much = 0.75;
constexpr double c_nearly_all = 0.9;
constexpr char c_some_group[] = "232.0.0.1";
constexpr std::array<cable_end, 2> c_trial_ends{cable_end{"trial0", "10.78.0.1"}, cable_end{"trial1", "10.78.0.2"}};

verdict judge_share(std::size_t used, std::size_t most) {
    double const share = most == 0 ? 0 : static_cast<double>(used) / static_cast<double>(most);
    if (share < c_much) {
        return verdict::ok;
    }
    return share < c_nearly_all ? verdict::warning : verdict::problem;
}

void examine_share(std::string check, std::size_t used, std::size_t most, char const* advice, diagnoses& found) {
    verdict const what = judge_share(used, most);
    found.push_back({std::move(check), what, fmt::format("{} of {} file descriptors are taken", used, most),
                     what == verdict::ok ? "" : advice});
}

void examine_own_limit(diagnoses& found) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    bool const is_low = limit.rlim_cur < c_few_descriptors;
    found.push_back(
        {"descriptor limit", is_low ? verdict::warning : verdict::ok,
         fmt::format("{} open files may be had here, {} at most; a connection takes one, a port two, a node five",
                     limit.rlim_cur, limit.rlim_max),
         is_low ? "raise it: ulimit -n, or LimitNOFILE in the service unit" : ""});
}

} // namespace

void examine_configuration(std::string const& file, diagnoses& found) {
    configuration_text text;
    try {
        text = read_configuration_text(file);
    } catch (failure const& reason) {
        found.push_back({"configuration", verdict::problem, reason.what(), "correct the path or the file's rights"});
        return;
    }
    if (!text.is_present) {
        found.push_back({"configuration", verdict::ok, text.file + " is absent; every key has its default", ""});
        return;
    }
    auto const findings = check_configuration(text.bytes, read_backlog_cap());
    if (findings.empty()) {
        found.push_back({"configuration", verdict::ok, "nothing to say against " + text.file, ""});
    }
    for (finding const& what : findings) {
        found.push_back({"configuration", what.weight == severity::error ? verdict::problem : verdict::warning,
                         fmt::format("{}:{}: {}: {}", text.file, what.line, what.code, what.reason), what.advice});
    }
}

void examine_descriptors(diagnoses& found) {
    examine_own_limit(found);
    std::size_t used = 0;
    std::size_t unused = 0;
    std::size_t most = 0;
    if (std::ifstream("/proc/sys/fs/file-nr") >> used >> unused >> most) {
        examine_share("descriptors of the machine", used, most, "raise fs.file-max", found);
    }
    for (center_process const& center : find_center_processes()) {
        examine_share(fmt::format("descriptors of pid {}", center.pid), center.descriptors, center.most_descriptors,
                      "raise its limit (LimitNOFILE) and restart it: without one, connections wait and stopping hangs",
                      found);
    }
}

void examine_networks(diagnoses& found) {
    std::string const refusal = why_no_private_networks(c_trial_ends);
    if (refusal.empty()) {
        found.push_back(
            {"network namespaces", verdict::ok, "allowed: the demonstration can play all of its parts", ""});
    } else {
        found.push_back({"network namespaces", verdict::warning, refusal,
                         "only the demonstration needs them; run it as root, or allow user namespaces"});
    }
}

void examine_multicast(diagnoses& found) {
    int const fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = *parse_ip(c_some_group);
    address.sin_port = htons(1);
    socklen_t size = sizeof address;
    // Connecting a datagram socket sends nothing; it chooses the way.
    bool const has_way = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                         ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0;
    int const error = errno;
    ::close(fd);
    if (has_way) {
        found.push_back({"multicast route", verdict::ok,
                         fmt::format("multicast goes out by {}", ip_text(address.sin_addr.s_addr)), ""});
    } else {
        found.push_back({"multicast route", verdict::warning, fmt::format("none: {}", describe_error(error)),
                         "ip route add 232.0.0.0/8 dev INTERFACE"});
    }
}

void examine_port_range(std::vector<std::uint16_t> const& ports, diagnoses& found) {
    unsigned int first = 0;
    unsigned int last = 0;
    if (!(std::ifstream("/proc/sys/net/ipv4/ip_local_port_range") >> first >> last)) {
        return;
    }
    std::string const range = fmt::format("the kernel gives out {} to {} to whoever asks for any port", first, last);
    found.push_back({"local port range", verdict::ok, range, ""});
    for (std::uint16_t const port : ports) {
        if (port >= first && port <= last) {
            found.push_back({fmt::format("port {}", port), verdict::warning,
                             range + "; this one may go to somebody else",
                             fmt::format("serve a port below {}, or reserve it: sysctl -w "
                                         "net.ipv4.ip_local_reserved_ports={}",
                                         first, port)});
        }
    }
}

} // namespace Zolt::Reference_Center
