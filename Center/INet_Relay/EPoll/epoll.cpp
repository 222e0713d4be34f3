#include "Center/INet_Relay/EPoll/epoll.hpp"

#include "Center/INet_Relay/EPoll/epoll_tcp_method.hpp"
#include "Center/INet_Relay/EPoll/epoll_tcp_method_client.hpp"
#include "Center/INet_Relay/EPoll/epoll_trace.hpp"
#include "Host/tesk_inet.hpp"
#include "Host/tesk_os.hpp"

#include <memory>
#include <new>
#include <utility>
#include <vector>

#include <sys/socket.h>

namespace Zolt::Center::INet_Relay::EPoll {

// Construction order of the engine. Later objects are destroyed first at unload.
std::map<unsigned short, int> g_server_map;
Tesk::OS::class_thread epoll_thread_udp_recv;
Tesk::OS::class_thread epoll_thread_udp_send;
Tesk::OS::class_thread epoll_thread_tcp_init;
Tesk::OS::class_thread epoll_thread_tcp_recv[c_thread_slots];
Tesk::OS::class_thread epoll_thread_tcp_send[c_thread_slots];
std::map<unsigned short, struct_epoll_overlapped_ex*> g_udp_map;
connection_map g_connect_map;
connection_map g_connect_fail_map;
connection_map g_establish_client_map;
Tesk::OS::class_thread_lock g_client_lock{0};
connection_map g_establish_server_map;
Tesk::OS::class_thread_lock g_establish_server_map_lock{0};
std::map<struct_node_addr, int> g_remote_server_map;
Tesk::OS::class_timer inet_timer;
struct_token heartbeat_token;

// Zero or constant from the first instruction on; no construction.
struct_packet* heartbeat_pkt = nullptr;
constinit live_list g_outgoing;
constinit ending_list g_outgoing_ending;
int g_outgoing_shadowed = 0;
constinit live_list g_accepted_exchanging;
struct_arrivals* g_arrivals = nullptr;
constinit live_list g_accepted_unfiled;
constinit ending_list g_accepted_ending;

int epoll_tcp_init = 0;
int epoll_tcp_recv = 0;
int epoll_tcp_send = 0;
int epoll_udp_recv = 0;
int epoll_udp_send = 0;

bool g_auto_disconnect = false;
bool g_server_socket_reuse = true;
int g_listen_backlog = 5;
bool g_server_linger_use = false;
int g_server_linger_time = 0;
bool g_server_nagle_off_use = false;
bool g_client_linger_use = false;
int g_client_linger_time = 0;
bool g_client_nagle_off_use = false;

namespace {

bool is_overdue(std::uint64_t since, std::uint64_t now) {
    return now > since + c_connection_timeout;
}

/// Heartbeats for those who were heard from; the others are the answer, when silence ends a connection at all.
std::vector<struct_epoll_overlapped_tcp*> beat_and_find_silent(struct_tcp_side const& side, std::uint64_t now) {
    std::vector<struct_epoll_overlapped_tcp*> silent;
    for (auto const& [peer, rec] : *side.established) {
        if (!is_overdue(clock_of(rec->recv_clock), now)) {
            stamp(rec->send_clock, now);
            trace(here('E', c_file_timer), struct_token(), side.heartbeat_queued);
            request_send_hearbeat(rec);
        } else if (g_auto_disconnect) {
            silent.push_back(rec);
        }
    }
    return silent;
}

void shut_down_silent(struct_tcp_side const& side, struct_epoll_overlapped_tcp* rec, std::uint64_t now) {
    trace(here('E', c_file_timer), struct_token(), side.shut_down_silent, static_cast<int>(now),
          static_cast<int>(clock_of(rec->recv_clock)), Tesk::INet::str_from_ip(rec->remote_ip));
    if (rec->fd == -1) {
        return;
    }
    ::shutdown(rec->fd, SHUT_RDWR);
    // A receive registration that has fired and was never armed again reports nothing by itself (decision 36).
    if (rec->silence == timer_silence::none) {
        rec->silence = timer_silence::shut_down;
        return;
    }
    rec->silence = timer_silence::armed;
    arm(rec, epoll_tcp_recv, EPOLL_CTL_MOD, c_recv_mask);
}

/// Cuts what stands longer than the time-out in a list of those that should be gone.
template <typename List>
void cut_overdue(List const& list, std::uint64_t now) {
    for (auto* rec = list.first; rec != nullptr; rec = List::after(rec)) {
        // Modulo 2 to the 32nd, for no record stands here for weeks; one that came after now was read stands less than 0.
        auto const stands = static_cast<std::int32_t>(static_cast<std::uint32_t>(now) - rec->reap_clock);
        if (rec->fd != -1 && stands > static_cast<std::int32_t>(c_connection_timeout)) {
            ::shutdown(rec->fd, SHUT_RDWR);
        }
    }
}

/// Takes what waits for an acknowledgement off a record; the error replies that are due go to the end of replies.
void drain_acknowledgements(struct_epoll_overlapped_tcp* rec, std::vector<struct_token>& replies) {
    // A packet on its way out shares its header with the entry here.
    Tesk::OS::class_locker const send_guard(rec->send_lock, nullptr);
    for (;;) {
        Tesk::OS::class_locker const ack_guard(rec->ack_lock, nullptr);
        if (rec->ack_q.empty()) {
            return;
        }
        if (replies.size() == replies.capacity()) {
            replies.reserve(2 * replies.size() + 1); // before there is a reply that could be lost
        }
        struct_token reply;
        if (return_as_error(rec->ack_q.front(), c_zolt_err_disconnected_tcp, reply)) {
            replies.push_back(reply);
        }
        rec->ack_q.front().free_header();
        rec->ack_q.pop_front();
    }
}

} // namespace

void expect_arrivals(struct_epoll_overlapped* record) {
    g_arrivals = new struct_arrivals{record, g_arrivals};
}

void forget_arrivals(struct_epoll_overlapped* record) {
    for (struct_arrivals** place = &g_arrivals; *place != nullptr; place = &(*place)->next) {
        if ((*place)->record == record) {
            std::unique_ptr<struct_arrivals> const taken(*place);
            *place = taken->next;
            return;
        }
    }
}

namespace {

struct_arrivals* find_arrivals(struct_epoll_overlapped const* record) {
    auto* arrivals = g_arrivals;
    while (arrivals != nullptr && arrivals->record != record) {
        arrivals = arrivals->next;
    }
    return arrivals;
}

} // namespace

void note_kept_arrival(struct_epoll_overlapped const* record) {
    if (auto* const arrivals = find_arrivals(record); arrivals != nullptr) {
        arrivals->look_again.store(c_arrival_mask, std::memory_order_relaxed);
    }
}

void note_dropped_arrival(struct_epoll_overlapped const* record) {
    if (auto* const arrivals = find_arrivals(record); arrivals != nullptr) {
        std::uint32_t none = 0;
        arrivals->look_again.compare_exchange_strong(none, c_drain_mask, std::memory_order_relaxed);
    }
}

void timer_inet(Tesk::OS::class_timer*) {
    std::uint64_t const now = Tesk::OS::lemon_clock();
    timer_cancel_connect(now);
    timer_shutdown_server(now);
    timer_shutdown_client(now);
    timer_reconnect_client();
    timer_look_again();
}

void timer_cancel_connect(std::uint64_t now) {
    Tesk::OS::class_locker const guard(&g_client_lock, nullptr);
    for (auto const& [destination, rec] : g_connect_map) {
        if (rec->fd == -1 || !is_overdue(clock_of(rec->send_clock), now)) {
            continue;
        }
        ::shutdown(rec->fd, SHUT_RDWR);
        // The event of a second cancellation would come with EPOLLIN, in a mask that the set-up thread ignores
        // (decision 37).
        std::uint32_t const mask = rec->cancelled ? c_send_mask : c_cancel_mask;
        rec->cancelled = true;
        arm(rec, epoll_tcp_init, EPOLL_CTL_MOD, mask);
    }
}

namespace {

void shut_down_accepted(std::uint64_t now, std::vector<struct_token>& replies) {
    Tesk::OS::class_locker const guard(&g_establish_server_map_lock, nullptr);
    for (auto* rec : beat_and_find_silent(c_server_side, now)) {
        shut_down_silent(c_server_side, rec, now);
        drain_acknowledgements(rec, replies);
    }
    cut_overdue(g_accepted_exchanging, now);
    cut_overdue(g_accepted_ending, now);
}

void offer_all(std::vector<struct_token>& replies) {
    for (struct_token& reply : replies) {
        send_center(reply, reply.get_header_packet());
    }
}

} // namespace

void timer_shutdown_server(std::uint64_t now) {
    std::vector<struct_token> replies;
    try {
        shut_down_accepted(now, replies);
    } catch (...) {
        offer_all(replies);
        throw;
    }
    offer_all(replies);
}

void timer_shutdown_client(std::uint64_t now) {
    Tesk::OS::class_locker const guard(&g_client_lock, nullptr);
    for (auto* rec : beat_and_find_silent(c_client_side, now)) {
        shut_down_silent(c_client_side, rec, now);
    }
    cut_overdue(g_outgoing_ending, now);
}

void timer_reconnect_client() {
    Tesk::OS::class_locker const guard(&g_client_lock, nullptr);
    file_shadowed();
    connection_map still_failed;
    try {
        while (!g_connect_fail_map.empty()) {
            auto const entry = g_connect_fail_map.begin();
            struct_epoll_overlapped_tcp* const rec = entry->second;
            trace(here('E', c_file_timer), struct_token(), "reconnect faults %s",
                  Tesk::INet::str_from_ip(rec->remote_ip));
            if (request_connect(rec) == 0) {
                g_connect_fail_map.erase(entry);
                continue;
            }
            auto booked = g_connect_fail_map.extract(entry);
            booked.key() = peer_of(rec);
            still_failed.insert(std::move(booked));
        }
    } catch (...) {
        g_connect_fail_map.merge(still_failed);
        throw;
    }
    g_connect_fail_map.swap(still_failed);
}

void timer_look_again() {
    for (auto* arrivals = g_arrivals; arrivals != nullptr; arrivals = arrivals->next) {
        if (std::uint32_t const mask = arrivals->look_again.exchange(0, std::memory_order_relaxed); mask != 0) {
            auto* const record = arrivals->record;
            arm(record, record->kind == c_kind_listen ? epoll_tcp_init : epoll_udp_recv, EPOLL_CTL_MOD, mask);
        }
    }
}

int request_send_hearbeat(struct_epoll_overlapped_tcp* rec) {
    // Deliberate: counted for a look with a debugger; nothing reads it, and only the timer's thread comes here.
    [[gnu::used]] static unsigned int cnt = 0;
    ++cnt;
    Tesk::OS::class_locker const guard(rec->send_lock, nullptr);
    if (rec->close_requested) {
        return 0;
    }
    heartbeat_token.ref_header();
    try {
        start_or_queue(rec, heartbeat_token, heartbeat_pkt);
    } catch (std::bad_alloc const&) {
        heartbeat_token.free_header();
        throw;
    }
    return 0;
}

} // namespace Zolt::Center::INet_Relay::EPoll
