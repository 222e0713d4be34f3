// A Center: the relay's lifecycle, its packets, its peers. One at a time in a process.
//
// Thread: everything here belongs to the thread that made the Center. The relay's threads only put packets into the inbox;
// serve takes them out and calls the user, so the user may call the relay.
#ifndef REFERENCE_CENTER_CENTER_HPP
#define REFERENCE_CENTER_CENTER_HPP

#include "Host/zolt_packet.hpp"
#include "Reference_Center/diagnostics.hpp"
#include "Reference_Center/hand_over_book.hpp"
#include "Reference_Center/node_account.hpp"
#include "Reference_Center/packet_capture.hpp"
#include "Reference_Center/peer.hpp"
#include "Reference_Center/service_manager.hpp"
#include "Reference_Center/stop_signals.hpp"
#include "Reference_Host/packet_building.hpp"
#include "Reference_Host/packet_reading.hpp"

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Zolt::Reference_Center {

/// A packet that arrived. The token is freed when the call that got it returns.
struct arrival {
    struct_token& token;
    struct_packet& header;
    peer from; ///< of a datagram: its sender's address, and the port that the sender wrote
};

/// What a command does with what happens. Deriving classes say what concerns them.
class center_user {
public:
    virtual ~center_user() = default;
    virtual void on_connected(peer const&) {}
    virtual void on_disconnected(peer const&) {}
    virtual void on_packet(arrival const&) {}
    /// A packet of this node that came back as an error; source and destination are swapped in it.
    virtual void on_returned(struct_packet const&) {}
};

struct center_plan {
    std::vector<std::uint16_t> ports;      ///< served over UDP and TCP
    std::string configuration;             ///< file; empty for the relay's own
    std::uint32_t max_packet = 256U << 20; ///< bytes of data
    std::chrono::milliseconds wait_for_ports{0};
    stop_signals const* signals = nullptr; ///< end the wait for ports
    std::chrono::milliseconds stop_timeout{5000};
    std::string capture;             ///< file for packet_capture; empty for none
    std::uint64_t capture_limit = 0; ///< bytes
    /// As they travel, of TCP packets to one peer, and of all datagrams; nothing: without a limit.
    std::optional<std::uint64_t> max_queue_bytes;
    service_manager const* manager = nullptr; ///< hears that all is well for as long as it is
};

/// A loop around a Center that looks at other things as well waits so long at once.
inline constexpr std::chrono::milliseconds c_look_around{50};

class center {
public:
    /// Runs when it returns. Throws failure: configuration, ports, or what the relay could not do.
    center(center_plan const& plan, center_user& user);
    /// Stops if stop was not called.
    ~center();
    center(center const&) = delete;
    center& operator=(center const&) = delete;

    /// Waits for packets until the time is over, or somebody wakes the inbox, and gives each to the user. Calls that came
    /// over an accepted connection are acknowledged on the way. Not from within a call to the user.
    void serve(std::chrono::nanoseconds longest);
    /// Serves until the condition is true, or the moment has come. The last answer of the condition.
    bool serve_until(std::chrono::steady_clock::time_point deadline, std::function<bool()> const& condition);

    void connect(struct_node_addr destination);
    void withdraw(struct_node_addr destination);

    /// Hands a packet to the relay. False when there is no connection, or too much waits; the packet is freed then, and
    /// counted as not handed over. Number: see mark_handed_over. Over UDP the destination's port must be one that this
    /// node serves.
    bool send(peer const& to, struct_token token, std::uint32_t number = 0);
    /// Copies of the packet for all accepted connections; frees the packet. False, and no copies, when too much waits for
    /// one of them.
    bool send_to_all_accepted(struct_token token);

    /// Those connected now, each with the port by which it knows this node.
    std::map<peer, std::uint16_t> const& peers() const { return connected; }
    /// What this Center knows of itself.
    node_account const& account() const { return known; }
    traffic_counts arrived() const { return known.arrived_over_udp() + known.arrived_over_tcp(); }

    /// Refuses what arrives from now on, stops the relay, and frees what nobody took out of the inbox. Ends the process
    /// when the relay takes longer than the plan allows.
    void stop();

private:
    void start();
    void dispatch(struct_token& token);
    void notice(struct_packet const& header);
    void receive(struct_token& token, struct_packet& header);
    /// Of a packet that came over TCP.
    way find_way(struct_packet const& header) const;
    bool may_hand_over(peer const& to, struct_token& token) const;
    void watch();

    center_plan const plan;
    center_user& user;
    relay_lines const lines;
    node_account known;
    packet_capture capture;
    std::map<peer, std::uint16_t> connected; ///< and the port by which the peer knows this node
    std::array<struct_token, 64> taken;      ///< what is served at once; made once, because making them takes its time
    bool runs = false;
};

} // namespace Zolt::Reference_Center

#endif
