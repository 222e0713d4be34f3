#include "Reference_Center/packet_text.hpp"

#include "Reference_Center/addresses.hpp"

#include <array>
#include <fmt/format.h>

namespace Zolt::Reference_Center {
namespace {

std::string escape(unsigned char byte) {
    switch (byte) {
    case '\n':
        return "\\n";
    case '\r':
        return "\\r";
    case '\t':
        return "\\t";
    case '\\':
        return "\\\\";
    case '"':
        return "\\\"";
    default:
        return byte >= ' ' && byte < 0x7F ? std::string(1, static_cast<char>(byte)) : fmt::format("\\x{:02x}", byte);
    }
}

/// Data that is UTF-8 as text, else in hexadecimal.
void put_data(json_object& object, std::span<unsigned char const> data) {
    std::string const text(data.begin(), data.end());
    try {
        json_object(text).dump();
        object["text"] = text;
    } catch (json_object::type_error const&) {
        object["hex"] = to_hex(data);
    }
}

std::string to_json(arrival const& packet, std::span<unsigned char const> data) {
    json_object object{{"from", address_text(packet.from.address)},
                       {"over", way_text(packet.from.via)},
                       {"kind", kind_text(Reference_Host::get_kind(packet.header))},
                       {"sequence", Reference_Host::get_sequence(packet.header)},
                       {"code", Reference_Host::get_code(packet.header)},
                       {"size", data.size()}};
    put_data(object, data);
    return object.dump() + "\n";
}

} // namespace

std::string quote(std::span<unsigned char const> bytes) {
    std::string text = "\"";
    for (unsigned char const byte : bytes) {
        text += escape(byte);
    }
    return text + "\"";
}

std::string to_hex(std::span<unsigned char const> bytes) {
    return fmt::format("{:02x}", fmt::join(bytes, ""));
}

char const* kind_text(Reference_Host::packet_kind kind) {
    static constexpr std::array<char const*, 10> c_names{
        "data",      "call",    "signal",      "call acknowledgement", "signal acknowledgement",
        "heartbeat", "control", "command udp", "information udp",      "error"};
    auto const index = static_cast<std::size_t>(kind);
    return index < c_names.size() ? c_names[index] : "unknown";
}

std::string format_packet(arrival const& packet, packet_format format) {
    std::span<unsigned char const> const data = Reference_Host::get_data_span(packet.token);
    switch (format) {
    case packet_format::raw:
        return {data.begin(), data.end()};
    case packet_format::quoted:
        return fmt::format("{} {}\n", address_text(packet.from.address), quote(data));
    case packet_format::hex:
        return fmt::format("{} {} {}\n", address_text(packet.from.address), data.size(), to_hex(data));
    case packet_format::json:
        return to_json(packet, data);
    }
    return {};
}

} // namespace Zolt::Reference_Center
