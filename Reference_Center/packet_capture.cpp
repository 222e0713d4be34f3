#include "Reference_Center/packet_capture.hpp"

#include "Reference_Center/diagnostics.hpp"
#include "Reference_Center/error_description.hpp"
#include "Reference_Center/failure.hpp"
#include "Reference_Host/packet_building.hpp"
#include "Reference_Host/packet_layout.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <unistd.h>
#include <utility>

namespace Zolt::Reference_Center {
namespace {

constexpr std::uint32_t c_magic = 0xA1B2C3D4;
constexpr std::uint32_t c_raw_ip = 101;
constexpr std::uint32_t c_longest = 0xFFFF;
constexpr std::size_t c_ip_header = 20;
constexpr std::size_t c_tcp_header = 20;
constexpr std::size_t c_udp_header = 8;
constexpr std::size_t c_largest_segment = c_longest - c_ip_header - c_tcp_header;

constexpr std::uint32_t c_next_first = 0x10000;

constexpr unsigned int c_fin = 0x01;
constexpr unsigned int c_syn = 0x02;
constexpr unsigned int c_push = 0x08;
constexpr unsigned int c_ack = 0x10;

/// Numbers one after the other, most significant byte first.
class number_writer {
public:
    explicit number_writer(packet_capture::bytes& to) : out(to) {}

    number_writer& add_8(std::uint64_t value) { return add(value, 1); }
    number_writer& add_16(std::uint64_t value) { return add(value, 2); }
    number_writer& add_32(std::uint64_t value) { return add(value, 4); }

private:
    number_writer& add(std::uint64_t value, unsigned int size) {
        for (unsigned int left = size; left > 0; --left) {
            out.push_back(static_cast<unsigned char>(value >> (8 * (left - 1))));
        }
        return *this;
    }

    packet_capture::bytes& out;
};

/// The file's own header of one packet.
void add_record_header(packet_capture::bytes& record, std::size_t size) {
    auto const now =
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    auto const moment = static_cast<std::uint64_t>(now);
    number_writer(record).add_32(moment / 1000000).add_32(moment % 1000000).add_32(size).add_32(size);
}

} // namespace

packet_capture::packet_capture(std::string const& file, std::uint64_t limit) : name(file), most(limit) {
    if (name.empty()) {
        return;
    }
    fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd == -1) {
        throw failure(exit_code::failed, fmt::format("cannot write {}: {}", name, describe_error(errno)));
    }
    bytes head;
    number_writer(head).add_32(c_magic).add_16(2).add_16(4).add_32(0).add_32(0).add_32(c_longest).add_32(c_raw_ip);
    write(head);
}

packet_capture::~packet_capture() {
    if (fd != -1) {
        ::close(fd);
    }
}

void packet_capture::note_connected(peer const& who, struct_node_addr here) {
    first += c_next_first;
    line& opened = lines[who] = {here, {first, first}};
    bool const is_ours = who.via == way::outgoing;
    write_segment(who, opened, is_ours ? direction::out : direction::in, c_syn, {});
    write_segment(who, opened, is_ours ? direction::in : direction::out, c_syn | c_ack, {});
}

void packet_capture::note_disconnected(peer const& who) {
    write_segment(who, lines[who], direction::in, c_fin | c_ack, {});
    lines.erase(who);
}

void packet_capture::note_arrival(peer const& from, struct_token& token) {
    if (fd != -1) {
        note(from, direction::in, {0, Reference_Host::get_destination(*token.get_header_packet()).port}, copy(token));
    }
}

packet_capture::bytes packet_capture::copy(struct_token& token) const {
    if (fd == -1) {
        return {};
    }
    struct_packet& header = *token.get_header_packet();
    bytes packet(header.get_header(), header.get_header() + header.get_header_size());
    std::span<unsigned char const> const data = Reference_Host::get_data_span(token);
    packet.insert(packet.end(), data.begin(), data.end());
    return packet;
}

void packet_capture::note_hand_over(peer const& to, bytes const& packet) {
    if (fd != -1) {
        // The port of a packet's destination chooses the socket that a datagram leaves by.
        using Reference_Host::header_field;
        note(to, direction::out, {0, Reference_Host::load<header_field::destination_port>(packet.data())}, packet);
    }
}

void packet_capture::note(peer const& who, direction to, struct_node_addr here, std::span<unsigned char const> packet) {
    if (who.via == way::udp) {
        // A datagram goes to the port number that it leaves from.
        bytes header;
        number_writer(header).add_16(here.port).add_16(here.port).add_16(c_udp_header + packet.size()).add_16(0);
        write_packet(IPPROTO_UDP, who, to, here, header, packet);
        return;
    }
    for (line& of = lines[who]; !packet.empty();) {
        std::size_t const size = std::min(packet.size(), c_largest_segment);
        write_segment(who, of, to, c_push | c_ack, packet.first(size));
        packet = packet.subspan(size);
    }
}

void packet_capture::write_segment(peer const& who, line& of, direction to, unsigned int flags,
                                   std::span<unsigned char const> data) {
    bool const is_out = to == direction::out;
    std::uint32_t& own = of.next[is_out ? 0 : 1];
    std::uint32_t const other = of.next[is_out ? 1 : 0];
    bytes header;
    number_writer(header)
        .add_16(is_out ? of.here.port : who.address.port)
        .add_16(is_out ? who.address.port : of.here.port)
        .add_32(own)
        .add_32((flags & c_ack) != 0 ? other : 0)
        .add_8(c_tcp_header / 4 << 4)
        .add_8(flags)
        .add_16(c_longest)
        .add_32(0);
    own += static_cast<std::uint32_t>(data.size()) + ((flags & (c_syn | c_fin)) != 0 ? 1 : 0);
    write_packet(IPPROTO_TCP, who, to, of.here, header, data);
}

void packet_capture::write_packet(unsigned int protocol, peer const& who, direction to, struct_node_addr here,
                                  bytes const& header, std::span<unsigned char const> data) {
    std::size_t const size = c_ip_header + header.size() + data.size();
    std::uint32_t source = ntohl(here.ip);
    std::uint32_t destination = ntohl(who.address.ip);
    if (to == direction::in) {
        std::swap(source, destination);
    }
    bytes record;
    add_record_header(record, size);
    number_writer(record).add_16(0x4500).add_16(size).add_32(0x4000).add_8(64).add_8(protocol).add_16(0);
    number_writer(record).add_32(source).add_32(destination);
    record.insert(record.end(), header.begin(), header.end());
    record.insert(record.end(), data.begin(), data.end());
    write(record);
}

void packet_capture::write(bytes const& record) {
    if (fd == -1) {
        return;
    }
    if (written + record.size() > most) {
        end(fmt::format("has reached its limit of {} bytes", most));
        return;
    }
    ssize_t const put = ::write(fd, record.data(), record.size());
    if (put != static_cast<ssize_t>(record.size())) {
        end(fmt::format("cannot be written: {}", put == -1 ? describe_error(errno) : "no room"));
        return;
    }
    written += record.size();
}

void packet_capture::end(std::string const& reason) {
    ::close(std::exchange(fd, -1));
    log_warning(fmt::format("the capture {} ends here: it {}", name, reason));
}

} // namespace Zolt::Reference_Center
