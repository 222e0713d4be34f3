// Who holds a port.
#ifndef REFERENCE_CENTER_PORT_HOLDER_HPP
#define REFERENCE_CENTER_PORT_HOLDER_HPP

#include <cstdint>
#include <string>

namespace Zolt::Reference_Center {

enum class protocol { udp, tcp };

/// Why a port cannot be served: 0, or bind's errno and the protocol whose socket it refused.
struct port_trouble {
    int error = 0;
    protocol over = protocol::udp;
};

/// Tries to bind the port on all addresses, over UDP first, and gives it back at once.
port_trouble try_port(std::uint16_t port);

/// A port that is free over both at this moment, and another one than that. Throws failure.
std::uint16_t find_free_port(std::uint16_t not_this = 0);

/// Who uses the port, for example "pid 812 (python3)", or what keeps it when nobody does. Looks at /proc: processes of
/// other users stay unnamed without the right.
std::string describe_holder(std::uint16_t port, protocol over);

/// One line about the trouble, for the user.
std::string describe(std::uint16_t port, port_trouble const& trouble);

} // namespace Zolt::Reference_Center

#endif
