// The Center of a traffic node: hands stamped packets to its relay, checks what comes, and keeps account of both.
#ifndef TESTS_RACE_TRAFFIC_TRAFFIC_CENTER_HPP
#define TESTS_RACE_TRAFFIC_TRAFFIC_CENTER_HPP

#include "Host/zolt_packet.hpp"
#include "tests/race/traffic/delivery_check.hpp"

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace traffic {

/// What became of the packets handed to the relay; those that are in neither figure are queued.
struct hand_over_counts {
    std::uint64_t handed = 0;
    std::uint64_t written = 0;
    std::uint64_t returned = 0;
    std::uint64_t dropped = 0; ///< of the kind that does not wait, because the connection was busy

    std::uint64_t queued() const { return handed - written - returned - dropped; }
};

/// At most one in a process: it takes the host's release observer. The relay runs for as long as this lives.
class traffic_center {
public:
    explicit traffic_center(std::uint16_t sender);
    ~traffic_center();
    traffic_center(traffic_center const&) = delete;
    traffic_center& operator=(traffic_center const&) = delete;

    /// Keeps every connection busy from now on, or hands over nothing more.
    void send(bool on);
    /// That many packets of that size, at once, to a peer that connected to this node; they are not stamped.
    void stuff(Zolt::struct_node_addr const& peer, int count, std::uint32_t size);
    /// One line for each figure, range and fault.
    std::vector<std::string> report();

private:
    /// A peer, and what it has been sent so far.
    struct flow_state {
        Zolt::struct_node_addr peer{};
        bool is_outgoing = false;
        bool is_open = false;
        std::uint32_t head = 0;
        std::uint32_t next = 0;
        std::uint32_t next_droppable = 0;
        std::uint64_t handed = 0;
        std::vector<number_range> returned; ///< as they came back
    };

    void work();
    void take(Zolt::struct_token& token);
    void take_notice(Zolt::struct_packet const& notice);
    void take_returned(Zolt::struct_packet const& packet);
    void open_flow(Zolt::struct_node_addr const& peer, bool is_outgoing);
    void close_flow(Zolt::struct_node_addr const& peer, bool is_outgoing);
    void fill(std::uint8_t number);
    bool hand_over(std::uint8_t number, bool may_be_dropped);
    std::uint64_t queued(std::uint8_t number) const;

    std::uint16_t const sender;
    std::mutex guard; ///< of all below but the two flags
    delivery_check check;
    std::vector<flow_state> flows;
    std::uint64_t refused = 0;
    std::uint64_t stuffed = 0;
    std::uint64_t came_back = 0;
    std::atomic<bool> is_sending{false};
    std::atomic<bool> is_over{false};
    std::thread worker;
};

} // namespace traffic

#endif
