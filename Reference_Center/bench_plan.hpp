// What a load is to do, and what came of it.
#ifndef REFERENCE_CENTER_BENCH_PLAN_HPP
#define REFERENCE_CENTER_BENCH_PLAN_HPP

#include "Host/zolt_packet.hpp"
#include "Reference_Center/bench_flights.hpp"
#include "Reference_Center/latency_histogram.hpp"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Zolt::Reference_Center {

enum class bench_kind {
    tcp,
    udp,
    broadcast, ///< to all peers that connected to this node
};

struct bench_plan {
    bench_kind kind = bench_kind::tcp;
    std::vector<struct_node_addr> destinations; ///< one for each peer; none for broadcasts
    std::size_t peers = 1;
    std::uint32_t size = 64;  ///< bytes of data
    std::uint64_t window = 1; ///< of a closed loop: for each peer; of one way: packets queued for each peer
    double rate = 0;          ///< of an open loop: packets a second for all peers, or broadcasts; 0: a closed loop
    bool calls = false;       ///< which every Center acknowledges, instead of packets that are sent back
    bool one_way = false;
    bench_time warm_up = 0;
    bench_time duration = 0;
    bench_time patience = 0; ///< how long an answer may take over UDP, and how long the last ones are waited for

    bool is_open_loop() const { return rate > 0; }
    /// Packets that may be under way to one peer at once: what bounds the memory of an open loop.
    std::size_t most_under_way() const {
        constexpr std::uint64_t c_most_bytes = 256U << 20;
        constexpr std::uint64_t c_most_packets = 65536;
        std::uint64_t const packets = std::min(c_most_packets, c_most_bytes / (std::uint64_t{size} + 1));
        return static_cast<std::size_t>(is_open_loop() ? std::max<std::uint64_t>(packets / peers, 2) : window);
    }
};

struct peer_result {
    std::string name;
    flight_counts counts;
    latency_histogram latencies;
};

struct bench_result {
    std::vector<std::unique_ptr<peer_result>> peers;
    latency_histogram whole;    ///< of broadcasts: until the last peer has answered
    latency_histogram lateness; ///< of an open loop: how long after its moment a packet was handed to the relay
    double seconds = 0;         ///< measured
    std::uint64_t unsent = 0;   ///< of an open loop: packets that were due, and not sent
    std::uint64_t received = 0; ///< one way: acknowledged by the receiver in the seconds measured
    bool interrupted = false;
    std::string trouble;                      ///< what ended it early; empty when nothing did
    std::uint64_t handed_over = 0;            ///< to the relay, all in all
    std::optional<std::uint64_t> far_arrived; ///< of these, as the Center of its own counted

    flight_counts counts() const {
        flight_counts sum;
        for (auto const& one : peers) {
            sum.add(one->counts);
        }
        return sum;
    }
    std::unique_ptr<latency_histogram> latencies() const {
        auto sum = std::make_unique<latency_histogram>();
        for (auto const& one : peers) {
            sum->merge(one->latencies);
        }
        return sum;
    }
};

} // namespace Zolt::Reference_Center

#endif
