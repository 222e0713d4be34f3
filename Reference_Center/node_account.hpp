// Keeps what a running Center knows of itself.
//
// Thread: take_... may be called by any thread at any time, and never waits for the relay; tick by one thread; the rest
// belongs to the Center's own one.
#ifndef REFERENCE_CENTER_NODE_ACCOUNT_HPP
#define REFERENCE_CENTER_NODE_ACCOUNT_HPP

#include "Reference_Center/closed_connections.hpp"
#include "Reference_Center/connection_observer.hpp"
#include "Reference_Center/node_report.hpp"
#include "Reference_Center/node_watch.hpp"
#include "Reference_Center/peer_counts.hpp"
#include "Reference_Center/relay_threads.hpp"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace Zolt::Reference_Center {

class node_account {
public:
    node_account(std::vector<std::uint16_t> ports, std::optional<std::uint64_t> max_queue_bytes);

    status_report take_status() const;
    std::vector<peer_report> take_peers() const;
    /// Newest first, at most 1000.
    std::vector<closed_report> take_closed() const { return closed.take(); }
    close_counts count_closed() const { return closed.count(); }

    traffic_counts arrived_over_udp() const { return udp->in.read(); }
    traffic_counts arrived_over_tcp() const { return tcp.in.read(); }
    traffic_counts handed_over_udp() const { return udp->out.read(); }
    traffic_counts handed_over_tcp() const { return tcp.out.read(); }

    // --- for the Center ---

    connection_observer& observer() { return links; }
    bool is_wanted(struct_node_addr destination) const { return links.is_wanted(destination); }
    /// Once the relay runs: its threads are the six that took names since this was made.
    void note_running(std::unique_ptr<node_watch> started);
    /// Before the relay is stopped.
    void note_stopping();
    /// After it: what was connected until then was shut down.
    void note_stopped();
    void note_destination(struct_node_addr destination);
    /// Its line goes with its connection, if there is one.
    void note_withdrawn(struct_node_addr destination);
    void note_connected(peer const& who);
    /// True when no other connection has that name.
    bool note_disconnected(peer const& who, connection_end end);
    void note_arrival(peer const& from, std::uint64_t size);
    /// To one whose counts were found.
    void note_hand_over(way via, peer_counts& to, std::uint64_t size);
    /// Of a peer without a line: those of all such peers.
    std::shared_ptr<peer_counts> const& find_counts(peer const& who) const;
    /// False when that would be more than may wait for one peer. Whatever its size, one packet may.
    bool has_room(peer const& to, std::uint64_t size) const;
    /// What is due about once a second. True when all is well.
    bool tick();

private:
    using moment = std::chrono::steady_clock::time_point;

    struct meter {
        traffic_counts in;
        traffic_counts out;
        traffic_rates rates;
        void tick(traffic_counts new_in, traffic_counts new_out, double seconds);
    };
    struct line {
        int connections = 0;
        moment since;             ///< connected, or not any more
        traffic_counts in_before; ///< when it was connected last
        traffic_counts out_before;
        std::shared_ptr<peer_counts> counts = std::make_shared<peer_counts>();
        meter speed{};
    };

    void tick_meters(moment now);
    void add_closed(peer const& who, line const& ended, connection_end end);
    void fill_state(peer_report& report, line const& known) const;
    std::vector<std::string> find_problems(std::vector<thread_report> const& threads) const;

    std::vector<std::uint16_t> const ports;
    std::optional<std::uint64_t> const max_queue;
    moment const started;
    std::int64_t const started_unix_ms;
    relay_threads const threads;
    closed_connections closed;
    connection_observer links;
    std::atomic<bool> ready{false};
    std::shared_ptr<peer_counts> const udp; ///< of all datagrams
    peer_counts tcp;                        ///< in and out only
    std::shared_ptr<peer_counts> const strangers;
    std::unique_ptr<node_watch> watch;
    mutable std::mutex lock; ///< guards what follows; lines come and go only on the Center's thread
    std::map<peer, line> lines;
    meter speed;
    moment ticked;
    unsigned int ticks = 0;
};

} // namespace Zolt::Reference_Center

#endif
