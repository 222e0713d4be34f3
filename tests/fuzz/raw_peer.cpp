#include "tests/fuzz/raw_peer.hpp"

#include "Reference_Host/packet_building.hpp"
#include "tests/fuzz/simulated_run.hpp"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <sys/epoll.h>
#include <sys/socket.h>

namespace fuzz {

using namespace simulation;

namespace {

constexpr std::size_t c_most_pieces = 100; ///< of one write; more only takes longer
constexpr moment c_between_pieces = 200;
constexpr std::uint32_t c_ended = EPOLLERR | EPOLLHUP;

} // namespace

std::array<unsigned char, c_block_size> make_block(std::uint16_t sender_port, std::uint16_t receiver_port) {
    std::array<unsigned char, c_block_size> block{};
    block[0] = static_cast<unsigned char>(sender_port >> 8);
    block[1] = static_cast<unsigned char>(sender_port & 0xFF);
    block[2] = static_cast<unsigned char>(receiver_port >> 8);
    block[3] = static_cast<unsigned char>(receiver_port & 0xFF);
    return block;
}

std::vector<unsigned char> make_packet_bytes(std::uint8_t kind, std::span<unsigned char const> data) {
    Zolt::Reference_Host::packet_plan plan;
    plan.kind = static_cast<Zolt::Reference_Host::packet_kind>(kind);
    Zolt::struct_token token = make_packet(plan);
    Zolt::struct_packet& header = *token.get_header_packet();
    header.set_data_size(static_cast<unsigned int>(data.size()));
    std::vector<unsigned char> bytes(header.get_header(), header.get_header() + header.get_header_size());
    bytes.insert(bytes.end(), data.begin(), data.end());
    token.free();
    return bytes;
}

raw_peer::raw_peer(kernel& on, address to) : host(on), fd(on.socket(SOCK_STREAM)) {
    over = host.connect(fd, to) != 0;
    host.set_nonblocking(fd, true);
}

raw_peer::raw_peer(kernel& on, int listener) : host(on) {
    if (!wait_patiently("peer accepts", [&] { return host.poll(listener) != 0; })) {
        over = true;
        return;
    }
    fd = host.accept(listener, from);
    host.set_nonblocking(fd, true);
}

raw_peer::~raw_peer() {
    if (fd >= 0) {
        host.close(fd);
    }
}

bool raw_peer::write_piece(std::span<unsigned char const> bytes) {
    while (!bytes.empty()) {
        long const sent = host.send(fd, bytes.data(), bytes.size());
        if (sent > 0) {
            auto const count = static_cast<std::size_t>(sent);
            written.insert(written.end(), bytes.begin(), bytes.begin() + sent);
            bytes = bytes.subspan(count);
            continue;
        }
        bool const has_room = sent == -EAGAIN && wait_patiently("peer waits for room", [this] {
                                  return (host.poll(fd) & (EPOLLOUT | c_ended)) != 0;
                              });
        if (!has_room) {
            return false;
        }
    }
    return true;
}

bool raw_peer::write(std::span<unsigned char const> bytes, std::size_t piece) {
    std::size_t const shortest = bytes.size() / c_most_pieces + 1;
    while (!over && !bytes.empty()) {
        std::size_t const size = piece == 0 ? bytes.size() : std::min(std::max(piece, shortest), bytes.size());
        if (!write_piece(bytes.first(size))) {
            return false;
        }
        bytes = bytes.subspan(size);
        if (!bytes.empty()) {
            pass_time(c_between_pieces);
        }
    }
    return bytes.empty();
}

void raw_peer::read_available() {
    while (!over && (host.poll(fd) & (EPOLLIN | c_ended)) != 0) {
        std::array<unsigned char, 4096> piece{};
        long const got = host.recv(fd, piece.data(), piece.size());
        over = got <= 0 && got != -EAGAIN;
        read.insert(read.end(), piece.begin(), piece.begin() + std::max(got, 0L));
    }
}

void raw_peer::read_until(std::size_t size) {
    while (!over && read.size() < size) {
        if (!wait_patiently("peer reads", [this] { return (host.poll(fd) & (EPOLLIN | c_ended)) != 0; })) {
            return;
        }
        read_available();
    }
}

bool raw_peer::read_to_end(moment deadline) {
    while (!over && now() < deadline) {
        wait_until("peer waits for the end", deadline, [this] { return (host.poll(fd) & (EPOLLIN | c_ended)) != 0; });
        read_available();
    }
    return over;
}

void raw_peer::leave(leaving how) {
    switch (how) {
    case leaving::half_close:
        host.shutdown(fd, SHUT_WR);
        return;
    case leaving::shut_both:
        host.shutdown(fd, SHUT_RDWR);
        return;
    case leaving::reset:
        host.close_with_reset(std::exchange(fd, -1));
        break;
    case leaving::close:
        host.close(std::exchange(fd, -1));
        break;
    }
    over = true;
}

address raw_peer::local() const {
    address found;
    host.getsockname(fd, found);
    return found;
}

} // namespace fuzz
