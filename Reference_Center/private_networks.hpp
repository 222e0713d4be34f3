// Two network namespaces of this process's own, joined by a virtual cable. They have no names and vanish with the last
// process in them, however that ends.
#ifndef REFERENCE_CENTER_PRIVATE_NETWORKS_HPP
#define REFERENCE_CENTER_PRIVATE_NETWORKS_HPP

#include <array>
#include <string>

namespace Zolt::Reference_Center {

/// One end of the cable and the network behind it.
struct cable_end {
    char const* interface;
    char const* address; ///< dotted decimal; the prefix has 24 bits
};

/// Tries it in a child process: empty when it works here, else the step that was refused and why. Only for a process with
/// one thread.
std::string why_no_private_networks(std::array<cable_end, 2> const& ends);

class private_networks {
public:
    /// Moves the calling thread, which must be the process's only one, into the first network. Without the right to do so
    /// directly it takes a user namespace first. Throws failure when the system does not allow it; the thread may then be
    /// in a network without an interface.
    explicit private_networks(std::array<cable_end, 2> const& ends);
    ~private_networks();
    private_networks(private_networks const&) = delete;
    private_networks& operator=(private_networks const&) = delete;

    /// A descriptor for setns.
    int network(std::size_t which) const { return descriptors[which]; }

private:
    std::array<int, 2> descriptors{-1, -1};
};

} // namespace Zolt::Reference_Center

#endif
