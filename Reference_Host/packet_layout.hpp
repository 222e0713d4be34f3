// The packet header as it travels: one table, and the accessors that use it. The document docs/wire-format.md shows
// the same table and is compared with this one by a test.
#ifndef REFERENCE_HOST_PACKET_LAYOUT_HPP
#define REFERENCE_HOST_PACKET_LAYOUT_HPP

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

namespace Zolt::Reference_Host {

/// What a packet is. The numbers travel.
enum class packet_kind : std::uint8_t {
    data = 0,
    call_return = 1,
    signal_return = 2,
    call_return_ack = 3,
    signal_return_ack = 4,
    heartbeat = 5,
    control = 6,
    command_udp = 7,
    information_udp = 8,
    error = 9,
};

/// What a control packet tells; the detail field of such a packet.
enum class connection_event : std::uint8_t {
    none = 0,
    connected_to_server = 1,
    disconnected_from_server = 2,
    connected_from_client = 3,
    disconnected_from_client = 4,
};

/// One value of an enumeration that travels.
struct value_row {
    std::string_view name;    ///< as in docs/wire-format.md
    std::string_view meaning; ///< as in docs/wire-format.md
};

/// One row a kind, indexed by its number.
inline constexpr std::array<value_row, 10> c_packet_kinds{{
    {"data", "plain packet"},
    {"call_return", "call whose sender waits for an acknowledgement"},
    {"signal_return", "signal whose sender waits for an acknowledgement"},
    {"call_return_ack", "acknowledges a call"},
    {"signal_return_ack", "acknowledges a signal"},
    {"heartbeat", "keeps a connection alive; header only"},
    {"control", "tells a Center about a connection; made by its own relay"},
    {"command_udp", "command that prefers a datagram"},
    {"information_udp", "information that prefers a datagram"},
    {"error", "packet that could not be delivered, on its way back; header only"},
}};

/// One row an event, indexed by its number.
inline constexpr std::array<value_row, 5> c_connection_events{{
    {"none", "no event"},
    {"connected_to_server", "an outgoing connection is established"},
    {"disconnected_from_server", "an outgoing connection has ended"},
    {"connected_from_client", "an accepted connection is established"},
    {"disconnected_from_client", "an accepted connection has ended"},
}};

/// The name of a kind or event; "unknown" for a number that has none, which only a peer can send.
constexpr std::string_view name_of(packet_kind kind) {
    auto const number = static_cast<std::size_t>(kind);
    return number < c_packet_kinds.size() ? c_packet_kinds[number].name : "unknown";
}

/// The same for events.
constexpr std::string_view name_of(connection_event event) {
    auto const number = static_cast<std::size_t>(event);
    return number < c_connection_events.size() ? c_connection_events[number].name : "unknown";
}

/// The fields in the order in which they travel.
enum class header_field : unsigned {
    magic,
    version,
    header_size,
    kind,
    detail,
    flags,
    data_size,
    error,
    code,
    source_ip,
    source_port,
    source_id,
    destination_ip,
    destination_port,
    destination_id,
    sequence,
    creation_clock,
    timeout,
    elapsed,
};

/// Where a field lies.
struct header_field_row {
    std::string_view name;    ///< as in docs/wire-format.md
    unsigned int offset;      ///< bytes from the first header byte
    unsigned int size;        ///< bytes
    std::string_view meaning; ///< as in docs/wire-format.md
};

/// One row a field, indexed by header_field. All numbers have their most significant byte first.
inline constexpr std::array<header_field_row, 19> c_header_fields{{
    {"magic", 0, 4, "the letters ZOLT"},
    {"version", 4, 2, "version of this layout: 1"},
    {"header_size", 6, 2, "size of this header in bytes: 72"},
    {"kind", 8, 1, "what the packet is, see the kinds"},
    {"detail", 9, 1, "control: the event; error: the kind of the packet that came back; else 0"},
    {"flags", 10, 2, "bit 0 broadcast, bit 1 multicast; bits 8 to 15 are the application's"},
    {"data_size", 12, 4, "bytes of data that follow the header"},
    {"error", 16, 4, "error code, 0 for none"},
    {"code", 20, 4, "the application's own number"},
    {"source_ip", 24, 4, "IPv4 address of the sender"},
    {"source_port", 28, 2, "port of the sender"},
    {"source_id", 30, 2, "node id of the sender"},
    {"destination_ip", 32, 4, "IPv4 address of the receiver"},
    {"destination_port", 36, 2, "port of the receiver"},
    {"destination_id", 38, 2, "node id of the receiver"},
    {"sequence", 40, 8, "the sender's running number"},
    {"creation_clock", 48, 8, "microseconds of the sender's own clock at creation, 0 for not told"},
    {"timeout", 56, 8, "microseconds the packet may take; all bits set: no limit"},
    {"elapsed", 64, 8, "microseconds it had taken when it was last looked at before it left"},
}};

/// Bytes of a header on the wire.
inline constexpr unsigned int c_header_size = 72;
inline constexpr std::uint32_t c_header_magic = 0x5A4F4C54;
inline constexpr std::uint16_t c_header_version = 1;
/// The time-out that never passes.
inline constexpr std::uint64_t c_timeout_never = ~std::uint64_t{0};
/// Flags: how the sender addressed the datagram.
inline constexpr std::uint16_t c_flag_broadcast = 0x0001;
inline constexpr std::uint16_t c_flag_multicast = 0x0002;
/// Flags that the host leaves to the application.
inline constexpr std::uint16_t c_flags_application = 0xFF00;

/// The row of a field.
constexpr header_field_row const& row_of(header_field field) {
    return c_header_fields[static_cast<unsigned int>(field)];
}

/// True when the rows stand back to back from 0 to the end of the header.
constexpr bool header_fields_are_gapless() {
    unsigned int next = 0;
    for (header_field_row const& row : c_header_fields) {
        if (row.offset != next) {
            return false;
        }
        next += row.size;
    }
    return next == c_header_size;
}
static_assert(header_fields_are_gapless());
static_assert(row_of(header_field::elapsed).name == "elapsed");

/// The unsigned integer that holds a field of that many bytes.
template <unsigned int Size>
using unsigned_of = std::conditional_t<
    Size == 1, std::uint8_t,
    std::conditional_t<Size == 2, std::uint16_t, std::conditional_t<Size == 4, std::uint32_t, std::uint64_t>>>;

/// The unsigned integer that holds that field.
template <header_field Field>
using value_of = unsigned_of<row_of(Field).size>;

/// Host order to network order, and back.
template <class Value>
constexpr Value swap_to_network(Value value) {
    if constexpr (std::endian::native == std::endian::big || sizeof(Value) == 1) {
        return value;
    } else if constexpr (sizeof(Value) == 2) {
        return __builtin_bswap16(value);
    } else if constexpr (sizeof(Value) == 4) {
        return __builtin_bswap32(value);
    } else {
        return __builtin_bswap64(value);
    }
}

/// The field's bytes as they lie: addresses are handled in network order everywhere.
template <header_field Field>
value_of<Field> load_raw(unsigned char const* header) {
    value_of<Field> value;
    std::memcpy(&value, header + row_of(Field).offset, sizeof value);
    return value;
}

/// Writes the field's bytes as they lie.
template <header_field Field>
void store_raw(unsigned char* header, value_of<Field> value) {
    std::memcpy(header + row_of(Field).offset, &value, sizeof value);
}

/// The field's number in host order.
template <header_field Field>
value_of<Field> load(unsigned char const* header) {
    return swap_to_network(load_raw<Field>(header));
}

/// Writes a number in host order into the field.
template <header_field Field>
void store(unsigned char* header, value_of<Field> value) {
    store_raw<Field>(header, swap_to_network(value));
}

} // namespace Zolt::Reference_Host

#endif
