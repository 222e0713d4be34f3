// The bodies of the host's packet operations.
#include "tests/support/journal.hpp"
#include "tests/support/packet_ledger.hpp"

#include <new>

namespace relay_test::parts {
namespace {

constexpr unsigned char c_right_version = 7;

template <class... argument>
unsigned char* change(Zolt::struct_packet* view, char const* operation, argument const&... arguments) {
    errno_guard const keep;
    part& p = part_of(view, operation);
    if (recording()) {
        note(about::packet, part_name(&p), operation, arguments...);
    }
    return p.block.get();
}

unsigned char* ask(Zolt::struct_packet* view, char const* operation) {
    errno_guard const keep;
    part& p = part_of(view, operation);
    if (recording()) {
        note(about::packet_query, part_name(&p), operation);
    }
    return p.block.get();
}

bool has_kind(Zolt::struct_packet* view, char const* operation, unsigned kinds) {
    return (ask(view, operation)[at_kind] & kinds) != 0;
}

void set_event(Zolt::struct_packet* view, char const* operation, unsigned char event) {
    change(view, operation)[at_event] = event;
}

// A handle with a name, the relay's heartbeat_token, shows by it; all others by their node.
template <class... argument>
void note_token(void const* handle, node* n, unsigned kind, char const* operation, argument const&... arguments) {
    if (recording()) {
        std::string const name = known_object_name(handle);
        note(kind, name.empty() ? node_name(n) : name, operation, arguments...);
    }
}

} // namespace
} // namespace relay_test::parts

namespace Zolt {

using namespace relay_test;
using namespace relay_test::parts;

struct_token::struct_token() : node(nullptr) {
    note_object(this, "token", "struct_token");
}

void struct_token::alloc_header_force() {
    errno_guard const keep;
    if (next_of(book().header_allocations, allocation::works) != allocation::works) {
        note_token(this, node, about::packet, "alloc_header_force");
        throw std::bad_alloc();
    }
    if (node == nullptr || !usable(node, "alloc_header_force")) {
        node = make_node("alloc_header_force");
    }
    while (node->header.load() != nullptr) {
        drop_header(node, "alloc_header_force");
    }
    node->header_references.store(1);
    node->header.store(make_part(true, 0, node, "alloc_header_force"));
    note_token(this, node, about::packet, "alloc_header_force");
}

int struct_token::alloc_data(unsigned int const& size) {
    errno_guard const keep;
    note_token(this, node, about::packet, "alloc_data", size);
    switch (next_of(book().allocations, allocation::works)) {
    case allocation::refused:
        return 1;
    case allocation::throws:
        throw std::bad_alloc();
    case allocation::works:
        break;
    }
    if (node == nullptr) {
        node = make_node("alloc_data");
    } else if (!usable(node, "alloc_data")) {
        return 1;
    }
    drop_data(node, "alloc_data");
    node->data = make_part(false, size, node, "alloc_data");
    return 0;
}

struct_packet* struct_token::get_header_packet() {
    errno_guard const keep;
    note_token(this, node, about::packet_query, "get_header_packet");
    return usable(node, "get_header_packet") ? node->header.load() : nullptr;
}

struct_packet* struct_token::get_data_packet() {
    errno_guard const keep;
    note_token(this, node, about::packet_query, "get_data_packet");
    return usable(node, "get_data_packet") ? node->data : nullptr;
}

unsigned char* struct_token::get_data() {
    errno_guard const keep;
    note_token(this, node, about::packet_query, "get_data");
    if (!usable(node, "get_data")) {
        return nullptr;
    }
    if (node->array != nullptr) {
        return node->array;
    }
    return node->data == nullptr ? nullptr : node->data->data();
}

bool struct_token::has_header() {
    errno_guard const keep;
    note_token(this, node, about::packet_query, "has_header");
    return usable(node, "has_header") && node->header.load() != nullptr;
}

bool struct_token::has_data() {
    errno_guard const keep;
    note_token(this, node, about::packet_query, "has_data");
    return usable(node, "has_data") && (node->data != nullptr || node->array != nullptr);
}

void struct_token::ref_header() {
    errno_guard const keep;
    note_token(this, node, about::packet, "ref_header");
    if (!usable(node, "ref_header") || node->header.load() == nullptr) {
        return;
    }
    node->header_references.fetch_add(1, std::memory_order_relaxed);
    node->header.load()->references.fetch_add(1, std::memory_order_relaxed);
}

void struct_token::set_header(struct_token const& other) {
    errno_guard const keep;
    note_token(this, node, about::packet, "set_header", token_name(other));
    if (!usable(other.node, "set_header") || other.node->header.load() == nullptr) {
        return;
    }
    if (node == nullptr) {
        node = make_node("set_header");
    }
    part* const shared = other.node->header.load();
    shared->references.fetch_add(1, std::memory_order_relaxed);
    while (node->header.load() != nullptr) {
        drop_header(node, "set_header");
    }
    node->header_references.store(1);
    node->header.store(shared);
}

void struct_token::set_data(struct_token const& other) {
    errno_guard const keep;
    note_token(this, node, about::packet, "set_data", token_name(other));
    if (!usable(other.node, "set_data") || other.node->data == nullptr) {
        return;
    }
    if (node == nullptr) {
        node = make_node("set_data");
    }
    other.node->data->references.fetch_add(1, std::memory_order_relaxed);
    drop_data(node, "set_data");
    node->data = other.node->data;
}

void struct_token::reset() {
    errno_guard const keep;
    note_token(this, node, about::packet, "reset");
    node = nullptr;
}

void struct_token::reset_data() {
    errno_guard const keep;
    note_token(this, node, about::packet, "reset_data");
    if (!usable(node, "reset_data")) {
        return;
    }
    node->data = nullptr;
    node->array = nullptr;
}

void struct_token::free() {
    errno_guard const keep;
    note_token(this, node, about::packet, "free");
    if (!usable(node, "free") || only_given_up(node, "free")) {
        node = nullptr;
        return;
    }
    drop_parts(node, true, true, "free");
    node = nullptr;
}

void struct_token::free_header() {
    errno_guard const keep;
    note_token(this, node, about::packet, "free_header");
    if (!usable(node, "free_header") || only_given_up(node, "free_header")) {
        return;
    }
    if (drop_parts(node, true, false, "free_header")) {
        node = nullptr;
    }
}

void struct_token::free_data() {
    errno_guard const keep;
    note_token(this, node, about::packet, "free_data");
    if (!usable(node, "free_data") || only_given_up(node, "free_data")) {
        return;
    }
    if (drop_parts(node, false, true, "free_data")) {
        node = nullptr;
    }
}

struct_packet& struct_packet::operator=(struct_packet const& other) {
    if (this == &other) {
        return *this;
    }
    auto& from = const_cast<struct_packet&>(other);
    std::memcpy(change(this, "operator=", part_name(static_cast<part const*>(&other))), ask(&from, "get_header"),
                header_size());
    return *this;
}

unsigned char* struct_packet::get_header() {
    return ask(this, "get_header");
}

unsigned int struct_packet::get_header_size() {
    ask(this, "get_header_size");
    return static_cast<part*>(this)->header_bytes;
}

unsigned int struct_packet::get_data_size() {
    return read_at<std::uint32_t>(ask(this, "get_data_size"), at_data_size);
}

void struct_packet::set_data_size(unsigned int size) {
    write_at(change(this, "set_data_size", size), at_data_size, size);
}

unsigned int struct_packet::get_packet_size() {
    return static_cast<part*>(this)->header_bytes + read_at<std::uint32_t>(ask(this, "get_packet_size"), at_data_size);
}

void struct_packet::set_data(unsigned char* data) {
    change(this, "set_data", std::string(data == nullptr ? "null" : "array"));
    auto* const home = static_cast<part*>(this)->home;
    if (usable(home, "set_data")) {
        attach_array(home, data);
    }
}

bool struct_packet::is_right_version() {
    return ask(this, "is_right_version")[at_version] == c_right_version;
}
bool struct_packet::is_heartbeat() {
    return has_kind(this, "is_heartbeat", is_heartbeat_bit);
}
bool struct_packet::is_call_return() {
    return has_kind(this, "is_call_return", is_call_bit);
}
bool struct_packet::is_signal_return() {
    return has_kind(this, "is_signal_return", is_signal_bit);
}
bool struct_packet::is_call_return_ack() {
    return has_kind(this, "is_call_return_ack", is_call_ack_bit);
}
bool struct_packet::is_signal_return_ack() {
    return has_kind(this, "is_signal_return_ack", is_signal_ack_bit);
}
bool struct_packet::is_command_udp() {
    return has_kind(this, "is_command_udp", is_command_udp_bit);
}
bool struct_packet::is_information_udp() {
    return has_kind(this, "is_information_udp", is_information_udp_bit);
}

unsigned short struct_packet::get_did() {
    return read_at<std::uint16_t>(ask(this, "get_did"), at_dst_id);
}
unsigned int struct_packet::get_dst_ip() {
    return read_at<std::uint32_t>(ask(this, "get_dst_ip"), at_dst_ip);
}
unsigned short struct_packet::get_dst_port() {
    return read_at<std::uint16_t>(ask(this, "get_dst_port"), at_dst_port);
}
unsigned int struct_packet::get_mct_ip() {
    return read_at<std::uint32_t>(ask(this, "get_mct_ip"), at_mct_ip);
}

void struct_packet::set_mct_ip(unsigned int ip) {
    write_at(change(this, "set_mct_ip", hex(ip)), at_mct_ip, ip);
}
void struct_packet::set_src_ip(unsigned int ip) {
    write_at(change(this, "set_src_ip", hex(ip)), at_src_ip, ip);
}

void struct_packet::set_src_port(unsigned short const& port) {
    write_at(change(this, "set_src_port", unsigned{port}), at_src_port, port);
}

void struct_packet::set_source(unsigned int const& ip, unsigned short const& port, unsigned short const& id) {
    unsigned char* const header = change(this, "set_source", hex(ip), unsigned{port}, unsigned{id});
    write_at(header, at_src_ip, ip);
    write_at(header, at_src_port, port);
    write_at(header, at_src_id, id);
}

void struct_packet::set_destination(unsigned int const& ip, unsigned short const& port, unsigned short const& id) {
    unsigned char* const header = change(this, "set_destination", hex(ip), unsigned{port}, unsigned{id});
    write_at(header, at_dst_ip, ip);
    write_at(header, at_dst_port, port);
    write_at(header, at_dst_id, id);
}

void struct_packet::initialize_packet(unsigned int const& local_ip, unsigned long const& clock, double timeout) {
    change(this, "initialize_packet", hex(local_ip), clock, timeout)[at_version] = c_right_version;
}

void struct_packet::initialize_header(unsigned int const& a, unsigned short const& b, unsigned char const& c,
                                      unsigned short const& d, unsigned int const& error) {
    unsigned char* const header =
        change(this, "initialize_header", a, unsigned{b}, unsigned{c}, unsigned{d}, hex(error));
    write_at(header, at_error, error);
}

void struct_packet::set_control_type() {
    change(this, "set_control_type")[at_kind] = is_control_bit;
}
void struct_packet::set_heartbeat_type() {
    change(this, "set_heartbeat_type")[at_kind] = is_heartbeat_bit;
}
void struct_packet::set_tcp_connected_to_server() {
    set_event(this, "set_tcp_connected_to_server", 1);
}
void struct_packet::set_tcp_disconnected_from_server() {
    set_event(this, "set_tcp_disconnected_from_server", 2);
}
void struct_packet::set_tcp_connected_from_client() {
    set_event(this, "set_tcp_connected_from_client", 3);
}
void struct_packet::set_tcp_disconnected_from_client() {
    set_event(this, "set_tcp_disconnected_from_client", 4);
}

bool struct_packet::backward_error_switch(unsigned int const& error) {
    unsigned char* const header = change(this, "backward_error_switch", hex(error));
    bool const is_due =
        (header[at_kind] & (is_heartbeat_bit | is_control_bit | is_call_ack_bit | is_signal_ack_bit)) == 0 &&
        read_at<std::uint32_t>(header, at_error) == 0;
    if (!next_of(book().error_replies, is_due)) {
        return false;
    }
    unsigned char source[8];
    std::memcpy(source, header + at_src_ip, sizeof source);
    std::memcpy(header + at_src_ip, header + at_dst_ip, sizeof source);
    std::memcpy(header + at_dst_ip, source, sizeof source);
    write_at(header, at_error, error);
    write_at(header, at_data_size, std::uint32_t{0});
    return true;
}

void struct_packet::set_swap_address(struct_packet* other) {
    unsigned char* const to = change(this, "set_swap_address", part_name(static_cast<part*>(other)));
    unsigned char const* const from = ask(other, "get_header");
    std::memcpy(to + at_dst_ip, from + at_src_ip, 8);
    std::memcpy(to + at_src_ip, from + at_dst_ip, 8);
}

void struct_packet::set_swap_acktype() {
    unsigned char& kind = change(this, "set_swap_acktype")[at_kind];
    kind = (kind & is_call_bit) != 0 ? is_call_ack_bit : is_signal_ack_bit;
}

void struct_packet::determine_arrival_clock(unsigned long const& clock) {
    change(this, "determine_arrival_clock", clock);
}

bool struct_packet::update_packet_time_and_return_timeout() {
    change(this, "update_packet_time_and_return_timeout");
    return next_of(book().timeouts, false);
}

struct_tcp_header::struct_tcp_header() : block{} {}

void struct_tcp_header::set_port_of_sender(unsigned short port) {
    write_at(block, 0, port);
}
void struct_tcp_header::set_port_of_receiver(unsigned short port) {
    write_at(block, 2, port);
}
unsigned short struct_tcp_header::get_port_of_receiver() {
    return read_at<std::uint16_t>(block, 2);
}

} // namespace Zolt
