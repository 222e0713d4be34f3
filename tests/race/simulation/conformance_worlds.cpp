// The two kernels behind the interface.

#include "tests/race/simulation/conformance_world.hpp"
#include "tests/race/simulation/kernel.hpp"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <memory>
#include <thread>
#include <utility>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace conformance {
namespace {

constexpr int c_small_buffer = 4096;              ///< bytes
constexpr std::uint32_t c_elsewhere = 0x070200C0; ///< 192.0.2.7, which is nobody's

// --- the real one ----------------------------------------------------------------------------------------------------

template <typename Result>
Result answer(Result result) {
    return result < 0 ? static_cast<Result>(-errno) : result;
}

std::uint32_t ip_of(where ip) {
    switch (ip) {
    case where::anywhere:
        return htonl(INADDR_ANY);
    case where::elsewhere:
        return c_elsewhere;
    case where::loopback:
        break;
    }
    return htonl(INADDR_LOOPBACK);
}

sockaddr_in make_address(std::uint16_t port, where ip = where::loopback) {
    sockaddr_in in{};
    in.sin_family = AF_INET;
    in.sin_addr.s_addr = ip_of(ip);
    in.sin_port = htons(port);
    return in;
}

class real_world : public world {
public:
    real_world() {
        sigset_t pipe;
        ::sigemptyset(&pipe);
        ::sigaddset(&pipe, SIGPIPE);
        ::pthread_sigmask(SIG_BLOCK, &pipe, &signals_before);
    }
    ~real_world() override {
        join();
        if (plain >= 0) {
            ::close(plain);
        }
        sigset_t pipe;
        ::sigemptyset(&pipe);
        ::sigaddset(&pipe, SIGPIPE);
        timespec const at_once{};
        ::sigtimedwait(&pipe, nullptr, &at_once);
        ::pthread_sigmask(SIG_SETMASK, &signals_before, nullptr);
    }

    int socket(int type) override { return answer(::socket(AF_INET, type | SOCK_CLOEXEC, 0)); }
    int bind(int fd, std::uint16_t port, where ip) override {
        sockaddr_in const in = make_address(port, ip);
        return answer(::bind(fd, reinterpret_cast<sockaddr const*>(&in), sizeof in));
    }
    int listen(int fd, int backlog) override { return answer(::listen(fd, backlog)); }
    int accept(int fd) override { return answer(::accept(fd, nullptr, nullptr)); }
    int connect(int fd, std::uint16_t port) override {
        sockaddr_in const in = make_address(port);
        return answer(::connect(fd, reinterpret_cast<sockaddr const*>(&in), sizeof in));
    }
    std::uint16_t port_of(int fd) override {
        sockaddr_in in{};
        socklen_t length = sizeof in;
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&in), &length);
        return ntohs(in.sin_port);
    }
    int set_nonblocking(int fd, bool on) override { return answer(::fcntl(fd, F_SETFL, on ? O_NONBLOCK : 0)); }
    int get_flags(int fd) override {
        int const flags = answer(::fcntl(fd, F_GETFL));
        return flags < 0 ? flags : flags & O_NONBLOCK;
    }
    int set_send_timeout(int fd, long microseconds) override {
        timeval const bound{microseconds / 1000000, microseconds % 1000000};
        return answer(::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof bound));
    }
    void make_buffers_small(int fd) override {
        ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &c_small_buffer, sizeof c_small_buffer);
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &c_small_buffer, sizeof c_small_buffer);
    }
    long send(int fd, void const* data, std::size_t size) override { return answer(::send(fd, data, size, 0)); }
    long recv(int fd, void* data, std::size_t size) override { return answer(::recv(fd, data, size, 0)); }
    long sendto(int fd, void const* data, std::size_t size, std::uint16_t port) override {
        sockaddr_in const in = make_address(port);
        return answer(::sendto(fd, data, size, 0, reinterpret_cast<sockaddr const*>(&in), sizeof in));
    }
    long recvfrom(int fd, void* data, std::size_t size, int flags, std::uint16_t& from) override {
        sockaddr_in in{};
        socklen_t length = sizeof in;
        long const got = answer(::recvfrom(fd, data, size, flags, reinterpret_cast<sockaddr*>(&in), &length));
        from = ntohs(in.sin_port);
        return got;
    }
    int shutdown(int fd, int how) override { return answer(::shutdown(fd, how)); }
    int close(int fd) override { return answer(::close(fd)); }
    int close_with_reset(int fd) override {
        linger const at_once{1, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        return close(fd);
    }
    int epoll_create1() override { return answer(::epoll_create1(EPOLL_CLOEXEC)); }
    int epoll_ctl(int instance, int operation, int fd, std::uint32_t mask, char const* tag) override {
        epoll_event wanted{};
        wanted.events = mask;
        wanted.data.ptr = const_cast<char*>(tag);
        return answer(::epoll_ctl(instance, operation, fd, &wanted));
    }
    int epoll_wait(int instance, report& found) override {
        epoll_event event{};
        int const count = answer(::epoll_wait(instance, &event, 1, 10000));
        found = {event.events, static_cast<char const*>(event.data.ptr)};
        return count;
    }
    std::uint32_t poll(int fd) override {
        pollfd asked{fd, POLLIN | POLLOUT | POLLRDHUP, 0};
        ::poll(&asked, 1, 0);
        return static_cast<std::uint16_t>(asked.revents);
    }
    bool wait_until(std::function<bool()> const& condition) override {
        auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!condition()) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            std::this_thread::yield();
        }
        return true;
    }
    void settle() override {} // the loopback delivers within the call that sends
    void run_beside(std::function<void()> work) override { beside = std::thread(std::move(work)); }
    void join() override {
        if (beside.joinable()) {
            beside.join();
        }
    }
    int plain_file() override {
        plain = ::memfd_create("plain", MFD_CLOEXEC);
        return plain;
    }

private:
    std::thread beside;
    sigset_t signals_before{};
    int plain = -1;
};

// --- the simulated one -----------------------------------------------------------------------------------------------

constexpr simulation::moment c_patience = 10000000; ///< virtual microseconds

class simulated_world : public world {
public:
    simulated_world() : host(net, htonl(0x0A000001)) {
        carrier = simulation::spawn("network", [this] { carry(); });
    }
    ~simulated_world() override {
        is_over = true;
        simulation::wait_for("the end", [this] { return simulation::has_ended(carrier); });
    }

    int socket(int type) override { return host.socket(type); }
    int bind(int fd, std::uint16_t port, where ip) override { return host.bind(fd, {ip_of(ip), port}); }
    int listen(int fd, int backlog) override { return host.listen(fd, backlog); }
    int accept(int fd) override {
        simulation::address from;
        return host.accept(fd, from);
    }
    int connect(int fd, std::uint16_t port) override { return host.connect(fd, at(port)); }
    std::uint16_t port_of(int fd) override {
        simulation::address local;
        host.getsockname(fd, local);
        return local.port;
    }
    int set_nonblocking(int fd, bool on) override { return host.set_nonblocking(fd, on); }
    int get_flags(int fd) override { return host.get_flags(fd); }
    int set_send_timeout(int fd, long microseconds) override {
        return host.set_send_timeout(fd, static_cast<simulation::moment>(microseconds));
    }
    void make_buffers_small(int fd) override { host.set_buffers(fd, c_small_buffer, c_small_buffer); }
    long send(int fd, void const* data, std::size_t size) override { return host.send(fd, data, size); }
    long recv(int fd, void* data, std::size_t size) override { return host.recv(fd, data, size); }
    long sendto(int fd, void const* data, std::size_t size, std::uint16_t port) override {
        return host.sendto(fd, data, size, at(port));
    }
    long recvfrom(int fd, void* data, std::size_t size, int flags, std::uint16_t& from) override {
        simulation::address sender;
        long const got = host.recvfrom(fd, data, size, flags, sender);
        from = sender.port;
        return got;
    }
    int shutdown(int fd, int how) override { return host.shutdown(fd, how); }
    int close(int fd) override { return host.close(fd); }
    int close_with_reset(int fd) override { return host.close_with_reset(fd); }
    int epoll_create1() override { return host.epoll_create1(); }
    int epoll_ctl(int instance, int operation, int fd, std::uint32_t mask, char const* tag) override {
        return host.epoll_ctl(instance, operation, fd, mask, const_cast<char*>(tag));
    }
    int epoll_wait(int instance, report& found) override {
        simulation::event event;
        int const count = host.epoll_wait(instance, event, simulation::now() + c_patience);
        found = {event.mask, static_cast<char const*>(event.data)};
        return count;
    }
    std::uint32_t poll(int fd) override { return host.poll(fd); }
    bool wait_until(std::function<bool()> const& condition) override {
        // What has arrived is not all that is under way; the real kernel's loopback leaves nothing there.
        settle();
        return simulation::wait_until("a condition", simulation::now() + c_patience, condition);
    }
    void settle() override {
        simulation::wait_for("nothing is under way", [this] { return !net.has_in_flight(); });
    }
    void run_beside(std::function<void()> work) override { beside = simulation::spawn("beside", std::move(work)); }
    void join() override {
        simulation::wait_for("beside", [this] { return beside < 0 || simulation::has_ended(beside); });
    }
    int plain_file() override { return 0; }

private:
    static simulation::address at(std::uint16_t port) { return {ip_of(where::loopback), port}; }

    void carry() {
        while (!is_over) {
            simulation::wait_until("network", net.next_in_flight(), [this] { return is_over || net.has_in_flight(); });
            net.deliver_one(simulation::scenario_dice());
        }
    }

    simulation::network net;
    simulation::kernel host;
    simulation::actor carrier = -1;
    simulation::actor beside = -1;
    bool is_over = false;
};

record play(script const& what, world& on) {
    stage set(on);
    what.play(set);
    return {set.lines, set.faults};
}

} // namespace

record play_for_real(script const& what) {
    real_world kernel;
    return play(what, kernel);
}

record play_simulated(script const& what) {
    record result;
    simulation::run_schedule({.seed = 1, .how = simulation::strategy::replay}, [&] {
        simulated_world kernel;
        result = play(what, kernel);
    });
    return result;
}

} // namespace conformance
