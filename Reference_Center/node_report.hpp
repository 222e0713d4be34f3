// What a running Center tells of itself: plain figures, taken at one moment. Nothing here refers to the Center any more.
#ifndef REFERENCE_CENTER_NODE_REPORT_HPP
#define REFERENCE_CENTER_NODE_REPORT_HPP

#include "Reference_Center/hand_over_book.hpp"
#include "Reference_Center/latency_windows.hpp"
#include "Reference_Center/peer.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Zolt::Reference_Center {

/// Over the last full second.
struct traffic_rates {
    double packets_in_per_s = 0;
    double packets_out_per_s = 0;
    double bytes_in_per_s = 0; ///< of data
    double bytes_out_per_s = 0;
};

/// What was handed to the relay and is not freed yet.
struct queue_report {
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0; ///< as they travel, headers included
};

struct inbox_report {
    std::uint64_t packets = 0; ///< waiting now
    std::uint64_t bytes = 0;   ///< of data, waiting now
    std::uint64_t taken = 0;
    std::uint64_t busy = 0;    ///< offers that the relay had to repeat
    std::uint64_t refused = 0; ///< offers after the stop
    double busy_time_s = 0;    ///< for how long the inbox was full, since the start
};

/// One of the relay's threads.
struct thread_report {
    std::string name; ///< tcp_init, tcp_recv, tcp_send, udp_recv, udp_send, timer
    bool running = false;
};

struct listener_report {
    std::uint16_t port = 0;
    std::uint32_t backlog = 0; ///< connections that wait to be accepted
    std::uint32_t backlog_limit = 0;
    std::uint64_t knocks = 0; ///< how often the Center had to call the relay's attention to those
};

/// Why a connection ended, or did not come about.
enum class close_reason {
    peer_closed,
    reset,
    silent,
    deleted,
    refused,
    connect_timeout,
    init_failed,
    send_failed,
    shutdown,
};
inline constexpr std::size_t c_close_reasons = 9;
char const* close_reason_text(close_reason reason);
/// By the reason's number.
using close_counts = std::array<std::uint64_t, c_close_reasons>;

struct status_report {
    std::string version;
    int pid = 0;
    std::int64_t started_unix_ms = 0;
    double uptime_s = 0;
    bool ready = false;                ///< the ports are open, and nobody asked for the end
    bool healthy = false;              ///< every thread of the relay runs
    std::vector<std::string> problems; ///< what is wrong, one sentence each; empty when healthy
    std::vector<std::string> addresses;
    std::vector<std::uint16_t> ports;
    traffic_rates rates;
    traffic_counts tcp_in;
    traffic_counts tcp_out;
    traffic_counts udp_in;
    traffic_counts udp_out;
    inbox_report inbox;
    queue_report queue; ///< to all peers
    std::optional<std::uint64_t> max_queue_bytes;
    hand_over_counts outcomes;
    close_counts closed{};   ///< connections that ended, and attempts that led to none
    latency_summary latency; ///< from the hand-over to the relay until written, of the last half minute or minute
    std::vector<thread_report> threads;
    std::vector<listener_report> listeners;
    std::uint64_t lost_lines = 0;   ///< of the relay, which the host could not write
    std::uint64_t folded_lines = 0; ///< of the relay, which were held back as repetitions
};

enum class peer_state {
    established,
    connecting, ///< an attempt is under way
    lost,       ///< a destination without a connection, which the relay tries again
};
char const* peer_state_text(peer_state state);

/// A connection, or a destination that has none now.
struct peer_report {
    peer who;
    peer_state state = peer_state::established;
    double since_s = 0; ///< how long it has been established, without a connection, or tried for one
    traffic_counts in;  ///< of a destination: over all its connections
    traffic_counts out;
    traffic_rates rates;
    queue_report queue;
    latency_summary latency;
    double silent_s = 0; ///< since any byte came from the peer; of one without a connection, as since_s
};

struct closed_report {
    peer who;
    close_reason reason = close_reason::peer_closed;
    std::string detail;
    std::int64_t closed_unix_ms = 0;
    double lasted_s = 0;     ///< from established to the end; 0 when it never was
    std::uint64_t times = 1; ///< attempts that ended the same way in a row are told once
    traffic_counts in;
    traffic_counts out;
};

} // namespace Zolt::Reference_Center

#endif
