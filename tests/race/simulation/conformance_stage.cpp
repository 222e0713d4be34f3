// What scripts are made of, whichever kernel they play on.

#include "tests/race/simulation/conformance_world.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <ostream>

#include <sys/epoll.h>
#include <sys/socket.h>

namespace conformance {
namespace {

std::string text_of(std::uint32_t mask) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "0x%03X", mask);
    return text.data();
}

} // namespace

void PrintTo(script const& what, std::ostream* to) {
    *to << what.name;
}

stage::~stage() {
    w.join();
    for (int fd : open) {
        w.close(fd);
    }
}

void stage::tell(std::string const& what, long result) {
    lines.push_back(what + ": " +
                    (result < 0 ? ::strerrorname_np(static_cast<int>(-result)) : std::to_string(result).c_str()));
}

void stage::tell_mask(std::string const& what, std::uint32_t mask) {
    lines.push_back(what + ": " + text_of(mask));
}

void stage::expect_poll(std::string const& what, int fd, std::uint32_t mask) {
    if (!w.wait_until([&] { return w.poll(fd) == mask; })) {
        ++faults;
    }
    tell_mask(what, w.poll(fd));
}

void stage::expect_events(int instance, int count) {
    report found;
    w.settle();
    for (int i = 0; i < count; ++i) {
        if (w.epoll_wait(instance, found) != 1) {
            ++faults;
            tell("no event");
            return;
        }
        tell_mask(std::string("event of ") + found.tag, found.mask);
    }
    w.settle();
    int const marker = w.socket(SOCK_STREAM);
    w.epoll_ctl(instance, EPOLL_CTL_ADD, marker, EPOLLOUT | EPOLLONESHOT, "marker");
    while (w.epoll_wait(instance, found) == 1 && std::strcmp(found.tag, "marker") != 0) {
        tell_mask(std::string("one more of ") + found.tag, found.mask);
    }
    w.close(marker);
}

int stage::keep(int fd) {
    open.push_back(fd);
    return fd;
}

int stage::socket(int type) {
    return keep(w.socket(type));
}

int stage::instance() {
    return keep(w.epoll_create1());
}

int stage::add(int instance, int fd, std::uint32_t mask, char const* tag) {
    return w.epoll_ctl(instance, EPOLL_CTL_ADD, fd, mask, tag);
}

int stage::modify(int instance, int fd, std::uint32_t mask, char const* tag) {
    return w.epoll_ctl(instance, EPOLL_CTL_MOD, fd, mask, tag);
}

int stage::listener(int backlog, bool has_small_buffers) {
    int const fd = socket(SOCK_STREAM);
    if (has_small_buffers) {
        w.make_buffers_small(fd);
    }
    w.bind(fd, 0);
    w.listen(fd, backlog);
    return fd;
}

int stage::begin_connection(int listening) {
    int const fd = socket(SOCK_STREAM);
    w.set_nonblocking(fd, true);
    w.connect(fd, w.port_of(listening));
    return fd;
}

int stage::arrive(int listening) {
    int const fd = begin_connection(listening);
    faults += w.wait_until([&] { return w.poll(fd) == EPOLLOUT && w.poll(listening) == EPOLLIN; }) ? 0 : 1;
    w.set_nonblocking(fd, false);
    return fd;
}

ends stage::connect(bool has_small_buffers) {
    int const listening = listener(16, has_small_buffers);
    int const near = arrive(listening);
    if (has_small_buffers) {
        w.make_buffers_small(near);
    }
    int const far = keep(w.accept(listening));
    close(listening);
    return {near, far};
}

int stage::datagram_socket() {
    int const fd = socket(SOCK_DGRAM);
    w.bind(fd, 0);
    return fd;
}

long stage::send(int fd, char const* text) {
    long const sent = w.send(fd, text, std::strlen(text));
    w.settle();
    return sent;
}

void stage::read(std::string const& what, int fd, std::size_t most) {
    std::array<char, 100> text{};
    w.settle();
    long const got = w.recv(fd, text.data(), most);
    if (got > 0) {
        tell(what + ": " + std::string(text.data(), static_cast<std::size_t>(got)));
    } else {
        tell(what, got);
    }
}

int stage::close(int fd) {
    std::erase(open, fd);
    return w.close(fd);
}

int stage::close_with_reset(int fd) {
    std::erase(open, fd);
    return w.close_with_reset(fd);
}

void stage::fill(int fd) {
    std::vector<char> const much(65536);
    w.set_nonblocking(fd, true);
    do {
        while (w.send(fd, much.data(), much.size()) > 0) {
        }
        w.settle();
    } while ((w.poll(fd) & EPOLLOUT) != 0);
}

void stage::drain(int fd, int other) {
    std::vector<char> much(65536);
    w.set_nonblocking(fd, true);
    bool const has_room = w.wait_until([&] {
        while (w.recv(fd, much.data(), much.size()) > 0) {
        }
        return (w.poll(other) & EPOLLOUT) != 0;
    });
    faults += has_room ? 0 : 1;
}

} // namespace conformance
