// Calls, one at a time, and how long each took until it was acknowledged.
//
// Over a connection that this node opened, the peer's Center acknowledges and the acknowledgement arrives here as a packet.
// Over one that the peer opened, the peer's relay acknowledges by itself, and this node's relay keeps the call until then:
// its header part ends with the acknowledgement.
#ifndef REFERENCE_CENTER_CALL_PROBE_HPP
#define REFERENCE_CENTER_CALL_PROBE_HPP

#include "Reference_Center/center.hpp"

#include <cstdint>
#include <optional>

namespace Zolt::Reference_Center {

class call_probe {
public:
    call_probe(center& node, peer to, Reference_Host::packet_kind kind, std::uint32_t size);

    /// Sends the next call, after which the one before is forgotten. False when there is no connection.
    bool start();
    /// Looks whether a packet acknowledges the call under way.
    void look_at(arrival const& packet);
    /// The call under way: its time in microseconds, once it was acknowledged.
    std::optional<std::uint64_t> time() const;
    /// The call under way came back as an error.
    bool came_back() const;

private:
    center& node;
    peer const to;
    Reference_Host::packet_plan plan;
    std::uint32_t const size;
    std::uint64_t sent_at = 0;                    ///< lemon_cpu_clock counts
    std::optional<std::uint64_t> acknowledged_at; ///< by a packet
    std::uint32_t number = 0;                     ///< of the call under way
};

} // namespace Zolt::Reference_Center

#endif
