#include "Center/INet_Relay/EPoll/epoll_udp_method.hpp"

#include "Center/INet_Relay/EPoll/epoll.hpp"
#include "Center/INet_Relay/EPoll/epoll_tcp_method.hpp"
#include "Host/tesk_os.hpp"
#include "Host/tesk_utility.hpp"

#include <cerrno>
#include <limits>
#include <memory>
#include <new>
#include <string>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Zolt::Center::INet_Relay::EPoll {
namespace {

/// A record whose port was filed already (port 0 can be served more than once); only udp_finalize finds it again.
struct struct_unfiled {
    struct_epoll_overlapped_ex* rec;
    struct_unfiled* next;
};
struct_unfiled* g_unfiled = nullptr;

template <typename Value>
void set_option(int fd, int level, int option, Value value, char const* failure) {
    if (::setsockopt(fd, level, option, &value, sizeof value) != 0) {
        throw std::string(failure);
    }
}

/// A bound socket that may broadcast, and hears its own multicast. Throws the text of the step that failed.
void configure(int fd, unsigned short port) {
    if (fd == -1) {
        throw std::string("udp socket 생성 에러");
    }
    keep_from_children(fd);
    ::sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    if (::bind(fd, reinterpret_cast<::sockaddr*>(&address), sizeof address) == -1) {
        throw std::string("udp bind 에러");
    }
    set_option<int>(fd, SOL_SOCKET, SO_BROADCAST, 1, "udp 소켓 broadcast 옵션 변경 err");
    set_option<unsigned char>(fd, IPPROTO_IP, IP_MULTICAST_TTL, 128, "udp 소 IP_MULTICAST_TTL 옵션 변 에러");
    set_option<unsigned char>(fd, IPPROTO_IP, IP_MULTICAST_LOOP, 1, "udp 소 IP_MULTICAST_LOOP 옵션 변 에러");
}

void file(struct_epoll_overlapped_ex* rec) {
    if (!g_udp_map.try_emplace(rec->local_port, rec).second) {
        g_unfiled = new struct_unfiled{rec, g_unfiled};
    }
}

/// The record of a configured socket, filed under its port. Throws std::bad_alloc.
struct_epoll_overlapped_ex* make_record(int fd, unsigned short port) {
    auto fresh = std::make_unique<struct_epoll_overlapped_ex>();
    fresh->fd = fd;
    fresh->kind = c_kind_udp;
    fresh->local_port = port;
    expect_arrivals(fresh.get());
    try {
        file(fresh.get());
    } catch (...) {
        forget_arrivals(fresh.get());
        throw;
    }
    return fresh.release();
}

void destroy(struct_epoll_overlapped_ex* rec) {
    forget_arrivals(rec);
    ::close(rec->fd);
    rec->recv_token.free();
    delete rec;
}

/// The header part that the next datagram is read into, stamped with what does not travel.
struct_packet* prepare_header(struct_epoll_overlapped_ex* rec) {
    if (!rec->recv_token.has_header()) {
        rec->recv_token.alloc_header_force();
    }
    struct_packet* const header = rec->recv_token.get_header_packet();
    header->initialize_packet(0, 0, std::numeric_limits<double>::max());
    header->set_source(0, 0, 0);
    header->set_destination(c_local_host, rec->local_port, 0);
    rec->recv_ptr = header->get_header();
    rec->recv_remain = header->get_header_size();
    return header;
}

/// A data part of the announced size. A host that caps sizes throws; left at the front of the queue, such a datagram
/// would be met again for ever (decision 38).
bool has_room_for(struct_token& token, unsigned int size) {
    try {
        return token.alloc_data(size) == 0;
    } catch (std::bad_alloc const&) {
        return false;
    }
}

/// Room for the data of a datagram whose header was peeked, and the header in front of it. False when there is none.
bool prepare_data(struct_epoll_overlapped_ex* rec, struct_packet& header) {
    if (!has_room_for(rec->recv_token, header.get_data_size())) {
        return false;
    }
    struct_packet* const whole = rec->recv_token.get_data_packet();
    *whole = header;
    rec->recv_ptr = whole->get_header();
    rec->recv_remain = whole->get_packet_size();
    return true;
}

ssize_t read_at_cursor(struct_epoll_overlapped_ex* rec, int flags, ::sockaddr_in& sender) {
    ::socklen_t length = sizeof sender;
    return ::recvfrom(rec->fd, rec->recv_ptr, rec->recv_remain, flags, reinterpret_cast<::sockaddr*>(&sender), &length);
}

/// Takes the datagram at the front of the socket's queue away.
void discard(struct_epoll_overlapped_ex* rec) {
    ::sockaddr_in sender{};
    read_at_cursor(rec, 0, sender);
}

// Deliberate: the text speaks of sending.
constexpr char const* c_text_no_bytes = "send_size!= sent_size";
constexpr char const* c_text_wrong_length = "recd_len!= recv_len";
constexpr char const* c_text_wrong_version = "! p_pkt->is_right_version()";

/// Peeks the header of the next datagram. Throws the text that tells why there is none to go on with; what made it fail
/// is taken off the queue.
void peek_header(struct_epoll_overlapped_ex* rec, struct_packet& header) {
    ::sockaddr_in sender{};
    ssize_t const got = read_at_cursor(rec, MSG_PEEK, sender);
    if (got < 0) {
        note_kept_arrival(rec);
        throw std::string(c_text_no_bytes);
    }
    if (got == 0) {
        // An empty datagram would stay at the front for ever (decision 15).
        discard(rec);
        throw std::string(c_text_no_bytes);
    }
    if (static_cast<unsigned long>(got) != rec->recv_remain) {
        discard(rec);
        throw std::string(c_text_wrong_length);
    }
    if (!header.is_right_version()) {
        discard(rec);
        throw std::string(c_text_wrong_version);
    }
    header.determine_arrival_clock(Tesk::OS::lemon_cpu_clock());
    header.set_src_ip(sender.sin_addr.s_addr);
    header.set_mct_ip(c_local_host);
}

/// Reads the datagram, whole. Throws the text of what is wrong with it.
void read_datagram(struct_epoll_overlapped_ex* rec, struct_packet& header) {
    ::sockaddr_in sender{};
    // With MSG_TRUNC the result is the datagram's own length, so that one with more than its header says is noticed
    // (decision 16).
    ssize_t const got = read_at_cursor(rec, MSG_TRUNC, sender);
    if (got <= 0) {
        note_kept_arrival(rec);
        throw std::string(c_text_no_bytes);
    }
    if (static_cast<unsigned long>(got) != rec->recv_remain) {
        throw std::string(c_text_wrong_length);
    }
    if (!header.is_right_version()) {
        throw std::string(c_text_wrong_version);
    }
}

/// The packet at the front of the queue, taken off it. Throws the text for an empty queue.
struct_token take_front(struct_epoll_overlapped_ex* rec) {
    Tesk::OS::class_locker const guard(rec->send_lock, nullptr);
    if (rec->send_q.empty()) {
        throw std::string("send_queue.empty()");
    }
    struct_token const token = rec->send_q.front();
    rec->send_q.pop_front();
    return token;
}

ssize_t send_datagram(struct_epoll_overlapped_ex* rec, struct_token& token) {
    struct_packet* header = token.get_header_packet();
    unsigned int size = header->get_header_size();
    if (token.has_data()) {
        struct_packet* const whole = token.get_data_packet();
        *whole = *header;
        header = whole;
        size = whole->get_packet_size();
    }
    // Deliberate: the same port number on the other node; the packet's destination port only chose the socket.
    ::sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(rec->local_port);
    to.sin_addr.s_addr = header->get_dst_ip();
    return ::sendto(rec->fd, header->get_header(), size, 0, reinterpret_cast<::sockaddr*>(&to), sizeof to);
}

} // namespace

int udp_initialize(unsigned short port) {
    int const fd = ::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    struct_epoll_overlapped_ex* rec = nullptr;
    try {
        configure(fd, port);
        rec = make_record(fd, port);
    } catch (std::string const& text) {
        int const error = errno;
        Tesk::Utility::print_error(text.c_str());
        if (fd != -1) {
            ::close(fd);
        }
        return error;
    } catch (...) {
        ::close(fd);
        throw;
    }
    arm(rec, epoll_udp_recv, EPOLL_CTL_ADD, c_arrival_mask);
    return arm(rec, epoll_udp_send, EPOLL_CTL_ADD, c_udp_send_idle_mask);
}

int udp_finalize() {
    while (!g_udp_map.empty()) {
        destroy(g_udp_map.begin()->second);
        g_udp_map.erase(g_udp_map.begin());
    }
    while (g_unfiled != nullptr) {
        std::unique_ptr<struct_unfiled> const unfiled(g_unfiled);
        g_unfiled = unfiled->next;
        destroy(unfiled->rec);
    }
    return 0;
}

void set_multicast_if(unsigned long const& interface_ip, unsigned short const& port) {
    auto const entry = g_udp_map.find(port);
    if (entry == g_udp_map.end()) {
        return;
    }
    ::in_addr const chosen{static_cast<in_addr_t>(interface_ip)};
    if (::setsockopt(entry->second->fd, IPPROTO_IP, IP_MULTICAST_IF, &chosen, sizeof chosen) != 0) {
        Tesk::Utility::print_error("IP_MULTICAST_IF");
    }
}

int recv_udp(struct_epoll_overlapped_ex* rec) {
    struct_packet* const header = prepare_header(rec);
    try {
        peek_header(rec, *header);
        if (header->get_data_size() != 0 && !prepare_data(rec, *header)) {
            discard(rec);
            note_dropped_arrival(rec);
            return 0;
        }
        read_datagram(rec, *header);
    } catch (std::string const& text) {
        Tesk::Utility::print_error(text.c_str());
        // The next packet must not carry this one's data (decision 17).
        rec->recv_token.free_data();
        note_dropped_arrival(rec);
        return -1;
    }
    send_center_from_udp(rec->recv_token, header);
    rec->recv_token.reset();
    return arm(rec, epoll_udp_recv, EPOLL_CTL_MOD, c_arrival_mask);
}

int send_udp(struct_epoll_overlapped_ex* rec) {
    struct_token token;
    try {
        token = take_front(rec);
    } catch (std::string const& text) {
        Tesk::Utility::print_error(text.c_str());
        return -1;
    }
    struct_packet* const header = token.get_header_packet();
    // Deliberate: a packet whose time-out has passed is sent all the same.
    header->update_packet_time_and_return_timeout();
    if (header->is_information_udp()) {
        set_multicast_if(header->get_mct_ip(), rec->local_port);
    }
    ssize_t const sent = send_datagram(rec, token);
    token.free();
    if (sent <= 0) {
        Tesk::Utility::print_error("sent err : ");
    }
    Tesk::OS::class_locker const guard(rec->send_lock, nullptr);
    if (!rec->send_q.empty()) {
        arm(rec, epoll_udp_send, EPOLL_CTL_MOD, c_send_mask);
    }
    return 0;
}

} // namespace Zolt::Center::INet_Relay::EPoll
