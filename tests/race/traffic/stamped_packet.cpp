#include "tests/race/traffic/stamped_packet.hpp"

#include "Reference_Host/packet_reading.hpp"

#include <algorithm>
#include <cstring>
#include <span>

namespace traffic {
namespace {

namespace host = Zolt::Reference_Host;

constexpr std::uint16_t c_may_be_dropped = 0x80; ///< beside the flow, in the application's flags
constexpr unsigned c_flag_shift = 8;

std::uint64_t mix(std::uint64_t value) {
    value = (value ^ (value >> 31)) * 0x9E3779B97F4A7C15u;
    return value ^ (value >> 29);
}

/// Mostly small packets, every fourth a header only, now and then one that does not fit into a socket at once.
std::uint32_t size_of(std::uint32_t number) {
    auto const random = static_cast<std::uint32_t>(mix(number) >> 20);
    if (number % 4 == 0) {
        return 0;
    }
    return number % 512 == 1 ? 20'000 + random % 80'000 : 1 + random % 160;
}

host::packet_kind kind_of(packet_stamp const& stamp, bool is_outgoing) {
    if (stamp.may_be_dropped) {
        return is_outgoing ? host::packet_kind::command_udp : host::packet_kind::information_udp;
    }
    return stamp.number % 16 == 2 ? host::packet_kind::call_return : host::packet_kind::data;
}

std::uint64_t seed_of(packet_stamp const& stamp) {
    std::uint64_t const place = std::uint64_t{stamp.head} << 32 | stamp.number;
    return mix(place) + (std::uint64_t{stamp.sender} << 9 | std::uint64_t{stamp.flow} << 1 | stamp.may_be_dropped);
}

void fill(std::span<unsigned char> data, std::uint64_t state) {
    while (!data.empty()) {
        state = mix(state + 1);
        std::size_t const piece = std::min(data.size(), sizeof state);
        std::memcpy(data.data(), &state, piece);
        data = data.subspan(piece);
    }
}

/// Depends on each byte and on its place.
std::uint32_t checksum(packet_stamp const& stamp, std::span<unsigned char const> data) {
    std::uint64_t sum = seed_of(stamp) + data.size();
    while (!data.empty()) {
        std::uint64_t word = 0;
        std::size_t const piece = std::min(data.size(), sizeof word);
        std::memcpy(&word, data.data(), piece);
        sum = mix(sum ^ word);
        data = data.subspan(piece);
    }
    return static_cast<std::uint32_t>(sum >> 16);
}

packet_stamp read_place(Zolt::struct_packet const& packet) {
    auto const flags = static_cast<std::uint8_t>(host::get_flags(packet) >> c_flag_shift);
    std::uint64_t const place = host::get_sequence(packet);
    packet_stamp stamp;
    stamp.flow = flags & (c_may_be_dropped - 1);
    stamp.may_be_dropped = (flags & c_may_be_dropped) != 0;
    stamp.head = static_cast<std::uint32_t>(place >> 32);
    stamp.number = static_cast<std::uint32_t>(place);
    return stamp;
}

} // namespace

Zolt::struct_token make_stamped(packet_stamp const& stamp, bool is_outgoing) {
    unsigned const flags = stamp.flow | (stamp.may_be_dropped ? c_may_be_dropped : 0u);
    host::packet_plan plan;
    plan.kind = kind_of(stamp, is_outgoing);
    plan.source.id = stamp.sender;
    plan.flags = static_cast<std::uint16_t>(flags << c_flag_shift);
    plan.sequence = std::uint64_t{stamp.head} << 32 | stamp.number;
    Zolt::struct_token token = host::make_packet(plan, size_of(stamp.number));
    std::span<unsigned char> const data = host::get_data_span(token);
    fill(data, seed_of(stamp));
    host::set_code(*token.get_header_packet(), checksum(stamp, data));
    return token;
}

Zolt::struct_token make_ballast(std::uint32_t size) {
    host::packet_plan plan;
    plan.flags = c_may_be_dropped << c_flag_shift;
    Zolt::struct_token token = host::make_packet(plan, size);
    fill(host::get_data_span(token), size);
    return token;
}

std::optional<packet_stamp> read_stamp(Zolt::struct_token& token) {
    Zolt::struct_packet const& header = *token.get_header_packet();
    packet_stamp stamp = read_place(header);
    stamp.sender = host::get_source_as_sent(header).id;
    std::span<unsigned char const> const data = host::get_data_span(token);
    bool const is_whole = data.size() == size_of(stamp.number) && host::get_code(header) == checksum(stamp, data) &&
                          stamp.flow < c_most_flows;
    return is_whole ? std::optional(stamp) : std::nullopt;
}

packet_stamp read_returned_stamp(Zolt::struct_packet const& packet) {
    return read_place(packet);
}

} // namespace traffic
