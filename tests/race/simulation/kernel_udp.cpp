// Datagram sockets.

#include "tests/race/simulation/kernel_private.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <sys/epoll.h>
#include <sys/socket.h>

namespace simulation {
namespace {

constexpr std::size_t c_longest_datagram = 65507; ///< bytes

bool is_taken(host const& at, address const& wanted) {
    return std::any_of(at.datagrams.begin(), at.datagrams.end(),
                       [&](datagram_socket const* s) { return share_a_port(s->local, wanted); });
}

void take_address(datagram_socket& s, address local) {
    if (local.port == 0) {
        local.port = c_first_free_port;
        while (is_taken(*s.at, local)) {
            ++local.port;
        }
    }
    s.local = local;
    s.at->datagrams.push_back(&s);
}

datagram_socket* find_receiver(wire const& w, datagram const& arrived) {
    host const* const at = w.find_host(*arrived.origin, arrived.to.ip);
    if (at == nullptr) {
        return nullptr;
    }
    auto const found = std::find_if(at->datagrams.begin(), at->datagrams.end(),
                                    [&](datagram_socket const* s) { return share_a_port(s->local, arrived.to); });
    return found == at->datagrams.end() ? nullptr : *found;
}

} // namespace

datagram_socket& new_datagram_socket(host& at) {
    datagram_socket& s = at.net->datagram_sockets.take();
    s.at = &at;
    return s;
}

int bind_datagrams(datagram_socket& s, address local) {
    if (s.local.port != 0) {
        return -EINVAL;
    }
    if (local.ip != 0 && s.at->net->find_host(*s.at, local.ip) != s.at) {
        return -EADDRNOTAVAIL;
    }
    if (local.port != 0 && is_taken(*s.at, local)) {
        return -EADDRINUSE;
    }
    take_address(s, local);
    return 0;
}

long send_datagram(datagram_socket& s, void const* data, std::size_t size, address to) {
    if (to.port == 0) {
        return -EINVAL;
    }
    if ((s.shut & c_send_shut) != 0) {
        return -EPIPE;
    }
    if (size > c_longest_datagram) {
        return -EMSGSIZE;
    }
    if (s.local.port == 0) {
        take_address(s, {});
    }
    if (to.ip == 0) {
        to.ip = s.at->ip;
    }
    std::uint32_t const from = s.local.ip != 0 ? s.local.ip : source_ip(*s.at, to.ip);
    auto const* const first = static_cast<unsigned char const*>(data);
    s.at->net->flying.push_back({s.at, {from, s.local.port}, to, {first, first + size}});
    wake(s.file, EPOLLOUT);
    return static_cast<long>(size);
}

long receive_datagram(open_file& file, void* data, std::size_t size, int flags, address& from) {
    datagram_socket& s = *file.udp;
    while (s.unread.empty()) {
        if (file.is_nonblocking || (flags & MSG_DONTWAIT) != 0) {
            return -EAGAIN;
        }
        if ((s.shut & c_receive_shut) != 0) {
            return 0;
        }
        wait_for("recvfrom", [&s] { return !s.unread.empty() || (s.shut & c_receive_shut) != 0; });
    }
    datagram const& first = s.unread.front();
    std::size_t const whole = first.payload.size();
    std::size_t const piece = std::min(size, whole);
    if (piece != 0) {
        std::memcpy(data, first.payload.data(), piece);
    }
    from = first.from;
    if ((flags & MSG_PEEK) == 0) {
        s.unread_bytes -= whole;
        s.unread.erase(s.unread.begin());
    }
    return static_cast<long>((flags & MSG_TRUNC) != 0 ? whole : piece);
}

void close_datagrams(datagram_socket& s) {
    std::erase(s.at->datagrams, &s);
    s.at->net->datagram_sockets.give_back(s);
}

void deliver_datagram(wire& w, std::size_t which) {
    // Those between the same two sockets keep their order.
    auto const found = std::find_if(w.flying.begin(), w.flying.end(), [&](datagram const& one) {
        return one.from == w.flying[which].from && one.to == w.flying[which].to;
    });
    datagram arrived = std::move(*found);
    w.flying.erase(found);
    datagram_socket* const to = find_receiver(w, arrived);
    if (to == nullptr || (to->unread_bytes >= to->receive_limit && !to->unread.empty())) {
        return;
    }
    to->unread_bytes += arrived.payload.size();
    to->unread.push_back(std::move(arrived));
    wake(to->file, EPOLLIN);
}

} // namespace simulation
