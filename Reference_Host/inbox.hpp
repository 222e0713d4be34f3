// Where packets wait for the Center: send_zolt_center puts them in, the Center's own threads take them out.
//
// An offer never waits. It is answered busy above the high mark, in packets or in bytes, and refused after stop. The
// Center gets a token of its own: a copy of the header and a counted share of the data. What was offered stays
// readable for the thread that offered it until that thread's next offer, its release_offered or its end, and is
// given back then; until then freeing it through a handle does nothing, because that reference was handed over.
#ifndef REFERENCE_HOST_INBOX_HPP
#define REFERENCE_HOST_INBOX_HPP

#include "Host/zolt_packet.hpp"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace Zolt::Reference_Host {

/// What an offer is answered with.
inline constexpr int c_offer_taken = static_cast<int>(c_zolt_err_none);
inline constexpr int c_offer_refused = 0x40000007;
inline constexpr int c_offer_busy = 0x40000008;

/// What has been offered since the start, and what waits.
struct inbox_counts {
    std::uint64_t taken = 0;   ///< offers taken
    std::uint64_t busy = 0;    ///< offers answered busy
    std::uint64_t refused = 0; ///< offers refused
    std::uint64_t packets = 0; ///< waiting now
    std::uint64_t bytes = 0;   ///< of data waiting now
};

/// A queue of packets with two marks above which it is busy.
class inbox {
public:
    /// Throws std::bad_alloc.
    explicit inbox(std::size_t capacity = 65536);
    /// Frees the packets that nobody took. No thread may use the inbox any more.
    ~inbox();
    inbox(inbox const&) = delete;
    inbox& operator=(inbox const&) = delete;

    /// Any thread, several at once, any lock held; does not block and throws nothing. Result: one of the three answers.
    /// Owner: when taken, the inbox owns what was offered; otherwise the caller still does.
    int offer(struct_token& token);

    /// Waits until there is a packet, the time is over, wake or stop. The number of tokens written, oldest first; after
    /// stop the packets left can still be taken. Any thread, several at once. Owner: the caller, who frees each token.
    std::size_t take(std::span<struct_token> tokens, std::chrono::nanoseconds longest);
    /// Makes every take that waits now return; the next one waits again.
    void wake();

    /// Refuses every offer from now on, until resume, and wakes who waits.
    void stop();
    void resume();
    bool is_stopped() const;

    /// Busy from that many packets on; three quarters of the capacity until set, and never more than the capacity.
    void set_high_mark(std::size_t packets);
    /// Busy from that many bytes of data on; 256 MiB until set. One packet is always taken.
    void set_high_mark_bytes(std::uint64_t bytes);
    inbox_counts count() const;
    /// How long the inbox was busy: each time from the first busy answer to the next offer taken, the current one included.
    std::chrono::nanoseconds count_busy_time() const;

private:
    struct inbox_state;
    std::unique_ptr<inbox_state> const state;
};

/// The inbox that send_zolt_center offers to; made by the first call, there until the process ends.
inbox& get_center_inbox();

/// Gives back what the calling thread offered last.
void release_offered();

} // namespace Zolt::Reference_Host

#endif
