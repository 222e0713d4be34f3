#include "tests/support/packets.hpp"

#include "tests/support/journal.hpp"
#include "tests/support/packet_ledger.hpp"

#include <algorithm>
#include <utility>

namespace relay_test {

using namespace parts;

namespace {

constexpr unsigned c_smallest_header = 48;

constexpr std::pair<bool packet_fields::*, kind_bit> c_kinds[] = {
    {&packet_fields::heartbeat, is_heartbeat_bit},
    {&packet_fields::call, is_call_bit},
    {&packet_fields::signal, is_signal_bit},
    {&packet_fields::call_ack, is_call_ack_bit},
    {&packet_fields::signal_ack, is_signal_ack_bit},
    {&packet_fields::command_udp, is_command_udp_bit},
    {&packet_fields::information_udp, is_information_udp_bit},
    {&packet_fields::control, is_control_bit},
};

constinit std::atomic<unsigned> g_header_size{64};

bytes header_bytes_of(packet_fields const& fields) {
    bytes header(header_size());
    for (unsigned at = at_filler; at < header.size(); ++at) {
        header[at] = static_cast<unsigned char>(0xA0 + at);
    }
    header[at_version] = fields.version;
    for (auto const& [field, bit] : c_kinds) {
        header[at_kind] = static_cast<unsigned char>(header[at_kind] | (fields.*field ? bit : 0));
    }
    header[at_event] = fields.event;
    write_at(header.data(), at_data_size, fields.data_size);
    write_at(header.data(), at_src_ip, fields.src_ip);
    write_at(header.data(), at_src_port, fields.src_port);
    write_at(header.data(), at_src_id, fields.src_id);
    write_at(header.data(), at_dst_ip, fields.dst_ip);
    write_at(header.data(), at_dst_port, fields.dst_port);
    write_at(header.data(), at_dst_id, fields.dst_id);
    write_at(header.data(), at_mct_ip, fields.mct_ip);
    write_at(header.data(), at_error, fields.error);
    write_at(header.data(), at_sequence, fields.sequence);
    return header;
}

} // namespace

void set_header_size(unsigned size) {
    g_header_size.store(std::max(size, c_smallest_header));
}

unsigned header_size() {
    return g_header_size.load(std::memory_order_relaxed);
}

bytes packet_bytes(packet_fields fields) {
    if (!fields.data.empty()) {
        fields.data_size = static_cast<std::uint32_t>(fields.data.size());
    }
    bytes packet = header_bytes_of(fields);
    packet.insert(packet.end(), fields.data.begin(), fields.data.end());
    return packet;
}

packet_fields read_packet(bytes const& packet) {
    packet_fields fields;
    if (packet.size() < header_size()) {
        report_failure("read_packet: shorter than a header");
        return fields;
    }
    unsigned char const* const header = packet.data();
    fields.version = header[at_version];
    for (auto const& [field, bit] : c_kinds) {
        fields.*field = (header[at_kind] & bit) != 0;
    }
    fields.event = header[at_event];
    fields.data_size = read_at<std::uint32_t>(header, at_data_size);
    fields.src_ip = read_at<std::uint32_t>(header, at_src_ip);
    fields.src_port = read_at<std::uint16_t>(header, at_src_port);
    fields.src_id = read_at<std::uint16_t>(header, at_src_id);
    fields.dst_ip = read_at<std::uint32_t>(header, at_dst_ip);
    fields.dst_port = read_at<std::uint16_t>(header, at_dst_port);
    fields.dst_id = read_at<std::uint16_t>(header, at_dst_id);
    fields.mct_ip = read_at<std::uint32_t>(header, at_mct_ip);
    fields.error = read_at<std::uint32_t>(header, at_error);
    fields.sequence = read_at<std::uint32_t>(header, at_sequence);
    fields.data.assign(packet.begin() + static_cast<std::ptrdiff_t>(header_size()), packet.end());
    return fields;
}

Zolt::struct_token make_token(packet_fields fields) {
    bytes const packet = packet_bytes(fields);
    node* const n = make_node("make_token");
    part* const header = make_part(true, 0, n, "make_token");
    std::memcpy(header->block.get(), packet.data(), header_size());
    n->header_references.store(1);
    n->header.store(header);
    if (!fields.data.empty()) {
        n->data = make_part(false, static_cast<unsigned>(fields.data.size()), n, "make_token");
        std::memcpy(n->data->block.get(), packet.data(), packet.size());
    }
    Zolt::struct_token token;
    std::memcpy(static_cast<void*>(&token), &n, sizeof n);
    return token;
}

packet_fields fields_of(Zolt::struct_token token) {
    node* const n = handle_of(token);
    bytes packet = header_of(token);
    if (packet.empty()) {
        report_failure("fields_of: the token has no header");
        return {};
    }
    auto const size = read_at<std::uint32_t>(packet.data(), at_data_size);
    if (n->data != nullptr) {
        packet.insert(packet.end(), n->data->data(), n->data->block.get() + n->data->size);
    } else if (n->array != nullptr) {
        packet.insert(packet.end(), n->array, n->array + size);
    }
    return read_packet(packet);
}

bool has_header_part(Zolt::struct_token const& token) {
    node const* const n = handle_of(token);
    return n != nullptr && n->header.load() != nullptr;
}

bytes header_of(Zolt::struct_token const& token) {
    if (!has_header_part(token)) {
        return {};
    }
    part const* const header = handle_of(token)->header.load();
    return {header->block.get(), header->block.get() + header->header_bytes};
}

int header_references(Zolt::struct_token const& token) {
    if (!is_live(token)) {
        return 0;
    }
    part const* const header = handle_of(token)->header.load();
    return header == nullptr ? 0 : header->references.load();
}

int data_references(Zolt::struct_token const& token) {
    if (!is_live(token)) {
        return 0;
    }
    part const* const data = handle_of(token)->data;
    return data == nullptr ? 0 : data->references.load();
}

bool is_live(Zolt::struct_token const& token) {
    packet_book& b = book();
    std::lock_guard const hold(b.guard);
    return b.nodes.contains(handle_of(token));
}

std::string token_name(Zolt::struct_token const& token) {
    return node_name(handle_of(token));
}

ledger_counts count_ledger() {
    return counts();
}

std::vector<std::string> ledger_left() {
    packet_book& b = book();
    std::lock_guard const hold(b.guard);
    std::vector<std::string> left;
    for (part const* p : b.parts) {
        if (!b.allowed.contains(p)) {
            left.push_back((p->is_header ? "header#" : "data#") + std::to_string(p->number) + " made by " + p->creator);
        }
    }
    for (node const* n : b.nodes) {
        if (!b.allowed.contains(n)) {
            left.push_back("token#" + std::to_string(n->number) + " made by " + n->creator);
        }
    }
    return left;
}

void allow_left(Zolt::struct_token const& token, std::string reason) {
    node const* const n = handle_of(token);
    if (reason.empty() || !is_live(token)) {
        report_failure("allow_left: no reason, or the token is gone");
        return;
    }
    packet_book& b = book();
    std::lock_guard const hold(b.guard);
    b.allowed.insert({n, n->header.load(), n->data});
}

void script_alloc_data(std::vector<allocation> next) {
    packet_book& b = book();
    std::lock_guard const hold(b.guard);
    b.allocations.assign(next.begin(), next.end());
}

void script_alloc_headers(std::vector<allocation> next) {
    packet_book& b = book();
    std::lock_guard const hold(b.guard);
    b.header_allocations.assign(next.begin(), next.end());
}

void script_timeouts(std::vector<bool> next) {
    packet_book& b = book();
    std::lock_guard const hold(b.guard);
    b.timeouts.assign(next.begin(), next.end());
}

void script_error_replies(std::vector<bool> next) {
    packet_book& b = book();
    std::lock_guard const hold(b.guard);
    b.error_replies.assign(next.begin(), next.end());
}

void mark_taken(Zolt::struct_token const& token) {
    handle_of(token)->taken.store(true);
}

void release_taken(Zolt::struct_token const& token) {
    node* const n = handle_of(token);
    if (!usable(n, "the Center")) {
        return;
    }
    n->taken.store(false);
    drop_parts(n, true, true, "the Center");
}

void reset_packets() {
    flush_quarantine();
    packet_book& b = book();
    b.headers = b.data_parts = b.tokens = 0;
    b.allowed.clear();
    b.allocations.clear();
    b.header_allocations.clear();
    b.timeouts.clear();
    b.error_replies.clear();
    set_header_size(64);
}

} // namespace relay_test
