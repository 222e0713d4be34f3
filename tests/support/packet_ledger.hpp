// Inside the scripted packets: what a token points to, and the book of all parts. For packet_*.cpp only.
#ifndef TESTS_SUPPORT_PACKET_LEDGER_HPP
#define TESTS_SUPPORT_PACKET_LEDGER_HPP

#include "tests/support/journal.hpp"
#include "tests/support/packets.hpp"

#include <atomic>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace relay_test::parts {

// Where each field lies in the header. The rest of a header is filled with a pattern.
enum offset : unsigned {
    at_version = 0,
    at_kind = 1,
    at_event = 2,
    at_data_size = 4,
    at_src_ip = 8,
    at_src_port = 12,
    at_src_id = 14,
    at_dst_ip = 16,
    at_dst_port = 20,
    at_dst_id = 22,
    at_mct_ip = 24,
    at_error = 28,
    at_sequence = 32,
    at_filler = 40
};

enum kind_bit : unsigned char {
    is_heartbeat_bit = 1,
    is_call_bit = 2,
    is_signal_bit = 4,
    is_call_ack_bit = 8,
    is_signal_ack_bit = 16,
    is_command_udp_bit = 32,
    is_information_udp_bit = 64,
    is_control_bit = 128
};

template <class value>
value read_at(unsigned char const* header, unsigned offset) {
    value result;
    std::memcpy(&result, header + offset, sizeof result);
    return result;
}

template <class value>
void write_at(unsigned char* header, unsigned offset, value what) {
    std::memcpy(header + offset, &what, sizeof what);
}

/// A header part (header bytes) or a data part (a copy of the header, then the data). Also the view of itself.
struct part : Zolt::struct_packet {
    part(bool is_header_part, unsigned data_size, Zolt::struct_token_node* owner);
    ~part() = default;

    std::atomic<long>& counter() const;
    unsigned char* data() { return block.get() + header_bytes; }

    bool is_header;
    unsigned header_bytes;
    unsigned size;
    std::unique_ptr<unsigned char[]> block;
    Zolt::struct_token_node* home;
    std::atomic<int> references{1};
    std::atomic<bool> dead{false};
    unsigned number = 0;
    std::string creator;
};

} // namespace relay_test::parts

namespace Zolt {

struct struct_token_node {
    struct_token_node();

    std::atomic<relay_test::parts::part*> header{nullptr};
    std::atomic<int> header_references{0}; ///< those of this node, out of all that the part has
    relay_test::parts::part* data = nullptr;
    unsigned char* array = nullptr; ///< attached by set_data
    std::atomic<bool> dead{false};
    std::atomic<bool> taken{false};
    std::atomic<bool> given_up{false}; ///< freed by the relay after the Center took it
    unsigned number = 0;
    std::string creator;
};

} // namespace Zolt

namespace relay_test::parts {

using node = Zolt::struct_token_node;

struct packet_book {
    std::mutex guard;
    std::set<part*> parts;
    std::set<node*> nodes;
    std::vector<part*> dead_parts;
    std::vector<node*> dead_nodes;
    unsigned headers = 0;
    unsigned data_parts = 0;
    unsigned tokens = 0;
    std::set<void const*> allowed;
    std::deque<allocation> allocations;
    std::deque<allocation> header_allocations;
    std::deque<bool> timeouts;
    std::deque<bool> error_replies;
};

packet_book& book();

/// The front of a script, or the fallback when it is used up.
template <class value>
value next_of(std::deque<value>& script, value fallback) {
    packet_book& b = book();
    std::lock_guard const hold(b.guard);
    if (script.empty()) {
        return fallback;
    }
    value const next = script.front();
    script.pop_front();
    return next;
}

/// A name that a test gave, else "header#N", "data#N", "token#N"; a pointer that is no node is "unknown token".
std::string part_name(part const* p);
std::string node_name(node* n);
node* handle_of(Zolt::struct_token const& token);

part* make_part(bool is_header, unsigned data_size, node* owner, char const* operation);
node* make_node(char const* operation);

/// True when the node may be used. Recording: the pointer itself is looked up first, so garbage is reported too.
bool usable(node* n, char const* operation);
/// Drops one reference of the header part. True when the node has none afterwards; false: another copy of the handle
/// has one, and may end the node at any moment.
bool drop_header(node* n, char const* operation);
void drop_data(node* n, char const* operation);
/// Drops what is asked for. True when the node went with its last part.
bool drop_parts(node* n, bool header, bool data, char const* operation);
/// A packet that the Center took stays readable until the Center lets go; the relay may give it up once meanwhile.
bool only_given_up(node* n, char const* operation);
/// The part behind a view; reports one that was freed.
part& part_of(Zolt::struct_packet* view, char const* operation);

/// Gives the node an array made with new unsigned char[] as its data; null takes it away.
void attach_array(node* n, unsigned char* array);
void count_node();
ledger_counts counts();
/// Poison that nobody overwrote: frees what quarantine holds, reports what was written after free.
void flush_quarantine();

} // namespace relay_test::parts

#endif
