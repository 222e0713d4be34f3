#include "Center/INet_Relay/EPoll/epoll_tcp_method.hpp"

#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"
#include "Host/tesk_inet.hpp"
#include "Host/tesk_utility.hpp"

#include <cstdint>
#include <cstdio>
#include <limits>
#include <new>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace Zolt::Center::INet_Relay {

unsigned short get_gate_port_of_local(struct_node_addr addr) {
    Tesk::OS::class_locker const guard(&EPoll::g_client_lock, nullptr);
    auto const entry = EPoll::g_establish_client_map.find(addr);
    return entry == EPoll::g_establish_client_map.end() ? static_cast<unsigned short>(0) : entry->second->gate_port;
}

namespace EPoll {
namespace {

constexpr double c_never = std::numeric_limits<double>::max();
constexpr double c_busy_pause = 0.01; // seconds
constexpr int c_center_refuses = 0x40000007;
constexpr int c_center_is_busy = 0x40000008;
constexpr ::timeval c_write_bound{0, 1000};

bool is_outgoing(struct_epoll_overlapped_tcp const* rec) {
    return rec->kind == c_kind_connecting || rec->kind == c_kind_established_client;
}

} // namespace

// --- arming and options ----------------------------------------------------------------------------------------

int arm(struct_epoll_overlapped* rec, int instance, int operation, std::uint32_t mask) {
    ::epoll_event event{};
    event.events = mask;
    event.data.ptr = rec;
    int const fd = rec->fd;
    rec->baton.fetch_add(1, std::memory_order_release);
    return ::epoll_ctl(instance, operation, fd, &event);
}

int arm_or_print(struct_epoll_overlapped_tcp* rec, int instance, int operation, std::uint32_t mask, char const* text) {
    int const result = arm(rec, instance, operation, mask);
    if (result != 0) {
        Tesk::Utility::print_error(text);
    }
    return result;
}

void arm_send(struct_epoll_overlapped_tcp* rec, char const* text) {
    // The send thread cannot look at the flag before the caller lets go of the lock.
    if (arm_or_print(rec, epoll_tcp_send, EPOLL_CTL_MOD, c_send_mask, text) == 0) {
        rec->send_armed = true;
    }
}

void keep_from_children(int fd) {
    ::fcntl(fd, F_SETFD, FD_CLOEXEC);
}

void bound_writes(int fd) {
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &c_write_bound, sizeof c_write_bound);
}

void switch_nagle_off(int fd) {
    int const on = 1;
    if (::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0) {
        Tesk::Utility::print_error("iocp setsockopt nodelay error");
    }
}

void learn_local_address(struct_epoll_overlapped_tcp* rec) {
    ::sockaddr_in address{};
    ::socklen_t length = sizeof address;
    ::getsockname(rec->fd, reinterpret_cast<::sockaddr*>(&address), &length);
    rec->local_ip = address.sin_addr.s_addr;
    rec->local_port = ntohs(address.sin_port);
    rec->gate_port = rec->local_port;
}

// --- registries of the outgoing side ---------------------------------------------------------------------------

namespace {

connection_map& registry_of(outgoing_phase phase) HOST_REQUIRES(g_client_lock) {
    switch (phase) {
    case outgoing_phase::connecting:
        return g_connect_map;
    case outgoing_phase::established:
        return g_establish_client_map;
    default:
        return g_connect_fail_map;
    }
}

void set_shadowed(struct_epoll_overlapped_tcp* rec, bool shadowed) HOST_REQUIRES(g_client_lock) {
    g_outgoing_shadowed += static_cast<int>(shadowed) - static_cast<int>(rec->shadowed);
    rec->shadowed = shadowed;
}

} // namespace

struct_epoll_overlapped_tcp* find_shadowed(outgoing_phase phase, struct_node_addr const& destination) {
    if (g_outgoing_shadowed == 0) {
        return nullptr;
    }
    for (auto* rec = g_outgoing.first; rec != nullptr; rec = live_list::after(rec)) {
        if (rec->shadowed && rec->phase == phase && peer_of(rec) == destination) {
            return rec;
        }
    }
    return nullptr;
}

namespace {

/// Erases an entry, or gives it to a record that waits for the place. Takes no memory, so nothing can be lost.
void vacate(outgoing_phase phase, connection_map::iterator entry) HOST_REQUIRES(g_client_lock) {
    struct_epoll_overlapped_tcp* const successor = find_shadowed(phase, entry->first);
    if (successor == nullptr) {
        registry_of(phase).erase(entry);
        return;
    }
    set_shadowed(successor, false);
    entry->second = successor;
}

} // namespace

struct_epoll_overlapped_tcp* new_outgoing(struct_node_addr destination) {
    auto* const rec = new struct_epoll_overlapped_tcp;
    rec->fd = -1;
    rec->kind = c_kind_connecting;
    rec->remote_ip = destination.ip;
    rec->remote_port = destination.port;
    g_outgoing.link(rec);
    return rec;
}

bool file_outgoing(struct_epoll_overlapped_tcp* rec, outgoing_phase phase) {
    rec->phase = phase;
    try {
        auto const [entry, is_new] = registry_of(phase).try_emplace(peer_of(rec), rec);
        set_shadowed(rec, entry->second != rec);
        return entry->second == rec;
    } catch (std::bad_alloc const&) {
        set_shadowed(rec, true); // the timer files it once there is memory
        return true;
    }
}

void file_shadowed() {
    if (g_outgoing_shadowed == 0) {
        return;
    }
    for (auto* rec = g_outgoing.first; rec != nullptr; rec = live_list::after(rec)) {
        if (rec->shadowed) {
            file_outgoing(rec, rec->phase);
        }
    }
}

void erase_destination(outgoing_phase phase, struct_epoll_overlapped_tcp* rec) {
    if (rec->phase == phase) {
        rec->phase = outgoing_phase::none;
        set_shadowed(rec, false);
    }
    connection_map& registry = registry_of(phase);
    auto const entry = registry.find(peer_of(rec));
    if (entry == registry.end()) {
        return;
    }
    if (entry->second->phase == phase) {
        set_shadowed(entry->second, true);
    }
    vacate(phase, entry);
}

bool unfile_outgoing(struct_epoll_overlapped_tcp* rec) {
    bool was_established = rec->phase == outgoing_phase::established && rec->shadowed;
    rec->phase = outgoing_phase::none;
    set_shadowed(rec, false);
    for (auto const phase : {outgoing_phase::connecting, outgoing_phase::established, outgoing_phase::waiting}) {
        connection_map& registry = registry_of(phase);
        auto const entry = registry.find(peer_of(rec));
        if (entry == registry.end() || entry->second != rec) {
            continue;
        }
        was_established = was_established || phase == outgoing_phase::established;
        vacate(phase, entry);
    }
    return was_established;
}

void begin_ending(ending_list& list, struct_epoll_overlapped_tcp* rec) {
    rec->reap_clock = static_cast<std::uint32_t>(Tesk::OS::lemon_clock());
    list.link(rec);
}

void take_back_timers_event(struct_epoll_overlapped_tcp* rec) {
    if (rec->silence == timer_silence::armed) {
        ::epoll_event event{};
        ::epoll_ctl(epoll_tcp_recv, EPOLL_CTL_DEL, rec->fd, &event);
    }
}

// --- records ---------------------------------------------------------------------------------------------------

struct_epoll_overlapped_ex::~struct_epoll_overlapped_ex() = default;

bool return_as_error(struct_token& token, std::uint32_t error, struct_token& reply) {
    token.free_data();
    struct_packet* const header = token.get_header_packet();
    bool const is_due = header->backward_error_switch(error);
    if (is_due) {
        reply.alloc_header_force();
        *reply.get_header_packet() = *header;
    }
    return is_due;
}

void clear_send_q(struct_epoll_overlapped_tcp* rec) {
    Tesk::OS::class_locker const guard(rec->send_lock, nullptr);
    while (!rec->send_q.empty()) {
        struct_token token = rec->send_q.front();
        rec->send_q.pop_front();
        if (!token.has_header()) {
            continue;
        }
        try {
            struct_token reply;
            if (return_as_error(token, c_zolt_err_not_connected_tcp, reply)) {
                send_center(reply, reply.get_header_packet());
            }
        } catch (std::bad_alloc const&) {
            // No memory for the reply: the packet is dropped, the record must go all the same.
        }
        token.free_header();
    }
}

int failed_send(struct_epoll_overlapped_tcp* rec) {
    {
        Tesk::OS::class_locker const guard(rec->send_lock, nullptr);
        rec->send_armed = false;
        rec->sending = false;
        if (!rec->doomed) {
            return 0;
        }
    }
    return delete_overlapped(rec);
}

namespace {

void unfile_accepted(struct_epoll_overlapped_tcp* rec) HOST_REQUIRES(g_establish_server_map_lock) {
    auto const entry = g_establish_server_map.find(peer_of(rec));
    if (entry != g_establish_server_map.end() && entry->second == rec) {
        g_establish_server_map.erase(entry);
    }
}

/// Erases every entry and list place that names the record; the caller holds the registry lock, or no thread runs.
void forget(struct_epoll_overlapped_tcp* rec) HOST_NO_LOCK_ANALYSIS {
    is_outgoing(rec) ? static_cast<void>(unfile_outgoing(rec)) : unfile_accepted(rec);
    live_list::unlink(rec);
    ending_list::unlink(rec);
}

/// Frees what waits for an acknowledgement, then the record; its locks and queues go in their stated order.
void destroy(struct_epoll_overlapped_tcp* rec) {
    {
        Tesk::OS::class_locker const guard(rec->ack_lock, nullptr);
        for (struct_token& waiting : rec->ack_q) {
            waiting.free_header();
        }
    }
    delete rec;
}

/// The notice that the Center would get if it were not going away; it is only traced.
void trace_cleared(struct_epoll_overlapped_tcp* rec) {
    bool const is_client = rec->kind == c_kind_established_client;
    struct_packet* const pkt = rec->recv_token.get_header_packet();
    pkt->initialize_packet(rec->local_ip, Tesk::OS::lemon_cpu_clock(), c_never);
    pkt->set_source(rec->remote_ip, rec->remote_port, is_client ? c_broadcast_stub_id : c_broadcast_proxy_id);
    pkt->set_destination(c_local_host, rec->gate_port, is_client ? c_broadcast_proxy_id : c_broadcast_stub_id);
    pkt->initialize_header(0, 0, 0, 0, c_zolt_err_none);
    if (is_client) {
        pkt->set_tcp_disconnected_from_server();
    } else {
        pkt->set_tcp_disconnected_from_client();
    }
    pkt->set_control_type();
    trace(c_site_cleared, rec->recv_token, "clear overlapped");
}

int clear_overlapped(struct_epoll_overlapped_tcp* rec) {
    forget(rec);
    if (rec->fd != -1) {
        clear_send_q(rec);
        if (rec->recv_token.has_header()) {
            trace_cleared(rec);
        }
        close_descriptor(rec);
        rec->recv_token.free();
    }
    destroy(rec);
    return 0;
}

bool is_filed(struct_epoll_overlapped_tcp* rec) HOST_REQUIRES(g_client_lock) {
    for (auto const phase : {outgoing_phase::connecting, outgoing_phase::established, outgoing_phase::waiting}) {
        connection_map const& registry = registry_of(phase);
        auto const entry = registry.find(peer_of(rec));
        if (entry != registry.end() && entry->second == rec) {
            return true;
        }
    }
    return false;
}

void clear_map(connection_map& map) {
    while (!map.empty()) {
        auto const first = map.begin();
        struct_epoll_overlapped_tcp* const rec = first->second;
        map.erase(first);
        clear_overlapped(rec);
    }
}

/// Records that no registry names any more, or not yet. No thread runs, so no lock is taken.
void clear_unfiled_accepted() HOST_NO_LOCK_ANALYSIS {
    while (g_accepted_exchanging.first != nullptr) {
        clear_overlapped(g_accepted_exchanging.first);
    }
    while (g_accepted_unfiled.first != nullptr) {
        clear_overlapped(g_accepted_unfiled.first);
    }
    while (g_accepted_ending.first != nullptr) {
        clear_overlapped(g_accepted_ending.first);
    }
}

/// The same for the outgoing side.
void clear_unfiled_outgoing() HOST_NO_LOCK_ANALYSIS {
    struct_epoll_overlapped_tcp* rec = g_outgoing.first;
    while (rec != nullptr) {
        struct_epoll_overlapped_tcp* const next = live_list::after(rec);
        if (!is_filed(rec)) {
            clear_overlapped(rec);
        }
        rec = next;
    }
}

} // namespace

int clear_establish_map(connection_map& map) HOST_NO_LOCK_ANALYSIS {
    clear_map(map);
    if (&map == &g_establish_server_map) {
        clear_unfiled_accepted();
    } else {
        clear_unfiled_outgoing();
    }
    return 0;
}

int clear_connect_map(connection_map& map) {
    clear_map(map);
    clear_unfiled_outgoing();
    return 0;
}

void close_descriptor(struct_epoll_overlapped_tcp* rec) {
    if (rec->fd == -1) {
        return;
    }
    ::epoll_event event{};
    event.events = c_send_mask;
    event.data.ptr = static_cast<struct_epoll_overlapped*>(rec);
    for (int const instance : {epoll_tcp_init, epoll_tcp_recv, epoll_tcp_send}) {
        ::epoll_ctl(instance, EPOLL_CTL_DEL, rec->fd, &event);
    }
    ::close(rec->fd);
    rec->fd = -1;
}

int delete_overlapped(struct_epoll_overlapped_tcp* rec) {
    {
        Tesk::OS::class_locker const guard(is_outgoing(rec) ? &g_client_lock : &g_establish_server_map_lock, nullptr);
        forget(rec);
    }
    // Deliberate: four fields in the format, two values. Hosts know this text and do not expand it.
    trace(c_site_deleted, struct_token(), "delete %s overlapped %d.%d.%d.%d", is_outgoing(rec) ? "client" : "server",
          Tesk::INet::str_from_ip(rec->remote_ip));
    rec->recv_token.free();
    {
        Tesk::OS::class_locker const guard(rec->send_lock, nullptr);
        while (rec->sending && rec->send_ptr != nullptr) {
            Tesk::OS::class_unlocker const let_go(&rec->send_lock);
            Tesk::OS::thread_yield();
        }
        clear_send_q(rec);
        close_descriptor(rec);
    }
    destroy(rec);
    return 0;
}

// --- delivery to the Center ------------------------------------------------------------------------------------

namespace {

/// Offers once, and tells whether to stop: the result then stands in result.
bool offer(struct_token& token, struct_packet* pkt, int& result) {
    int const answer = Common::Global::send_zolt_center(token);
    if (answer == c_center_refuses) {
        token.free();
        result = -1;
        return true;
    }
    // Deliberate: asked after every offer. A packet whose time-out passed while it was handed over counts as lost.
    if (pkt->update_packet_time_and_return_timeout()) {
        trace(c_site_given_up, token, "send to center - packet timeout");
        token.free();
        result = -1;
        return true;
    }
    if (answer == c_center_is_busy) {
        Tesk::OS::rtsleep(c_busy_pause);
    }
    result = 0;
    return answer == static_cast<int>(c_zolt_err_none);
}

} // namespace

int send_center(struct_token token, struct_packet* pkt) {
    trace(c_site_received, token, "tcp received");
    int result = 0;
    while (!offer(token, pkt, result)) {
    }
    return result;
}

int send_center_from_udp(struct_token token, struct_packet*) {
    int const answer = Common::Global::send_zolt_center(token);
    if (answer != static_cast<int>(c_zolt_err_none)) {
        token.free();
    }
    return answer;
}

void wait_ack(struct_epoll_overlapped_tcp* rec, struct_token& token, struct_packet* pkt) {
    if (!pkt->is_signal_return() && !pkt->is_call_return()) {
        return;
    }
    struct_token waiting;
    waiting.set_header(token);
    Tesk::OS::class_locker const guard(rec->ack_lock, nullptr);
    try {
        rec->ack_q.push_back(waiting);
    } catch (std::bad_alloc const&) {
        waiting.free_header();
        throw;
    }
}

namespace {

/// What one of the four notices says.
struct struct_notice {
    std::uint16_t source_id;
    std::uint16_t destination_id;
    std::uint32_t error;
    void (struct_packet::*set_event)();
};

int tell_center(struct_epoll_overlapped_tcp* rec, struct_notice const& notice) {
    struct_token token;
    token.alloc_header_force();
    struct_packet* const pkt = token.get_header_packet();
    pkt->initialize_packet(rec->local_ip, Tesk::OS::lemon_cpu_clock(), c_never);
    pkt->set_source(rec->remote_ip, rec->remote_port, notice.source_id);
    pkt->set_destination(c_local_host, rec->gate_port, notice.destination_id);
    pkt->initialize_header(0, 0, 0, 0, notice.error);
    pkt->set_control_type();
    (pkt->*notice.set_event)();
    send_center(token, pkt);
    return 0;
}

} // namespace

// Deliberate: the remote end is the stub when it is a server, the proxy when it is a client.

int eproc_send_connected_to_server_msg_to_center(struct_epoll_overlapped_tcp* rec) {
    return tell_center(
        rec, {c_broadcast_stub_id, c_broadcast_proxy_id, c_zolt_err_none, &struct_packet::set_tcp_connected_to_server});
}

int eproc_send_disconnected_from_server_msg_to_center(struct_epoll_overlapped_tcp* rec) {
    return tell_center(rec, {c_broadcast_stub_id, c_broadcast_proxy_id, c_zolt_err_disconnected_tcp,
                             &struct_packet::set_tcp_disconnected_from_server});
}

int eproc_send_connected_from_client_msg_to_center(struct_epoll_overlapped_tcp* rec) {
    return tell_center(rec, {c_broadcast_proxy_id, c_broadcast_stub_id, c_zolt_err_none,
                             &struct_packet::set_tcp_connected_from_client});
}

int eproc_send_disconnected_from_client_msg_to_center(struct_epoll_overlapped_tcp* rec) {
    return tell_center(rec, {c_broadcast_proxy_id, c_broadcast_stub_id, c_zolt_err_disconnected_tcp,
                             &struct_packet::set_tcp_disconnected_from_client});
}

// --- receive path ----------------------------------------------------------------------------------------------

int request_recv_header(struct_tcp_side const& side, struct_epoll_overlapped_tcp* rec) {
    rec->recv_token.reset_data();
    if (!rec->recv_token.has_header()) {
        rec->recv_token.alloc_header_force();
    }
    struct_packet* const header = rec->recv_token.get_header_packet();
    header->initialize_packet(rec->local_ip, 0, c_never);
    header->set_source(rec->remote_ip, rec->remote_port, 0);
    header->set_destination(c_local_host, rec->gate_port, 0);
    rec->recv_remain = header->get_header_size();
    rec->recv_ptr = header->get_header();
    return arm_or_print(rec, epoll_tcp_recv, EPOLL_CTL_MOD, c_recv_mask, side.arm_header_failed);
}

int request_recv_data(struct_tcp_side const& side, struct_epoll_overlapped_tcp* rec) {
    struct_packet* const header = rec->recv_token.get_header_packet();
    unsigned int const size = header->get_data_size();
    if (rec->recv_token.alloc_data(size) == 0) {
        rec->recv_ptr = rec->recv_token.get_data();
    } else {
        rec->recv_ptr = new unsigned char[size];
        header->set_data(rec->recv_ptr);
    }
    rec->recv_remain = size;
    return arm_or_print(rec, epoll_tcp_recv, EPOLL_CTL_MOD, c_recv_mask, side.arm_data_failed);
}

int recv_step(struct_tcp_side const& side, struct_epoll_overlapped_tcp* rec) {
    ssize_t const got = ::recv(rec->fd, rec->recv_ptr, rec->recv_remain, 0);
    if (got <= 0) {
        Tesk::Utility::print_error(side.recv_failed);
        side.end(rec);
        return 0;
    }
    // Deliberate: the text of the exchange serves every read.
    trace(here('E', c_file_method), struct_token(), c_text_received_piece, static_cast<int>(got),
          static_cast<int>(rec->recv_remain));
    stamp(rec->recv_clock, Tesk::OS::lemon_clock());
    rec->recv_ptr += got;
    rec->recv_remain -= static_cast<unsigned long>(got);
    if (rec->recv_remain != 0) {
        return arm(rec, epoll_tcp_recv, EPOLL_CTL_MOD, c_recv_mask);
    }
    return rec->recv_token.has_data() ? side.completed_recv_data(rec) : side.completed_recv_header(rec);
}

namespace {

/// Hands what was received to the Center and forgets it: the Center owns the parts, or they were freed.
void deliver(struct_epoll_overlapped_tcp* rec) {
    send_center(rec->recv_token, rec->recv_token.get_header_packet());
    rec->recv_token.reset();
}

/// Answers a call or signal with a packet that is a header only.
void acknowledge(struct_epoll_overlapped_tcp* rec, struct_packet* received) {
    struct_token token;
    token.alloc_header_force();
    struct_packet* const answer = token.get_header_packet();
    *answer = *received;
    answer->set_swap_address(received);
    answer->set_swap_acktype();
    answer->set_data_size(0);
    Tesk::OS::class_locker const guard(rec->send_lock, nullptr);
    try {
        start_or_queue(rec, token, answer);
    } catch (std::bad_alloc const&) {
        token.free();
        throw;
    }
}

/// Deliberate: the oldest waiting packet is released, whichever one the acknowledgement means.
void release_oldest_waiting(struct_epoll_overlapped_tcp* rec) {
    Tesk::OS::class_locker const guard(rec->ack_lock, nullptr);
    if (!rec->ack_q.empty()) {
        rec->ack_q.front().free();
        rec->ack_q.pop_front();
    }
    rec->recv_token.reset_data();
}

/// A packet without data that stays inside the relay, or goes to the Center.
void classify_header_only(struct_tcp_side const& side, struct_epoll_overlapped_tcp* rec, struct_packet* header) {
    if (header->is_heartbeat()) {
        trace(here('E', c_file_method), struct_token(), side.heartbeat_received);
        rec->recv_token.reset_data();
        return;
    }
    if (side.keeps_acknowledgements && (header->is_signal_return_ack() || header->is_call_return_ack())) {
        release_oldest_waiting(rec);
        return;
    }
    deliver(rec);
}

} // namespace

int completed_recv_header(struct_tcp_side const& side, struct_epoll_overlapped_tcp* rec) {
    struct_packet* const header = rec->recv_token.get_header_packet();
    header->determine_arrival_clock(Tesk::OS::lemon_cpu_clock());
    unsigned int const size = header->get_data_size();
    trace(here('E', c_file_method), rec->recv_token, "%d clk - header complated  - data size is %d. %08X.",
          static_cast<int>(rec->recv_clock), static_cast<int>(size),
          static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(header)));
    if (!side.keeps_acknowledgements && (header->is_call_return() || header->is_signal_return())) {
        acknowledge(rec, header);
    }
    if (size != 0) {
        return side.request_recv_data(rec);
    }
    classify_header_only(side, rec, header);
    return side.request_recv_header(rec);
}

int completed_recv_data(struct_tcp_side const& side, struct_epoll_overlapped_tcp* rec) {
    deliver(rec);
    return side.request_recv_header(rec);
}

// --- send path -------------------------------------------------------------------------------------------------

namespace {

/// Makes a header the piece in progress.
void point_at_header(struct_epoll_overlapped_tcp* rec, struct_packet* pkt) HOST_REQUIRES(rec->send_lock) {
    rec->send_ptr = pkt->get_header();
    rec->send_remain = pkt->get_header_size();
    rec->sending_header = true;
}

/// The next packet in the queue, or the marker, becomes what is in progress.
void turn_to_front(struct_tcp_side const& side, struct_epoll_overlapped_tcp* rec) HOST_REQUIRES(rec->send_lock) {
    struct_token& front = rec->send_q.front();
    if (!front.has_header()) {
        rec->send_ptr = nullptr;
        return;
    }
    struct_packet* const header = front.get_header_packet();
    if (side.keeps_acknowledgements) {
        wait_ack(rec, front, header);
    }
    point_at_header(rec, header);
}

/// A header or a data part has been written whole: on to the data, to the next packet, or to rest.
void completed_piece(struct_tcp_side const& side, struct_epoll_overlapped_tcp* rec) HOST_REQUIRES(rec->send_lock) {
    struct_token& front = rec->send_q.front();
    if (rec->sending_header && front.has_data() && front.get_header_packet()->get_data_size() != 0) {
        rec->send_ptr = front.get_data();
        rec->send_remain = front.get_header_packet()->get_data_size();
        rec->sending_header = false;
        arm_send(rec, c_text_send_request_failed);
        return;
    }
    front.free();
    rec->send_q.pop_front();
    if (rec->send_q.empty()) {
        rec->sending = false;
        return;
    }
    turn_to_front(side, rec);
    arm_send(rec, c_text_send_request_failed);
}

/// One write at the cursor. Deliberate: a failed one is not repeated; the queue rests until the record ends.
void write_piece(struct_tcp_side const& side, struct_epoll_overlapped_tcp* rec) HOST_REQUIRES(rec->send_lock) {
    ssize_t const sent = ::send(rec->fd, rec->send_ptr, rec->send_remain, 0);
    ::fflush(stdout);
    if (sent <= 0) {
        rec->sending = false;
        return;
    }
    stamp(rec->send_clock, Tesk::OS::lemon_clock());
    rec->send_ptr += sent;
    rec->send_remain -= static_cast<unsigned long>(sent);
    if (rec->send_remain != 0) {
        arm_send(rec, c_text_send_arm_failed);
        return;
    }
    completed_piece(side, rec);
}

/// What one event of the send thread does. True when the record ends with it.
bool serve_queue(struct_tcp_side const& side, struct_epoll_overlapped_tcp* rec) HOST_REQUIRES(rec->send_lock) {
    if (rec->send_q.empty()) {
        rec->sending = false;
        return false;
    }
    trace(side.sending_site, rec->send_q.front(), "tcp sended header");
    if (rec->doomed && !rec->sending) {
        return false; // a queue that came to rest is not written again (decision 2)
    }
    if (rec->send_ptr == nullptr) {
        rec->send_q.pop_front();
        rec->sending = false;
        ::shutdown(rec->fd, SHUT_WR);
        return side.marker_deletes;
    }
    write_piece(side, rec);
    return false;
}

} // namespace

void start_or_queue(struct_epoll_overlapped_tcp* rec, struct_token const& token, struct_packet* pkt) {
    bool const was_idle = rec->send_q.empty();
    rec->send_q.push_back(token);
    if (!was_idle) {
        return;
    }
    point_at_header(rec, pkt);
    rec->sending = true;
    arm_send(rec, c_text_send_request_failed);
}

void start_or_queue_close_marker(struct_epoll_overlapped_tcp* rec) {
    bool const was_idle = rec->send_q.empty();
    rec->send_q.push_back(struct_token());
    if (!was_idle) {
        return;
    }
    rec->send_ptr = nullptr;
    rec->send_remain = 0;
    rec->sending_header = true;
    rec->sending = true;
    arm_send(rec, c_text_send_request_failed);
}

int send_step(struct_tcp_side const& side, struct_epoll_overlapped_tcp* rec) {
    {
        Tesk::OS::class_locker const guard(rec->send_lock, nullptr);
        rec->send_armed = false;
        bool const ends = serve_queue(side, rec);
        if (!ends && (!rec->doomed || rec->send_armed)) {
            return 0;
        }
        rec->sending = false;
    }
    delete_overlapped(rec);
    return 0;
}

// --- exchange --------------------------------------------------------------------------------------------------

void prepare_init_block(struct_epoll_overlapped_tcp* rec, struct_tcp_header& block) {
    block.set_port_of_sender(rec->local_port);
    block.set_port_of_receiver(rec->remote_port);
    rec->send_remain = c_init_block_size;
}

long send_init_block(struct_epoll_overlapped_tcp* rec, struct_tcp_header& block) {
    auto const* const bytes = reinterpret_cast<unsigned char const*>(&block);
    ssize_t const sent = ::send(rec->fd, bytes + (c_init_block_size - rec->send_remain), rec->send_remain, 0);
    if (sent <= 0) {
        return -1;
    }
    rec->send_remain -= static_cast<unsigned long>(sent);
    stamp(rec->send_clock, Tesk::OS::lemon_clock());
    return static_cast<long>(rec->send_remain);
}

long recv_init_block(struct_epoll_overlapped_tcp* rec, struct_tcp_header& block) {
    auto* const bytes = reinterpret_cast<unsigned char*>(&block);
    ssize_t const got = ::recv(rec->fd, bytes + (c_init_block_size - rec->recv_remain), rec->recv_remain, 0);
    if (got > 0) {
        rec->recv_remain -= static_cast<unsigned long>(got);
        stamp(rec->recv_clock, Tesk::OS::lemon_clock());
    }
    return got;
}

int request_recv_init(struct_tcp_side const& side, struct_epoll_overlapped_tcp* rec) {
    rec->recv_remain = c_init_block_size;
    return arm_or_print(rec, epoll_tcp_recv, EPOLL_CTL_ADD, c_recv_mask, side.arm_exchange_failed);
}

} // namespace EPoll
} // namespace Zolt::Center::INet_Relay
