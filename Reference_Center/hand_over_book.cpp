#include "Reference_Center/hand_over_book.hpp"

#include "Host/tesk_os.hpp"
#include "Reference_Host/inbox.hpp"
#include "Reference_Host/packet_limits.hpp"
#include "Reference_Host/packet_reading.hpp"

#include <atomic>
#include <fmt/format.h>

namespace Zolt::Reference_Center {
namespace {

constexpr std::uint64_t c_nobody_waits = ~std::uint64_t{0};
constexpr std::uint64_t c_end_clock_mask = (std::uint64_t{1} << c_end_clock_bits) - 1;

struct book {
    std::atomic<std::uint64_t> handed_over{0};
    std::atomic<std::uint64_t> ends[4]{};
    std::atomic<std::uint64_t> queued{0};
    std::atomic<std::uint64_t> queued_bytes{0};
    std::atomic<std::uint64_t> not_connected{0};
    std::atomic<std::uint64_t> waited_bytes{c_nobody_waits};
    std::atomic<std::uint64_t> waited_packets{c_nobody_waits};
    std::atomic<std::uint32_t> next_number{1};
    /// Number, one bit for written, clock: the number stands highest, so that a newer end is a larger value.
    std::atomic<std::uint64_t> newest_end{0};
};

constinit book g_book;
/// True while this thread is inside an operation of the relay that takes a packet: what ends then was dropped.
constinit thread_local bool t_handing_over = false;

/// The cookie is never 0: the number's half holds the number + 1.
std::uint64_t make_cookie(std::uint32_t number, std::uint32_t size) {
    return (std::uint64_t{number} + 1) << 32 | size;
}

outcome find_outcome(struct_packet const& packet) {
    if (t_handing_over) {
        return outcome::dropped;
    }
    return Reference_Host::get_kind(packet) == Reference_Host::packet_kind::error ? outcome::returned
                                                                                  : outcome::written;
}

void wake_if_below() {
    std::uint64_t const bytes = g_book.waited_bytes.load(std::memory_order_acquire);
    if (bytes == c_nobody_waits || g_book.queued_bytes.load(std::memory_order_relaxed) > bytes ||
        g_book.queued.load(std::memory_order_relaxed) > g_book.waited_packets.load(std::memory_order_relaxed)) {
        return;
    }
    if (g_book.waited_bytes.exchange(c_nobody_waits, std::memory_order_acq_rel) != c_nobody_waits) {
        Reference_Host::get_center_inbox().wake();
    }
}

void note_numbered_end(std::uint32_t number, outcome how) {
    std::uint64_t const written = how == outcome::written ? 1 : 0;
    std::uint64_t const end =
        (std::uint64_t{number} << 1 | written) << c_end_clock_bits | (Tesk::OS::lemon_cpu_clock() & c_end_clock_mask);
    std::uint64_t newest = g_book.newest_end.load(std::memory_order_relaxed);
    while (end > newest && !g_book.newest_end.compare_exchange_weak(newest, end, std::memory_order_release)) {
    }
    Reference_Host::get_center_inbox().wake();
}

void note_end(std::uint64_t cookie, struct_packet const& packet) {
    outcome const how = find_outcome(packet);
    g_book.ends[static_cast<unsigned int>(how)].fetch_add(1, std::memory_order_relaxed);
    g_book.queued.fetch_sub(1, std::memory_order_relaxed);
    g_book.queued_bytes.fetch_sub(cookie & 0xFFFFFFFFU, std::memory_order_release);
    if (auto const number = static_cast<std::uint32_t>((cookie >> 32) - 1); number != 0) {
        note_numbered_end(number, how);
    }
    wake_if_below();
}

} // namespace

void open_hand_over_book() {
    Reference_Host::set_release_observer(note_end);
}

void close_hand_over_book() {
    Reference_Host::set_release_observer(nullptr);
}

std::uint32_t take_packet_number() {
    return g_book.next_number.fetch_add(1, std::memory_order_relaxed);
}

std::optional<known_end> find_end(std::uint32_t number) {
    std::uint64_t const newest = g_book.newest_end.load(std::memory_order_acquire);
    if (newest >> (c_end_clock_bits + 1) != number) {
        return std::nullopt;
    }
    return known_end{(newest >> c_end_clock_bits & 1) != 0, newest & c_end_clock_mask};
}

hand_over_counts count_hand_overs() {
    auto const end = [](outcome how) {
        return g_book.ends[static_cast<unsigned int>(how)].load(std::memory_order_relaxed);
    };
    hand_over_counts counts;
    counts.handed_over = g_book.handed_over.load(std::memory_order_relaxed);
    counts.written = end(outcome::written);
    counts.returned = end(outcome::returned);
    counts.dropped = end(outcome::dropped);
    counts.failed = end(outcome::failed);
    counts.queued = g_book.queued.load(std::memory_order_relaxed);
    counts.queued_bytes = g_book.queued_bytes.load(std::memory_order_relaxed);
    counts.not_connected = g_book.not_connected.load(std::memory_order_relaxed);
    return counts;
}

std::string hand_over_text(hand_over_counts const& counts) {
    return fmt::format("handed over {} = written {} + returned {} + dropped {} + failed {} + queued {}{}",
                       counts.handed_over, counts.written, counts.returned, counts.dropped, counts.failed,
                       counts.queued, counts.balances() ? "" : " (does not balance)");
}

json_object hand_over_json(hand_over_counts const& counts) {
    return {{"handed_over", counts.handed_over},
            {"written", counts.written},
            {"returned", counts.returned},
            {"dropped", counts.dropped},
            {"failed", counts.failed},
            {"queued", counts.queued},
            {"not_connected", counts.not_connected},
            {"balances", counts.balances()}};
}

void note_failed_datagram() {
    g_book.ends[static_cast<unsigned int>(outcome::written)].fetch_sub(1, std::memory_order_relaxed);
    g_book.ends[static_cast<unsigned int>(outcome::failed)].fetch_add(1, std::memory_order_relaxed);
}

void wake_when_queue_is_below(std::uint64_t bytes, std::uint64_t packets) {
    g_book.waited_packets.store(packets, std::memory_order_relaxed);
    g_book.waited_bytes.store(bytes, std::memory_order_release);
    // The last end may have come in between.
    wake_if_below();
}

hand_over::hand_over(struct_token& token, std::uint32_t number)
    : size(token.has_data() ? token.get_header_packet()->get_data_size() : 0) {
    g_book.handed_over.fetch_add(1, std::memory_order_relaxed);
    g_book.queued.fetch_add(1, std::memory_order_relaxed);
    g_book.queued_bytes.fetch_add(size, std::memory_order_relaxed);
    Reference_Host::set_cookie(*token.get_header_packet(), make_cookie(number, size));
    t_handing_over = true;
}

hand_over::~hand_over() {
    t_handing_over = false;
}

void hand_over::was_refused(struct_token& token) {
    Reference_Host::set_cookie(*token.get_header_packet(), 0);
    g_book.handed_over.fetch_sub(1, std::memory_order_relaxed);
    g_book.queued.fetch_sub(1, std::memory_order_relaxed);
    g_book.queued_bytes.fetch_sub(size, std::memory_order_relaxed);
    g_book.not_connected.fetch_add(1, std::memory_order_relaxed);
}

} // namespace Zolt::Reference_Center
