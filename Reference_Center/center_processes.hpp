// Other processes of this program that run on the machine.
#ifndef REFERENCE_CENTER_CENTER_PROCESSES_HPP
#define REFERENCE_CENTER_CENTER_PROCESSES_HPP

#include <cstddef>
#include <cstdint>
#include <set>
#include <vector>

namespace Zolt::Reference_Center {

struct center_process {
    int pid = 0;
    std::size_t descriptors = 0;
    std::size_t most_descriptors = 0; ///< its soft limit; 0 when it is not to be seen
    std::set<std::uint64_t> sockets;  ///< their inodes
};

/// Those that this user may look at, without this process itself.
std::vector<center_process> find_center_processes();

} // namespace Zolt::Reference_Center

#endif
