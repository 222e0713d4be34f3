#include "tests/fuzz/far_host.hpp"

#include "tests/race/simulation/center.hpp"

#include <algorithm>
#include <array>
#include <utility>

#include <sys/epoll.h>
#include <sys/socket.h>

namespace fuzz {

using namespace simulation;
using namespace Zolt::Reference_Host;

namespace {

constexpr moment c_longest_way = 2000000;

} // namespace

void far_end::note_speech() {
    spoke_before = spoke_at == 0 ? now() : spoke_at;
    spoke_at = now();
    overtaken_before = overtaken();
}

moment far_end::silence() const {
    return now() - spoke_at;
}

moment far_end::shortest_silence() const {
    return silence() - (overtaken() - overtaken_before);
}

moment far_end::longest_silence() const {
    return now() - (silence() < c_longest_way ? spoke_before : spoke_at);
}

far_host::far_host(node& n, std::uint32_t host_number) : host(n.add_host(host_number)), number(host_number) {}

far_host::~far_host() {
    stop_listening();
    leave_all(leaving::close);
}

bool far_host::listen() {
    if (listener >= 0) {
        return true;
    }
    int const fd = host.socket(SOCK_STREAM);
    if (host.bind(fd, {0, c_peer_port}) != 0 || host.listen(fd, 5) != 0) {
        host.close(fd);
        return false;
    }
    host.set_nonblocking(fd, true);
    listener = fd;
    return true;
}

void far_host::stop_listening() {
    if (listener >= 0) {
        host.close(std::exchange(listener, -1));
    }
}

std::uint16_t far_host::visit() {
    far_end end;
    end.fd = host.socket(SOCK_STREAM);
    end.epoch = ++next_epoch;
    require(host.connect(end.fd, relay_address()) == 0, "the node cannot be reached");
    host.set_nonblocking(end.fd, true);
    auto const block = make_block(c_peer_port, c_peer_port);
    host.send(end.fd, block.data(), block.size());
    end.has_sent_block = true;
    end.note_speech();
    address local;
    host.getsockname(end.fd, local);
    all.push_back(end);
    return local.port;
}

/// False when the connection has ended.
bool far_host::serve_end(far_end& end) {
    std::array<unsigned char, 4096> piece{};
    long got = 0;
    while ((host.poll(end.fd) & (EPOLLIN | EPOLLERR | EPOLLHUP)) != 0) {
        got = host.recv(end.fd, piece.data(), piece.size());
        if (got <= 0) {
            break;
        }
        end.received += static_cast<std::size_t>(got);
    }
    if (!end.has_sent_block && end.received >= c_block_size) {
        auto const block = make_block(c_peer_port, c_peer_port);
        host.send(end.fd, block.data(), block.size());
        end.has_sent_block = true;
        end.note_speech();
    }
    return (host.poll(end.fd) & (EPOLLIN | EPOLLERR | EPOLLHUP)) == 0;
}

std::optional<moment> far_host::serve() {
    while (listener >= 0 && host.poll(listener) != 0) {
        address from;
        far_end end;
        end.fd = host.accept(listener, from);
        end.epoch = ++next_epoch;
        end.note_speech();
        host.set_nonblocking(end.fd, true);
        all.push_back(end);
    }
    std::optional<moment> ended;
    std::erase_if(all, [&](far_end& end) {
        bool const has_ended = !serve_end(end);
        if (has_ended) {
            host.close(end.fd);
            ended = std::min(ended.value_or(c_never), end.longest_silence());
        }
        return has_ended;
    });
    return ended;
}

void far_host::speak(far_end& end, packet_kind kind, std::vector<unsigned char> const& data) {
    if (!end.is_exchanged()) {
        return;
    }
    auto const bytes = make_packet_bytes(static_cast<std::uint8_t>(kind), data);
    host.send(end.fd, bytes.data(), bytes.size());
    end.note_speech();
}

void far_host::send_heartbeats() {
    for (far_end& end : all) {
        speak(end, packet_kind::heartbeat, {});
    }
}

void far_host::send_packets(std::uint32_t size) {
    for (far_end& end : all) {
        if (end.is_exchanged()) {
            speak(end, packet_kind::call_return, make_data({number, end.epoch, end.packets++, size}));
        }
    }
}

void far_host::leave_all(leaving how) {
    for (far_end const& end : all) {
        if (how == leaving::reset) {
            host.close_with_reset(end.fd);
            continue;
        }
        if (how == leaving::half_close) {
            host.shutdown(end.fd, SHUT_WR);
        }
        host.close(end.fd);
    }
    all.clear();
}

moment far_host::shortest_silence() const {
    moment shortest = c_never;
    for (far_end const& end : all) {
        shortest = std::min(shortest, end.shortest_silence());
    }
    return shortest;
}

moment far_host::longest_silence() const {
    moment shortest = c_never;
    for (far_end const& end : all) {
        shortest = std::min(shortest, end.longest_silence());
    }
    return shortest;
}

} // namespace fuzz
