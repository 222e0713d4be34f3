#include "Reference_Center/socket_list.hpp"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Zolt::Reference_Center {
namespace {

constexpr std::size_t c_answer_room = 32768;

class diagnosis_channel {
public:
    diagnosis_channel() : fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)) {}
    ~diagnosis_channel() {
        if (fd != -1) {
            ::close(fd);
        }
    }
    diagnosis_channel(diagnosis_channel const&) = delete;
    diagnosis_channel& operator=(diagnosis_channel const&) = delete;

    bool ask(int family) const {
        struct {
            nlmsghdr head;
            inet_diag_req_v2 body;
        } request{};
        request.head.nlmsg_len = sizeof request;
        request.head.nlmsg_type = SOCK_DIAG_BY_FAMILY;
        request.head.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
        request.body.sdiag_family = static_cast<std::uint8_t>(family);
        request.body.sdiag_protocol = IPPROTO_TCP;
        request.body.idiag_states = ~0U;
        return ::send(fd, &request, sizeof request, 0) == static_cast<ssize_t>(sizeof request);
    }

    /// The length of the next answer; 0 when there is none.
    std::size_t read(std::array<char, c_answer_room>& answer) const {
        for (;;) {
            ssize_t const size = ::recv(fd, answer.data(), answer.size(), 0);
            if (size >= 0 || errno != EINTR) {
                return size > 0 ? static_cast<std::size_t>(size) : 0;
            }
        }
    }

private:
    int const fd;
};

/// An address of IPv4, also as IPv6 has it within its own.
std::uint32_t read_address(int family, __be32 const (&words)[4]) {
    bool const is_mapped = words[0] == 0 && words[1] == 0 && words[2] == htonl(0xFFFF);
    return family == AF_INET ? words[0] : (is_mapped ? words[3] : 0);
}

listed_socket read_socket(inet_diag_msg const& row) {
    listed_socket here;
    here.state = static_cast<tcp_state>(row.idiag_state);
    here.local = {read_address(row.idiag_family, row.id.idiag_src), ntohs(row.id.idiag_sport)};
    here.remote = {read_address(row.idiag_family, row.id.idiag_dst), ntohs(row.id.idiag_dport)};
    here.waiting_in = row.idiag_rqueue;
    here.waiting_out = row.idiag_wqueue;
    here.timer = static_cast<tcp_timer>(row.idiag_timer);
    here.attempts = row.idiag_retrans;
    here.timer_left = std::chrono::milliseconds(row.idiag_expires);
    here.inode = row.idiag_inode;
    return here;
}

/// What one answer brings.
enum class answer_end { more, done, refused };

answer_end read_answer(char const* text, std::size_t size, std::vector<listed_socket>& sockets) {
    while (size >= sizeof(nlmsghdr)) {
        nlmsghdr head{};
        std::memcpy(&head, text, sizeof head);
        if (head.nlmsg_type == NLMSG_DONE) {
            return answer_end::done;
        }
        bool const is_row = head.nlmsg_type == SOCK_DIAG_BY_FAMILY &&
                            head.nlmsg_len >= NLMSG_LENGTH(sizeof(inet_diag_msg)) && head.nlmsg_len <= size;
        if (!is_row) {
            return answer_end::refused;
        }
        inet_diag_msg row{};
        std::memcpy(&row, text + NLMSG_HDRLEN, sizeof row);
        sockets.push_back(read_socket(row));
        std::size_t const step = NLMSG_ALIGN(head.nlmsg_len);
        text += step;
        size -= step < size ? step : size;
    }
    return answer_end::more;
}

bool list_family(diagnosis_channel const& channel, int family, std::vector<listed_socket>& sockets) {
    if (!channel.ask(family)) {
        return false;
    }
    std::array<char, c_answer_room> answer;
    for (;;) {
        std::size_t const size = channel.read(answer);
        answer_end const end = size == 0 ? answer_end::refused : read_answer(answer.data(), size, sockets);
        if (end != answer_end::more) {
            return end == answer_end::done;
        }
    }
}

} // namespace

std::optional<std::vector<listed_socket>> list_tcp_sockets() {
    diagnosis_channel const channel;
    std::vector<listed_socket> sockets;
    if (!list_family(channel, AF_INET, sockets)) {
        return std::nullopt;
    }
    // Without IPv6 there are just fewer.
    list_family(channel, AF_INET6, sockets);
    return sockets;
}

} // namespace Zolt::Reference_Center
