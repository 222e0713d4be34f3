#include "bench/contenders/skeleton_engine.hpp"

#include "bench/support/sockets.hpp"

#include <array>
#include <cerrno>
#include <csignal>
#include <utility>

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace relay_bench::skeleton {
namespace {

/// One instance and one thread each.
enum which : std::size_t { set_up, tcp_recv, tcp_send, udp_recv, udp_send, c_instances };

constexpr int c_backlog = 5;
constexpr timeval c_write_bound{0, 1000};

void block_sigpipe() {
    sigset_t pipe;
    ::sigemptyset(&pipe);
    ::sigaddset(&pipe, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
}

void keep_from_children(int fd) {
    ::fcntl(fd, F_SETFD, FD_CLOEXEC);
}

void set_blocking(int fd, bool blocking) {
    int const flags = ::fcntl(fd, F_GETFL);
    ::fcntl(fd, F_SETFL, blocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK);
}

void set_stream_options(int fd) {
    set_option(fd, IPPROTO_TCP, TCP_NODELAY, 1, "TCP_NODELAY");
    set_option(fd, SOL_SOCKET, SO_SNDTIMEO, c_write_bound, "SO_SNDTIMEO");
    local_port(fd);
}

/// The block of the exchange; what stands in it means nothing to the skeleton.
unsigned char* scratch_block() {
    thread_local std::array<unsigned char, c_block_size> block{};
    return block.data();
}

} // namespace

// --- threads ---------------------------------------------------------------------------------------------------

engine::engine(run_plan const& plan, delivery to)
    : size(plan.size), window(window_of(plan)), deliver(std::move(to)), shared_data(plan.size) {
    write_header(beat.data(), c_beat_size);
    for (std::size_t i = 0; i < c_instances; ++i) {
        instances.push_back(::epoll_create1(0));
        must(instances.back() != -1, "epoll_create1");
        keep_from_children(instances.back());
    }
    threads.resize(c_instances);
    start(set_up, &engine::on_set_up);
    start(tcp_recv, &engine::on_readable);
    start(tcp_send, &engine::on_writable);
    start(udp_recv, &engine::on_datagram);
    start(udp_send, &engine::on_datagram_writable);
}

engine::~engine() {
    rest();
    for (auto const& rec : records) {
        ::close(rec->fd);
    }
    for (int const instance : instances) {
        ::close(instance);
    }
}

void engine::rest() {
    set_ticking(0);
    for (std::size_t i = 0; i < threads.size(); ++i) {
        stop(i);
    }
    threads.clear();
}

void engine::start(std::size_t which, step dispatch) {
    threads[which] = std::thread([this, which, dispatch] {
        block_sigpipe();
        run_guarded([&] { serve(instances[which], dispatch); });
    });
}

void engine::run_guarded(std::function<void()> const& work) {
    try {
        work();
    } catch (std::exception const& reason) {
        fail(reason.what());
    }
}

/// Keeps the first reason, and wakes who waits for a connection.
void engine::fail(std::string const& reason) {
    {
        std::lock_guard<std::mutex> const guard(records_lock);
        if (failed_with.empty()) {
            failed_with = reason;
        }
    }
    has_failed.store(true, std::memory_order_release);
    count_connected.fetch_add(1, std::memory_order_release);
    count_connected.notify_one();
}

void engine::serve(int instance, step dispatch) {
    for (;;) {
        epoll_event event{};
        int const count = ::epoll_wait(instance, &event, 1, -1);
        if (count == -1 && errno == EINTR) {
            continue;
        }
        must(count == 1, "epoll_wait");
        if (event.data.ptr == nullptr) {
            return;
        }
        (this->*dispatch)(*static_cast<record*>(event.data.ptr), event.events);
    }
}

void engine::stop(std::size_t which) {
    // Never connected: hung up at once.
    int const wake_up = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    epoll_event event{};
    event.events = EPOLLOUT;
    ::epoll_ctl(instances[which], EPOLL_CTL_ADD, wake_up, &event);
    threads[which].join();
    ::close(wake_up);
}

void engine::check() {
    if (has_failed.load(std::memory_order_acquire)) {
        std::lock_guard<std::mutex> const guard(records_lock);
        throw failure("a thread of the skeleton failed: " + failed_with);
    }
}

record& engine::add_record(kind what, int fd) {
    auto fresh = std::make_unique<record>();
    fresh->what = what;
    fresh->fd = fd;
    std::lock_guard<std::mutex> const guard(records_lock);
    records.push_back(std::move(fresh));
    return *records.back();
}

void engine::arm(int instance, int operation, record& rec, std::uint32_t mask) {
    epoll_event event{};
    event.events = mask;
    event.data.ptr = &rec;
    must(::epoll_ctl(instance, operation, rec.fd, &event) == 0, "epoll_ctl");
}

// --- set-up ----------------------------------------------------------------------------------------------------

void engine::listen(std::uint16_t port) {
    int const fd = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    must(fd != -1, "socket");
    keep_from_children(fd);
    set_blocking(fd, false);
    sockaddr_in const address = socket_address(INADDR_ANY, port);
    must(::bind(fd, plain(address), sizeof address) == 0, "bind");
    ::listen(fd, c_backlog);
    arm(instances[set_up], EPOLL_CTL_ADD, add_record(kind::listening, fd), c_arrival_mask);
}

record& engine::connect(std::uint32_t ip, std::uint16_t port) {
    unsigned int const connected = count_connected.load(std::memory_order_acquire);
    int const fd = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    must(fd != -1, "socket");
    keep_from_children(fd);
    set_blocking(fd, false);
    sockaddr_in const local = socket_address(INADDR_ANY, 0);
    must(::bind(fd, plain(local), sizeof local) == 0, "bind");
    sockaddr_in const remote = socket_address(ip, port);
    must(::connect(fd, plain(remote), sizeof remote) == 0 || errno == EINPROGRESS, "connect");
    record& rec = add_record(kind::connecting, fd);
    rec.is_outgoing = true;
    arm(instances[set_up], EPOLL_CTL_ADD, rec, c_send_mask);
    count_connected.wait(connected, std::memory_order_acquire);
    check();
    return rec;
}

void engine::on_set_up(record& rec, std::uint32_t) {
    rec.what == kind::listening ? accept(rec) : completed_connect(rec);
}

void engine::accept(record& listening) {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    int const fd = ::accept(listening.fd, reinterpret_cast<sockaddr*>(&peer), &length);
    must(fd != -1, "accept");
    keep_from_children(fd);
    set_blocking(fd, true);
    record& rec = add_record(kind::accepted, fd);
    set_stream_options(fd);
    rec.recv_remain = c_block_size;
    arm(instances[tcp_recv], EPOLL_CTL_ADD, rec, c_recv_mask);
}

void engine::completed_connect(record& rec) {
    set_stream_options(rec.fd);
    set_blocking(rec.fd, true);
    epoll_event event{};
    must(::epoll_ctl(instances[set_up], EPOLL_CTL_DEL, rec.fd, &event) == 0, "epoll_ctl");
    rec.send_remain = c_block_size;
    arm(instances[tcp_send], EPOLL_CTL_ADD, rec, c_send_mask);
}

void engine::recv_block(record& rec) {
    ssize_t const got = ::recv(rec.fd, scratch_block(), rec.recv_remain, 0);
    must(got > 0, "recv");
    rec.recv_remain -= static_cast<std::size_t>(got);
    if (rec.recv_remain != 0) {
        arm(instances[tcp_recv], EPOLL_CTL_MOD, rec, c_recv_mask);
    } else if (rec.is_outgoing) {
        begin_packets(rec);
    } else {
        rec.send_remain = c_block_size;
        arm(instances[tcp_send], EPOLL_CTL_ADD, rec, c_send_mask);
    }
}

void engine::send_block(record& rec) {
    ssize_t const sent = ::send(rec.fd, scratch_block(), rec.send_remain, 0);
    must(sent > 0, "send");
    rec.send_remain -= static_cast<std::size_t>(sent);
    if (rec.send_remain != 0) {
        arm(instances[tcp_send], EPOLL_CTL_MOD, rec, c_send_mask);
    } else if (rec.is_outgoing) {
        rec.recv_remain = c_block_size;
        arm(instances[tcp_recv], EPOLL_CTL_ADD, rec, c_recv_mask);
    } else {
        begin_packets(rec);
    }
}

namespace {

void expect_header(record& rec) {
    rec.recv_ptr = rec.recv_header;
    rec.recv_remain = c_header_size;
    rec.receiving_data = false;
}

} // namespace

void engine::begin_packets(record& rec) {
    rec.what = kind::established;
    expect_header(rec);
    std::atomic<unsigned int>& count = rec.is_outgoing ? count_connected : count_accepted;
    arm(instances[tcp_recv], EPOLL_CTL_MOD, rec, c_recv_mask);
    count.fetch_add(1, std::memory_order_release);
    count.notify_one();
}

// --- receiving -------------------------------------------------------------------------------------------------

void engine::on_readable(record& rec, std::uint32_t events) {
    if ((events & (EPOLLERR | EPOLLHUP)) != 0) {
        return; // the other end has ended
    }
    rec.what == kind::established ? recv_piece(rec) : recv_block(rec);
}

void engine::recv_piece(record& rec) {
    ssize_t const got = ::recv(rec.fd, rec.recv_ptr, rec.recv_remain, 0);
    if (got <= 0) {
        return;
    }
    rec.recv_ptr += got;
    rec.recv_remain -= static_cast<std::size_t>(got);
    if (rec.recv_remain == 0) {
        completed_recv(rec);
    }
    arm(instances[tcp_recv], EPOLL_CTL_MOD, rec, c_recv_mask);
}

void engine::completed_recv(record& rec) {
    if (!rec.receiving_data) {
        if (std::uint32_t const announced = data_size_of(rec.recv_header); announced != size) {
            if (announced != c_beat_size) {
                throw failure("a packet of another size");
            }
            expect_header(rec);
            return;
        }
        if (size != 0) {
            if (rec.recv_data == nullptr) {
                rec.recv_data.reset(new unsigned char[size]);
            }
            rec.recv_ptr = rec.recv_data.get();
            rec.recv_remain = size;
            rec.receiving_data = true;
            return;
        }
    }
    deliver(rec);
    expect_header(rec);
}

// --- sending ---------------------------------------------------------------------------------------------------

namespace {

void point_at_header(record& rec, packet* one) {
    rec.send_ptr = one->header;
    rec.send_remain = c_header_size;
    rec.sending_header = true;
}

} // namespace

/// The lock is given back before the socket is armed: the send thread may be at work with the call still under way.
void engine::start_or_queue(record& to, packet* one, std::unique_lock<std::mutex>& hold) {
    bool const was_idle = to.queue.front() == nullptr;
    to.queue.push(one);
    if (was_idle) {
        point_at_header(to, one);
    }
    hold.unlock();
    if (was_idle) {
        arm(instances[to.what == kind::datagrams ? udp_send : tcp_send], EPOLL_CTL_MOD, to, c_send_mask);
    }
}

packet* engine::obtain_with_data(record& to) {
    packet* const one = to.queue.obtain(size);
    if (size == 0) {
        return one;
    }
    if (one->own_data == nullptr) {
        // A datagram leaves as one block: its header stands in front of its data too.
        one->own_data = std::make_unique<unsigned char[]>(c_header_size + size);
        write_header(one->own_data.get(), size);
    }
    one->data = one->own_data.get() + c_header_size;
    return one;
}

void engine::send(record& to) {
    to.window.enter(window);
    std::unique_lock<std::mutex> hold(to.lock);
    start_or_queue(to, obtain_with_data(to), hold);
}

void engine::broadcast() {
    std::lock_guard<std::mutex> const records_guard(records_lock);
    for (auto const& rec : records) {
        if (rec->what != kind::established) {
            continue;
        }
        rec->window.enter(window);
        std::unique_lock<std::mutex> hold(rec->lock);
        packet* const one = rec->queue.obtain(size);
        one->data = shared_data.data();
        start_or_queue(*rec, one, hold);
    }
}

void engine::on_writable(record& rec, std::uint32_t events) {
    if ((events & (EPOLLERR | EPOLLHUP)) != 0) {
        return;
    }
    rec.what == kind::established ? send_piece(rec) : send_block(rec);
}

void engine::send_piece(record& rec) {
    ssize_t const sent = ::send(rec.fd, rec.send_ptr, rec.send_remain, 0);
    if (sent <= 0) {
        return;
    }
    rec.send_ptr += sent;
    rec.send_remain -= static_cast<std::size_t>(sent);
    if (rec.send_remain == 0) {
        if (!rec.sending_header || size == 0) {
            completed_packet(rec);
            return;
        }
        rec.send_ptr = rec.queue.front()->data;
        rec.send_remain = size;
        rec.sending_header = false;
    }
    arm(instances[tcp_send], EPOLL_CTL_MOD, rec, c_send_mask);
}

void engine::completed_packet(record& rec) {
    bool goes_on = false;
    {
        std::lock_guard<std::mutex> const guard(rec.lock);
        if (rec.queue.front() == nullptr) {
            beats_due.fetch_sub(1, std::memory_order_release);
            return;
        }
        rec.queue.keep(rec.queue.pop());
        goes_on = rec.queue.front() != nullptr;
        if (goes_on) {
            point_at_header(rec, rec.queue.front());
        }
    }
    if (goes_on) {
        arm(instances[tcp_send], EPOLL_CTL_MOD, rec, c_send_mask);
    }
    rec.window.leave();
}

// --- ticks -----------------------------------------------------------------------------------------------------

void engine::set_ticking(std::uint64_t from) {
    ticks.reset();
    if (from != 0) {
        ticks.emplace(from, [this] { run_guarded([this] { tick(); }); });
    }
}

/// The header stands in no queue, for nothing else is sent meanwhile. While one of the tick before is still to be
/// written nothing is armed, as the relay arms no connection that has something queued.
void engine::tick() {
    std::lock_guard<std::mutex> const guard(records_lock);
    if (!has_ticked()) {
        return;
    }
    beats_due.store(established(), std::memory_order_relaxed);
    for (auto const& rec : records) {
        if (rec->what != kind::established) {
            continue;
        }
        rec->send_ptr = beat.data();
        rec->send_remain = c_header_size;
        rec->sending_header = false; // no data follows
        arm(instances[tcp_send], EPOLL_CTL_MOD, *rec, c_send_mask);
    }
}

// --- datagrams -------------------------------------------------------------------------------------------------

record& engine::open_datagrams(datagram_path const& path) {
    int const fd = ::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    must(fd != -1, "socket");
    keep_from_children(fd);
    sockaddr_in const local = socket_address(INADDR_ANY, path.port);
    must(::bind(fd, plain(local), sizeof local) == 0, "bind");
    set_option(fd, SOL_SOCKET, SO_BROADCAST, 1, "SO_BROADCAST");
    record& rec = add_record(kind::datagrams, fd);
    rec.remote = socket_address(path.remote_ip, path.port);
    rec.recv_data.reset(new unsigned char[c_header_size + size]);
    arm(instances[udp_recv], EPOLL_CTL_ADD, rec, c_arrival_mask);
    arm(instances[udp_send], EPOLL_CTL_ADD, rec, c_datagram_idle_mask);
    return rec;
}

void engine::on_datagram(record& rec, std::uint32_t) {
    sockaddr_in sender{};
    socklen_t length = sizeof sender;
    auto* const from = reinterpret_cast<sockaddr*>(&sender);
    if (::recvfrom(rec.fd, rec.recv_header, c_header_size, MSG_PEEK, from, &length) != c_header_size) {
        return;
    }
    ssize_t const got = ::recvfrom(rec.fd, rec.recv_data.get(), c_header_size + size, MSG_TRUNC, from, &length);
    if (got != static_cast<ssize_t>(c_header_size + size)) {
        throw failure("a datagram of another size");
    }
    deliver(rec);
    arm(instances[udp_recv], EPOLL_CTL_MOD, rec, c_arrival_mask);
}

void engine::on_datagram_writable(record& rec, std::uint32_t) {
    packet* one = nullptr;
    {
        std::lock_guard<std::mutex> const guard(rec.lock);
        if (rec.queue.front() == nullptr) {
            return;
        }
        one = rec.queue.pop();
    }
    unsigned char const* const bytes = size == 0 ? one->header : one->own_data.get();
    ::sendto(rec.fd, bytes, c_header_size + size, 0, plain(rec.remote), sizeof rec.remote);
    bool goes_on = false;
    {
        std::lock_guard<std::mutex> const guard(rec.lock);
        rec.queue.keep(one);
        goes_on = rec.queue.front() != nullptr;
    }
    if (goes_on) {
        arm(instances[udp_send], EPOLL_CTL_MOD, rec, c_send_mask);
    }
    rec.window.leave();
}

} // namespace relay_bench::skeleton
