// The descriptor table, and the calls as they are made on descriptors.

#include "tests/race/simulation/kernel.hpp"

#include "tests/race/simulation/kernel_private.hpp"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>

namespace simulation {
namespace {

constexpr int c_standard_streams = 3; ///< open in every process, and no business of the simulation

std::string text_of(address const& where) {
    std::uint32_t const ip = ntohl(where.ip);
    return std::to_string(ip >> 24) + '.' + std::to_string(ip >> 16 & 0xFF) + '.' + std::to_string(ip >> 8 & 0xFF) +
           '.' + std::to_string(ip & 0xFF) + ':' + std::to_string(where.port);
}

std::string describe(open_file const& file) {
    if (file.events != nullptr) {
        return "events, " + std::to_string(file.events->members.size()) + " registered";
    }
    if (file.udp != nullptr) {
        return "udp " + text_of(file.udp->local);
    }
    return std::string("tcp ") + word_for(file.tcp->state) + ' ' + text_of(file.tcp->local) + " -> " +
           text_of(file.tcp->remote);
}

} // namespace

struct kernel::kernel_state {
    kernel_state(wire& the_net, host& this_host) : net(the_net), home(this_host), table(c_standard_streams) {}

    open_file* find(int fd) const {
        return fd >= 0 && static_cast<std::size_t>(fd) < table.size() ? table[static_cast<std::size_t>(fd)] : nullptr;
    }

    /// What the call answers for the file of that socket, which stays until it has; or why there is none.
    template <typename Call>
    auto on_socket(int fd, Call const& call) -> decltype(call(std::declval<open_file&>())) {
        open_file* const file = find(fd);
        if (file == nullptr) {
            return -EBADF;
        }
        if (file->events != nullptr) {
            return -ENOTSOCK;
        }
        inside_call const guard(net, *file);
        return call(*file);
    }

    /// The same for a TCP socket.
    template <typename Call>
    auto on_stream(int fd, Call const& call) {
        return on_socket(fd, [&call](open_file& f) { return f.tcp == nullptr ? -EOPNOTSUPP : call(f); });
    }

    /// The lowest descriptor that is free.
    int open(open_file& file) {
        auto const free = std::find(table.begin() + c_standard_streams, table.end(), nullptr);
        auto const fd = static_cast<int>(free - table.begin());
        if (free == table.end()) {
            table.push_back(&file);
        } else {
            *free = &file;
        }
        return fd;
    }

    int open_stream(stream& s) {
        open_file& file = net.files.take();
        file.tcp = &s;
        s.file = &file;
        return open(file);
    }

    int close(int fd, bool with_reset) {
        open_file* const file = find(fd);
        if (file == nullptr) {
            return -EBADF;
        }
        table[static_cast<std::size_t>(fd)] = nullptr;
        file->is_closed = true;
        file->is_reset = with_reset && file->tcp != nullptr;
        if (file->calls == 0) {
            release(net, *file);
        }
        return 0;
    }

    wire& net;
    host& home;
    std::vector<open_file*> table;
};

kernel::kernel(network& net, std::uint32_t ip)
    : state(std::make_unique<kernel_state>(*net.state, net.state->add_host(ip))) {}

kernel::~kernel() {
    for (std::size_t fd = c_standard_streams; fd < state->table.size(); ++fd) {
        state->close(static_cast<int>(fd), false);
    }
}

int kernel::socket(int type) {
    int const kind = type & ~(SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (kind != SOCK_STREAM && kind != SOCK_DGRAM) {
        return -EINVAL;
    }
    int fd = -1;
    if (kind == SOCK_STREAM) {
        fd = state->open_stream(new_stream(state->home));
    } else {
        open_file& file = state->net.files.take();
        file.udp = &new_datagram_socket(state->home);
        file.udp->file = &file;
        fd = state->open(file);
    }
    state->find(fd)->is_nonblocking = (type & SOCK_NONBLOCK) != 0;
    return fd;
}

int kernel::bind(int fd, address local) {
    return state->on_socket(fd, [local](open_file& f) {
        return f.tcp != nullptr ? bind_stream(*f.tcp, local) : bind_datagrams(*f.udp, local);
    });
}

int kernel::listen(int fd, int backlog) {
    return state->on_stream(fd, [backlog](open_file& f) { return listen_on(*f.tcp, backlog); });
}

int kernel::accept(int fd, address& peer) {
    return state->on_stream(fd, [&](open_file& f) {
        int error = 0;
        stream* const child = accept_from(f, error);
        if (child == nullptr) {
            return error;
        }
        peer = child->remote;
        return state->open_stream(*child);
    });
}

int kernel::connect(int fd, address remote) {
    return state->on_stream(fd, [remote](open_file& f) { return connect_stream(f, remote); });
}

int kernel::getsockname(int fd, address& local) {
    return state->on_socket(fd, [&local](open_file& f) {
        local = f.tcp != nullptr ? f.tcp->local : f.udp->local;
        return 0;
    });
}

int kernel::set_nonblocking(int fd, bool on) {
    open_file* const file = state->find(fd);
    if (file == nullptr) {
        return -EBADF;
    }
    file->is_nonblocking = on;
    return 0;
}

int kernel::get_flags(int fd) {
    open_file const* const file = state->find(fd);
    if (file == nullptr) {
        return -EBADF;
    }
    return file->is_nonblocking ? O_NONBLOCK : 0;
}

int kernel::set_send_timeout(int fd, moment bound) {
    return state->on_socket(fd, [bound](open_file& f) {
        f.send_timeout = bound;
        return 0;
    });
}

int kernel::set_buffers(int fd, std::size_t send, std::size_t receive) {
    return state->on_socket(fd, [=](open_file& f) {
        if (f.tcp == nullptr) {
            f.udp->receive_limit = receive;
            return 0;
        }
        f.tcp->send_limit = send;
        f.tcp->receive_limit = receive;
        note_both_moving(*f.tcp);
        return 0;
    });
}

long kernel::send(int fd, void const* data, std::size_t size) {
    return state->on_socket(fd, [&](open_file& f) {
        return f.tcp != nullptr ? send_stream(f, static_cast<unsigned char const*>(data), size) : -EDESTADDRREQ;
    });
}

long kernel::recv(int fd, void* data, std::size_t size) {
    address from;
    return recvfrom(fd, data, size, 0, from);
}

long kernel::sendto(int fd, void const* data, std::size_t size, address to) {
    return state->on_socket(fd, [&](open_file& f) {
        return f.udp != nullptr ? send_datagram(*f.udp, data, size, to)
                                : send_stream(f, static_cast<unsigned char const*>(data), size);
    });
}

long kernel::recvfrom(int fd, void* data, std::size_t size, int flags, address& from) {
    return state->on_socket(fd, [&](open_file& f) {
        return f.udp != nullptr ? receive_datagram(f, data, size, flags, from) : receive_stream(f, data, size);
    });
}

int kernel::shutdown(int fd, int how) {
    return state->on_socket(fd, [how](open_file& f) {
        if (how < SHUT_RD || how > SHUT_RDWR) {
            return -EINVAL;
        }
        unsigned const directions = static_cast<unsigned>(how) + 1;
        if (f.tcp != nullptr) {
            return shut_stream(*f.tcp, directions);
        }
        f.udp->shut |= directions;
        wake(&f, 0);
        return -ENOTCONN; // datagram sockets are never connected here
    });
}

int kernel::close(int fd) {
    return state->close(fd, false);
}

int kernel::close_with_reset(int fd) {
    return state->close(fd, true);
}

int kernel::epoll_create1() {
    open_file& file = state->net.files.take();
    file.events = &state->net.instances.take();
    return state->open(file);
}

int kernel::epoll_ctl(int instance, int operation, int fd, std::uint32_t mask, void* data) {
    open_file* const events = state->find(instance);
    open_file* const file = state->find(fd);
    if (events != nullptr && fd >= 0 && fd < c_standard_streams) {
        return -EPERM;
    }
    if (events == nullptr || file == nullptr) {
        return -EBADF;
    }
    if (events->events == nullptr || events == file) {
        return -EINVAL;
    }
    require(file->events == nullptr, "an event instance in another one is not modelled");
    return control_events(state->net, *events->events, operation, *file, mask, data);
}

int kernel::epoll_wait(int instance, event& found, moment deadline) {
    open_file* const file = state->find(instance);
    if (file == nullptr) {
        return -EBADF;
    }
    if (file->events == nullptr) {
        return -EINVAL;
    }
    inside_call const guard(state->net, *file);
    return wait_for_event(*file->events, found, deadline);
}

std::uint32_t kernel::poll(int fd) const {
    open_file const* const file = state->find(fd);
    return file == nullptr ? 0 : find_mask(*file);
}

int kernel::count_open() const {
    return static_cast<int>(state->table.size() -
                            static_cast<std::size_t>(std::count(state->table.begin(), state->table.end(), nullptr)));
}

std::vector<std::string> kernel::list_open() const {
    std::vector<std::string> lines;
    for (std::size_t fd = 0; fd < state->table.size(); ++fd) {
        if (state->table[fd] != nullptr) {
            lines.push_back(std::to_string(fd) + ' ' + describe(*state->table[fd]));
        }
    }
    return lines;
}

} // namespace simulation
