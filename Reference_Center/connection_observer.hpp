// Follows the relay's connections from outside, by what it does with its host, and tells why each one ended.
//
// Of a connection that was established, when the relay tells of its end (its socket is open then), in this order:
//   shutdown         this Center had begun to stop; connections that stand when it has stopped are told by their user
//   deleted          this Center had withdrawn the destination
//   silent           this end had ended the connection first (FIN_WAIT1, FIN_WAIT2, CLOSING): the relay does so only to a
//                    peer that was silent, and to a destination that was withdrawn
//   send_failed      the kernel gave the connection up: ETIMEDOUT, EHOSTUNREACH, ENETUNREACH and their like
//   reset            the kernel has closed the socket with any other error
//   peer_closed      any other state
// Of an attempt that led to none:
//   refused          the kernel or the peer answered with an error; the relay's line or the socket has its number. Also when
//                    the local port cannot be bound
//   connect_timeout  no answer within the relay's time-out, or the kernel's
//   init_failed      connected, and ended before the opening blocks were exchanged; of an accepted one this is found with
//                    the next sweep. Accepted ones that are ended by silence are among them
// Attempts are told apart as follows: the relay names a destination's address in its traces, but not its port. An attempt
// made inside this Center's own call is for the destination of that call; the relay's timer takes destinations in their
// order, so of several at one address each trace means the next one. One that failed is the one whose socket has failed.
#ifndef REFERENCE_CENTER_CONNECTION_OBSERVER_HPP
#define REFERENCE_CENTER_CONNECTION_OBSERVER_HPP

#include "Reference_Center/closed_connections.hpp"
#include "Reference_Center/node_report.hpp"
#include "Reference_Host/relay_observer.hpp"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string_view>
#include <vector>

namespace Zolt::Reference_Center {

/// Why an established connection ended, as its notice brings it to the Center.
struct connection_end {
    close_reason reason = close_reason::peer_closed;
    int error = 0; ///< of the system; 0 when there was none
};
connection_end end_of(struct_packet const& notice);
std::string end_text(connection_end end);

struct listening_socket {
    std::uint16_t port;
    int descriptor;
};

/// Takes the host's relay observer for as long as it lives; no thread of the relay may run when it is made or destroyed.
class connection_observer final : private Reference_Host::relay_observer {
public:
    using moment = std::chrono::steady_clock::time_point;
    using copy_marker = std::function<void(struct_token&)>;

    connection_observer(std::vector<std::uint16_t> ports, closed_connections& closed);
    ~connection_observer();
    connection_observer(connection_observer const&) = delete;
    connection_observer& operator=(connection_observer const&) = delete;

    /// Lives while add_client is called. The Center's thread.
    class adding {
    public:
        adding(connection_observer& of, struct_node_addr destination);
        ~adding();
        adding(adding const&) = delete;
        adding& operator=(adding const&) = delete;
    };
    /// Before del_client. True when that is the destination's last withdrawal.
    bool withdraw(struct_node_addr destination);
    /// Connections that end from now on end for that reason.
    void note_stopping();
    /// Called for each copy that the relay makes of a packet for all accepted connections; empty for nobody.
    void mark_copies(copy_marker marker) { marks = std::move(marker); }

    /// Since when an attempt is under way; nothing when there is none. This and what follows: any thread.
    std::optional<moment> find_attempt(struct_node_addr destination) const;
    bool is_wanted(struct_node_addr destination) const;
    /// How long nothing came from a connected peer, as the kernel knows.
    std::optional<double> find_silence(peer const& who) const;
    /// Those that were made before the call. Once, when all ports are served.
    std::vector<listening_socket> take_listening();
    /// Tells of accepted connections that are gone without having been established.
    void sweep();

private:
    struct open_socket {
        int descriptor;
        std::uint64_t cookie;
        bool is_established;
    };
    struct known_destination {
        int count = 0; ///< added and not withdrawn; the relay counts below zero too
        bool is_wanted = false;
        bool is_established = false;
        bool is_under_way = false;
        bool is_connected = false; ///< of the attempt under way: its socket
        std::uint64_t attempt = 0; ///< the number of the last one
        int descriptor = -1;       ///< of the attempt under way
        moment since{};            ///< of the attempt under way
    };
    using destinations = std::map<struct_node_addr, known_destination>;
    using sockets = std::multimap<peer, open_socket>;

    void on_error(std::string_view text) override;
    void on_trace(char const* format, struct_token& token, std::va_list arguments) override;
    void on_notice(struct_packet& notice) override;
    void on_descriptor(int descriptor, bool is_blocking) override;

    void begin_attempt();
    void choose_next_to_retry(std::uint32_t ip);
    destinations::iterator find_failed(std::uint32_t ip);
    void end_attempt(destinations::iterator failed, close_reason reason, std::string detail);
    void note_failed_exchange(std::uint32_t ip);
    void take_connected(int descriptor);
    void forget_descriptor(int descriptor);
    sockets::iterator find_socket(peer const& who);
    connection_end find_end(peer const& who);

    std::vector<std::uint16_t> const ports;
    closed_connections& closed;
    copy_marker marks;       ///< the Center's thread's
    mutable std::mutex lock; ///< guards what follows
    destinations known;
    struct_node_addr last_retried;
    std::map<std::uint64_t, struct_node_addr> attempts; ///< the last one of each destination, as they began
    std::uint64_t last_attempt = 0;
    std::uint64_t last_failed = 0;
    sockets open;
    std::map<int, peer> by_descriptor;
    std::vector<int> candidates; ///< descriptors that may be listening
    bool has_listening = false;  ///< they were taken
    bool stopping = false;
};

} // namespace Zolt::Reference_Center

#endif
