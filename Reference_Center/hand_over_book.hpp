// What became of each packet that this Center handed to the relay. A packet is marked before the hand-over and ends in one
// outcome, when its header part is destroyed; until then it counts as queued.
#ifndef REFERENCE_CENTER_HAND_OVER_BOOK_HPP
#define REFERENCE_CENTER_HAND_OVER_BOOK_HPP

#include "Host/zolt_packet.hpp"
#include "Reference_Center/output.hpp"
#include "Reference_Center/peer_counts.hpp"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace Zolt::Reference_Center {

enum class outcome {
    written,  ///< given to the kernel whole; for a call on an accepted connection: and acknowledged, or not waited for
    returned, ///< came back as an error
    dropped,  ///< by the relay, because the connection was busy, or had ended and nobody is told of such a packet
    failed,   ///< a datagram that the kernel did not take
};

struct hand_over_counts {
    std::uint64_t handed_over = 0;
    std::uint64_t written = 0;
    std::uint64_t returned = 0;
    std::uint64_t dropped = 0;
    std::uint64_t failed = 0;
    std::uint64_t queued = 0;           ///< packets
    std::uint64_t queued_bytes = 0;     ///< as they travel, headers included
    std::uint64_t not_connected = 0;    ///< not handed over: there was no connection
    std::uint64_t refused_by_limit = 0; ///< not handed over: too much waited for that peer

    /// True when each packet handed over is in exactly one of the other figures.
    bool balances() const { return handed_over == written + returned + dropped + failed + queued; }
};

/// Counts from 0 on; once, before the first hand-over. Takes the host's release observer.
void open_hand_over_book();
/// The figures stay as they are from now on.
void close_hand_over_book();
hand_over_counts count_hand_overs();
/// The same, read again for a while until the figures balance: packets end while they are read.
hand_over_counts count_settled_hand_overs();
std::string hand_over_text(hand_over_counts const& counts);
json_object hand_over_json(hand_over_counts const& counts);

/// From the hand-over until a packet was written, of those of the last while; of all peers.
latency_summary summarize_hand_overs();
/// See latency_windows.
void turn_hand_over_latency();

/// Bytes of a packet on its way, header included.
std::uint32_t travelling_size(struct_token& token);

/// A datagram that counts as written was not taken by the kernel: the relay says so only in its error line.
void note_failed_datagram();
void note_not_connected();
void note_refused_by_limit();

/// Wakes who waits for the inbox once, as soon as no more than that many bytes and no more than that many packets are queued.
void wake_when_queue_is_below(std::uint64_t bytes, std::uint64_t packets);

/// A number that no packet had before. When a packet that was handed over with a number ends, the inbox is woken.
std::uint32_t take_packet_number();
/// How the packet with that number ended; of numbered packets only the newest one that ended is known.
struct known_end {
    bool written;
    std::uint64_t clock; ///< lemon_cpu_clock counts, cut to c_end_clock_bits
};
inline constexpr unsigned int c_end_clock_bits = 40;
std::optional<known_end> find_end(std::uint32_t number);

/// Marks a packet that is on its way into the relay's queue. Number: one that was taken, or 0 for a packet whose end is
/// only counted. The counts hear of its end too. Thread: always the same one, for hand_over too.
void mark_handed_over(struct_token& token, std::uint32_t number, std::shared_ptr<peer_counts> counts);

/// One hand-over: made just before the relay's operation is called, with the packet still the Center's.
class hand_over {
public:
    hand_over(struct_token& token, std::uint32_t number, std::shared_ptr<peer_counts> counts);
    ~hand_over();
    hand_over(hand_over const&) = delete;
    hand_over& operator=(hand_over const&) = delete;

    /// The relay did not take it for want of a connection: the token is the caller's again, and unmarked.
    static void was_refused(struct_token& token);
};

} // namespace Zolt::Reference_Center

#endif
