// What is counted of one peer. Any thread reads.
#ifndef REFERENCE_CENTER_PEER_COUNTS_HPP
#define REFERENCE_CENTER_PEER_COUNTS_HPP

#include "Reference_Center/latency_windows.hpp"
#include "Reference_Center/peer.hpp"

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Zolt::Reference_Center {

class any_counts {
public:
    traffic_counts read() const { return {packets.load(), bytes.load()}; }

protected:
    std::atomic<std::uint64_t> packets{0};
    std::atomic<std::uint64_t> bytes{0};
};

/// Any thread adds.
class shared_counts : public any_counts {
public:
    void add(std::uint64_t size) {
        packets.fetch_add(1);
        bytes.fetch_add(size);
    }
};

/// One thread adds: that takes no locked instruction.
class own_counts : public any_counts {
public:
    void add(std::uint64_t size) { change(1, size); }
    void take_back(std::uint64_t size) { change(-std::uint64_t{1}, -size); }

private:
    void change(std::uint64_t by_packets, std::uint64_t by_bytes) {
        packets.store(packets.load(std::memory_order_relaxed) + by_packets, std::memory_order_release);
        bytes.store(bytes.load(std::memory_order_relaxed) + by_bytes, std::memory_order_release);
    }
};

/// What one thread puts in and any thread ends. Each has a cache line to write to.
class queue_counts {
public:
    /// Thread: always the same one, for take_back too.
    void put(std::uint64_t size) { added.add(size); }
    /// As if it had not been put in.
    void take_back(std::uint64_t size) { added.take_back(size); }
    void end(std::uint64_t size) { ended.add(size); }

    /// What was put in so far, whether it has ended or not.
    traffic_counts read_all() const { return added.read(); }
    /// What has not ended. In one order with all that ends and with the caller's own atomics.
    traffic_counts read() const {
        traffic_counts const gone = ended.read(); // first: none is seen to end before it is put in
        return added.read() - gone;
    }

private:
    static constexpr std::size_t c_cache_line = 64;

    alignas(c_cache_line) own_counts added;
    alignas(c_cache_line) shared_counts ended;
};

struct peer_counts {
    own_counts in;       ///< arrived; bytes of data
    own_counts out;      ///< handed to the relay; bytes of data
    queue_counts queued; ///< handed to the relay and not freed yet; bytes as they travel, headers included
    latency_windows latency;
};

} // namespace Zolt::Reference_Center

#endif
