#include "Host/zolt_packet.hpp"
#include "Reference_Host/ledger_hooks.hpp"
#include "Reference_Host/packet_limits.hpp"
#include "Reference_Host/packet_reading.hpp"
#include "Reference_Host/packet_storage.hpp"
#include "Reference_Host/recycler.hpp"

#include <new>
#include <utility>

namespace Zolt::Reference_Host {
namespace {

constinit std::atomic<std::uint32_t> g_max_data_size{std::uint32_t{256} << 20};
constinit std::atomic<release_observer> g_release_observer{nullptr};

/// The most that a datagram can carry behind a header.
constexpr std::uint32_t c_max_datagram_data = 65507 - c_header_size;

/// Counts one user less. True when that was the last one; the others' work is then visible here.
bool drops_last(std::atomic<std::uint32_t>& count) {
    return count.load(std::memory_order_acquire) == 1 || count.fetch_sub(1, std::memory_order_acq_rel) == 1;
}

template <class Part>
Part* make_part(recycler_bin bin, std::uint64_t data_size = 0) {
    void* const block = obtain_block(bin, data_size);
    return block != nullptr ? new (block) Part : nullptr;
}

header_part* make_header() {
    header_part* const header = make_part<header_part>(c_bin_header);
    if (header == nullptr) {
        throw std::bad_alloc();
    }
    clear_wire(header->storage.wire);
    return header;
}

data_part* make_data(std::uint32_t size) {
    recycler_bin const bin = find_data_bin(size);
    data_part* const data = make_part<data_part>(bin, size);
    if (data == nullptr) {
        return nullptr;
    }
    data->bin = bin;
    data->size = size;
    clear_wire(data->storage.wire);
    store<header_field::data_size>(data->storage.wire, size);
    return data;
}

void drop_header(header_part* header) {
    if (!drops_last(header->nodes)) {
        return;
    }
    packet_storage& storage = header->storage;
    if (storage.cookie != 0) {
        if (release_observer const observer = g_release_observer.load(std::memory_order_acquire)) {
            observer(storage.cookie, storage);
        }
    }
    delete[] storage.attached;
    header->~header_part();
    return_block(c_bin_header, header);
}

void drop_data(data_part* data) {
    if (!drops_last(data->nodes)) {
        return;
    }
    recycler_bin const bin = data->bin;
    data->~data_part();
    return_block(bin, data);
}

/// Drops the node's data part, if any. Writes nothing otherwise: a heartbeat's node is used by several threads at once.
void drop_data_of(struct_token_node& node) {
    if (node.data != nullptr) {
        drop_data(std::exchange(node.data, nullptr));
    }
}

void destroy_node(struct_token_node* node) {
    node->~struct_token_node();
    return_block(c_bin_node, node);
}

/// The node that a handle may give parts to: its own, or a fresh one when it has none or lent it to the Center.
struct_token_node* node_to_fill(struct_token_node* node) {
    if (node != nullptr && !node->lent) {
        return node;
    }
    struct_token_node* const fresh = make_part<struct_token_node>(c_bin_node);
    if (fresh == nullptr) {
        throw std::bad_alloc();
    }
    return fresh;
}

/// Gives a node a header part whose reference is the caller's, in place of the one that this handle counted for.
/// Result: the node, or a fresh one when other handle copies still use the node's header part.
struct_token_node* put_header(struct_token_node* node, header_part* header) {
    if (node->header != nullptr) {
        if (node->header_handles.load(std::memory_order_acquire) != 1) {
            struct_token_node* const fresh = node_to_fill(nullptr);
            fresh->header = header;
            fresh->header_handles.store(1, std::memory_order_relaxed);
            node->header_handles.fetch_sub(1, std::memory_order_acq_rel);
            return fresh;
        }
        drop_header(node->header);
    }
    node->header = header;
    node->header_handles.store(1, std::memory_order_relaxed);
    return node;
}

/// Drops a reference that was taken for a node that could not be made.
struct header_holder {
    header_part* header;
    ~header_holder() {
        if (header != nullptr) {
            drop_header(header);
        }
    }
};

/// Installs a header part whose reference is the caller's; drops it when there is no memory for a node.
void install_header(struct_token_node*& node, header_part* header) {
    header_holder holder{header};
    node = put_header(node_to_fill(node), header);
    holder.header = nullptr;
}

/// True when the header belongs to a datagram that is being received: only the relay's receive path stamps both.
bool is_arriving_datagram(struct_token_node const* node) {
    if (node == nullptr || node->header == nullptr) {
        return false;
    }
    packet_envelope const& envelope = node->header->storage.envelope;
    return envelope.arrival_clock != 0 && envelope.group_ip != 0;
}

/// Releases an array that set_data attached, unless another node shares the header part that owns it.
void drop_attached(header_part* header) {
    if (header != nullptr && header->storage.attached != nullptr &&
        header->nodes.load(std::memory_order_acquire) == 1) {
        delete[] std::exchange(header->storage.attached, nullptr);
    }
}

bool has_attached(struct_token_node const* node) {
    return node != nullptr && node->header != nullptr && node->header->storage.attached != nullptr;
}

/// Moves an array that set_data attached into a data part, so that it stands behind a header. False without memory.
bool move_attached(struct_token_node& node) {
    packet_storage& storage = node.header->storage;
    std::uint32_t const size = load<header_field::data_size>(storage.wire);
    data_part* const data = make_data(size);
    if (data == nullptr) {
        return false;
    }
    std::memcpy(data->get_data(), storage.attached, size);
    node.data = data;
    drop_attached(node.header);
    return true;
}

} // namespace

void set_max_data_size(std::uint32_t bytes) {
    g_max_data_size.store(bytes, std::memory_order_relaxed);
}

std::uint32_t get_max_data_size() {
    return g_max_data_size.load(std::memory_order_relaxed);
}

token_counts count_references(struct_token const& token) {
    struct_token_node const* const node = node_of(token);
    token_counts counts;
    if (node != nullptr && node->header != nullptr) {
        counts.header_handles = node->header_handles.load(std::memory_order_acquire);
        counts.header_nodes = node->header->nodes.load(std::memory_order_acquire);
    }
    if (node != nullptr && node->data != nullptr) {
        counts.data_nodes = node->data->nodes.load(std::memory_order_acquire);
    }
    return counts;
}

void set_release_observer(release_observer observer) {
    g_release_observer.store(observer, std::memory_order_release);
}

} // namespace Zolt::Reference_Host

namespace Zolt {

using namespace Reference_Host;

struct_token::struct_token() : node(nullptr) {}

void struct_token::alloc_header_force() {
    if (!ledger_admits("alloc_header_force", node)) {
        return;
    }
    install_header(node, make_header());
}

int struct_token::alloc_data(unsigned int const& size) {
    if (!ledger_admits("alloc_data", node)) {
        return 1;
    }
    if (is_arriving_datagram(node) && size > c_max_datagram_data) {
        return 1;
    }
    if (size > get_max_data_size()) {
        throw std::bad_alloc();
    }
    data_part* const data = make_data(size);
    if (data == nullptr) {
        return 1;
    }
    try {
        node = node_to_fill(node);
    } catch (std::bad_alloc const&) {
        drop_data(data);
        return 1;
    }
    drop_data_of(*node);
    node->data = data;
    return 0;
}

struct_packet* struct_token::get_header_packet() {
    if (!ledger_admits("get_header_packet", node) || node == nullptr || node->header == nullptr) {
        return nullptr;
    }
    return &node->header->storage;
}

struct_packet* struct_token::get_data_packet() {
    if (!ledger_admits("get_data_packet", node) || node == nullptr) {
        return nullptr;
    }
    if (node->data == nullptr && has_attached(node) && !move_attached(*node)) {
        return nullptr;
    }
    return node->data != nullptr ? &node->data->storage : nullptr;
}

unsigned char* struct_token::get_data() {
    if (!ledger_admits("get_data", node) || node == nullptr) {
        return nullptr;
    }
    if (node->data != nullptr) {
        return node->data->get_data();
    }
    return node->header != nullptr ? node->header->storage.attached : nullptr;
}

bool struct_token::has_header() {
    return ledger_admits("has_header", node) && node != nullptr && node->header != nullptr;
}

bool struct_token::has_data() {
    if (!ledger_admits("has_data", node) || node == nullptr) {
        return false;
    }
    return node->data != nullptr || has_attached(node);
}

void struct_token::ref_header() {
    if (!ledger_admits("ref_header", node) || node == nullptr || node->header == nullptr) {
        return;
    }
    node->header_handles.fetch_add(1, std::memory_order_relaxed);
}

void struct_token::set_header(struct_token const& other) {
    if (!ledger_admits("set_header", node) || !ledger_admits("set_header", other.node)) {
        return;
    }
    if (other.node == nullptr || other.node->header == nullptr) {
        return;
    }
    header_part* const header = other.node->header;
    header->nodes.fetch_add(1, std::memory_order_relaxed);
    install_header(node, header);
}

void struct_token::set_data(struct_token const& other) {
    if (!ledger_admits("set_data", node) || !ledger_admits("set_data", other.node)) {
        return;
    }
    if (other.node == nullptr || (other.node->data == nullptr && !has_attached(other.node))) {
        return;
    }
    if (other.node->data == nullptr && !move_attached(*other.node)) {
        throw std::bad_alloc();
    }
    data_part* const data = other.node->data;
    node = node_to_fill(node);
    data->nodes.fetch_add(1, std::memory_order_relaxed);
    drop_data_of(*node);
    node->data = data;
}

void struct_token::reset() {
    node = nullptr;
}

void struct_token::reset_data() {
    if (!ledger_admits("reset_data", node) || node == nullptr || node->lent) {
        return;
    }
    node->data = nullptr;
    if (node->header != nullptr) {
        node->header->storage.attached = nullptr;
    } else {
        destroy_node(std::exchange(node, nullptr));
    }
}

void struct_token::free() {
    if (!ledger_admits("free", node) || node == nullptr) {
        node = nullptr;
        return;
    }
    struct_token_node* const mine = std::exchange(node, nullptr);
    if (mine->lent) {
        return;
    }
    drop_data_of(*mine);
    if (mine->header != nullptr) {
        if (!drops_last(mine->header_handles)) {
            return;
        }
        drop_header(mine->header);
    }
    destroy_node(mine);
}

void struct_token::free_header() {
    if (!ledger_admits("free_header", node) || node == nullptr || node->lent || node->header == nullptr) {
        return;
    }
    // Read before the count falls: another copy may destroy the node right after.
    bool const has_data_part = node->data != nullptr;
    if (!drops_last(node->header_handles)) {
        node = has_data_part ? node : nullptr;
        return;
    }
    drop_header(std::exchange(node->header, nullptr));
    if (!has_data_part) {
        destroy_node(std::exchange(node, nullptr));
    }
}

void struct_token::free_data() {
    if (!ledger_admits("free_data", node) || node == nullptr || node->lent) {
        return;
    }
    drop_data_of(*node);
    drop_attached(node->header);
    if (node->header == nullptr) {
        destroy_node(std::exchange(node, nullptr));
    }
}

} // namespace Zolt
