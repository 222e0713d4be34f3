// Packets of the second host. One lock guards all counts: this host is small, not fast.
#include "Host/tesk_os.hpp"
#include "Host/zolt_packet.hpp"

#include <algorithm>
#include <array>
#include <cfloat>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

namespace Zolt {

namespace {

// Where each field of the header lies.
enum place : std::size_t {
    at_kind = 0,
    at_event = 1,
    at_data_size = 2,
    at_dst_id = 6,
    at_dst_port = 8,
    at_dst_ip = 10,
    at_src_id = 14,
    at_src_port = 16,
    at_src_ip = 18,
    at_mct_ip = 22,
    at_error = 26,
    at_born = 30,
    at_lifetime_ms = 38,
    at_arrival_ms = 42,
    at_version = 46,
    header_bytes = 47,
};

enum kind : unsigned char {
    plain,
    heartbeat,
    control,
    call,
    call_ack,
    signal,
    signal_ack,
    command_udp,
    information_udp
};

constexpr unsigned char c_version = 0xB7;
constexpr std::uint32_t c_endless = 0xFFFFFFFF;
constexpr unsigned long c_cpu_clocks_per_ms = 1000000;

std::mutex book;

template <typename T>
T load(unsigned char const* header, place where) {
    T value;
    std::memcpy(&value, header + where, sizeof value);
    return value;
}

template <typename T>
void store(unsigned char* header, place where, T value) {
    std::memcpy(header + where, &value, sizeof value);
}

void store_end(unsigned char* header, place ip, place port, place id, struct_node_addr addr, unsigned short node) {
    store(header, ip, addr.ip);
    store(header, port, addr.port);
    store(header, id, node);
}

} // namespace

bool operator<(struct_node_addr const& left, struct_node_addr const& right) {
    return left.port != right.port ? left.port < right.port : left.ip < right.ip;
}

bool operator==(struct_node_addr const& left, struct_node_addr const& right) {
    return !(left < right) && !(right < left);
}

// A header, or a header's copy with the data behind it.
struct struct_part {
    explicit struct_part(std::size_t data_bytes) : view(this), bytes(header_bytes + data_bytes) {
        bytes[at_version] = c_version;
    }

    struct_packet view;
    std::vector<unsigned char> bytes;
    std::unique_ptr<unsigned char[]> attached;
    std::uint32_t came_from = 0;
    int uses = 1;
};

// What a handle points to: up to two parts, and how many handles of this parcel count on each.
struct struct_parcel {
    struct slot {
        struct_part* part = nullptr;
        int handles = 0;
    };
    slot header;
    slot data;
};

namespace {

void drop(struct_parcel::slot& from) {
    if (from.part == nullptr) {
        return;
    }
    if (--from.part->uses == 0) {
        delete from.part;
        from = {};
    } else if (--from.handles == 0) {
        from = {};
    }
}

void share(struct_parcel::slot& into, struct_parcel::slot const& from) {
    drop(into);
    into = {};
    if (from.part != nullptr) {
        from.part->uses++;
        into = {from.part, 1};
    }
}

// Gives a parcel that holds nothing any more back; the handle is empty from then on.
void tidy(struct_parcel*& parcel) {
    if (parcel->header.part == nullptr && parcel->data.part == nullptr) {
        delete parcel;
        parcel = nullptr;
    }
}

} // namespace

// --- packet ----------------------------------------------------------------------------------------------------

struct_packet::struct_packet(struct_part* owner) : home(owner) {}

struct_packet& struct_packet::operator=(struct_packet const& from) {
    if (this != &from) {
        std::copy_n(from.home->bytes.begin(), std::size_t{header_bytes}, home->bytes.begin());
        home->came_from = from.home->came_from;
    }
    return *this;
}

unsigned char* struct_packet::get_header() {
    return home->bytes.data();
}
unsigned int struct_packet::get_header_size() {
    return header_bytes;
}
unsigned int struct_packet::get_data_size() {
    return load<std::uint32_t>(get_header(), at_data_size);
}
void struct_packet::set_data_size(unsigned int bytes) {
    store<std::uint32_t>(get_header(), at_data_size, bytes);
}
unsigned int struct_packet::get_packet_size() {
    return header_bytes + get_data_size();
}
void struct_packet::set_data(unsigned char* array) {
    home->attached.reset(array);
}

bool struct_packet::is_right_version() {
    return get_header()[at_version] == c_version;
}
bool struct_packet::is_heartbeat() {
    return get_header()[at_kind] == heartbeat;
}
bool struct_packet::is_call_return() {
    return get_header()[at_kind] == call;
}
bool struct_packet::is_signal_return() {
    return get_header()[at_kind] == signal;
}
bool struct_packet::is_call_return_ack() {
    return get_header()[at_kind] == call_ack;
}
bool struct_packet::is_signal_return_ack() {
    return get_header()[at_kind] == signal_ack;
}
bool struct_packet::is_command_udp() {
    return get_header()[at_kind] == command_udp;
}
bool struct_packet::is_information_udp() {
    return get_header()[at_kind] == information_udp;
}

unsigned short struct_packet::get_did() {
    return load<std::uint16_t>(get_header(), at_dst_id);
}
unsigned int struct_packet::get_dst_ip() {
    return load<std::uint32_t>(get_header(), at_dst_ip);
}
unsigned short struct_packet::get_dst_port() {
    return load<std::uint16_t>(get_header(), at_dst_port);
}
unsigned int struct_packet::get_mct_ip() {
    return load<std::uint32_t>(get_header(), at_mct_ip);
}
unsigned int struct_packet::get_src_ip() {
    return home->came_from != 0 ? home->came_from : load<std::uint32_t>(get_header(), at_src_ip);
}
unsigned short struct_packet::get_src_port() {
    return load<std::uint16_t>(get_header(), at_src_port);
}
char struct_packet::get_event() {
    return static_cast<char>(get_header()[at_event]);
}
void struct_packet::set_mct_ip(unsigned int ip) {
    store<std::uint32_t>(get_header(), at_mct_ip, ip);
}
void struct_packet::set_src_ip(unsigned int ip) {
    // Kept beside the bytes too: those of a datagram are read again after this.
    home->came_from = ip;
    store<std::uint32_t>(get_header(), at_src_ip, ip);
}
void struct_packet::set_src_port(unsigned short const& port) {
    store<std::uint16_t>(get_header(), at_src_port, port);
}
void struct_packet::set_source(unsigned int const& ip, unsigned short const& port, unsigned short const& id) {
    store_end(get_header(), at_src_ip, at_src_port, at_src_id, {ip, port}, id);
}
void struct_packet::set_destination(unsigned int const& ip, unsigned short const& port, unsigned short const& id) {
    store_end(get_header(), at_dst_ip, at_dst_port, at_dst_id, {ip, port}, id);
}

void struct_packet::initialize_packet(unsigned int const& local_ip, unsigned long const& born, double lifetime) {
    unsigned char* const header = get_header();
    store<std::uint32_t>(header, at_src_ip, local_ip);
    store<std::uint64_t>(header, at_born, born);
    bool const endless = lifetime * 1000.0 >= c_endless;
    store<std::uint32_t>(header, at_lifetime_ms, endless ? c_endless : static_cast<std::uint32_t>(lifetime * 1000.0));
}

void struct_packet::initialize_header(unsigned int const&, unsigned short const&, unsigned char const&,
                                      unsigned short const&, unsigned int const& error) {
    store<std::uint32_t>(get_header(), at_error, error);
    set_data_size(0);
}

void struct_packet::set_plain_type() {
    get_header()[at_kind] = plain;
}
void struct_packet::set_control_type() {
    get_header()[at_kind] = control;
}
void struct_packet::set_heartbeat_type() {
    get_header()[at_kind] = heartbeat;
}
void struct_packet::set_tcp_connected_to_server() {
    get_header()[at_event] = 's';
}
void struct_packet::set_tcp_disconnected_from_server() {
    get_header()[at_event] = 'S';
}
void struct_packet::set_tcp_connected_from_client() {
    get_header()[at_event] = 'c';
}
void struct_packet::set_tcp_disconnected_from_client() {
    get_header()[at_event] = 'C';
}

bool struct_packet::backward_error_switch(unsigned int const& error) {
    static constexpr std::array due{plain, call, signal};
    unsigned char* const header = get_header();
    bool const already = load<std::uint32_t>(header, at_error) != c_zolt_err_none;
    if (already || std::find(due.begin(), due.end(), header[at_kind]) == due.end()) {
        return false;
    }
    set_swap_address(this);
    store<std::uint32_t>(header, at_error, error);
    set_data_size(0);
    return true;
}

void struct_packet::set_swap_address(struct_packet* other) {
    constexpr std::size_t end_bytes = at_src_id - at_dst_id;
    std::array<unsigned char, 2 * end_bytes> crossed{};
    unsigned char const* const theirs = other->get_header();
    std::memcpy(crossed.data(), theirs + at_src_id, end_bytes);
    std::memcpy(crossed.data() + end_bytes, theirs + at_dst_id, end_bytes);
    std::memcpy(get_header() + at_dst_id, crossed.data(), crossed.size());
}

void struct_packet::set_swap_acktype() {
    unsigned char& mine = get_header()[at_kind];
    if (mine == call) {
        mine = call_ack;
    } else if (mine == signal) {
        mine = signal_ack;
    }
}

void struct_packet::determine_arrival_clock(unsigned long const& now) {
    store(get_header(), at_arrival_ms, static_cast<std::uint32_t>(now / c_cpu_clocks_per_ms));
}

bool struct_packet::update_packet_time_and_return_timeout() {
    auto const lifetime = load<std::uint32_t>(get_header(), at_lifetime_ms);
    auto const age = Tesk::OS::lemon_cpu_clock() - load<std::uint64_t>(get_header(), at_born);
    return lifetime != c_endless && age / c_cpu_clocks_per_ms > lifetime;
}

// --- token -----------------------------------------------------------------------------------------------------

struct_token::struct_token() : parcel(nullptr) {}

struct_parcel& struct_token::opened() {
    if (parcel == nullptr) {
        parcel = new struct_parcel;
    }
    return *parcel;
}

void struct_token::alloc_header_force() {
    auto fresh = std::make_unique<struct_part>(0);
    std::scoped_lock hold(book);
    drop(opened().header);
    parcel->header = {fresh.release(), 1};
}

int struct_token::alloc_data(unsigned int const& bytes) {
    auto fresh = std::make_unique<struct_part>(bytes);
    std::scoped_lock hold(book);
    drop(opened().data);
    parcel->data = {fresh.release(), 1};
    return 0;
}

struct_packet* struct_token::get_header_packet() {
    std::scoped_lock hold(book);
    return parcel != nullptr && parcel->header.part != nullptr ? &parcel->header.part->view : nullptr;
}

struct_packet* struct_token::get_data_packet() {
    std::scoped_lock hold(book);
    return parcel != nullptr && parcel->data.part != nullptr ? &parcel->data.part->view : nullptr;
}

unsigned char* struct_token::get_data() {
    std::scoped_lock hold(book);
    if (parcel == nullptr) {
        return nullptr;
    }
    if (parcel->data.part != nullptr) {
        return parcel->data.part->bytes.data() + header_bytes;
    }
    return parcel->header.part != nullptr ? parcel->header.part->attached.get() : nullptr;
}

bool struct_token::has_header() {
    return get_header_packet() != nullptr;
}

bool struct_token::has_data() {
    return get_data() != nullptr;
}

void struct_token::ref_header() {
    std::scoped_lock hold(book);
    if (parcel != nullptr && parcel->header.part != nullptr) {
        parcel->header.part->uses++;
        parcel->header.handles++;
    }
}

void struct_token::set_header(struct_token const& from) {
    std::scoped_lock hold(book);
    if (from.parcel != nullptr && from.parcel != parcel) {
        share(opened().header, from.parcel->header);
    }
}

void struct_token::set_data(struct_token const& from) {
    std::scoped_lock hold(book);
    if (from.parcel != nullptr && from.parcel != parcel) {
        share(opened().data, from.parcel->data);
    }
}

void struct_token::reset() {
    parcel = nullptr;
}

void struct_token::reset_data() {
    std::scoped_lock hold(book);
    if (parcel != nullptr) {
        parcel->data = {};
        tidy(parcel);
    }
}

void struct_token::free() {
    free_data();
    free_header();
}

void struct_token::free_header() {
    std::scoped_lock hold(book);
    if (parcel != nullptr) {
        drop(parcel->header);
        tidy(parcel);
    }
}

void struct_token::free_data() {
    std::scoped_lock hold(book);
    if (parcel != nullptr) {
        drop(parcel->data);
        if (parcel->header.part != nullptr) {
            parcel->header.part->attached.reset();
        }
        tidy(parcel);
    }
}

// --- the block of a new connection -----------------------------------------------------------------------------

static_assert(sizeof(struct_tcp_header) == 1024, "the block travels as it lies");

namespace {

// The ports stand in the last four bytes, the receiver's first.
constexpr std::size_t c_receiver_port = 1020;
constexpr std::size_t c_sender_port = 1022;

} // namespace

struct_tcp_header::struct_tcp_header() : bytes{} {}

void struct_tcp_header::set_port_of_sender(unsigned short port) {
    std::memcpy(bytes + c_sender_port, &port, sizeof port);
}
void struct_tcp_header::set_port_of_receiver(unsigned short port) {
    std::memcpy(bytes + c_receiver_port, &port, sizeof port);
}
unsigned short struct_tcp_header::get_port_of_receiver() {
    unsigned short port = 0;
    std::memcpy(&port, bytes + c_receiver_port, sizeof port);
    return port;
}

} // namespace Zolt
