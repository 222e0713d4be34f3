// The Center of a node whose peer may send any bytes: it checks nothing of what arrives and keeps it for the target.
// raw_center.cpp stands in the place of the simulation's center.cpp.
#ifndef TESTS_FUZZ_RAW_CENTER_HPP
#define TESTS_FUZZ_RAW_CENTER_HPP

#include "Host/zolt_packet.hpp"
#include "Reference_Host/packet_layout.hpp"
#include "tests/race/simulation/scheduler.hpp"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace fuzz {

/// A packet as the Center got it.
struct arrival {
    std::vector<unsigned char> bytes; ///< the header as it travelled, and the data
    bool has_data = false;
    Zolt::struct_node_addr source;
    std::uint16_t gate_port = 0; ///< the destination's port
    Zolt::Reference_Host::packet_kind kind = Zolt::Reference_Host::packet_kind::data;
    Zolt::Reference_Host::connection_event event = Zolt::Reference_Host::connection_event::none;
    std::uint64_t sequence = 0;
};

/// Everything that arrived since the Center was opened, oldest first.
std::vector<arrival> const& list_arrivals();

} // namespace fuzz

#endif
