// One simulated node and the network around it: the unchanged relay, its Center, and the addresses of its peers.
#ifndef TESTS_RACE_SIMULATION_NODE_HPP
#define TESTS_RACE_SIMULATION_NODE_HPP

#include "tests/race/simulation/center.hpp"
#include "tests/race/simulation/kernel.hpp"

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace simulation {

inline constexpr std::uint16_t c_port = 7000;

/// 10.0.0.number in network byte order; the relay's node is number 1.
std::uint32_t ip_of(std::uint32_t number);
inline address relay_address() {
    return {ip_of(1), c_port};
}

class node {
public:
    /// Initialises and starts the relay, listening at c_port, and the Center.
    node();
    /// The same at those ports, with a Center of the scenario's own, which takes what is delivered from the inbox.
    explicit node(std::span<std::uint16_t const> ports);
    ~node();
    node(node const&) = delete;
    node& operator=(node const&) = delete;

    /// Another host on the network, for as long as the node lives.
    kernel& add_host(std::uint32_t number);
    /// An actor that counts as a peer: the node waits for its end.
    void spawn_peer(std::string const& name, std::function<void()> body);
    void wait_for_peers();
    /// Waits until the relay has no TCP record left and the Center has heard of every end; fails when that takes longer than
    /// it ever should.
    void come_to_rest();
    /// Stops, finalizes and clears the relay, then checks that nothing is left: no record, no descriptor, no part of a
    /// packet. At any time.
    void shut_down();

    /// Called between finalize and the check that nothing is left.
    std::function<void()> on_finalized;

    network net;
    center the_center;

private:
    void carry();

    kernel host;
    std::vector<std::unique_ptr<kernel>> others;
    std::vector<actor> peers;
    actor carrier = -1;
    bool is_over = false;
    bool is_center_open = false;
    long locks_before;
    long resting_locks = 0; ///< while the relay runs and has no TCP record
};

} // namespace simulation

#endif
