// What zolt-center doctor looks at. Nothing here changes anything on the machine.
#ifndef REFERENCE_CENTER_DOCTOR_HPP
#define REFERENCE_CENTER_DOCTOR_HPP

#include "Host/zolt_packet.hpp"

#include <cstdint>
#include <string>
#include <vector>

namespace Zolt::Reference_Center {

enum class verdict { ok, warning, problem };

struct diagnosis {
    std::string check; ///< what was looked at, for example "port 7000"
    verdict what = verdict::ok;
    std::string text;
    std::string advice; ///< empty when there is nothing to do
};

struct doctor_plan {
    std::vector<std::uint16_t> ports;
    std::vector<struct_node_addr> peers;
    std::string configuration; ///< file; empty for the relay's own
};

using diagnoses = std::vector<diagnosis>;

/// Whether the port can be served, and who has it otherwise. Binds it for a moment.
void examine_port(std::uint16_t port, diagnoses& found);
/// Queues of listening and of established sockets: of the ports and peers of the plan, or without any of running Centers.
void examine_sockets(doctor_plan const& plan, diagnoses& found);
/// Tries one connection, unless there is one already.
void examine_peer(struct_node_addr peer, diagnoses& found);

void examine_configuration(std::string const& file, diagnoses& found);
void examine_descriptors(diagnoses& found);
/// Makes two networks and gives them back at once. Only for a process with one thread.
void examine_networks(diagnoses& found);
void examine_multicast(diagnoses& found);
void examine_port_range(std::vector<std::uint16_t> const& ports, diagnoses& found);

} // namespace Zolt::Reference_Center

#endif
