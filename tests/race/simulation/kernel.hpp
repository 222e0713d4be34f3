// A kernel in memory: sockets and event instances as the relay uses them, with the answers and masks of Linux.
//
// One network connects any number of hosts; a kernel is the descriptor table of one of them. What one end sends is in
// flight until `deliver_one` carries it over, so that the order of arrivals is the scheduler's choice. Every call may be a
// wait (blocking sockets, event instances); it waits through scheduler.hpp and makes no scheduling point otherwise: the
// caller does. Results are those of the system call; a failure is the negative error number.
//
// Modelled: the life of a TCP connection with bounded buffers (SYN, accept queue and its backlog rule, data, FIN,
// reset, half-close, unread data at close, what lingers after close), partial reads and writes, blocking and non-blocking
// sockets, SO_SNDTIMEO, datagrams with MSG_PEEK and MSG_TRUNC, local ports in use or just left, event
// instances with one-shot and edge-triggered registrations, lowest descriptor first. Not modelled: urgent data,
// retransmission, window scaling, two sockets that connect to each other, multicast, event instances in event instances,
// options without effect on the relay (they are accepted).
#ifndef TESTS_RACE_SIMULATION_KERNEL_HPP
#define TESTS_RACE_SIMULATION_KERNEL_HPP

#include "tests/race/simulation/scheduler.hpp"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace simulation {

/// IPv4 address in network byte order, port in host byte order.
struct address {
    std::uint32_t ip = 0;
    std::uint16_t port = 0;

    friend bool operator==(address const&, address const&) = default;
    friend auto operator<=>(address const&, address const&) = default;
};

struct event {
    std::uint32_t mask = 0;
    void* data = nullptr;
};

class network;

class kernel {
public:
    /// A process on the host with that address; the network outlives it. When it ends its descriptors are closed, and what
    /// then lingers (ends still under way, addresses just left) stays with the host for the next process there.
    kernel(network& net, std::uint32_t ip);
    ~kernel();
    kernel(kernel const&) = delete;
    kernel& operator=(kernel const&) = delete;

    int socket(int type); ///< SOCK_STREAM or SOCK_DGRAM
    int bind(int fd, address local);
    int listen(int fd, int backlog);
    int accept(int fd, address& peer); ///< a blocking listener waits; -EAGAIN otherwise
    int connect(int fd, address remote);
    int getsockname(int fd, address& local);
    int set_nonblocking(int fd, bool on);
    int get_flags(int fd);                      ///< O_NONBLOCK or 0
    int set_send_timeout(int fd, moment bound); ///< SO_SNDTIMEO
    /// Bytes each way; 16384 until then, and what is accepted has those of its listener.
    int set_buffers(int fd, std::size_t send, std::size_t receive);
    long send(int fd, void const* data, std::size_t size);
    long recv(int fd, void* data, std::size_t size);
    long sendto(int fd, void const* data, std::size_t size, address to);
    long recvfrom(int fd, void* data, std::size_t size, int flags,
                  address& from); ///< MSG_PEEK, MSG_TRUNC, MSG_DONTWAIT
    int shutdown(int fd, int how);
    int close(int fd);
    /// Ends the connection with a reset whatever is in flight, as SO_LINGER with 0 seconds and close do.
    int close_with_reset(int fd);
    int epoll_create1();
    int epoll_ctl(int instance, int operation, int fd, std::uint32_t mask, void* data);
    /// One event; the number of events, 0 when the deadline came.
    int epoll_wait(int instance, event& found, moment deadline = c_never);

    /// What a poll of the descriptor would answer now: every mask bit that holds.
    std::uint32_t poll(int fd) const;
    /// Descriptors open now.
    int count_open() const;
    std::vector<std::string> list_open() const;

private:
    struct kernel_state;
    std::unique_ptr<kernel_state> state;
};

/// What connects the kernels.
class network {
public:
    network();
    ~network();
    network(network const&) = delete;
    network& operator=(network const&) = delete;

    /// Something is on its way: a segment or datagram that could arrive now.
    bool has_in_flight() const;
    /// When the next could arrive: a moment that has passed, the time of a SYN that is tried again, or c_never.
    moment next_in_flight() const;
    /// Carries one of those over; which connection's, the dice say. Order within one direction of one connection is kept.
    void deliver_one(dice& chance);
    /// Drops every SYN to that address from now on, or no longer: a host that does not answer.
    void black_hole(address to, bool on);
    /// Cuts every connection at this moment: both ends get a reset.
    void reset_all();

private:
    friend class kernel;
    struct network_state;
    std::unique_ptr<network_state> state;
};

} // namespace simulation

#endif
