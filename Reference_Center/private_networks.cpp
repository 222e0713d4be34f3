#include "Reference_Center/private_networks.hpp"

#include "Reference_Center/error_description.hpp"
#include "Reference_Center/failure.hpp"

#include <arpa/inet.h>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <net/if.h>
#include <sched.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Zolt::Reference_Center {
namespace {

constexpr unsigned char c_prefix_bits = 24;
constexpr std::uint32_t c_host_bits = 0xFF;

[[noreturn]] void refuse(std::string const& step, int error) {
    throw failure(exit_code::skipped, fmt::format("{}: {}", step, describe_error(error)));
}

// --- requests to the kernel's routing interface ----------------------------------------------------------------

/// A netlink request that grows attribute by attribute.
class route_request {
public:
    template <class Body>
    route_request(std::uint16_t type, int flags, Body const& body) {
        nlmsghdr head{};
        head.nlmsg_type = type;
        head.nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | NLM_F_ACK | flags);
        append(&head, sizeof head);
        append(&body, sizeof body);
    }

    void add(std::uint16_t type, void const* value, std::size_t size) {
        std::size_t const start = open(type);
        append(value, size);
        close(start);
    }
    void add(std::uint16_t type, std::string_view text) { add(type, text.data(), text.size()); }
    template <class Value>
    void add_value(std::uint16_t type, Value const& value) {
        add(type, &value, sizeof value);
    }

    /// Begins an attribute that holds what is appended until close.
    std::size_t open(std::uint16_t type) {
        std::size_t const start = bytes.size();
        rtattr head{};
        head.rta_type = type;
        append(&head, sizeof head);
        return start;
    }
    void close(std::size_t start) {
        auto const length = static_cast<std::uint16_t>(bytes.size() - start);
        std::memcpy(bytes.data() + start + offsetof(rtattr, rta_len), &length, sizeof length);
        bytes.resize(NLMSG_ALIGN(bytes.size()));
    }
    template <class Body>
    void append_body(Body const& body) {
        append(&body, sizeof body);
    }

    /// 0, or the error number of the kernel's answer.
    int perform() {
        auto const length = static_cast<std::uint32_t>(bytes.size());
        std::memcpy(bytes.data() + offsetof(nlmsghdr, nlmsg_len), &length, sizeof length);
        int const fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
        if (fd == -1) {
            return errno;
        }
        int const error = exchange(fd);
        ::close(fd);
        return error;
    }

private:
    void append(void const* value, std::size_t size) { bytes.append(static_cast<char const*>(value), size); }

    int exchange(int fd) {
        if (::send(fd, bytes.data(), bytes.size(), 0) == -1) {
            return errno;
        }
        struct {
            nlmsghdr head;
            nlmsgerr answer;
            char rest[4096];
        } reply{};
        if (::recv(fd, &reply, sizeof reply, 0) == -1) {
            return errno;
        }
        return -reply.answer.error;
    }

    std::string bytes;
};

ifinfomsg interface_body(char const* name, bool up) {
    ifinfomsg body{};
    body.ifi_family = AF_UNSPEC;
    body.ifi_index = name != nullptr ? static_cast<int>(::if_nametoindex(name)) : 0;
    body.ifi_flags = up ? IFF_UP : 0;
    body.ifi_change = up ? IFF_UP : 0;
    return body;
}

void bring_up(char const* name) {
    route_request request(RTM_NEWLINK, 0, interface_body(name, true));
    if (int const error = request.perform(); error != 0) {
        refuse(fmt::format("bringing up {}", name), error);
    }
}

void set_address(cable_end const& end) {
    ifaddrmsg body{};
    body.ifa_family = AF_INET;
    body.ifa_prefixlen = c_prefix_bits;
    body.ifa_index = ::if_nametoindex(end.interface);
    route_request request(RTM_NEWADDR, NLM_F_CREATE | NLM_F_EXCL, body);
    std::uint32_t const address = ::inet_addr(end.address);
    request.add_value(IFA_LOCAL, address);
    request.add_value(IFA_ADDRESS, address);
    request.add_value(IFA_BROADCAST, address | htonl(c_host_bits));
    if (int const error = request.perform(); error != 0) {
        refuse(fmt::format("giving {} its address", end.interface), error);
    }
}

/// The first end in this network, the second one in the network of the descriptor.
void lay_cable(std::array<cable_end, 2> const& ends, std::uint32_t other_network) {
    route_request request(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL, interface_body(nullptr, false));
    request.add(IFLA_IFNAME, ends[0].interface);
    std::size_t const info = request.open(IFLA_LINKINFO);
    request.add(IFLA_INFO_KIND, "veth");
    std::size_t const data = request.open(IFLA_INFO_DATA);
    std::size_t const other = request.open(VETH_INFO_PEER);
    request.append_body(interface_body(nullptr, false));
    request.add(IFLA_IFNAME, ends[1].interface);
    request.add_value(IFLA_NET_NS_FD, other_network);
    request.close(other);
    request.close(data);
    request.close(info);
    if (int const error = request.perform(); error != 0) {
        refuse("laying a virtual cable", error);
    }
}

// --- namespaces ------------------------------------------------------------------------------------------------

void write_file(char const* path, std::string const& text) {
    int const fd = ::open(path, O_WRONLY | O_CLOEXEC);
    bool const written = fd != -1 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    int const error = errno;
    if (fd != -1) {
        ::close(fd);
    }
    if (!written) {
        refuse(fmt::format("writing {}", path), error);
    }
}

/// A network of its own for this thread.
void enter_network() {
    if (::unshare(CLONE_NEWNET) == 0) {
        return;
    }
    uid_t const user = ::getuid();
    gid_t const group = ::getgid();
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
        refuse("making a network namespace", errno);
    }
    // The user is root in there, with rights over these networks and nothing else.
    write_file("/proc/self/setgroups", "deny");
    write_file("/proc/self/uid_map", fmt::format("0 {} 1", user));
    write_file("/proc/self/gid_map", fmt::format("0 {} 1", group));
}

int open_own_network() {
    int const fd = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    if (fd == -1) {
        refuse("opening a network namespace", errno);
    }
    return fd;
}

void switch_to(int network) {
    if (::setns(network, CLONE_NEWNET) != 0) {
        refuse("entering a network namespace", errno);
    }
}

} // namespace

std::string why_no_private_networks(std::array<cable_end, 2> const& ends) {
    int channel[2];
    if (::pipe2(channel, O_CLOEXEC) != 0) {
        return describe_error(errno);
    }
    pid_t const trial = ::fork();
    if (trial == 0) {
        std::string refusal;
        try {
            private_networks const networks(ends);
        } catch (failure const& reason) {
            refusal = reason.what();
        }
        bool const told = ::write(channel[1], refusal.data(), refusal.size()) != -1;
        ::_exit(told ? 0 : 1);
    }
    ::close(channel[1]);
    std::array<char, 512> text;
    ssize_t const size = trial != -1 ? ::read(channel[0], text.data(), text.size()) : 0;
    ::close(channel[0]);
    int status = -1;
    if (trial == -1 || ::waitpid(trial, &status, 0) != trial || status != 0) {
        return "the trial failed";
    }
    return {text.data(), static_cast<std::size_t>(size > 0 ? size : 0)};
}

private_networks::private_networks(std::array<cable_end, 2> const& ends) {
    enter_network();
    descriptors[0] = open_own_network();
    enter_network();
    descriptors[1] = open_own_network();
    bring_up("lo");
    switch_to(descriptors[0]);
    bring_up("lo");
    lay_cable(ends, static_cast<std::uint32_t>(descriptors[1]));
    for (std::size_t const which : {std::size_t{1}, std::size_t{0}}) {
        switch_to(descriptors[which]);
        set_address(ends[which]);
        bring_up(ends[which].interface);
    }
}

private_networks::~private_networks() {
    for (int const descriptor : descriptors) {
        ::close(descriptor);
    }
}

} // namespace Zolt::Reference_Center
