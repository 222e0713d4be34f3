#include "tests/soak/soak_peer.hpp"

#include "Reference_Host/packet_building.hpp"
#include "tests/soak/virtual_time.hpp"

#include <array>
#include <cerrno>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace soak {

using namespace Zolt::Reference_Host;

namespace {

constexpr std::size_t c_block_size = 1024;
constexpr int c_patience_ms = 30000;
constexpr std::uint32_t c_data_size = 64;

sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

void must(bool holds, char const* what) {
    if (!holds) {
        throw std::runtime_error(std::string(what) + ", errno " + std::to_string(errno));
    }
}

bool is_readable(int fd, int timeout_ms) {
    pollfd wanted{fd, POLLIN, 0};
    return ::poll(&wanted, 1, timeout_ms) == 1;
}

std::uint16_t find_port(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    must(::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0, "a peer has no address");
    return ntohs(address.sin_port);
}

/// A packet with that many bytes of data, as it travels.
void append_packet(std::vector<unsigned char>& bytes, packet_kind kind, std::uint32_t data_size) {
    packet_plan plan;
    plan.kind = kind;
    Zolt::struct_token token = make_packet(plan, data_size);
    Zolt::struct_packet* packet = token.get_header_packet();
    if (data_size != 0) {
        // Header and data in one block.
        *token.get_data_packet() = *packet;
        packet = token.get_data_packet();
    }
    bytes.insert(bytes.end(), packet->get_header(), packet->get_header() + packet->get_packet_size());
    token.free();
}

int new_socket() {
    int const fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    must(fd >= 0, "a peer gets no socket");
    return fd;
}

} // namespace

soak_peer::soak_peer() : node_port(0), listener(new_socket()) {
    sockaddr_in const address = loopback(0);
    must(::bind(listener, reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0 &&
             ::listen(listener, 5) == 0,
         "a peer cannot listen");
    own_port = find_port(listener);
}

soak_peer::soak_peer(std::uint16_t port_of_node) : node_port(port_of_node) {}

soak_peer::~soak_peer() {
    end();
    if (listener >= 0) {
        ::close(listener);
    }
}

void soak_peer::begin(int connected) {
    must(connected >= 0, "a peer gets no connection");
    fd = connected;
    unread = 0;
    exchange();
    ::fcntl(fd, F_SETFL, O_NONBLOCK);
}

/// The connecting side sends its block first. A connection that ends meanwhile is none.
void soak_peer::exchange() {
    std::array<unsigned char, c_block_size> block{};
    bool const sends_first = node_port != 0;
    if (sends_first) {
        ::send(fd, block.data(), block.size(), MSG_NOSIGNAL);
    }
    for (std::size_t got = 0; got < block.size();) {
        must(is_readable(fd, c_patience_ms), "the node does not send its block");
        ssize_t const count = ::recv(fd, block.data() + got, block.size() - got, 0);
        if (count <= 0) {
            end();
            return;
        }
        got += static_cast<std::size_t>(count);
    }
    if (!sends_first) {
        block.fill(0);
        ::send(fd, block.data(), block.size(), MSG_NOSIGNAL);
    }
    is_exchanged = true;
    since = count_ticks();
}

void soak_peer::end() {
    if (fd >= 0) {
        ::close(std::exchange(fd, -1));
    }
    is_exchanged = false;
    is_leaving = false;
}

void soak_peer::go_on() {
    if (fd >= 0) {
        read_some();
        return;
    }
    if (listener >= 0) {
        if (is_readable(listener, 0)) {
            begin(::accept(listener, nullptr, nullptr));
        }
        return;
    }
    int const connecting = new_socket();
    sockaddr_in const address = loopback(node_port);
    must(::connect(connecting, reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0,
         "the node does not take a connection");
    own_port = find_port(connecting);
    begin(connecting);
}

bool soak_peer::talk() {
    if (!is_whole()) {
        return false;
    }
    // In one write: the kernel would keep the second of two for a while.
    std::vector<unsigned char> bytes;
    append_packet(bytes, packet_kind::call_return_ack, 0);
    append_packet(bytes, packet_kind::call_return, c_data_size);
    return ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

/// False when the connection has ended.
bool soak_peer::read_some() {
    std::array<unsigned char, 4096> piece;
    for (;;) {
        ssize_t const count = ::recv(fd, piece.data(), piece.size(), 0);
        if (count < 0 && errno == EAGAIN) {
            return true;
        }
        if (count <= 0) {
            end();
            return false;
        }
        unread += static_cast<std::size_t>(count);
    }
}

void soak_peer::await_packet() {
    while (fd >= 0 && read_some() && unread < c_header_size) {
        must(is_readable(fd, c_patience_ms), "no packet comes");
    }
    unread = 0;
}

void soak_peer::leave(leaving how) {
    is_leaving = true;
    linger const at_once{1, 0};
    switch (how) {
    case leaving::silence:
        return;
    case leaving::half_close:
        ::shutdown(fd, SHUT_WR);
        return;
    case leaving::reset:
        ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        break;
    case leaving::close:
        break;
    }
    end();
}

} // namespace soak
