// struct_packet: every operation on a header, and the block that opens a connection.
#include "Host/tesk_os.hpp"
#include "Host/zolt_packet.hpp"
#include "Reference_Host/ledger_hooks.hpp"
#include "Reference_Host/packet_limits.hpp"
#include "Reference_Host/packet_reading.hpp"
#include "Reference_Host/packet_storage.hpp"

namespace Zolt::Reference_Host {
namespace {

/// What clear_wire writes.
constexpr std::array<unsigned char, c_header_size> make_empty_header() {
    std::array<unsigned char, c_header_size> header{};
    auto const put = [&header](header_field field, std::uint64_t value) {
        header_field_row const& row = row_of(field);
        for (unsigned int i = 0; i < row.size; ++i) {
            header[row.offset + row.size - 1 - i] = static_cast<unsigned char>(value >> (8 * i));
        }
    };
    put(header_field::magic, c_header_magic);
    put(header_field::version, c_header_version);
    put(header_field::header_size, c_header_size);
    put(header_field::timeout, c_timeout_never);
    return header;
}

constexpr std::array<unsigned char, c_header_size> c_empty_header = make_empty_header();

packet_storage& checked(struct_packet* packet) {
    ledger_check_view(packet);
    return storage_of(packet);
}

packet_storage const& checked(struct_packet const& packet) {
    ledger_check_view(&packet);
    return storage_of(packet);
}

void set_kind_of(packet_storage& packet, packet_kind kind) {
    store<header_field::kind>(packet.wire, static_cast<std::uint8_t>(kind));
}

bool is_kind(struct_packet const* packet, packet_kind kind) {
    return get_kind(*packet) == kind;
}

/// The four notices: a control packet and what it tells.
void set_event(packet_storage& packet, connection_event event) {
    set_kind_of(packet, packet_kind::control);
    store<header_field::detail>(packet.wire, static_cast<std::uint8_t>(event));
}

/// Time-outs travel in microseconds; what does not fit has no limit, what is not above 0 has passed at once.
std::uint64_t to_travelling_timeout(double seconds) {
    constexpr double c_longest_seconds = 9.0e12;
    if (!(seconds > 0.0)) {
        return 0;
    }
    return seconds > c_longest_seconds ? c_timeout_never : static_cast<std::uint64_t>(seconds * 1e6);
}

/// Heartbeats are shared by all queues, notices and acknowledgements have nobody who waits for an answer, and an
/// error that comes back as an error would travel for ever (decision 25).
bool is_reply_due(struct_packet const& packet) {
    switch (get_kind(packet)) {
    case packet_kind::heartbeat:
    case packet_kind::control:
    case packet_kind::call_return_ack:
    case packet_kind::signal_return_ack:
    case packet_kind::error:
        return false;
    default:
        return get_error(packet) == c_zolt_err_none;
    }
}

} // namespace

void clear_wire(unsigned char* wire) {
    std::memcpy(wire, c_empty_header.data(), c_header_size);
}

packet_kind get_kind(struct_packet const& packet) {
    return static_cast<packet_kind>(load<header_field::kind>(checked(packet).wire));
}

void set_kind(struct_packet& packet, packet_kind kind) {
    set_kind_of(checked(&packet), kind);
}

connection_event get_event(struct_packet const& packet) {
    bool const notice = get_kind(packet) == packet_kind::control;
    return notice ? static_cast<connection_event>(load<header_field::detail>(storage_of(packet).wire))
                  : connection_event::none;
}

packet_kind get_returned_kind(struct_packet const& packet) {
    packet_kind const kind = get_kind(packet);
    return kind == packet_kind::error ? static_cast<packet_kind>(load<header_field::detail>(storage_of(packet).wire))
                                      : kind;
}

bool is_control(struct_packet const& packet) {
    return get_kind(packet) == packet_kind::control;
}

packet_end get_source(struct_packet const& packet) {
    packet_storage const& from = checked(packet);
    packet_end end = get_source_as_sent(packet);
    end.ip = from.envelope.source_ip != 0 ? from.envelope.source_ip : end.ip;
    end.port = from.envelope.source_port != 0 ? from.envelope.source_port : end.port;
    return end;
}

packet_end get_source_as_sent(struct_packet const& packet) {
    unsigned char const* const wire = checked(packet).wire;
    return {load_raw<header_field::source_ip>(wire), load<header_field::source_port>(wire),
            load<header_field::source_id>(wire)};
}

packet_end get_destination(struct_packet const& packet) {
    packet_storage const& from = checked(packet);
    packet_end end = get_destination_as_sent(packet);
    end.ip = from.envelope.destination_ip != 0 ? from.envelope.destination_ip : end.ip;
    end.port = from.envelope.destination_port != 0 ? from.envelope.destination_port : end.port;
    return end;
}

packet_end get_destination_as_sent(struct_packet const& packet) {
    unsigned char const* const wire = checked(packet).wire;
    return {load_raw<header_field::destination_ip>(wire), load<header_field::destination_port>(wire),
            load<header_field::destination_id>(wire)};
}

std::uint16_t get_flags(struct_packet const& packet) {
    return load<header_field::flags>(checked(packet).wire);
}

void set_flags(struct_packet& packet, std::uint16_t flags) {
    store<header_field::flags>(checked(&packet).wire, flags);
}

std::uint32_t get_code(struct_packet const& packet) {
    return load<header_field::code>(checked(packet).wire);
}

void set_code(struct_packet& packet, std::uint32_t code) {
    store<header_field::code>(checked(&packet).wire, code);
}

std::uint32_t get_error(struct_packet const& packet) {
    return load<header_field::error>(checked(packet).wire);
}

bool was_turned_back(struct_packet const& packet) {
    return checked(packet).envelope.was_turned_back;
}

std::uint64_t get_sequence(struct_packet const& packet) {
    return load<header_field::sequence>(checked(packet).wire);
}

void set_sequence(struct_packet& packet, std::uint64_t sequence) {
    store<header_field::sequence>(checked(&packet).wire, sequence);
}

std::uint64_t get_creation_clock(struct_packet const& packet) {
    return load<header_field::creation_clock>(checked(packet).wire);
}

std::uint64_t get_timeout(struct_packet const& packet) {
    return load<header_field::timeout>(checked(packet).wire);
}

void set_timeout(struct_packet& packet, double seconds) {
    store<header_field::timeout>(checked(&packet).wire, to_travelling_timeout(seconds));
}

std::uint64_t get_elapsed(struct_packet const& packet) {
    return load<header_field::elapsed>(checked(packet).wire);
}

std::uint64_t get_arrival_clock(struct_packet const& packet) {
    return checked(packet).envelope.arrival_clock;
}

std::uint32_t get_local_ip(struct_packet const& packet) {
    return checked(packet).envelope.local_ip;
}

void set_cookie(struct_packet& packet, std::uint64_t cookie) {
    checked(&packet).cookie = cookie;
}

std::uint64_t get_cookie(struct_packet const& packet) {
    return checked(packet).cookie;
}

} // namespace Zolt::Reference_Host

namespace Zolt {

using namespace Reference_Host;

struct_packet& struct_packet::operator=(struct_packet const& other) {
    packet_storage& to = checked(this);
    packet_storage const& from = checked(other);
    if (&to != &from) {
        to.envelope = from.envelope;
        std::memcpy(to.wire, from.wire, c_header_size);
    }
    return *this;
}

unsigned char* struct_packet::get_header() {
    // Not through the array: relay and Center go on past its end, into the data of the same block.
    return reinterpret_cast<unsigned char*>(&checked(this)) + offsetof(packet_storage, wire);
}

unsigned int struct_packet::get_header_size() {
    return c_header_size;
}

unsigned int struct_packet::get_data_size() {
    return load<header_field::data_size>(checked(this).wire);
}

void struct_packet::set_data_size(unsigned int size) {
    store<header_field::data_size>(checked(this).wire, size);
}

unsigned int struct_packet::get_packet_size() {
    return c_header_size + get_data_size();
}

void struct_packet::set_data(unsigned char* data) {
    packet_storage& packet = checked(this);
    if (packet.attached != data) {
        delete[] packet.attached;
        packet.attached = data;
    }
}

bool struct_packet::is_right_version() {
    return std::memcmp(checked(this).wire, c_empty_header.data(), row_of(header_field::kind).offset) == 0;
}

bool struct_packet::is_heartbeat() {
    return is_kind(this, packet_kind::heartbeat);
}

bool struct_packet::is_call_return() {
    return is_kind(this, packet_kind::call_return);
}

bool struct_packet::is_signal_return() {
    return is_kind(this, packet_kind::signal_return);
}

bool struct_packet::is_call_return_ack() {
    return is_kind(this, packet_kind::call_return_ack);
}

bool struct_packet::is_signal_return_ack() {
    return is_kind(this, packet_kind::signal_return_ack);
}

bool struct_packet::is_command_udp() {
    return is_kind(this, packet_kind::command_udp);
}

bool struct_packet::is_information_udp() {
    return is_kind(this, packet_kind::information_udp);
}

unsigned short struct_packet::get_did() {
    return get_destination(*this).id;
}

unsigned int struct_packet::get_dst_ip() {
    return get_destination(*this).ip;
}

unsigned short struct_packet::get_dst_port() {
    return get_destination(*this).port;
}

unsigned int struct_packet::get_mct_ip() {
    return checked(this).envelope.group_ip;
}

void struct_packet::set_mct_ip(unsigned int ip) {
    checked(this).envelope.group_ip = ip;
}

void struct_packet::set_src_ip(unsigned int ip) {
    packet_storage& packet = checked(this);
    packet.envelope.source_ip = ip;
    store_raw<header_field::source_ip>(packet.wire, ip);
}

void struct_packet::set_src_port(unsigned short const& port) {
    packet_storage& packet = checked(this);
    packet.envelope.source_port = port;
    store<header_field::source_port>(packet.wire, port);
}

void struct_packet::set_source(unsigned int const& ip, unsigned short const& port, unsigned short const& id) {
    set_src_ip(ip);
    set_src_port(port);
    store<header_field::source_id>(checked(this).wire, id);
}

void struct_packet::set_destination(unsigned int const& ip, unsigned short const& port, unsigned short const& id) {
    packet_storage& packet = checked(this);
    packet.envelope.destination_ip = ip;
    packet.envelope.destination_port = port;
    store_raw<header_field::destination_ip>(packet.wire, ip);
    store<header_field::destination_port>(packet.wire, port);
    store<header_field::destination_id>(packet.wire, id);
}

void struct_packet::initialize_packet(unsigned int const& local_ip, unsigned long const& clock, double timeout) {
    packet_storage& packet = checked(this);
    packet.envelope = {};
    packet.envelope.local_ip = local_ip;
    packet.envelope.counted_clock = clock;
    clear_wire(packet.wire);
    store<header_field::creation_clock>(packet.wire, clock);
    store<header_field::timeout>(packet.wire, to_travelling_timeout(timeout));
}

void struct_packet::initialize_header(unsigned int const& a, unsigned short const& b, unsigned char const& c,
                                      unsigned short const& d, unsigned int const& error) {
    unsigned char* const wire = checked(this).wire;
    store<header_field::sequence>(wire, a);
    store<header_field::flags>(wire, b);
    store<header_field::kind>(wire, c);
    store<header_field::code>(wire, d);
    store<header_field::detail>(wire, 0);
    store<header_field::error>(wire, error);
}

void struct_packet::set_control_type() {
    set_kind_of(checked(this), packet_kind::control);
}

void struct_packet::set_heartbeat_type() {
    set_kind_of(checked(this), packet_kind::heartbeat);
}

void struct_packet::set_tcp_connected_to_server() {
    set_event(checked(this), connection_event::connected_to_server);
}

void struct_packet::set_tcp_disconnected_from_server() {
    set_event(checked(this), connection_event::disconnected_from_server);
}

void struct_packet::set_tcp_connected_from_client() {
    set_event(checked(this), connection_event::connected_from_client);
}

void struct_packet::set_tcp_disconnected_from_client() {
    set_event(checked(this), connection_event::disconnected_from_client);
}

bool struct_packet::backward_error_switch(unsigned int const& error) {
    if (get_kind(*this) == packet_kind::heartbeat) {
        return false; // one packet for all connections: nothing is written into it
    }
    checked(this).envelope.was_turned_back = true;
    if (!is_reply_due(*this)) {
        return false;
    }
    packet_storage& packet = checked(this);
    packet_kind const came_back = get_kind(*this);
    set_swap_address(this);
    set_kind_of(packet, packet_kind::error);
    store<header_field::detail>(packet.wire, static_cast<std::uint8_t>(came_back));
    store<header_field::error>(packet.wire, error);
    store<header_field::data_size>(packet.wire, 0);
    return true;
}

void struct_packet::set_swap_address(struct_packet* other) {
    packet_end const source = get_source(*other);
    packet_end const destination = get_destination(*other);
    set_source(destination.ip, destination.port, destination.id);
    set_destination(source.ip, source.port, source.id);
}

void struct_packet::set_swap_acktype() {
    packet_kind const kind = get_kind(*this);
    if (kind == packet_kind::call_return) {
        set_kind_of(storage_of(this), packet_kind::call_return_ack);
    } else if (kind == packet_kind::signal_return) {
        set_kind_of(storage_of(this), packet_kind::signal_return_ack);
    }
}

void struct_packet::determine_arrival_clock(unsigned long const& clock) {
    packet_envelope& envelope = checked(this).envelope;
    envelope.arrival_clock = clock;
    envelope.counted_clock = clock;
}

bool struct_packet::update_packet_time_and_return_timeout() {
    packet_storage& packet = checked(this);
    std::uint64_t const now = Tesk::OS::lemon_cpu_clock();
    std::uint64_t elapsed = load<header_field::elapsed>(packet.wire);
    if (packet.envelope.counted_clock != 0 && now > packet.envelope.counted_clock) {
        elapsed += now - packet.envelope.counted_clock;
        packet.envelope.counted_clock = now;
        store<header_field::elapsed>(packet.wire, elapsed);
    }
    std::uint64_t const timeout = load<header_field::timeout>(packet.wire);
    return timeout != c_timeout_never && elapsed >= timeout;
}

} // namespace Zolt
