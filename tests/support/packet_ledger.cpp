#include "tests/support/packet_ledger.hpp"

#include <algorithm>
#include <utility>

#if defined(__SANITIZE_ADDRESS__)
#define RELAY_TEST_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define RELAY_TEST_ADDRESS_SANITIZER 1
#endif
#endif
#ifdef RELAY_TEST_ADDRESS_SANITIZER
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(address, size) static_cast<void>(address), static_cast<void>(size)
#define ASAN_UNPOISON_MEMORY_REGION(address, size) static_cast<void>(address), static_cast<void>(size)
#endif

namespace relay_test::parts {
namespace {

constexpr unsigned char c_poison = 0xDD;

constinit std::atomic<long> g_headers{0};
constinit std::atomic<long> g_data_parts{0};
constinit std::atomic<long> g_nodes{0};

std::string made_by(std::string const& operation) {
    return operation + " on " + thread_name();
}

template <class entity>
void file(std::set<entity*>& live, entity* made, unsigned& numbering, char const* operation) {
    if (!recording()) {
        return;
    }
    made->creator = made_by(operation);
    packet_book& b = book();
    std::lock_guard const hold(b.guard);
    made->number = ++numbering;
    live.insert(made);
}

template <class entity>
bool move_to_dead(std::set<entity*>& live, std::vector<entity*>& dead, entity* gone) {
    packet_book& b = book();
    std::lock_guard const hold(b.guard);
    if (live.erase(gone) == 0) {
        return false;
    }
    dead.push_back(gone);
    return true;
}

void destroy_part(part* gone) {
    gone->counter().fetch_sub(1, std::memory_order_relaxed);
    gone->dead.store(true);
    if (!recording() || !move_to_dead(book().parts, book().dead_parts, gone)) {
        delete gone;
        return;
    }
    std::memset(gone->block.get(), c_poison, gone->size);
    ASAN_POISON_MEMORY_REGION(gone->block.get(), gone->size);
}

void drop_part(part* p, char const* operation) {
    if (p->dead.load()) {
        report_failure(part_name(p) + " (" + p->creator + ") freed again by " + operation);
        return;
    }
    if (p->references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        destroy_part(p);
    }
}

void destroy_node(node* gone) {
    g_nodes.fetch_sub(1, std::memory_order_relaxed);
    gone->dead.store(true);
    if (!recording() || !move_to_dead(book().nodes, book().dead_nodes, gone)) {
        delete gone;
    }
}

bool node_is_empty(node const* n) {
    return n->header.load() == nullptr && n->data == nullptr && n->array == nullptr;
}

bool flush_poisoned(part* p) {
    ASAN_UNPOISON_MEMORY_REGION(p->block.get(), p->size);
    auto const* const first = p->block.get();
    return std::all_of(first, first + p->size, [](unsigned char byte) { return byte == c_poison; });
}

} // namespace

part::part(bool is_header_part, unsigned data_size, Zolt::struct_token_node* owner)
    : is_header(is_header_part), header_bytes(header_size()), size(header_bytes + data_size),
      block(new unsigned char[size]), home(owner) {
    std::memset(block.get(), 0, size);
    counter().fetch_add(1, std::memory_order_relaxed);
}

std::atomic<long>& part::counter() const {
    return is_header ? g_headers : g_data_parts;
}

packet_book& book() {
    static auto* const the_book = new packet_book;
    return *the_book;
}

std::string part_name(part const* p) {
    if (std::string known = known_object_name(p); !known.empty()) {
        return known;
    }
    return (p->is_header ? "header#" : "data#") + std::to_string(p->number);
}

// Looks the pointer up before it is followed: it may be garbage.
std::string node_name(node* n) {
    if (n == nullptr) {
        return "no token";
    }
    {
        packet_book& b = book();
        std::lock_guard const hold(b.guard);
        if (!b.nodes.contains(n) && std::find(b.dead_nodes.begin(), b.dead_nodes.end(), n) == b.dead_nodes.end()) {
            return "unknown token";
        }
    }
    part const* const header = n->header.load();
    std::string const known = header == nullptr ? std::string() : known_object_name(header);
    return known.empty() ? "token#" + std::to_string(n->number) : known;
}

node* handle_of(Zolt::struct_token const& token) {
    node* n = nullptr;
    std::memcpy(&n, &token, sizeof n);
    return n;
}

part* make_part(bool is_header, unsigned data_size, node* owner, char const* operation) {
    auto* const made = new part(is_header, data_size, owner);
    file(book().parts, made, is_header ? book().headers : book().data_parts, operation);
    return made;
}

node* make_node(char const* operation) {
    auto* const made = new node;
    file(book().nodes, made, book().tokens, operation);
    return made;
}

bool usable(node* n, char const* operation) {
    if (n == nullptr) {
        return false;
    }
    if (recording()) {
        packet_book& b = book();
        std::unique_lock hold(b.guard);
        if (!b.nodes.contains(n)) {
            bool const freed = std::find(b.dead_nodes.begin(), b.dead_nodes.end(), n) != b.dead_nodes.end();
            hold.unlock();
            report_failure(freed ? "token#" + std::to_string(n->number) + " (" + n->creator + ") used after free by " +
                                       operation
                                 : std::string("unknown token passed to ") + operation);
            return false;
        }
    }
    return true;
}

bool drop_header(node* n, char const* operation) {
    part* const header = n->header.load();
    if (header == nullptr) {
        return true;
    }
    bool const last = n->header_references.fetch_sub(1, std::memory_order_acq_rel) == 1;
    if (last) {
        n->header.store(nullptr);
    }
    drop_part(header, operation);
    return last;
}

void drop_data(node* n, char const* operation) {
    if (n->array != nullptr) {
        g_data_parts.fetch_sub(1, std::memory_order_relaxed);
        delete[] std::exchange(n->array, nullptr);
    }
    if (n->data != nullptr) {
        drop_part(std::exchange(n->data, nullptr), operation);
    }
}

bool drop_parts(node* n, bool header, bool data, char const* operation) {
    if (data) {
        drop_data(n, operation);
    }
    if (header && !drop_header(n, operation)) {
        return false;
    }
    if (!node_is_empty(n)) {
        return false;
    }
    destroy_node(n);
    return true;
}

bool only_given_up(node* n, char const* operation) {
    if (!n->taken.load()) {
        return false;
    }
    if (n->given_up.exchange(true)) {
        report_failure(node_name(n) + ", taken by the Center, freed again by " + operation);
    }
    return true;
}

part& part_of(Zolt::struct_packet* view, char const* operation) {
    auto* const p = static_cast<part*>(view);
    if (p->dead.load()) {
        report_failure(part_name(p) + " (" + p->creator + ") used after free by " + operation);
        ASAN_UNPOISON_MEMORY_REGION(p->block.get(), p->size);
    }
    return *p;
}

void attach_array(node* n, unsigned char* array) {
    drop_data(n, "set_data");
    n->array = array;
    g_data_parts.fetch_add(array == nullptr ? 0 : 1, std::memory_order_relaxed);
}

ledger_counts counts() {
    return {g_headers.load(), g_data_parts.load(), g_nodes.load()};
}

void flush_quarantine() {
    packet_book& b = book();
    for (part* const gone : b.dead_parts) {
        if (!flush_poisoned(gone)) {
            report_failure("header or data #" + std::to_string(gone->number) + " written after free");
        }
        delete gone;
    }
    for (node* const gone : b.dead_nodes) {
        delete gone;
    }
    b.dead_parts.clear();
    b.dead_nodes.clear();
}

void count_node() {
    g_nodes.fetch_add(1, std::memory_order_relaxed);
}

} // namespace relay_test::parts

namespace Zolt {

struct_token_node::struct_token_node() {
    relay_test::parts::count_node();
}

} // namespace Zolt
