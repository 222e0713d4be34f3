// Peers of the operations target: hosts that answer the exchange and read everything, served step by step by one actor.
#ifndef TESTS_FUZZ_FAR_HOST_HPP
#define TESTS_FUZZ_FAR_HOST_HPP

#include "Reference_Host/packet_layout.hpp"
#include "tests/fuzz/raw_peer.hpp"
#include "tests/race/simulation/node.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace fuzz {

/// One end of a connection to the node.
struct far_end {
    int fd = -1;
    std::uint32_t epoch = 0;
    std::uint32_t packets = 0; ///< numbered ones sent
    std::size_t received = 0;  ///< bytes
    bool has_sent_block = false;
    simulation::moment spoke_at = 0;
    simulation::moment spoke_before = 0;
    simulation::moment overtaken_before = 0;

    void note_speech();
    /// How long it has said nothing; how much of that everybody had time for; and how long the node may have heard
    /// nothing, since the last may be on its way.
    simulation::moment silence() const;
    simulation::moment shortest_silence() const;
    simulation::moment longest_silence() const;
    bool is_exchanged() const { return has_sent_block && received >= c_block_size; }
};

class far_host {
public:
    far_host(simulation::node& n, std::uint32_t host_number);
    ~far_host();
    far_host(far_host const&) = delete;
    far_host& operator=(far_host const&) = delete;

    std::uint32_t ip() const { return simulation::ip_of(number); }
    /// False when it cannot: a port that has had a connection is not free for a minute.
    bool listen();
    void stop_listening();
    /// Connects to the node and sends the block; the connection's port.
    std::uint16_t visit();
    /// Takes connections, reads, and answers blocks. Of the connections that the node has ended meanwhile, the shortest of
    /// the longest silences; nothing when it ended none.
    std::optional<simulation::moment> serve();
    void send_heartbeats();
    /// A numbered packet on each connection, as the simulation's Center checks them.
    void send_packets(std::uint32_t size);
    /// Ends every connection.
    void leave_all(leaving how);

    std::vector<far_end> const& ends() const { return all; }
    /// Of the connection that spoke last; c_never without one.
    simulation::moment shortest_silence() const;
    simulation::moment longest_silence() const;

private:
    bool serve_end(far_end& end);
    void speak(far_end& end, Zolt::Reference_Host::packet_kind kind, std::vector<unsigned char> const& data);

    simulation::kernel& host;
    std::uint32_t number;
    int listener = -1;
    std::uint32_t next_epoch = 0;
    std::vector<far_end> all;
};

} // namespace fuzz

#endif
