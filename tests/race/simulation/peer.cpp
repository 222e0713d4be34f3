#include "tests/race/simulation/peer.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <utility>

#include <sys/epoll.h>
#include <sys/socket.h>

namespace simulation {

using namespace Zolt::Reference_Host;

namespace {

constexpr std::size_t c_block = 1024;
constexpr moment c_patience = 30000000;
constexpr std::uint32_t c_over = EPOLLERR | EPOLLHUP;

} // namespace

std::array<unsigned char, c_header_size> make_header(packet_kind kind, std::uint32_t data_size,
                                                     std::uint64_t sequence) {
    std::array<unsigned char, c_header_size> header{};
    store<header_field::magic>(header.data(), c_header_magic);
    store<header_field::version>(header.data(), c_header_version);
    store<header_field::header_size>(header.data(), c_header_size);
    store<header_field::kind>(header.data(), static_cast<std::uint8_t>(kind));
    store<header_field::data_size>(header.data(), data_size);
    store<header_field::sequence>(header.data(), sequence);
    store<header_field::timeout>(header.data(), c_timeout_never);
    return header;
}

std::uint32_t any_size() {
    constexpr std::array<std::uint32_t, 5> c_sizes{16, 17, 40, 300, 1500};
    return c_sizes[scenario_dice().below(c_sizes.size())];
}

packet_kind any_kind() {
    constexpr std::array<packet_kind, 5> c_kinds{packet_kind::data, packet_kind::call_return,
                                                 packet_kind::signal_return, packet_kind::command_udp,
                                                 packet_kind::information_udp};
    return c_kinds[scenario_dice().below(c_kinds.size())];
}

farewell choose_farewell() {
    return static_cast<farewell>(scenario_dice().below(c_farewells));
}

conversation::conversation(kernel& on, int descriptor, std::uint32_t peer_number, std::uint32_t which)
    : host(on), fd(descriptor), number(peer_number), epoch(which) {}

conversation::~conversation() {
    if (fd >= 0) {
        host.close(fd);
    }
}

bool conversation::write(unsigned char const* data, std::size_t size) {
    while (size != 0) {
        // Mostly in one piece; now and then cut anywhere.
        std::size_t const piece = scenario_dice().one_in(4) ? 1 + scenario_dice().below(size) : size;
        point("peer sends");
        long const sent = host.send(fd, data, piece);
        if (sent <= 0) {
            return false;
        }
        data += sent;
        size -= static_cast<std::size_t>(sent);
    }
    return true;
}

bool conversation::send_block(std::size_t bytes) {
    std::array<unsigned char, c_block> block{};
    block[0] = 0x1B; // port of the sender and of the receiver: 7000 each
    block[1] = 0x58;
    block[2] = 0x1B;
    block[3] = 0x58;
    return write(block.data(), std::min(bytes, block.size()));
}

bool conversation::receive_block() {
    std::array<unsigned char, c_block> block{};
    std::size_t got = 0;
    while (got < block.size()) {
        if (!wait_until("peer waits for the block", now() + c_patience, [this] { return has_something(); })) {
            return false;
        }
        long const count = host.recv(fd, block.data() + got, block.size() - got);
        if (count <= 0) {
            return false;
        }
        got += static_cast<std::size_t>(count);
    }
    // What the exchange carries is two ports; anything else would be foreign memory.
    require(std::all_of(block.begin() + 4, block.end(), [](unsigned char byte) { return byte == 0; }),
            "the block carries foreign bytes");
    is_exchanged = true;
    return true;
}

bool conversation::has_something() const {
    return (host.poll(fd) & (EPOLLIN | c_over)) != 0;
}

bool conversation::send_packet(packet_kind kind, std::uint32_t size) {
    std::vector<unsigned char> bytes;
    std::vector<unsigned char> data;
    if (size != 0) {
        data = make_data({number, epoch, next_packet++, size});
    }
    auto const header = make_header(kind, static_cast<std::uint32_t>(data.size()), 0);
    bytes.assign(header.begin(), header.end());
    bytes.insert(bytes.end(), data.begin(), data.end());
    return write(bytes.data(), bytes.size());
}

void conversation::answer_call(unsigned char kind) {
    auto const call = static_cast<packet_kind>(kind);
    if (call == packet_kind::call_return) {
        send_packet(packet_kind::call_return_ack, 0);
    } else if (call == packet_kind::signal_return) {
        send_packet(packet_kind::signal_return_ack, 0);
    }
}

void conversation::take_packet(std::size_t header_size, std::size_t data_size) {
    unsigned char const* const header = unread.data();
    if (data_size != 0) {
        serial what;
        require(read_data(header + header_size, data_size, what), "a peer received a damaged packet");
        require(what.sender == 0, "a peer received a packet that the Center did not send");
    }
    std::uint64_t const sequence = load<header_field::sequence>(header);
    if (sequence != 0 && load<header_field::kind>(header) <= static_cast<std::uint8_t>(packet_kind::signal_return)) {
        require(sequence > last_sequence, "a peer received a packet twice or out of order");
        last_sequence = sequence;
        ++received;
    }
}

bool conversation::take_bytes(long got) {
    if (got <= 0) {
        return false;
    }
    if (!is_exchanged) {
        unread.clear(); // a peer that leaves in the middle of the exchange reads the rest of the block, or not
    }
    while (unread.size() >= c_header_size) {
        require(load<header_field::magic>(unread.data()) == c_header_magic, "a peer received a damaged stream");
        std::size_t const data_size = load<header_field::data_size>(unread.data());
        if (unread.size() < c_header_size + data_size) {
            return true;
        }
        take_packet(c_header_size, data_size);
        unsigned char const kind = load<header_field::kind>(unread.data());
        unread.erase(unread.begin(), unread.begin() + static_cast<std::ptrdiff_t>(c_header_size + data_size));
        answer_call(kind);
    }
    return true;
}

bool conversation::read_waiting() {
    while ((host.poll(fd) & EPOLLIN) != 0) {
        std::array<unsigned char, 2048> piece{};
        point("peer reads");
        long const got = host.recv(fd, piece.data(), 1 + scenario_dice().below(piece.size()));
        unread.insert(unread.end(), piece.begin(), piece.begin() + std::max(got, 0L));
        if (!take_bytes(got)) {
            return false;
        }
    }
    return true;
}

void conversation::read_to_end() {
    for (;;) {
        bool const is_more =
            wait_until("peer waits for the end", now() + c_patience, [this] { return has_something(); });
        if (!is_more || !read_waiting() || (host.poll(fd) & c_over) != 0) {
            return;
        }
    }
}

void conversation::leave(farewell how) {
    note("peer leaves: " + std::to_string(static_cast<int>(how)));
    point("peer leaves");
    switch (how) {
    case farewell::close:
        break;
    case farewell::reset:
        host.close_with_reset(std::exchange(fd, -1));
        return;
    case farewell::half_close:
        host.shutdown(fd, SHUT_WR);
        read_to_end();
        break;
    case farewell::shutdown_both:
        host.shutdown(fd, SHUT_RDWR);
        break;
    case farewell::silence:
        // Says nothing more and reads nothing, so it may never see that the relay has ended it.
        wait_until("silent peer", now() + c_patience,
                   [this] { return (host.poll(fd) & (EPOLLHUP | EPOLLRDHUP)) != 0; });
        break;
    }
    host.close(std::exchange(fd, -1));
}

int open_connection(kernel& host, address to) {
    point("peer connects");
    int const fd = host.socket(SOCK_STREAM);
    if (int const result = host.connect(fd, to); result < 0) {
        host.close(fd);
        return result;
    }
    return fd;
}

} // namespace simulation
