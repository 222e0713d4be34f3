// What of a relay on the stage still works, and which connection records it has.
#ifndef TESTS_FAULT_PROBES_HPP
#define TESTS_FAULT_PROBES_HPP

#include "tests/fault/stage.hpp"

#include <string>

namespace relay_test {

class probing_stage : public stage {
public:
    /// Every connection record: "accepted established", "outgoing waiting", ..., or "none".
    std::string words_of_connections() const;
    /// Which traffic still works, on connections of its own: "accepted outgoing udp", or "none". What is expected to
    /// work is waited for; the rest gets one look.
    std::string probe(std::string const& expected);

private:
    bool probe_accepted(int patience);
    bool probe_outgoing(int patience);
    bool probe_udp(int patience);
    bool exchange_packets(EPoll::connection_map const& registry, peer& with, int patience);
    /// True when the Center was told of that packet after the first "told" ones.
    bool came_since(std::size_t told, std::uint32_t sequence) const;
    /// Serves until it is so; what wakes the relay once more is done a few times meanwhile.
    bool nudge_until(std::function<bool()> const& is_so, int patience, std::function<void()> const& nudge);
};

} // namespace relay_test

#endif
