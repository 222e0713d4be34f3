// What the simulated kernel is made of; for its own sources only.
//
// kernel.cpp: descriptors and the public calls; kernel_tcp.cpp: a TCP socket's own steps; kernel_wire.cpp: what the
// network carries from one to the other; kernel_udp.cpp: datagrams; kernel_events.cpp: masks and event instances.
//
// Everything belongs to the wire and is used again, with its memory: a schedule makes and ends dozens of sockets.
#ifndef TESTS_RACE_SIMULATION_KERNEL_PRIVATE_HPP
#define TESTS_RACE_SIMULATION_KERNEL_PRIVATE_HPP

#include "tests/race/simulation/kernel.hpp"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace simulation {

inline constexpr unsigned c_receive_shut = 1;
inline constexpr unsigned c_send_shut = 2;
inline constexpr unsigned c_both_shut = 3;
inline constexpr moment c_second = 1000000;
inline constexpr moment c_time_wait = 60 * c_second;
inline constexpr std::uint16_t c_first_free_port = 40000;
inline constexpr std::size_t c_default_buffer = 16384; ///< bytes, each way
inline constexpr std::size_t c_nowhere = ~std::size_t{0};

struct event_instance;
struct host;
struct stream;
struct wire;

/// Objects that are used again. An object's clear() makes it as new and keeps its memory.
template <typename Object>
class pool {
public:
    Object& take() {
        if (spare.empty()) {
            return *all.emplace_back(std::make_unique<Object>());
        }
        Object& object = *spare.back();
        spare.pop_back();
        return object;
    }
    void give_back(Object& object) {
        object.clear();
        spare.push_back(&object);
    }

private:
    std::vector<std::unique_ptr<Object>> all;
    std::vector<Object*> spare;
};

/// Bytes, first in, first out.
class byte_queue {
public:
    std::size_t size() const { return bytes.size() - head; }
    bool empty() const { return size() == 0; }
    void append(void const* data, std::size_t size);
    /// Copies the first bytes to where they are wanted, and drops them.
    void take(void* data, std::size_t size);
    void move_to(byte_queue& other, std::size_t size);
    void keep_front(std::size_t size);
    void clear();

private:
    std::vector<unsigned char> bytes;
    std::size_t head = 0;
};

// --- descriptors and events ------------------------------------------------------------------------------------------

struct open_file;

struct registration {
    event_instance* in = nullptr;
    open_file* on = nullptr;
    std::uint32_t mask = 0;
    void* data = nullptr;
    bool is_queued = false;

    void clear() { *this = registration{}; }
};

struct event_instance {
    std::vector<registration*> members;
    std::vector<registration*> queue;

    void clear() { members.clear(), queue.clear(); }
};

struct datagram {
    host* origin = nullptr;
    address from;
    address to;
    std::vector<unsigned char> payload;
};

struct datagram_socket {
    host* at = nullptr;
    open_file* file = nullptr;
    address local;
    unsigned shut = 0;
    std::size_t receive_limit = c_default_buffer;
    std::size_t unread_bytes = 0;
    std::vector<datagram> unread;

    void clear() { *this = datagram_socket{}; }
};

/// What a descriptor stands for: exactly one of the three pointers is set.
struct open_file {
    stream* tcp = nullptr;
    datagram_socket* udp = nullptr;
    event_instance* events = nullptr;
    bool is_nonblocking = false;
    moment send_timeout = 0; ///< 0: none
    std::vector<registration*> watchers;
    int calls = 0; ///< that wait inside; the last one releases what was closed meanwhile
    bool is_closed = false;
    bool is_reset = false; ///< closed with a reset

    void clear();
};

/// The call is inside: a close of the descriptor leaves the file alone until it has left.
class inside_call {
public:
    inside_call(wire& net, open_file& used) : w(net), file(used) { ++file.calls; }
    ~inside_call();
    inside_call(inside_call const&) = delete;
    inside_call& operator=(inside_call const&) = delete;

private:
    wire& w;
    open_file& file;
};

/// Every mask bit that holds.
std::uint32_t find_mask(open_file const& file);
/// Something happened that readers (EPOLLIN), writers (EPOLLOUT) or everybody (0) want to know.
void wake(open_file* file, std::uint32_t kind);
int control_events(wire& w, event_instance& instance, int operation, open_file& file, std::uint32_t mask, void* data);
int wait_for_event(event_instance& instance, event& found, moment deadline);
/// The last descriptor is closed and no call is inside.
void release(wire& w, open_file& file);

// --- TCP -------------------------------------------------------------------------------------------------------------

enum class tcp_state {
    closed,
    listening,
    syn_sent,
    syn_received, ///< on the accepting side, and not yet in the queue that accept looks at
    established,
    fin_wait_1,
    fin_wait_2,
    close_wait,
    closing,
    last_ack,
};
char const* word_for(tcp_state state);

/// How far connect has come, as the calls see it.
enum class progress { unconnected, connecting, connected, disconnecting };

/// What a socket has to say before its data.
enum class greeting { none, syn, syn_ack, ack };

struct stream {
    host* at = nullptr;
    open_file* file = nullptr; ///< none: not yet accepted, or closed while its connection lives on
    tcp_state state = tcp_state::closed;
    progress connecting = progress::unconnected;
    address local;
    address remote;
    bool has_port = false;
    bool port_is_chosen = false; ///< by its number: kept until the close
    stream* peer = nullptr;
    unsigned shut = 0;
    int error = 0;
    bool has_seen_fin = false;
    bool wants_room = false; ///< somebody found no room and is to be told
    byte_queue unread;
    byte_queue unsent; ///< what the peer has not received yet
    std::size_t send_limit = c_default_buffer;
    std::size_t receive_limit = c_default_buffer;

    // Listening, or not yet accepted.
    int backlog = 0;
    std::vector<stream*> arrived;
    stream* listener = nullptr;
    bool is_queued = false; ///< in the listener's arrived

    // On its way: from this socket, and the reset to it.
    greeting says = greeting::none;
    int greetings = 0;    ///< that were dropped
    moment greets_at = 0; ///< again
    bool has_fin_to_send = false;
    bool reset_coming = false;
    moment due = c_never;         ///< when the next of these can arrive
    std::size_t slot = c_nowhere; ///< in wire::moving

    moment orphan_until = c_never; ///< without a file in fin_wait_2

    void clear();
};

/// A local address that nobody can bind yet.
struct left_address {
    address local;
    address remote;
    moment until = 0;
};

struct host {
    wire* net = nullptr;
    std::uint32_t ip = 0;
    std::vector<stream*> streams; ///< those with a port
    std::vector<datagram_socket*> datagrams;
    std::vector<left_address> left;
};

/// Everything that the hosts share.
struct wire {
    pool<stream> streams;
    pool<datagram_socket> datagram_sockets;
    pool<open_file> files;
    pool<event_instance> instances;
    pool<registration> registrations;
    std::vector<std::unique_ptr<host>> hosts;
    std::vector<stream*> moving; ///< those with something on its way
    std::vector<datagram> flying;
    std::vector<address> holes;

    host& add_host(std::uint32_t ip);
    /// Who has that address, seen from the host; null: nobody.
    host* find_host(host const& from, std::uint32_t ip) const;
};

struct network::network_state : wire {};

/// The same port, and addresses that exclude each other.
bool share_a_port(address const& a, address const& b);
/// The address that the host uses towards that one.
std::uint32_t source_ip(host const& from, std::uint32_t to);

stream& new_stream(host& at);
void take_address(stream& s, address local);
int bind_stream(stream& s, address local);
int listen_on(stream& s, int backlog);
/// The socket that accept hands out; null and -error when there is none.
stream* accept_from(open_file& file, int& error);
int connect_stream(open_file& file, address remote);
long send_stream(open_file& file, unsigned char const* data, std::size_t size);
long receive_stream(open_file& file, void* data, std::size_t size);
int shut_stream(stream& s, unsigned how);
void close_stream(stream& s);
/// Ends it with a reset to the peer; nobody holds it any more.
void abort_stream(stream& s);

/// It is over: closed both ways, and everybody is told.
void finish(stream& s);
void finish_with(stream& s, int error);
/// Gives back what nobody holds and nothing waits for.
void release_if_unused(stream& s);
void discard(stream& s);
void unlink_peer(stream& s);
void leave_host(stream& s);
void stop_listening(stream& s);
bool has_room(stream const& s);
bool refuses_data(stream const& s);
/// How much of what is unsent the peer would take now.
std::size_t find_window(stream const& s);
/// Notes what is on its way from and to the socket; after each change of it.
void note_moving(stream& s);
void note_both_moving(stream& s);

// --- datagrams -------------------------------------------------------------------------------------------------------

datagram_socket& new_datagram_socket(host& at);
int bind_datagrams(datagram_socket& s, address local);
long send_datagram(datagram_socket& s, void const* data, std::size_t size, address to);
long receive_datagram(open_file& file, void* data, std::size_t size, int flags, address& from);
void close_datagrams(datagram_socket& s);
void deliver_datagram(wire& w, std::size_t which);

} // namespace simulation

#endif
