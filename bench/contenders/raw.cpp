// Bare blocking sockets: one call writes a packet, one call reads it. With several connections an epoll instance tells
// which to read.
#include "bench/contender.hpp"
#include "bench/support/packet_bytes.hpp"
#include "bench/support/sockets.hpp"

#include <cerrno>
#include <vector>

#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace relay_bench {
namespace {

class raw final : public contender {
public:
    raw(run_plan const& plan, packet_user& of)
        : user(of), expected(plan.connections), outgoing(make_packet_bytes(plan.size)), incoming(outgoing.size()),
          instance(::epoll_create1(0)) {
        must(instance != -1, "epoll_create1");
    }

    ~raw() override {
        for (int const fd : streams) {
            ::close(fd);
        }
        if (listener != -1) {
            ::close(listener);
        }
        ::close(instance);
    }

    std::uint16_t listen() override {
        listener = listen_anywhere();
        watch(listener);
        return local_port(listener);
    }

    void connect(std::uint16_t port) override {
        int const fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        must(fd != -1, "socket");
        sockaddr_in const address = socket_address(loopback_address(count_streams()), port);
        must(::connect(fd, plain(address), sizeof address) == 0, "connect");
        unsigned char welcome = 0;
        must(::recv(fd, &welcome, sizeof welcome, 0) == sizeof welcome, "recv");
        add_stream(fd);
    }

    unsigned int accepted() override { return listener == -1 ? 0 : count_streams(); }

    void open_datagrams(datagram_path const& path) override {
        int const fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        must(fd != -1, "socket");
        sockaddr_in const local = socket_address(path.local_ip, path.port);
        must(::bind(fd, plain(local), sizeof local) == 0, "bind");
        sockaddr_in const remote = socket_address(path.remote_ip, path.port);
        must(::connect(fd, plain(remote), sizeof remote) == 0, "connect");
        bound_reads(fd);
        streams.push_back(fd);
    }

    void send(unsigned int connection) override { write_packet(streams[connection]); }
    void answer(origin to) override { write_packet(static_cast<int>(to)); }

    void broadcast() override {
        for (int const fd : streams) {
            write_packet(fd);
        }
    }

    void serve_until(std::function<bool()> const& done) override {
        while (!done()) {
            if (expected == 1 && streams.size() == 1) {
                read_packet(streams.front());
            } else {
                serve_one_event();
            }
        }
    }

    char const* delivers_on() const override { return "the process's only thread"; }

private:
    unsigned int count_streams() const { return static_cast<unsigned int>(streams.size()); }

    void watch(int fd) const {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = fd;
        must(::epoll_ctl(instance, EPOLL_CTL_ADD, fd, &event) == 0, "epoll_ctl");
    }

    static void bound_reads(int fd) {
        set_option(fd, SOL_SOCKET, SO_RCVTIMEO, timeval{0, c_look_around * 1000}, "SO_RCVTIMEO");
    }

    void add_stream(int fd) {
        set_option(fd, IPPROTO_TCP, TCP_NODELAY, 1, "TCP_NODELAY");
        bound_reads(fd);
        watch(fd);
        streams.push_back(fd);
    }

    void write_packet(int fd) const {
        for (std::size_t written = 0; written < outgoing.size();) {
            ssize_t const count = ::send(fd, outgoing.data() + written, outgoing.size() - written, MSG_NOSIGNAL);
            must(count > 0, "send");
            written += static_cast<std::size_t>(count);
        }
    }

    /// Reads one packet whole, unless none begins in time or the peer has closed.
    void read_packet(int fd) {
        for (std::size_t got = 0; got < incoming.size();) {
            ssize_t const count = ::recv(fd, incoming.data() + got, incoming.size() - got, MSG_WAITALL);
            if (count == -1 && errno == EAGAIN && got != 0) {
                continue;
            }
            if (count == 0) {
                forget(fd);
            }
            if (count <= 0) {
                must(count == 0 || errno == EAGAIN || errno == ECONNRESET, "recv");
                return;
            }
            got += static_cast<std::size_t>(count);
        }
        if (data_size_of(incoming.data()) + c_header_size != incoming.size()) {
            throw failure("a packet of another size");
        }
        user.on_packet(static_cast<origin>(fd));
    }

    void forget(int fd) {
        std::erase(streams, fd);
        ::close(fd);
    }

    void serve_one_event() {
        epoll_event event{};
        if (::epoll_wait(instance, &event, 1, c_look_around) != 1) {
            return;
        }
        if (event.data.fd != listener) {
            read_packet(event.data.fd);
            return;
        }
        int const fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        must(fd != -1, "accept");
        unsigned char const welcome = 1;
        must(::send(fd, &welcome, sizeof welcome, MSG_NOSIGNAL) == sizeof welcome, "send");
        add_stream(fd);
    }

    packet_user& user;
    unsigned int const expected;
    std::vector<unsigned char> const outgoing;
    std::vector<unsigned char> incoming;
    int const instance;
    int listener = -1;
    std::vector<int> streams;
};

} // namespace

std::unique_ptr<contender> make_raw(run_plan const& plan, packet_user& user) {
    return std::make_unique<raw>(plan, user);
}

} // namespace relay_bench
