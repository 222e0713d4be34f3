#include "Reference_Center/hand_over_book.hpp"

#include "Host/tesk_os.hpp"
#include "Reference_Host/inbox.hpp"
#include "Reference_Host/packet_limits.hpp"
#include "Reference_Host/packet_reading.hpp"

#include <atomic>
#include <fmt/format.h>
#include <thread>
#include <utility>

namespace Zolt::Reference_Center {
namespace {

constexpr std::uint64_t c_nobody_waits = ~std::uint64_t{0};
constexpr std::uint64_t c_end_clock_mask = (std::uint64_t{1} << c_end_clock_bits) - 1;

struct book {
    queue_counts handed_over;
    std::atomic<std::uint64_t> ends[4]{};
    std::atomic<std::uint64_t> not_connected{0};
    std::atomic<std::uint64_t> refused_by_limit{0};
    std::atomic<std::uint64_t> waited_bytes{c_nobody_waits};
    std::atomic<std::uint64_t> waited_packets{c_nobody_waits};
    std::atomic<std::uint32_t> next_number{1};
    /// Number, one bit for written, clock: the number stands highest, so that a newer end is a larger value.
    std::atomic<std::uint64_t> newest_end{0};
};

constinit book g_book;
constinit latency_windows g_latency;
/// True while this thread is inside an operation of the relay that takes a packet: what ends then was dropped.
constinit thread_local bool t_handing_over = false;

/// What a packet's cookie points to.
struct packet_mark {
    std::shared_ptr<peer_counts> counts;
    std::uint64_t clock = 0; ///< lemon_cpu_clock at the hand-over
    std::uint32_t number = 0;
    std::uint32_t size = 0; ///< as it travels
    packet_mark* below = nullptr;
};

/// Marks that were used, to be used again: what one thread allocates and others free costs more than it does. Those in
/// use have no bound, those at rest have one.
class mark_shelf {
public:
    /// Thread: the one that hands packets over.
    packet_mark* take() {
        if (at_hand == nullptr) {
            at_hand = returned.exchange(nullptr, std::memory_order_acquire);
            room.store(c_room, std::memory_order_relaxed);
        }
        return at_hand != nullptr ? std::exchange(at_hand, at_hand->below) : new packet_mark;
    }

    /// Thread: any.
    void put_back(packet_mark* mark) {
        mark->counts.reset();
        if (room.fetch_sub(1, std::memory_order_relaxed) <= 0) {
            delete mark;
            return;
        }
        mark->below = returned.load(std::memory_order_relaxed);
        while (
            !returned.compare_exchange_weak(mark->below, mark, std::memory_order_release, std::memory_order_relaxed)) {
        }
    }

private:
    static constexpr int c_room = 1024;

    packet_mark* at_hand = nullptr;
    std::atomic<packet_mark*> returned{nullptr};
    std::atomic<int> room{c_room}; ///< since they were taken last
};

constinit mark_shelf g_marks;

struct mark_return {
    void operator()(packet_mark* mark) const { g_marks.put_back(mark); }
};

/// The cookie is the mark's owner until then.
std::unique_ptr<packet_mark, mark_return> mark_of(std::uint64_t cookie) {
    return std::unique_ptr<packet_mark, mark_return>(
        reinterpret_cast<packet_mark*>(static_cast<std::uintptr_t>(cookie)));
}

outcome find_outcome(struct_packet const& packet) {
    if (t_handing_over) {
        return outcome::dropped;
    }
    if (!Reference_Host::was_turned_back(packet)) {
        return outcome::written;
    }
    bool const is_error = Reference_Host::get_kind(packet) == Reference_Host::packet_kind::error;
    return is_error ? outcome::returned : outcome::dropped;
}

void count_end(packet_mark const& mark) {
    mark.counts->queued.end(mark.size);
    g_book.handed_over.end(mark.size);
}

void wake_if_below() {
    std::uint64_t const bytes = g_book.waited_bytes.load();
    if (bytes == c_nobody_waits) {
        return;
    }
    traffic_counts const queued = g_book.handed_over.read();
    if (queued.bytes > bytes || queued.packets > g_book.waited_packets.load(std::memory_order_relaxed)) {
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
    auto const mark = mark_of(cookie);
    outcome const how = find_outcome(packet);
    g_book.ends[static_cast<unsigned int>(how)].fetch_add(1, std::memory_order_relaxed);
    if (how == outcome::written) {
        std::uint64_t const time = Tesk::OS::lemon_cpu_clock() - mark->clock;
        mark->counts->latency.add(time);
        g_latency.add(time);
    }
    count_end(*mark);
    if (mark->number != 0) {
        note_numbered_end(mark->number, how);
    }
    wake_if_below();
}

} // namespace

void open_hand_over_book() {
    Reference_Host::set_release_observer(note_end);
}

void close_hand_over_book() {
    Reference_Host::set_release_observer([](std::uint64_t cookie, struct_packet const&) { mark_of(cookie); });
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
    counts.handed_over = g_book.handed_over.read_all().packets;
    counts.written = end(outcome::written);
    counts.returned = end(outcome::returned);
    counts.dropped = end(outcome::dropped);
    counts.failed = end(outcome::failed);
    traffic_counts const queued = g_book.handed_over.read();
    counts.queued = queued.packets;
    counts.queued_bytes = queued.bytes;
    counts.not_connected = g_book.not_connected.load(std::memory_order_relaxed);
    counts.refused_by_limit = g_book.refused_by_limit.load(std::memory_order_relaxed);
    return counts;
}

hand_over_counts count_settled_hand_overs() {
    constexpr int c_most_looks = 100;
    hand_over_counts counts = count_hand_overs();
    for (int looks = 1; looks < c_most_looks && !counts.balances(); ++looks) {
        std::this_thread::yield();
        counts = count_hand_overs();
    }
    return counts;
}

std::string hand_over_text(hand_over_counts const& counts) {
    std::string text =
        fmt::format("handed over {} = written {} + returned {} + dropped {} + failed {} + queued {}",
                    counts.handed_over, counts.written, counts.returned, counts.dropped, counts.failed, counts.queued);
    if (!counts.balances()) {
        text += " (does not balance)";
    }
    if (counts.refused_by_limit != 0) {
        text += fmt::format("; refused by the limit {}", counts.refused_by_limit);
    }
    if (counts.not_connected != 0) {
        text += fmt::format("; without a connection {}", counts.not_connected);
    }
    return text;
}

json_object hand_over_json(hand_over_counts const& counts) {
    return {{"handed_over", counts.handed_over},
            {"written", counts.written},
            {"returned", counts.returned},
            {"dropped", counts.dropped},
            {"failed", counts.failed},
            {"queued", counts.queued},
            {"not_connected", counts.not_connected},
            {"refused_by_limit", counts.refused_by_limit},
            {"balances", counts.balances()}};
}

void note_failed_datagram() {
    g_book.ends[static_cast<unsigned int>(outcome::written)].fetch_sub(1, std::memory_order_relaxed);
    g_book.ends[static_cast<unsigned int>(outcome::failed)].fetch_add(1, std::memory_order_relaxed);
}

void wake_when_queue_is_below(std::uint64_t bytes, std::uint64_t packets) {
    g_book.waited_packets.store(packets, std::memory_order_relaxed);
    g_book.waited_bytes.store(bytes);
    // The last end may have come in between. Deliberate: all in one order, or neither side might see the other.
    wake_if_below();
}

void note_not_connected() {
    g_book.not_connected.fetch_add(1, std::memory_order_relaxed);
}

void note_refused_by_limit() {
    g_book.refused_by_limit.fetch_add(1, std::memory_order_relaxed);
}

latency_summary summarize_hand_overs() {
    return g_latency.summarize();
}

void turn_hand_over_latency() {
    g_latency.turn();
}

std::uint32_t travelling_size(struct_token& token) {
    struct_packet* const header = token.get_header_packet();
    return header->get_header_size() + (token.has_data() ? header->get_data_size() : 0);
}

void mark_handed_over(struct_token& token, std::uint32_t number, std::shared_ptr<peer_counts> counts) {
    packet_mark* const mark = g_marks.take();
    std::uint32_t const size = travelling_size(token);
    counts->queued.put(size);
    g_book.handed_over.put(size);
    mark->counts = std::move(counts);
    mark->clock = Tesk::OS::lemon_cpu_clock();
    mark->number = number;
    mark->size = size;
    Reference_Host::set_cookie(*token.get_header_packet(), reinterpret_cast<std::uintptr_t>(mark));
}

hand_over::hand_over(struct_token& token, std::uint32_t number, std::shared_ptr<peer_counts> counts) {
    mark_handed_over(token, number, std::move(counts));
    t_handing_over = true;
}

hand_over::~hand_over() {
    t_handing_over = false;
}

void hand_over::was_refused(struct_token& token) {
    struct_packet& header = *token.get_header_packet();
    auto const mark = mark_of(Reference_Host::get_cookie(header));
    mark->counts->queued.take_back(mark->size);
    g_book.handed_over.take_back(mark->size);
    Reference_Host::set_cookie(header, 0);
    note_not_connected();
}

} // namespace Zolt::Reference_Center
