// What is counted of one peer. Any thread reads.
#ifndef REFERENCE_CENTER_PEER_COUNTS_HPP
#define REFERENCE_CENTER_PEER_COUNTS_HPP

#include "Reference_Center/latency_windows.hpp"
#include "Reference_Center/peer.hpp"

#include <atomic>
#include <cstdint>

namespace Zolt::Reference_Center {

class any_counts {
public:
    traffic_counts read() const {
        return {packets.load(std::memory_order_relaxed), bytes.load(std::memory_order_relaxed)};
    }

protected:
    std::atomic<std::uint64_t> packets{0};
    std::atomic<std::uint64_t> bytes{0};
};

/// Any thread adds.
class shared_counts : public any_counts {
public:
    void add(std::uint64_t size) {
        packets.fetch_add(1, std::memory_order_relaxed);
        bytes.fetch_add(size, std::memory_order_relaxed);
    }
    void take_away(std::uint64_t size) {
        packets.fetch_sub(1, std::memory_order_relaxed);
        bytes.fetch_sub(size, std::memory_order_relaxed);
    }
};

/// One thread adds: that takes no locked instruction.
class own_counts : public any_counts {
public:
    void add(std::uint64_t size) {
        packets.store(packets.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        bytes.store(bytes.load(std::memory_order_relaxed) + size, std::memory_order_relaxed);
    }
};

struct peer_counts {
    own_counts in;        ///< arrived; bytes of data
    own_counts out;       ///< handed to the relay; bytes of data
    shared_counts queued; ///< handed to the relay and not freed yet; bytes as they travel, headers included
    latency_windows latency;
};

} // namespace Zolt::Reference_Center

#endif
