// Looks after the listening sockets of a running Center, and does what is due from time to time.
//
// The relay accepts one connection for each notification. Connections that arrived together are notified together, so some
// of them would wait in the backlog until the next one arrives. While connections wait, this thread knocks: it shuts the
// write side of the listening socket down, which such a socket does not have, so that the kernel does nothing but notify
// those who wait on it. A connection of the Center's own would notify as well, but each would take the place of the one that it lets in, and
// so the backlog would never be empty again.
#ifndef REFERENCE_CENTER_NODE_WATCH_HPP
#define REFERENCE_CENTER_NODE_WATCH_HPP

#include "Reference_Center/connection_observer.hpp"
#include "Reference_Center/event_descriptor.hpp"
#include "Reference_Center/node_report.hpp"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

namespace Zolt::Reference_Center {

class node_watch {
public:
    /// The job is done once a period, by the watch's thread. The sockets must stay open until stop. Throws failure.
    node_watch(std::vector<listening_socket> sockets, std::chrono::milliseconds period, std::function<void()> job);
    ~node_watch();
    node_watch(node_watch const&) = delete;
    node_watch& operator=(node_watch const&) = delete;

    /// On return nothing touches the sockets any more.
    void stop();
    /// Any thread. After stop, nothing waits.
    std::vector<listener_report> look() const;

private:
    using duration = std::chrono::nanoseconds;

    void run();
    /// True when the watch was stopped meanwhile.
    bool sleep(duration longest, bool looks_at_sockets);
    /// How many connections wait.
    std::uint64_t knock();

    std::vector<listening_socket> const sockets;
    std::vector<std::atomic<std::uint64_t>> knocks; ///< as many
    std::chrono::milliseconds const period;
    std::function<void()> const job;
    event_descriptor end;
    std::atomic<bool> stopped{false};
    std::thread thread;
};

} // namespace Zolt::Reference_Center

#endif
