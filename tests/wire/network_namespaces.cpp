#include "tests/wire/network_namespaces.hpp"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <system_error>
#include <utility>

#include <arpa/inet.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace wire {
namespace {

constexpr char const* c_near_name = "near0";
constexpr char const* c_far_name = "far0";
constexpr std::chrono::seconds c_cable_patience{10};

/// A step that failed, thrown within this file.
struct not_possible {
    std::string what;
};

void must(bool worked, std::string const& what) {
    if (!worked) {
        throw not_possible{what + ": " + std::generic_category().message(errno)};
    }
}

void write_file(char const* path, std::string const& content) {
    std::ofstream file(path);
    file << content << std::flush;
    must(file.good(), path);
}

/// A network of its own for this process: with the right to make one, or as the root of a user namespace.
void leave_network() {
    if (::unshare(CLONE_NEWNET) == 0) {
        return;
    }
    uid_t const user = ::getuid();
    gid_t const group = ::getgid();
    must(::unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0, "no network namespace");
    write_file("/proc/self/setgroups", "deny");
    write_file("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
    write_file("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
}

/// A request to the kernel's network configuration, built from nested attributes.
class link_request {
public:
    link_request(std::uint16_t type, std::uint16_t flags) : room{} {
        head()->nlmsg_len = NLMSG_HDRLEN;
        head()->nlmsg_type = type;
        head()->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | NLM_F_ACK | flags);
        put(ifinfomsg{});
    }

    template <class plain>
    void put(plain const& what) {
        append(&what, sizeof what);
    }

    void put_text(std::uint16_t type, char const* text) {
        std::size_t const start = open(type);
        append(text, std::strlen(text) + 1);
        close(start);
    }

    template <class number>
    void put_number(std::uint16_t type, number value) {
        std::size_t const start = open(type);
        put(value);
        close(start);
    }

    std::size_t open(std::uint16_t type) {
        std::size_t const start = head()->nlmsg_len;
        put(rtattr{0, type});
        return start;
    }

    void close(std::size_t start) {
        auto const length = static_cast<std::uint16_t>(head()->nlmsg_len - start);
        std::memcpy(room.data() + start, &length, sizeof length);
    }

    /// Asks the kernel; errno tells why not.
    bool send() {
        int const fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
        bool const is_sent = ::send(fd, room.data(), head()->nlmsg_len, 0) != -1;
        alignas(nlmsghdr) std::array<char, 1024> answer{};
        ssize_t const got = is_sent ? ::recv(fd, answer.data(), answer.size(), 0) : -1;
        int error = errno;
        if (got >= static_cast<ssize_t>(NLMSG_LENGTH(sizeof(nlmsgerr)))) {
            nlmsgerr verdict{};
            std::memcpy(&verdict, answer.data() + NLMSG_HDRLEN, sizeof verdict);
            error = -verdict.error;
        }
        ::close(fd);
        errno = error;
        return error == 0;
    }

private:
    nlmsghdr* head() { return reinterpret_cast<nlmsghdr*>(room.data()); }

    void append(void const* data, std::size_t size) {
        std::memcpy(room.data() + head()->nlmsg_len, data, size);
        head()->nlmsg_len = static_cast<std::uint32_t>(NLMSG_ALIGN(head()->nlmsg_len + size));
    }

    alignas(nlmsghdr) std::array<char, 512> room;
};

/// One end here, the other in the network of that process.
void lay_cable(pid_t far_process) {
    link_request request(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL);
    request.put_text(IFLA_IFNAME, c_near_name);
    std::size_t const info = request.open(IFLA_LINKINFO);
    request.put_text(IFLA_INFO_KIND, "veth");
    std::size_t const data = request.open(IFLA_INFO_DATA);
    std::size_t const peer = request.open(VETH_INFO_PEER);
    request.put(ifinfomsg{});
    request.put_text(IFLA_IFNAME, c_far_name);
    request.put_number(IFLA_NET_NS_PID, static_cast<std::uint32_t>(far_process));
    request.close(peer);
    request.close(data);
    request.close(info);
    must(request.send(), "no pair of virtual network cards");
}

/// An interface of this network, by the classic requests.
class network_card {
public:
    explicit network_card(char const* name) : fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)), card(name) {}
    ~network_card() { ::close(fd); }
    network_card(network_card const&) = delete;
    network_card& operator=(network_card const&) = delete;

    /// The first address belongs to the card itself, the others to its aliases.
    void give(std::vector<std::string> const& addresses) const {
        for (std::size_t at = 0; at < addresses.size(); ++at) {
            std::string const label = at == 0 ? card : card + ":" + std::to_string(at);
            set_address(SIOCSIFADDR, label, addresses[at]);
            set_address(SIOCSIFNETMASK, label, "255.255.255.0");
        }
    }

    void raise() const {
        ifreq request = ask(SIOCGIFFLAGS, card);
        request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP | IFF_MULTICAST);
        must(::ioctl(fd, SIOCSIFFLAGS, &request) == 0, "raising " + card);
    }

    /// Both ends have to be up for that.
    void wait_for_carrier() const {
        auto const deadline = std::chrono::steady_clock::now() + c_cable_patience;
        while ((ask(SIOCGIFFLAGS, card).ifr_flags & IFF_RUNNING) == 0) {
            errno = ETIMEDOUT;
            must(std::chrono::steady_clock::now() < deadline, "the cable stays dead");
            ::poll(nullptr, 0, 1);
        }
    }

private:
    static ifreq named(std::string const& label) {
        ifreq request{};
        label.copy(request.ifr_name, IFNAMSIZ - 1);
        return request;
    }

    ifreq ask(unsigned long what, std::string const& label) const {
        ifreq request = named(label);
        must(::ioctl(fd, what, &request) == 0, "asking about " + label);
        return request;
    }

    void set_address(unsigned long what, std::string const& label, std::string const& dotted) const {
        ifreq request = named(label);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        ::inet_pton(AF_INET, dotted.c_str(), &address.sin_addr);
        std::memcpy(&request.ifr_addr, &address, sizeof address);
        must(::ioctl(fd, what, &request) == 0, "address " + dotted);
    }

    int fd;
    std::string card;
};

void set_up(char const* name, std::vector<std::string> const& addresses) {
    network_card const card(name);
    card.give(addresses);
    card.raise();
    network_card("lo").raise();
}

/// The second process: leaves the network, says so, and sets its end up once the cable is laid.
void be_far_end(message_pipe const& other, std::vector<std::string> const& addresses) {
    int verdict = ::unshare(CLONE_NEWNET) == 0 ? 0 : errno;
    must(other.write(verdict) && other.read(verdict), "the near end is gone");
    set_up(c_far_name, addresses);
    must(other.write(verdict), "the near end is gone");
    network_card(c_far_name).wait_for_carrier();
}

void be_near_end(message_pipe const& other, pid_t child, std::vector<std::string> const& addresses) {
    int verdict = 0;
    must(other.read(verdict), "the far end is gone");
    errno = verdict;
    must(verdict == 0, "no second network namespace");
    lay_cable(child);
    set_up(c_near_name, addresses);
    must(other.write(verdict) && other.read(verdict), "the far end could not be set up");
    network_card(c_near_name).wait_for_carrier();
}

} // namespace

message_pipe::message_pipe(int descriptor) : fd(descriptor) {}

message_pipe::~message_pipe() {
    if (fd != -1) {
        ::close(fd);
    }
}

message_pipe::message_pipe(message_pipe&& other) noexcept : fd(std::exchange(other.fd, -1)) {}

bool message_pipe::write_bytes(void const* data, std::size_t size) const {
    return ::send(fd, data, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

bool message_pipe::read_bytes(void* data, std::size_t size) const {
    return ::recv(fd, data, size, MSG_WAITALL) == static_cast<ssize_t>(size);
}

split_result split_between_networks(std::vector<std::string> const& near_addresses,
                                    std::vector<std::string> const& far_addresses) {
    pid_t child = -1;
    try {
        leave_network();
        int ends[2] = {-1, -1};
        must(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
        child = ::fork();
        must(child != -1, "fork");
        bool const is_near = child != 0;
        ::close(ends[is_near ? 1 : 0]);
        message_pipe other(ends[is_near ? 0 : 1]);
        if (is_near) {
            be_near_end(other, child, near_addresses);
        } else {
            be_far_end(other, far_addresses);
        }
        return {is_near ? side::near_end : side::far_end, {}, std::move(other), child};
    } catch (not_possible const& step) {
        if (child == 0) {
            ::_exit(1); // the near end notices that nobody answers
        }
        if (child > 0) {
            ::waitpid(child, nullptr, 0);
        }
        return {side::nowhere, step.what, message_pipe(-1), -1};
    }
}

} // namespace wire
