// A file as datagrams, complete although some are lost.
//
// Chunks carry their index as code and the running number of the transmission as sequence. The receiver reports the first
// chunk that it misses, the highest transmission that it has seen, and the gaps below that. Datagrams of one sender do not
// overtake each other here, so a chunk in a gap whose last transmission is below the highest one seen is lost: it is sent
// again. At most a window of transmissions is under way; a silence of the receiver opens the window again.
#ifndef REFERENCE_CENTER_DEMO_TRANSFER_HPP
#define REFERENCE_CENTER_DEMO_TRANSFER_HPP

#include "Reference_Center/demo_traffic.hpp"

#include <deque>

namespace Zolt::Reference_Center {

/// Data of one chunk: with both headers it fits into one Ethernet frame.
inline constexpr std::size_t c_chunk_size = 1392;

class datagram_file_task : public node_task {
public:
    /// Descriptor: as for file_task.
    datagram_file_task(center& node, struct_node_addr to, int descriptor, std::uint64_t size);
    void advance() override;
    void on_packet(arrival const& packet) override;
    bool is_finished() const override { return first_missing == chunks; }
    json_object figures() const override;

private:
    void send_chunk(std::uint32_t index);
    void resend(std::uint32_t index, std::uint64_t seen);

    center& node;
    struct_node_addr const to;
    int const fd;
    std::uint64_t const size;
    std::uint32_t const chunks;
    std::uint32_t first_missing = 0; ///< as reported
    std::uint32_t next_new = 0;
    std::uint64_t transmissions = 0;
    std::uint64_t reported = 0; ///< transmissions that are no longer under way
    std::vector<std::uint64_t> last_sent;
    std::deque<std::uint32_t> lost;
    std::chrono::steady_clock::time_point heard_at;
};

class datagram_file_arrival {
public:
    /// Throws away that many of a hundred arriving chunks, as a network would.
    datagram_file_arrival(center& node, struct_node_addr from, std::uint64_t expected, unsigned int drop_percent);
    void add(arrival const& chunk);
    /// Reports when that is due.
    void advance();
    json_object figures();

private:
    bool is_unlucky();
    void report();

    center& node;
    struct_node_addr const from;
    unsigned int const drop_percent;
    std::vector<unsigned char> content;
    std::vector<bool> present;
    std::uint32_t first_missing = 0;
    std::uint32_t beyond = 0; ///< one more than the highest index seen
    std::uint64_t highest = 0;
    std::uint64_t arrivals = 0;
    std::uint64_t thrown_away = 0;
    std::uint64_t luck = 0;
    unsigned int unreported = 0;
    std::chrono::steady_clock::time_point reported_at;
    std::string checksum;
};

} // namespace Zolt::Reference_Center

#endif
