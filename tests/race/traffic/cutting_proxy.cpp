#include "tests/race/traffic/cutting_proxy.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <utility>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace traffic {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t c_piece = 64 << 10;
constexpr unsigned c_early_each = 8;          ///< one connection in so many is cut in its first bytes
constexpr std::uint64_t c_early_bytes = 4096; ///< both blocks, and the first packets
constexpr int c_look_again_ms = 5;

::sockaddr_in loopback(std::uint16_t port) {
    ::sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

::sockaddr* plain(::sockaddr_in& address) {
    return reinterpret_cast<::sockaddr*>(&address);
}

int connect_to(std::uint16_t port) {
    int const fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ::sockaddr_in address = loopback(port);
    if (::connect(fd, plain(address), sizeof address) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

} // namespace

cutting_proxy::cutting_proxy(unsigned seed) : random(seed), thread([this] { serve(); }) {}

cutting_proxy::~cutting_proxy() {
    is_over = true;
    thread.join();
    for (connection& one : connections) {
        reset(one.ends[0]);
        reset(one.ends[1]);
    }
    for (entrance const& by : entrances) {
        ::close(by.listener);
    }
}

std::uint16_t cutting_proxy::lead_to(std::uint16_t target) {
    int const listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    ::sockaddr_in address = loopback(0);
    ::socklen_t length = sizeof address;
    EXPECT_EQ(::bind(listener, plain(address), sizeof address), 0);
    EXPECT_EQ(::listen(listener, 16), 0);
    ::getsockname(listener, plain(address), &length);
    std::lock_guard const hold(guard);
    entrances.push_back({listener, target});
    return ntohs(address.sin_port);
}

void cutting_proxy::stop_cutting() {
    is_cutting = false;
}

void cutting_proxy::serve() {
    std::vector<::pollfd> watched;
    while (!is_over) {
        watch(watched);
        ::poll(watched.data(), watched.size(), c_look_again_ms);
        {
            std::lock_guard const hold(guard);
            for (entrance const& by : entrances) {
                let_in(by);
            }
        }
        for (connection& one : connections) {
            carry(one);
            cut_if_due(one);
        }
        connections.remove_if(close_if_over);
    }
}

void cutting_proxy::watch(std::vector<::pollfd>& watched) {
    watched.clear();
    {
        std::lock_guard const hold(guard);
        for (entrance const& by : entrances) {
            watched.push_back({by.listener, POLLIN, 0});
        }
    }
    for (connection const& one : connections) {
        for (int const side : {0, 1}) {
            end const& here = one.ends[side];
            bool const has_room = one.ends[1 - side].pending.empty();
            auto const events = (here.pending.empty() ? 0 : POLLOUT) | (has_room && !here.is_finished ? POLLIN : 0);
            watched.push_back({events != 0 ? here.fd : -1, static_cast<short>(events), 0});
        }
    }
}

void cutting_proxy::let_in(entrance const& by) {
    int const near_end = ::accept4(by.listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (near_end == -1) {
        return;
    }
    connection one{{{near_end}, {connect_to(by.target)}}};
    bool const is_early = random() % c_early_each == 0;
    one.dies = clock::now() + 500ms + std::chrono::milliseconds(random() % 450);
    one.dies_after = is_early ? random() % c_early_bytes : std::numeric_limits<std::uint64_t>::max();
    connections.push_back(std::move(one));
    if (connections.back().ends[1].fd == -1) {
        reset(connections.back().ends[0]);
    }
}

void cutting_proxy::carry(connection& one) {
    move_bytes(one, one.ends[0], one.ends[1]);
    move_bytes(one, one.ends[1], one.ends[0]);
}

void cutting_proxy::move_bytes(connection& one, end& from, end& to) {
    std::array<char, c_piece> space;
    if (from.fd != -1 && !from.is_finished && to.pending.empty()) {
        ssize_t const got = ::recv(from.fd, space.data(), space.size(), MSG_DONTWAIT);
        from.is_finished = got == 0 || (got == -1 && errno != EAGAIN);
        if (got > 0) {
            one.carried += static_cast<std::uint64_t>(got);
            to.pending.assign(space.data(), one.is_draining ? 0 : static_cast<std::size_t>(got));
        }
        if (from.is_finished && to.fd != -1) {
            ::shutdown(to.fd, SHUT_WR);
        }
    }
    if (to.fd != -1 && !to.pending.empty()) {
        ssize_t const sent = ::send(to.fd, to.pending.data(), to.pending.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        bool const is_lost = sent == -1 && errno != EAGAIN;
        to.pending.erase(0, is_lost ? to.pending.size() : static_cast<std::size_t>(std::max<ssize_t>(sent, 0)));
    }
}

void cutting_proxy::cut_if_due(connection& one) {
    bool const is_early = one.carried >= one.dies_after;
    if (!is_cutting || one.is_draining || (!is_early && clock::now() < one.dies)) {
        return;
    }
    ++(is_early ? cut_early : cut);
    one.is_draining = true;
    // A reset or an orderly end, for each side by itself.
    unsigned const how = static_cast<unsigned>(random());
    for (unsigned const side : {0u, 1u}) {
        end& here = one.ends[side];
        here.pending.clear();
        if (((how >> side) & 1u) != 0) {
            reset(here);
        } else if (here.fd != -1) {
            ::shutdown(here.fd, SHUT_WR);
        }
    }
}

void cutting_proxy::reset(end& one) {
    ::linger const at_once{1, 0};
    ::setsockopt(one.fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    close(one);
    one.is_finished = true;
}

void cutting_proxy::close(end& one) {
    if (one.fd != -1) {
        ::close(std::exchange(one.fd, -1));
    }
}

bool cutting_proxy::close_if_over(connection& one) {
    bool const is_over = one.ends[0].is_finished && one.ends[1].is_finished;
    if (is_over) {
        for (end& here : one.ends) {
            close(here);
        }
    }
    return is_over;
}

} // namespace traffic
