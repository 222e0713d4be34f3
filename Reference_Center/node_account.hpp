// Keeps what a running Center knows of itself.
//
// Thread: the Center's own one writes; take_... may be called by any thread at any time, and never waits for the relay.
#ifndef REFERENCE_CENTER_NODE_ACCOUNT_HPP
#define REFERENCE_CENTER_NODE_ACCOUNT_HPP

#include "Reference_Center/node_report.hpp"

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace Zolt::Reference_Center {

/// Counts that one thread adds to and others read.
class shared_counts {
public:
    void add(std::uint64_t size) {
        packets.fetch_add(1, std::memory_order_relaxed);
        bytes.fetch_add(size, std::memory_order_relaxed);
    }
    traffic_counts read() const {
        return {packets.load(std::memory_order_relaxed), bytes.load(std::memory_order_relaxed)};
    }

private:
    std::atomic<std::uint64_t> packets{0};
    std::atomic<std::uint64_t> bytes{0};
};

/// What is counted of one peer.
struct peer_counts {
    shared_counts in;
    shared_counts out;
};

class node_account {
public:
    explicit node_account(std::vector<std::uint16_t> ports);

    status_report take_status() const;
    std::vector<peer_report> take_peers() const;
    /// Newest first, at most 1000.
    std::vector<closed_report> take_closed() const;

    void note_ready(bool is_ready) { ready.store(is_ready, std::memory_order_relaxed); }
    void note_destination(struct_node_addr destination);
    void note_withdrawn(struct_node_addr destination);
    void note_connected(peer const& who);
    void note_disconnected(peer const& who);
    void note_arrival(peer const& from, std::uint64_t size);
    void note_hand_over(peer const& to, std::uint64_t size);

    traffic_counts arrived_over_udp() const { return udp_in.read(); }
    traffic_counts arrived_over_tcp() const { return tcp_in.read(); }
    traffic_counts handed_over_udp() const { return udp_out.read(); }
    traffic_counts handed_over_tcp() const { return tcp_out.read(); }

private:
    using moment = std::chrono::steady_clock::time_point;
    struct line {
        peer_state state;
        moment since;
        std::unique_ptr<peer_counts> counts = std::make_unique<peer_counts>();
    };

    peer_counts* find_counts(peer const& who);

    std::vector<std::uint16_t> const ports;
    moment const started;
    std::int64_t const started_unix_ms;
    std::atomic<bool> ready{false};
    shared_counts udp_in;
    shared_counts tcp_in;
    shared_counts udp_out;
    shared_counts tcp_out;
    mutable std::mutex lock; ///< guards what follows; only the Center's thread changes it
    std::map<peer, line> lines;
    std::vector<closed_report> closed;
};

} // namespace Zolt::Reference_Center

#endif
