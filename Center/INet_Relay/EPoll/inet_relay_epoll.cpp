#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"

#include "Center/INet_Relay/EPoll/epoll.hpp"
#include "Center/INet_Relay/EPoll/epoll_tcp_method.hpp"
#include "Center/INet_Relay/EPoll/epoll_tcp_method_client.hpp"
#include "Center/INet_Relay/EPoll/epoll_tcp_method_server.hpp"
#include "Center/INet_Relay/EPoll/epoll_thread.hpp"
#include "Center/INet_Relay/EPoll/epoll_trace.hpp"
#include "Center/INet_Relay/EPoll/epoll_udp_method.hpp"
#include "Host/tesk_inet.hpp"
#include "Host/tesk_os.hpp"
#include "Host/tesk_utility.hpp"

#include <limits>
#include <new>
#include <string>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Zolt::Center::INet_Relay {

using namespace EPoll;

// --- configuration ---------------------------------------------------------------------------------------------

namespace {

constexpr char const* c_ini_file = "../Config/zolt.ini";
constexpr char const* c_ini_section = "ZOLT";

/// Deliberate: everything but "no" switches on, "off" and "0" included.
void read_switch(bool& setting, char const* key, bool built_in) {
    setting = built_in;
    setting = std::string(Tesk::Utility::get_lwr_string_from_ini_file(c_ini_file, c_ini_section, key,
                                                                      built_in ? "yes" : "no")) != "no";
}

void read_integer(int& setting, char const* key, int built_in) {
    setting = Tesk::Utility::get_integer_from_ini_file(c_ini_file, c_ini_section, key, built_in);
}

void read_configuration() {
    read_switch(g_auto_disconnect, "AUTO_DISCONNECT", true);
    read_switch(g_server_socket_reuse, "SERVER_SOCKET_REUSE", true);
    read_integer(g_listen_backlog, "SERVER_LISTEN_BACKLOG", 5);
    read_switch(g_server_linger_use, "SERVER_LINGER_USE", false);
    read_integer(g_server_linger_time, "SERVER_LINGER_TIME", 1024);
    read_switch(g_server_nagle_off_use, "SERVER_NAGLE_OFF_USE", true);
    read_switch(g_client_linger_use, "CLIENT_LINGER_USE", false);
    read_integer(g_client_linger_time, "CLIENT_LINGER_TIME", 1024);
    read_switch(g_client_nagle_off_use, "CLIENT_NAGLE_OFF_USE", true);
}

// --- lifecycle -------------------------------------------------------------------------------------------------

/// One packet for all connections and for ever; it never times out.
void build_heartbeat() {
    heartbeat_token.alloc_header_force();
    heartbeat_pkt = heartbeat_token.get_header_packet();
    heartbeat_pkt->initialize_packet(c_local_host, 0, std::numeric_limits<double>::max());
    heartbeat_pkt->set_source(0, 0, 0);
    heartbeat_pkt->set_destination(0, 0, 0);
    heartbeat_pkt->initialize_header(0, 0, 0, 0, c_zolt_err_none);
    heartbeat_pkt->set_heartbeat_type();
}

/// An epoll instance, and whether it is this library's to close: before initialize its value is 0, somebody else's file.
struct struct_instance {
    int* descriptor;
    bool is_ours;
};

enum { c_tcp_init, c_tcp_recv, c_tcp_send, c_udp_recv, c_udp_send };

/// In the order of creation.
constinit struct_instance g_instances[] = {{&epoll_tcp_init, false},
                                           {&epoll_tcp_recv, false},
                                           {&epoll_tcp_send, false},
                                           {&epoll_udp_recv, false},
                                           {&epoll_udp_send, false}};

/// Deliberate: what was created before a failure stays open and stored.
void create_instances() {
    try {
        for (struct_instance& instance : g_instances) {
            *instance.descriptor = ::epoll_create1(0);
            instance.is_ours = *instance.descriptor != -1;
            if (!instance.is_ours) {
                throw std::string("epoll_create 에러");
            }
            keep_from_children(*instance.descriptor);
        }
    } catch (std::string const& text) {
        Tesk::Utility::print_error(text.c_str());
        throw std::string(text);
    }
}

/// Ends the thread of one instance: an event without a record tells it to.
void stop_thread(int instance, Tesk::OS::class_thread& thread, int wake_up) {
    if (instance == -1) {
        return;
    }
    ::epoll_event event{};
    event.events = EPOLLOUT;
    event.data.u64 = 0;
    if (::epoll_ctl(instance, EPOLL_CTL_ADD, wake_up, &event) == -1) {
        Tesk::Utility::print_error(c_file_public, __LINE__);
    }
    thread.proc_wait_exit(nullptr);
}

void close_or_print(int fd, int line = __builtin_LINE()) {
    if (::close(fd) == -1) {
        Tesk::Utility::print_error(c_file_public, line);
    }
}

void close_instances() {
    for (int const which : {c_tcp_send, c_tcp_recv, c_tcp_init, c_udp_send, c_udp_recv}) {
        struct_instance& instance = g_instances[which];
        if (instance.is_ours && *instance.descriptor != -1) {
            close_or_print(*instance.descriptor);
        }
    }
    for (struct_instance& instance : g_instances) {
        *instance.descriptor = -1;
        instance.is_ours = false;
    }
}

/// Deliberate: the entries stay, each with -1.
void close_listening_sockets() {
    for (auto& [port, fd] : g_server_map) {
        ::shutdown(fd, SHUT_RD);
        if (fd != -1) {
            close_or_print(fd);
            fd = -1;
        }
    }
}

} // namespace

int initialize() {
    build_heartbeat();
    read_configuration();
    create_instances();
    return 0;
}

int start() {
    epoll_thread_udp_recv.eproc_create(epoll_thread_udp_recv_entry, nullptr);
    epoll_thread_udp_send.eproc_create(epoll_thread_udp_send_entry, nullptr);
    epoll_thread_tcp_init.eproc_create(epoll_thread_tcp_init_entry, nullptr);
    epoll_thread_tcp_recv[0].eproc_create(epoll_thread_tcp_recv_entry, nullptr);
    epoll_thread_tcp_send[0].eproc_create(epoll_thread_tcp_send_entry, nullptr);
    inet_timer.eproc_create(c_timer_period, timer_inet, nullptr);
    return 0;
}

int stop() {
    inet_timer.proc_destroy();
    // Never connected: writable and hung up at once, in every instance it is added to.
    int const wake_up = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    keep_from_children(wake_up);
    stop_thread(epoll_tcp_init, epoll_thread_tcp_init, wake_up);
    stop_thread(epoll_udp_recv, epoll_thread_udp_recv, wake_up);
    stop_thread(epoll_udp_send, epoll_thread_udp_send, wake_up);
    stop_thread(epoll_tcp_recv, epoll_thread_tcp_recv[0], wake_up);
    stop_thread(epoll_tcp_send, epoll_thread_tcp_send[0], wake_up);
    close_or_print(wake_up);
    return 0;
}

int finalize() {
    close_instances();
    udp_finalize();
    close_listening_sockets();
    free_listening_records();
    heartbeat_token.free();
    return 0;
}

// --- registrations ---------------------------------------------------------------------------------------------

int add_server(unsigned short port) {
    if (int const error = udp_initialize(port); error != 0) {
        return error;
    }
    int const error = request_listen(port);
    if (error != 0) {
        udp_finalize();
    }
    return error;
}

int add_client(unsigned int ip, unsigned short port) {
    trace(here('E', c_file_public), struct_token(), "add client %s", Tesk::INet::str_from_ip(ip));
    Tesk::OS::class_locker const guard(&g_client_lock, nullptr);
    struct_node_addr const destination{ip, port};
    auto const registered = g_remote_server_map.find(destination);
    if (registered != g_remote_server_map.end()) {
        ++registered->second;
        return 0;
    }
    std::map<struct_node_addr, int> count{{destination, 1}}; // before there is a record that nobody would count
    struct_epoll_overlapped_tcp* const rec = new_outgoing(destination);
    if (request_connect(rec) != 0 && !file_outgoing(rec, outgoing_phase::waiting)) {
        delete_overlapped(rec); // booked already (decision 11)
    }
    g_remote_server_map.merge(count);
    return 0;
}

namespace {

/// The send path closes the connection after what is queued; a queue that came to rest is cut off at once.
void close_established(struct_epoll_overlapped_tcp* rec) HOST_REQUIRES(g_client_lock) {
    stamp(rec->send_clock, Tesk::OS::lemon_clock());
    begin_ending(g_outgoing_ending, rec);
    Tesk::OS::class_locker const guard(rec->send_lock, nullptr);
    rec->close_requested = true;
    bool const rests = !rec->send_q.empty() && !rec->send_armed;
    start_or_queue_close_marker(rec);
    if (rests) {
        ::shutdown(rec->fd, SHUT_WR); // decision 6
    }
}

/// The marker waits until the connection is established; an exchange that is sending fails at its next write.
void close_connecting(struct_epoll_overlapped_tcp* rec) HOST_REQUIRES(g_client_lock) {
    stamp(rec->send_clock, Tesk::OS::lemon_clock());
    begin_ending(g_outgoing_ending, rec);
    Tesk::OS::class_locker const guard(rec->send_lock, nullptr);
    rec->close_requested = true;
    rec->sending = true;
    rec->send_ptr = nullptr;
    rec->send_remain = 0;
    rec->send_q.push_back(struct_token());
}

struct_epoll_overlapped_tcp* find_in(connection_map const& registry, struct_node_addr const& destination) {
    auto const entry = registry.find(destination);
    return entry == registry.end() ? nullptr : entry->second;
}

/// Every other live record of a destination: one in the shadow of another, or between two registries just now.
void withdraw_unfiled(struct_node_addr const& destination) HOST_REQUIRES(g_client_lock) {
    for (auto* rec = g_outgoing.first; rec != nullptr; rec = live_list::after(rec)) {
        if (rec->close_requested || !(peer_of(rec) == destination)) {
            continue;
        }
        if (rec->phase == outgoing_phase::established) {
            close_established(rec);
        } else if (rec->phase == outgoing_phase::connecting) {
            close_connecting(rec);
        } else {
            Tesk::OS::class_locker const guard(rec->send_lock, nullptr);
            rec->close_requested = true;
        }
    }
}

/// Closes whatever connection a withdrawn destination has. The answer, if any, is in no registry and to be destroyed.
struct_epoll_overlapped_tcp* withdraw(struct_node_addr const& destination) HOST_REQUIRES(g_client_lock) {
    if (auto* const rec = find_in(g_establish_client_map, destination)) {
        close_established(rec);
    }
    if (auto* const rec = find_in(g_connect_map, destination)) {
        close_connecting(rec);
    }
    auto* waiting = find_in(g_connect_fail_map, destination);
    if (waiting == nullptr) {
        waiting = find_shadowed(outgoing_phase::waiting, destination);
    }
    if (waiting != nullptr) {
        unfile_outgoing(waiting);
        live_list::unlink(waiting);
    }
    withdraw_unfiled(destination);
    return waiting;
}

} // namespace

int del_client(unsigned int ip, unsigned short port) {
    struct_node_addr const destination{ip, port};
    struct_epoll_overlapped_tcp* waiting = nullptr;
    {
        Tesk::OS::class_locker const guard(&g_client_lock, nullptr);
        if (--g_remote_server_map[destination] != 0) {
            return 0;
        }
        g_remote_server_map.erase(destination);
        waiting = withdraw(destination);
    }
    if (waiting != nullptr) {
        delete_overlapped(waiting);
    }
    return 0;
}

// --- sending ---------------------------------------------------------------------------------------------------

namespace {

/// Hands a packet of the Center to the peer's established connection.
int hand_over(struct_tcp_side const& side, struct_node_addr const& peer, struct_token& token, struct_packet* pkt) {
    Tesk::OS::class_locker const registry_guard(side.registry_lock, nullptr);
    struct_epoll_overlapped_tcp* const rec = find_in(*side.established, peer);
    if (rec == nullptr) {
        return -1;
    }
    stamp(rec->send_clock, Tesk::OS::lemon_clock());
    pkt->set_src_port(rec->gate_port);
    trace(side.hand_over_site, token, side.handed_over);
    Tesk::OS::class_locker const guard(rec->send_lock, nullptr);
    if (side.refuses_when_closing && rec->close_requested) {
        return 0;
    }
    bool const is_busy = !rec->send_q.empty();
    if (is_busy && (pkt->*side.dropped_while_busy)()) {
        token.free();
        return 0;
    }
    if (!is_busy && side.keeps_acknowledgements) {
        wait_ack(rec, token, pkt);
    }
    start_or_queue(rec, token, pkt);
    return 0;
}

} // namespace

int send_tcp_server(struct_node_addr peer, struct_token& token, struct_packet* pkt) {
    return hand_over(c_server_side, peer, token, pkt);
}

int send_tcp_client(struct_node_addr peer, struct_token& token, struct_packet* pkt) {
    return hand_over(c_client_side, peer, token, pkt);
}

int send_tcp_broadcast(struct_token& token, struct_packet* pkt) {
    Tesk::OS::class_locker const registry_guard(&g_establish_server_map_lock, nullptr);
    for (auto const& [peer, rec] : g_establish_server_map) {
        struct_token copy;
        copy.alloc_header_force();
        copy.set_data(token);
        struct_packet* const header = copy.get_header_packet();
        *header = *pkt;
        header->set_destination(peer.ip, peer.port, pkt->get_did());
        header->set_src_port(rec->gate_port);
        trace(c_site_broadcast, copy, "tcp broadcast send");
        Tesk::OS::class_locker const guard(rec->send_lock, nullptr);
        try {
            start_or_queue(rec, copy, header);
        } catch (std::bad_alloc const&) {
            copy.free();
            throw;
        }
    }
    return 0;
}

int send_udp(struct_token& token, struct_packet* pkt) {
    // Deliberate: a packet whose time-out has passed is queued all the same.
    pkt->update_packet_time_and_return_timeout();
    auto const entry = g_udp_map.find(pkt->get_dst_port());
    if (entry == g_udp_map.end()) {
        return 0;
    }
    struct_epoll_overlapped_ex* const rec = entry->second;
    Tesk::OS::class_locker const guard(rec->send_lock, nullptr);
    bool const was_idle = rec->send_q.empty();
    rec->send_q.push_back(token);
    int const result = was_idle ? arm(rec, epoll_udp_send, EPOLL_CTL_MOD, c_send_mask) : 0;
    if (result != 0) {
        Tesk::Utility::print_error("epoll.epoll_udp_send 요청 에러\n");
    }
    return result;
}

// --- multicast -------------------------------------------------------------------------------------------------

namespace {

/// Joins or leaves a source-specific group on the socket of a port; prints the text when the kernel refuses.
void change_membership(int option, ::ip_mreq_source const& request, unsigned short port, char const* failure) {
    auto const entry = g_udp_map.find(port);
    if (entry == g_udp_map.end()) {
        return;
    }
    if (::setsockopt(entry->second->fd, IPPROTO_IP, option, &request, sizeof request) != 0) {
        Tesk::Utility::print_error(failure);
    }
}

::ip_mreq_source membership(unsigned long group_ip, unsigned long interface_ip, unsigned long source_ip) {
    ::ip_mreq_source request{};
    request.imr_multiaddr.s_addr = static_cast<in_addr_t>(group_ip);
    request.imr_interface.s_addr = static_cast<in_addr_t>(interface_ip);
    request.imr_sourceaddr.s_addr = static_cast<in_addr_t>(source_ip);
    return request;
}

} // namespace

void add_membership(unsigned long const& group_ip, unsigned long const& interface_ip, unsigned long const& source_ip,
                    unsigned short const& port) {
    change_membership(IP_ADD_SOURCE_MEMBERSHIP, membership(group_ip, interface_ip, source_ip), port, "add_membership");
}

void drop_membership(unsigned long const& group_ip, unsigned long const& interface_ip, unsigned long const& source_ip,
                     unsigned short const& port) {
    change_membership(IP_DROP_SOURCE_MEMBERSHIP, membership(group_ip, interface_ip, source_ip), port,
                      "drop_membership");
}

} // namespace Zolt::Center::INet_Relay
