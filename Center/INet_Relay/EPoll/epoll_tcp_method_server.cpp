#include "Center/INet_Relay/EPoll/epoll_tcp_method_server.hpp"

#include "Center/INet_Relay/EPoll/epoll.hpp"
#include "Center/INet_Relay/EPoll/epoll_tcp_method.hpp"
#include "Host/tesk_utility.hpp"

#include <cerrno>
#include <memory>
#include <new>
#include <string>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Zolt::Center::INet_Relay::EPoll {

constinit struct_tcp_side const c_server_side{
    .established = &g_establish_server_map,
    .registry_lock = &g_establish_server_map_lock,
    .keeps_acknowledgements = true,
    .marker_deletes = true,
    .refuses_when_closing = false,
    .dropped_while_busy = &struct_packet::is_information_udp,
    .request_recv_header = request_recv_server_header,
    .request_recv_data = request_recv_server_data,
    .completed_recv_header = completed_recv_server_header,
    .completed_recv_data = completed_recv_server_data,
    .end = shutdown_server,
    .recv_failed = "recv server 에러",
    .arm_header_failed = "epoll_tcp_recv server header MOD 에러\n",
    .arm_data_failed = "epoll_tcp_recv server data MOD 에러\n",
    .arm_exchange_failed = "epoll_tcp_recv server ADD 에러\n",
    .heartbeat_received = "received heart-bit from client",
    .heartbeat_queued = "request send heart-beat to server",
    .shut_down_silent = "tcp server shutdown(%d -%d )  %s",
    .handed_over = "tcp send server",
    .hand_over_site = c_site_hand_over_server,
    .sending_site = c_site_sending_server,
};

// --- listening -------------------------------------------------------------------------------------------------

namespace {

/// A listening socket's record. Deliberate: it outlives its port; an event of it may be on its way as long as threads run.
struct struct_listening {
    struct_epoll_overlapped record;
    struct_listening* next;
};
struct_listening* g_listening = nullptr;

struct_epoll_overlapped* new_listening(int fd, unsigned short port) {
    g_listening = new struct_listening{{}, g_listening};
    struct_epoll_overlapped& record = g_listening->record;
    record.fd = fd;
    record.kind = c_kind_listen;
    record.local_port = port;
    return &record;
}

void alert_port_taken(unsigned short port) {
    std::string const text =
        "이미 다른 프로그램에서 " + std::to_string(port) + " 포트(도메인 포트)를 사용하고 있습니다.";
    Tesk::Utility::alert(text.c_str(), "Zolt Error");
}

/// Gives the socket the port on all addresses and makes it listen. Throws the text of the step that failed; errno tells why.
void bind_and_listen(int fd, unsigned short port) {
    if (fd == -1) {
        throw std::string("소켓 생성 실패");
    }
    keep_from_children(fd);
    Tesk::Utility::fflag_on(fd, O_NONBLOCK);
    ::sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    if (::bind(fd, reinterpret_cast<::sockaddr*>(&address), sizeof address) == -1) {
        int const error = errno;
        alert_port_taken(port);
        // What errno says after the alert is the result; a host that leaves it 0 has hidden the cause (decision 19).
        if (errno == 0) {
            errno = error;
        }
        throw std::string("바인딩 실패");
    }
    ::listen(fd, g_listen_backlog);
}

} // namespace

int request_listen(unsigned short port) {
    int& fd = g_server_map[port];
    fd = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    try {
        bind_and_listen(fd, port);
    } catch (std::string const& text) {
        int const error = errno;
        Tesk::Utility::print_error(text.c_str());
        if (fd != -1) {
            ::close(fd);
            fd = -1;
        }
        return error;
    }
    struct_epoll_overlapped* const listening = new_listening(fd, port);
    expect_arrivals(listening);
    return arm(listening, epoll_tcp_init, EPOLL_CTL_ADD, c_arrival_mask);
}

void free_listening_records() {
    while (g_listening != nullptr) {
        std::unique_ptr<struct_listening> const listening(g_listening);
        g_listening = listening->next;
        forget_arrivals(&listening->record);
    }
}

// --- acceptance ------------------------------------------------------------------------------------------------

namespace {

/// The record of a connection that was just taken, listed until its exchange ends. Throws std::bad_alloc.
struct_epoll_overlapped_tcp* new_accepted(int fd, struct_epoll_overlapped const& listening, ::sockaddr_in const& peer) {
    auto* const rec = new struct_epoll_overlapped_tcp;
    rec->fd = fd;
    rec->kind = c_kind_accepted;
    rec->local_ip = listening.local_ip;
    rec->local_port = listening.local_port;
    rec->remote_ip = peer.sin_addr.s_addr;
    rec->remote_port = ntohs(peer.sin_port);
    rec->reap_clock = static_cast<std::uint32_t>(Tesk::OS::lemon_clock());
    Tesk::OS::class_locker const guard(&g_establish_server_map_lock, nullptr);
    g_accepted_exchanging.link(rec);
    return rec;
}

} // namespace

int accept(struct_epoll_overlapped* listening) {
    ::sockaddr_in peer{};
    ::socklen_t length = sizeof peer;
    int const fd = ::accept(listening->fd, reinterpret_cast<::sockaddr*>(&peer), &length);
    if (fd == -1) {
        Tesk::Utility::print_error("소켓 엑셉트 실패");
        note_kept_arrival(listening);
        return -1;
    }
    keep_from_children(fd);
    // Deliberate: blocking; every read and write follows an event, one call each.
    Tesk::Utility::fflag_off(fd, O_NONBLOCK);
    struct_epoll_overlapped_tcp* rec = nullptr;
    try {
        rec = new_accepted(fd, *listening, peer);
    } catch (...) {
        ::close(fd);
        note_kept_arrival(listening);
        throw;
    }
    set_server_option(rec);
    request_recv_server_init(rec);
    return 0;
}

void set_server_option(struct_epoll_overlapped_tcp* rec) {
    trace(c_site_server_nagle, struct_token(), g_server_nagle_off_use ? "server nagle off" : "server nagle on");
    if (g_server_nagle_off_use) {
        switch_nagle_off(rec->fd);
    }
    bound_writes(rec->fd);
    learn_local_address(rec);
}

// --- exchange --------------------------------------------------------------------------------------------------

int request_recv_server_init(struct_epoll_overlapped_tcp* rec) {
    return request_recv_init(c_server_side, rec);
}

int recv_server_init(struct_epoll_overlapped_tcp* rec) {
    try {
        if (recv_init_block(rec, rec->client_init_header) <= 0) {
            throw std::string("recv server init 에러");
        }
        if (rec->recv_remain == 0) {
            rec->gate_port = rec->client_init_header.get_port_of_receiver();
            return request_send_server_init(rec);
        }
        if (arm(rec, epoll_tcp_recv, EPOLL_CTL_MOD, c_recv_mask) != 0) {
            // Deliberate: not a std::string; the thread notes it and goes on.
            throw "epoll.in 등록 에러\n";
        }
        return 0;
    } catch (std::string const& text) {
        Tesk::Utility::print_error(text.c_str());
    }
    if (delete_overlapped(rec) != 0) {
        Tesk::Utility::print_error("delete_overlapped");
    }
    return 0;
}

int request_send_server_init(struct_epoll_overlapped_tcp* rec) {
    prepare_init_block(rec, rec->server_init_header);
    return arm_or_print(rec, epoll_tcp_send, EPOLL_CTL_ADD, c_send_mask, c_text_send_arm_failed);
}

int send_server_init(struct_epoll_overlapped_tcp* rec) {
    try {
        long const remain = send_init_block(rec, rec->server_init_header);
        if (remain < 0) {
            throw std::string("send server init 에러");
        }
        if (remain > 0) {
            return arm_or_print(rec, epoll_tcp_send, EPOLL_CTL_MOD, c_send_mask, c_text_send_arm_failed);
        }
        rec->kind = c_kind_established_server;
        // Deliberate: the connection goes on although the Center could not be told; it cannot be addressed then.
        establish_accept(rec);
        return request_recv_server_header(rec);
    } catch (std::string const& text) {
        Tesk::Utility::print_error(text.c_str());
    }
    delete_overlapped(rec);
    return 0;
}

int failed_server_init(struct_epoll_overlapped_tcp* rec) {
    return delete_overlapped(rec);
}

// --- establishment ---------------------------------------------------------------------------------------------

int establish_accept(struct_epoll_overlapped_tcp* rec) {
    {
        Tesk::OS::class_locker const guard(&g_establish_server_map_lock, nullptr);
        bool is_filed = false;
        try {
            is_filed = g_establish_server_map.try_emplace(peer_of(rec), rec).second;
        } catch (std::bad_alloc const&) {
            throw std::string("no memory"); // ends the record like any other failure; short, so that it needs none
        }
        live_list::unlink(rec);
        if (!is_filed) {
            g_accepted_unfiled.link(rec);
        }
    }
    if (eproc_send_connected_from_client_msg_to_center(rec) == 0) {
        return 0;
    }
    Tesk::OS::class_locker const guard(&g_establish_server_map_lock, nullptr);
    // Deliberate: by key, whichever record is filed.
    g_establish_server_map.erase(peer_of(rec));
    trace(c_site_server_untold, struct_token(), "fault eproc_send_connected_from_client_msg_to_center");
    return -1;
}

int unestablish_accept(struct_epoll_overlapped_tcp* rec) {
    {
        Tesk::OS::class_locker const guard(&g_establish_server_map_lock, nullptr);
        // Deliberate: by key, whichever record is filed.
        g_establish_server_map.erase(peer_of(rec));
    }
    if (eproc_send_disconnected_from_client_msg_to_center(rec) == 0) {
        return 0;
    }
    // Deliberate: the text names another notice.
    return trace(c_site_server_unheard, struct_token(), "fault eproc_send_connected_to_client_msg_to_center");
}

// --- teardown --------------------------------------------------------------------------------------------------

namespace {

/// Queues the marker and leaves the record to the send thread; arms it also for a queue that came to rest.
/// False when it cannot be armed: the record is still the caller's.
bool leave_to_send_thread(struct_epoll_overlapped_tcp* rec) {
    Tesk::OS::class_locker const guard(rec->send_lock, nullptr);
    bool const was_idle = rec->send_q.empty();
    start_or_queue_close_marker(rec);
    rec->doomed = true;
    if (!rec->send_armed && !was_idle) {
        arm_send(rec, c_text_send_request_failed);
    }
    if (rec->send_armed) {
        return true;
    }
    rec->sending = false;
    return false;
}

/// The record's end, whether or not the Center could be told.
void end_accepted(struct_epoll_overlapped_tcp* rec) {
    {
        Tesk::OS::class_locker const guard(&g_establish_server_map_lock, nullptr);
        begin_ending(g_accepted_ending, rec);
        take_back_timers_event(rec);
    }
    if (!leave_to_send_thread(rec)) {
        delete_overlapped(rec);
    }
}

} // namespace

void shutdown_server(struct_epoll_overlapped_tcp* rec) {
    try {
        unestablish_accept(rec);
    } catch (...) {
        end_accepted(rec);
        throw;
    }
    end_accepted(rec);
}

// --- receive and send, the accepting side's names --------------------------------------------------------------

int request_recv_server_header(struct_epoll_overlapped_tcp* rec) {
    return request_recv_header(c_server_side, rec);
}
int request_recv_server_data(struct_epoll_overlapped_tcp* rec) {
    return request_recv_data(c_server_side, rec);
}
int recv_server(struct_epoll_overlapped_tcp* rec) {
    return recv_step(c_server_side, rec);
}
int completed_recv_server_header(struct_epoll_overlapped_tcp* rec) {
    return completed_recv_header(c_server_side, rec);
}
int completed_recv_server_data(struct_epoll_overlapped_tcp* rec) {
    return completed_recv_data(c_server_side, rec);
}
int send_server(struct_epoll_overlapped_tcp* rec) {
    return send_step(c_server_side, rec);
}

} // namespace Zolt::Center::INet_Relay::EPoll
