#include "Center/INet_Relay/EPoll/epoll_tcp_method_client.hpp"

#include "Center/INet_Relay/EPoll/epoll.hpp"
#include "Center/INet_Relay/EPoll/epoll_tcp_method.hpp"
#include "Host/tesk_inet.hpp"
#include "Host/tesk_utility.hpp"

#include <cerrno>
#include <exception>
#include <string>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Zolt::Center::INet_Relay::EPoll {

constinit struct_tcp_side const c_client_side{
    .established = &g_establish_client_map,
    .registry_lock = &g_client_lock,
    .keeps_acknowledgements = false,
    .marker_deletes = false,
    .refuses_when_closing = true,
    .dropped_while_busy = &struct_packet::is_command_udp,
    .request_recv_header = request_recv_client_header,
    .request_recv_data = request_recv_client_data,
    .completed_recv_header = completed_recv_client_header,
    .completed_recv_data = completed_recv_client_data,
    .end = [](struct_epoll_overlapped_tcp* rec) { close_client(rec); },
    .recv_failed = "recv client 에러",
    .arm_header_failed = "epoll_tcp_recv client header MOD 에러\n",
    .arm_data_failed = "epoll_tcp_recv client data MOD 에러\n",
    .arm_exchange_failed = "epoll_tcp_recv client ADD 에러\n",
    .heartbeat_received = "received heart-bit from server",
    .heartbeat_queued = "request send heart-beat to client",
    .shut_down_silent = "tcp client shutdown(%d -%d )  %s",
    .handed_over = "tcp send client",
    .hand_over_site = c_site_hand_over_client,
    .sending_site = c_site_sending_client,
};

// --- connect ---------------------------------------------------------------------------------------------------

namespace {

::sockaddr_in socket_address(std::uint32_t ip, std::uint16_t port) {
    ::sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = ip;
    return address;
}

/// A non-blocking socket, bound where the record was bound before, with its connect under way. Throws the text of the
/// step that failed; errno tells why.
void open_and_connect(struct_epoll_overlapped_tcp* rec) {
    rec->fd = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (rec->fd == -1) {
        throw std::string("소켓 생성 실패");
    }
    keep_from_children(rec->fd);
    Tesk::Utility::fflag_on(rec->fd, O_NONBLOCK);
    // Deliberate: a record that was connected before binds the address and port that it had.
    ::sockaddr_in const local = socket_address(rec->local_ip, rec->local_port);
    if (::bind(rec->fd, reinterpret_cast<::sockaddr const*>(&local), sizeof local) != 0) {
        throw std::string("bind");
    }
    ::sockaddr_in const remote = socket_address(rec->remote_ip, rec->remote_port);
    if (::connect(rec->fd, reinterpret_cast<::sockaddr const*>(&remote), sizeof remote) != 0 && errno != EINPROGRESS) {
        int const error = errno;
        std::string text = "connect err:" + std::to_string(error) + "\n";
        errno = error;
        throw text;
    }
}

/// Closes a socket that no instance knows yet.
void abandon_socket(struct_epoll_overlapped_tcp* rec) {
    if (rec->fd != -1) {
        ::close(rec->fd);
        rec->fd = -1;
    }
}

} // namespace

int request_connect(struct_epoll_overlapped_tcp* rec) {
    Tesk::OS::class_locker const guard(&g_client_lock, nullptr);
    stamp(rec->send_clock, Tesk::OS::lemon_clock());
    trace(here('E', c_file_client), struct_token(), "tcp request connect %s", Tesk::INet::str_from_ip(rec->remote_ip));
    try {
        open_and_connect(rec);
        file_outgoing(rec, outgoing_phase::connecting);
    } catch (std::string const& text) {
        int const error = errno;
        Tesk::Utility::print_error(text.c_str());
        abandon_socket(rec);
        return error;
    } catch (...) {
        abandon_socket(rec);
        throw;
    }
    rec->cancelled = false;
    arm(rec, epoll_tcp_init, EPOLL_CTL_ADD, c_send_mask);
    return 0;
}

int completed_connect(struct_epoll_overlapped_tcp* rec) {
    int result = 0;
    try {
        set_client_option(rec);
        ::epoll_event event{};
        result = ::epoll_ctl(epoll_tcp_init, EPOLL_CTL_DEL, rec->fd, &event);
        if (result != 0) {
            throw std::string("epoll del 에러");
        }
        result = request_send_client_init(rec);
        if (result != 0) {
            throw std::string("request_send_client_init");
        }
        return 0;
    } catch (std::string const& text) {
        Tesk::Utility::print_error(text.c_str());
    }
    failed_connect_init(rec);
    return result;
}

int failed_connect(struct_epoll_overlapped_tcp* rec) {
    {
        Tesk::OS::class_locker const guard(&g_client_lock, nullptr);
        erase_destination(outgoing_phase::connecting, rec);
    }
    return failed_connect_init(rec);
}

int failed_connect_init(struct_epoll_overlapped_tcp* rec) {
    trace(here('E', c_file_client), struct_token(), "tcp init failed %s", Tesk::INet::str_from_ip(rec->remote_ip));
    {
        Tesk::OS::class_locker const guard(&g_client_lock, nullptr);
        close_descriptor(rec);
        // A record that finds its destination booked by another one is one too many (decision 11).
        if (!rec->close_requested && file_outgoing(rec, outgoing_phase::waiting)) {
            return 0;
        }
        unfile_outgoing(rec);
    }
    delete_overlapped(rec);
    return 0;
}

void set_client_option(struct_epoll_overlapped_tcp* rec) {
    trace(here('C', c_file_client), struct_token(), g_client_nagle_off_use ? "client nagle off" : "client nagle on");
    if (g_client_nagle_off_use) {
        switch_nagle_off(rec->fd);
    }
    bound_writes(rec->fd);
    learn_local_address(rec);
    // Deliberate: blocking from here on; every read and write follows an event, one call each.
    Tesk::Utility::fflag_off(rec->fd, O_NONBLOCK);
}

// --- exchange --------------------------------------------------------------------------------------------------

int request_send_client_init(struct_epoll_overlapped_tcp* rec) {
    {
        Tesk::OS::class_locker const guard(rec->send_lock, nullptr);
        prepare_init_block(rec, rec->client_init_header);
    }
    return arm_or_print(rec, epoll_tcp_send, EPOLL_CTL_ADD, c_send_mask, c_text_send_arm_failed);
}

int send_client_init(struct_epoll_overlapped_tcp* rec) {
    int result = 0;
    try {
        long remain = 0;
        {
            // del_client sets the count to 0 while the block is under way (decision 39).
            Tesk::OS::class_locker const guard(rec->send_lock, nullptr);
            remain = send_init_block(rec, rec->client_init_header);
        }
        if (remain < 0) {
            throw std::string("send client init 에러");
        }
        if (remain > 0) {
            return arm_or_print(rec, epoll_tcp_send, EPOLL_CTL_MOD, c_send_mask, c_text_send_arm_failed);
        }
        result = request_recv_client_init(rec);
        if (result == 0) {
            return 0;
        }
        trace(here('E', c_file_client), struct_token(), "fault request_recv_client c_recv_client_init");
        throw std::string("request_recv_client_init");
    } catch (std::string const& text) {
        Tesk::Utility::print_error(text.c_str());
    }
    failed_connect_init(rec);
    return result;
}

int request_recv_client_init(struct_epoll_overlapped_tcp* rec) {
    return request_recv_init(c_client_side, rec);
}

namespace {

/// A connection that was withdrawn while it was being made has its close marker queued, and nothing armed.
void close_if_withdrawn(struct_epoll_overlapped_tcp* rec) {
    Tesk::OS::class_locker const guard(rec->send_lock, nullptr);
    if (!rec->send_q.empty() && !rec->send_armed) {
        arm_send(rec, c_text_send_request_failed);
    }
}

} // namespace

int recv_client_init(struct_epoll_overlapped_tcp* rec) {
    int result = 0;
    try {
        auto const before = static_cast<int>(rec->recv_remain);
        long const got = recv_init_block(rec, rec->server_init_header);
        if (got <= 0) {
            throw std::string("recv client init 에러");
        }
        trace(here('E', c_file_client), struct_token(), c_text_received_piece, static_cast<int>(got), before);
        if (rec->recv_remain != 0) {
            return arm(rec, epoll_tcp_recv, EPOLL_CTL_MOD, c_recv_mask);
        }
        rec->gate_port = rec->server_init_header.get_port_of_receiver();
        rec->kind = c_kind_established_client;
        result = request_recv_client_header(rec);
        if (result != 0) {
            throw std::string("request_recv_client_header");
        }
        result = establish_connect(rec);
        if (result == 0) {
            close_if_withdrawn(rec);
        }
        return result;
    } catch (std::string const& text) {
        Tesk::Utility::print_error(text.c_str());
    }
    rec->kind == c_kind_established_client ? close_client(rec) : failed_connect_init(rec);
    return result;
}

// --- establishment ---------------------------------------------------------------------------------------------

namespace {

// Deliberate: one text for both notices.
constexpr char const* c_text_center_untold = "fault eproc_send_connected_to_server_msg_to_center";

} // namespace

int establish_connect(struct_epoll_overlapped_tcp* rec) {
    {
        Tesk::OS::class_locker const guard(&g_client_lock, nullptr);
        erase_destination(outgoing_phase::connecting, rec);
        file_outgoing(rec, outgoing_phase::established);
    }
    if (eproc_send_connected_to_server_msg_to_center(rec) == 0) {
        return 0;
    }
    Tesk::OS::class_locker const guard(&g_client_lock, nullptr);
    erase_destination(outgoing_phase::established, rec);
    trace(here('E', c_file_client), struct_token(), c_text_center_untold);
    return -1;
}

int unestablish_connect(struct_epoll_overlapped_tcp* rec) {
    {
        Tesk::OS::class_locker const guard(&g_client_lock, nullptr);
        erase_destination(outgoing_phase::established, rec);
    }
    if (eproc_send_disconnected_from_server_msg_to_center(rec) != 0) {
        trace(here('E', c_file_client), struct_token(), c_text_center_untold);
    }
    return 0;
}

// --- teardown --------------------------------------------------------------------------------------------------

namespace {

/// Takes the record out of the registries. True when the Center still counts the connection among the established ones.
bool unfile_and_begin_ending(struct_epoll_overlapped_tcp* rec) HOST_REQUIRES(g_client_lock) {
    bool const was_established = unfile_outgoing(rec);
    begin_ending(g_outgoing_ending, rec);
    take_back_timers_event(rec);
    return was_established;
}

/// Books a fresh record for the destination, unless that was withdrawn. Throws std::bad_alloc.
void rebook(struct_epoll_overlapped_tcp* rec) HOST_REQUIRES(g_client_lock) {
    if (rec->close_requested) {
        return;
    }
    struct_epoll_overlapped_tcp* const fresh = new_outgoing(peer_of(rec));
    if (!file_outgoing(fresh, outgoing_phase::waiting)) {
        delete_overlapped(fresh); // the destination is booked already (decision 11)
    }
}

/// Leaves the record to the send thread when that has an event due, and makes sure that it comes; else destroys it.
int hand_over_or_delete(struct_epoll_overlapped_tcp* rec) {
    {
        Tesk::OS::class_locker const guard(rec->send_lock, nullptr);
        if (rec->send_armed) {
            rec->doomed = true;
            ::shutdown(rec->fd, SHUT_RDWR);
            return 0;
        }
        rec->sending = false;
    }
    return delete_overlapped(rec);
}

} // namespace

int close_client(struct_epoll_overlapped_tcp* rec) {
    bool was_established = false;
    std::exception_ptr failure; // neither the notice nor the record's end depends on the memory for a fresh one
    {
        Tesk::OS::class_locker const guard(&g_client_lock, nullptr);
        was_established = unfile_and_begin_ending(rec);
        try {
            rebook(rec);
        } catch (...) {
            failure = std::current_exception();
        }
    }
    try {
        if (was_established) {
            eproc_send_disconnected_from_server_msg_to_center(rec);
        }
    } catch (...) {
        failure = std::current_exception();
    }
    int const result = hand_over_or_delete(rec);
    if (failure) {
        std::rethrow_exception(failure);
    }
    return result;
}

// --- receive and send, the outgoing side's names ---------------------------------------------------------------

int request_recv_client_header(struct_epoll_overlapped_tcp* rec) {
    return request_recv_header(c_client_side, rec);
}
int request_recv_client_data(struct_epoll_overlapped_tcp* rec) {
    return request_recv_data(c_client_side, rec);
}
int recv_client(struct_epoll_overlapped_tcp* rec) {
    return recv_step(c_client_side, rec);
}
int completed_recv_client_header(struct_epoll_overlapped_tcp* rec) {
    return completed_recv_header(c_client_side, rec);
}
int completed_recv_client_data(struct_epoll_overlapped_tcp* rec) {
    return completed_recv_data(c_client_side, rec);
}
int send_client(struct_epoll_overlapped_tcp* rec) {
    return send_step(c_client_side, rec);
}

} // namespace Zolt::Center::INet_Relay::EPoll
