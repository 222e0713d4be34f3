// The system calls of everything linked into the test, written into the journal and answered by a script.
//
// Interposed: socket bind listen accept connect getsockname setsockopt send recv sendto recvfrom shutdown close
// epoll_create1 epoll_ctl epoll_wait fflush fcntl. Without a script entry a call goes to the kernel. Only while a
// system_calls object lives is anything written down or answered; there is at most one at a time. The n in "the n-th
// call" counts from 1, at the moment the script entry is made. A scripted failure does not reach the kernel, but for
// close, which releases the descriptor even when it reports an error. Descriptors are shown by names given when they
// appear: "socket#1", "accepted#1", "epoll#1", or what name_descriptor says. Any thread may call everything here.
#ifndef TESTS_SUPPORT_SYSTEM_CALLS_HPP
#define TESTS_SUPPORT_SYSTEM_CALLS_HPP

#include "tests/support/packets.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace relay_test {

/// One call as it was made. Which members are filled depends on the call.
struct system_call {
    std::string name;
    std::string text; ///< as in the journal
    int descriptor = -1;
    std::vector<long> arguments; ///< numbers in the order of the call's parameters, descriptor first; pointers left out
    bytes data;                  ///< bytes sent; after the call bytes received; the value of setsockopt
    std::size_t size = 0;        ///< size asked for by send, recv, sendto, recvfrom
    int target = -1;             ///< descriptor that epoll_ctl acts on
    std::uint32_t mask = 0;      ///< epoll_ctl: the mask; epoll_wait: that of the event returned
    void* pointer = nullptr;     ///< epoll_ctl, epoll_wait: the user data
    std::uint32_t ip = 0;        ///< address passed to bind, connect, sendto; network order
    std::uint16_t port = 0;      ///< port passed to them; host order
    long result = 0;
    int error = 0; ///< errno after the call when the result is -1
    std::string thread;
    std::vector<std::string> locks;
};

struct scripted_event {
    std::uint32_t mask = 0;
    void* record = nullptr;
};

class system_calls {
public:
    system_calls();
    ~system_calls();
    system_calls(system_calls const&) = delete;
    system_calls& operator=(system_calls const&) = delete;

    /// The n-th call from now on returns -1 with that errno; or every call from now on.
    void fail(std::string const& name, int nth, int error);
    void fail_always(std::string const& name, int error);
    /// The n-th call from now on returns that result and does nothing.
    void answer(std::string const& name, int nth, long result);
    /// The n-th recv or recvfrom from now on delivers these bytes (as many as fit) and returns their number. A
    /// recvfrom sees the sender's address given here.
    void deliver(std::string const& name, int nth, bytes data, std::uint32_t ip = 0, std::uint16_t port = 0);
    /// The n-th send, sendto, recv or recvfrom from now on moves at most that many bytes.
    void cap(std::string const& name, int nth, std::size_t most);
    /// Runs inside every call of that name, before it is answered. Null: no more.
    void on(std::string const& name, std::function<void(system_call const&)> hook);
    /// epoll_wait on that instance returns these in order, one a call, then for ever an event with null data.
    void events(int instance, std::vector<scripted_event> sequence);
    /// Back to the kernel: forgets scripts and hooks, keeps what was written down.
    void forget_scripts();

    std::size_t count(std::string const& name) const;
    std::vector<system_call> calls(std::string const& name) const;
    std::vector<system_call> all_calls() const;
    /// Forgets what was written down, here and not in the journal.
    void clear();
};

/// "EPOLLOUT|EPOLLONESHOT|EPOLLET (0xc0000004)"
std::string mask_text(std::uint32_t mask);

} // namespace relay_test

#endif
