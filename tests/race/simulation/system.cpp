// The relay's system calls, carried to the simulated kernel with a scheduling point before and after each.

#include "tests/race/simulation/host.hpp"
#include "tests/race/simulation/memory.hpp"
#include "tests/race/simulation/scheduler.hpp"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace simulation {
namespace {

/// The result as the system call gives it.
template <typename Result>
Result answer(Result result) {
    if (result < 0) {
        errno = static_cast<int>(-result);
        return -1;
    }
    return result;
}

template <typename Call>
auto carry_out(char const* name, Call const& call) {
    point(name);
    auto const result = call(relay_kernel());
    if (is_telling()) {
        note(std::string(name) + " -> " + std::to_string(result));
    }
    point(name);
    return answer(result);
}

address read_address(sockaddr const* from) {
    sockaddr_in in{};
    std::memcpy(&in, from, sizeof in);
    return {in.sin_addr.s_addr, ntohs(in.sin_port)};
}

void write_address(address const& from, sockaddr* to, socklen_t* length) {
    if (to == nullptr) {
        return;
    }
    sockaddr_in in{};
    in.sin_family = AF_INET;
    in.sin_addr.s_addr = from.ip;
    in.sin_port = htons(from.port);
    std::memcpy(to, &in, sizeof in);
    *length = sizeof in;
}

} // namespace
} // namespace simulation

using namespace simulation;

extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's --wrap gives these names
int __wrap_socket(int, int type, int) {
    return carry_out("socket", [&](kernel& k) { return k.socket(type); });
}

int __wrap_bind(int fd, sockaddr const* local, socklen_t) {
    return carry_out("bind", [&](kernel& k) { return k.bind(fd, read_address(local)); });
}

int __wrap_listen(int fd, int backlog) {
    return carry_out("listen", [&](kernel& k) { return k.listen(fd, backlog); });
}

int __wrap_accept(int fd, sockaddr* from, socklen_t* length) {
    address peer;
    int const result = carry_out("accept", [&](kernel& k) { return k.accept(fd, peer); });
    if (result >= 0) {
        write_address(peer, from, length);
    }
    return result;
}

int __wrap_connect(int fd, sockaddr const* to, socklen_t) {
    return carry_out("connect", [&](kernel& k) { return k.connect(fd, read_address(to)); });
}

int __wrap_getsockname(int fd, sockaddr* to, socklen_t* length) {
    address local;
    int const result = carry_out("getsockname", [&](kernel& k) { return k.getsockname(fd, local); });
    if (result == 0) {
        write_address(local, to, length);
    }
    return result;
}

int __wrap_setsockopt(int fd, int level, int option, void const* value, socklen_t) {
    if (level != SOL_SOCKET || option != SO_SNDTIMEO) {
        return 0;
    }
    timeval bound{};
    std::memcpy(&bound, value, sizeof bound);
    auto const microseconds = static_cast<moment>(bound.tv_sec * 1000000 + bound.tv_usec);
    return carry_out("setsockopt", [&](kernel& k) { return k.set_send_timeout(fd, microseconds); });
}

ssize_t __wrap_send(int fd, void const* data, size_t size, int) {
    check_readable(data);
    return carry_out("send", [&](kernel& k) { return k.send(fd, data, size); });
}

ssize_t __wrap_recv(int fd, void* data, size_t size, int) {
    return carry_out("recv", [&](kernel& k) { return k.recv(fd, data, size); });
}

ssize_t __wrap_sendto(int fd, void const* data, size_t size, int, sockaddr const* to, socklen_t) {
    return carry_out("sendto", [&](kernel& k) { return k.sendto(fd, data, size, read_address(to)); });
}

ssize_t __wrap_recvfrom(int fd, void* data, size_t size, int flags, sockaddr* from, socklen_t* length) {
    address sender;
    ssize_t const got = carry_out("recvfrom", [&](kernel& k) { return k.recvfrom(fd, data, size, flags, sender); });
    if (got >= 0) {
        write_address(sender, from, length);
    }
    return got;
}

int __wrap_shutdown(int fd, int how) {
    return carry_out("shutdown", [&](kernel& k) { return k.shutdown(fd, how); });
}

int __wrap_close(int fd) {
    return carry_out("close", [&](kernel& k) { return k.close(fd); });
}

int __wrap_epoll_create1(int) {
    return carry_out("epoll_create1", [](kernel& k) { return k.epoll_create1(); });
}

int __wrap_epoll_ctl(int instance, int operation, int fd, epoll_event* wanted) {
    std::uint32_t const mask = wanted == nullptr ? 0 : wanted->events;
    void* const data = wanted == nullptr ? nullptr : wanted->data.ptr;
    return carry_out("epoll_ctl", [&](kernel& k) { return k.epoll_ctl(instance, operation, fd, mask, data); });
}

int __wrap_epoll_wait(int instance, epoll_event* events, int, int) {
    event found;
    int const count = carry_out("epoll_wait", [&](kernel& k) {
        int const got = k.epoll_wait(instance, found);
        if (got > 0 && is_telling()) {
            char text[32];
            std::snprintf(text, sizeof text, "event 0x%X", found.mask);
            note(text);
        }
        return got;
    });
    if (count > 0) {
        check_alive(found.data);
        events->events = found.mask;
        events->data.ptr = found.data;
    }
    return count;
}

int __wrap_fflush(std::FILE*) {
    return 0;
}

int __wrap_fcntl(int, int, ...) {
    return 0; // the close-on-exec flag: no simulated process has children
}
// NOLINTEND(bugprone-reserved-identifier)

} // extern "C"
