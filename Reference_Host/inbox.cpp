#include "Reference_Host/inbox.hpp"

#include "Host/zolt_global.hpp"
#include "Reference_Host/bounded_queue.hpp"
#include "Reference_Host/packet_reading.hpp"
#include "Reference_Host/packet_storage.hpp"
#include "Reference_Host/relay_observer.hpp"
#include "Reference_Host/wakeup.hpp"

#include <algorithm>
#include <new>
#include <utility>

namespace Zolt::Reference_Host {
namespace {

using std::chrono::steady_clock;

/// What a thread offered last and the Center took.
class offered_original {
public:
    ~offered_original() { give_back(); }

    /// From now on handles of the token neither free nor change it; until give_back or take_back.
    void keep(struct_token token) {
        kept = token;
        node_of(kept)->lent = true;
    }

    void give_back() {
        if (struct_token_node* const node = node_of(kept)) {
            node->lent = false;
            kept.free();
        }
    }

    /// The relay offers the very token again that it offered last: it is the relay's once more.
    void take_back(struct_token const& token) {
        struct_token_node* const node = node_of(kept);
        if (node != nullptr && node == node_of(token)) {
            node->lent = false;
            kept.reset();
        }
    }

private:
    struct_token kept;
};

// Reached without a call, also from a library opened at run time.
__attribute__((tls_model("initial-exec"))) thread_local offered_original t_offered;

std::uint64_t data_bytes(struct_token& token) {
    return token.has_data() ? token.get_header_packet()->get_data_size() : 0;
}

/// The Center's token: a header of its own, the data shared. Throws std::bad_alloc.
struct_token share(struct_token& offered) {
    struct_token shared;
    shared.alloc_header_force();
    try {
        *shared.get_header_packet() = *offered.get_header_packet();
        if (offered.has_data()) {
            shared.set_data(offered);
        }
    } catch (...) {
        shared.free();
        throw;
    }
    return shared;
}

} // namespace

struct inbox::inbox_state {
    explicit inbox_state(std::size_t capacity) : queue(capacity), high_mark(queue.capacity() / 4 * 3) {}

    bounded_queue<struct_token> queue;
    wakeup takers;
    std::atomic<bool> stopped{false};
    std::atomic<std::size_t> high_mark;
    std::atomic<std::uint64_t> high_mark_bytes{std::uint64_t{256} << 20};
    std::atomic<std::uint64_t> wakes{0};
    std::atomic<std::uint64_t> bytes{0};
    std::atomic<std::uint64_t> taken{0};
    std::atomic<std::uint64_t> busy{0};
    std::atomic<std::uint64_t> refused{0};
    std::atomic<std::int64_t> busy_since{0}; ///< on steady_clock; 0 when the last answer was another one
    std::atomic<std::int64_t> busy_time{0};  ///< of times that are over

    static std::int64_t read_clock() { return steady_clock::now().time_since_epoch().count(); }

    void note_busy() {
        busy.fetch_add(1, std::memory_order_relaxed);
        std::int64_t none = 0;
        if (busy_since.load(std::memory_order_relaxed) == 0) {
            busy_since.compare_exchange_strong(none, read_clock(), std::memory_order_relaxed);
        }
    }

    void note_taken() {
        taken.fetch_add(1, std::memory_order_relaxed);
        if (busy_since.load(std::memory_order_relaxed) == 0) {
            return;
        }
        if (std::int64_t const since = busy_since.exchange(0, std::memory_order_relaxed); since != 0) {
            busy_time.fetch_add(read_clock() - since, std::memory_order_relaxed);
        }
    }

    std::chrono::nanoseconds count_busy_time() const {
        std::int64_t const since = busy_since.load(std::memory_order_relaxed);
        std::int64_t const current = since != 0 ? read_clock() - since : 0;
        return steady_clock::duration(busy_time.load(std::memory_order_relaxed) + current);
    }

    bool is_full() const {
        return queue.size() >= high_mark.load(std::memory_order_relaxed) ||
               bytes.load(std::memory_order_relaxed) >= high_mark_bytes.load(std::memory_order_relaxed);
    }

    /// Puts a share of the token in. False when there is no place or no memory.
    bool put_share(struct_token& token) {
        struct_token shared;
        try {
            shared = share(token);
        } catch (std::bad_alloc const&) {
            return false;
        }
        // Before the packet can be taken: the bytes must not fall below 0.
        std::uint64_t const size = data_bytes(shared);
        bytes.fetch_add(size, std::memory_order_relaxed);
        if (!queue.put([&](struct_token& place) { place = shared; })) {
            bytes.fetch_sub(size, std::memory_order_relaxed);
            shared.free();
            return false;
        }
        return true;
    }

    bool take_one(struct_token& token) {
        if (!queue.take([&](struct_token& place) { token = place; })) {
            return false;
        }
        bytes.fetch_sub(data_bytes(token), std::memory_order_relaxed);
        return true;
    }

    std::size_t take_waiting(std::span<struct_token> tokens) {
        std::size_t count = 0;
        while (count < tokens.size() && take_one(tokens[count])) {
            ++count;
        }
        return count;
    }
};

inbox::inbox(std::size_t capacity) : state(std::make_unique<inbox_state>(capacity)) {}

inbox::~inbox() {
    struct_token token;
    while (state->take_one(token)) {
        token.free();
    }
}

int inbox::offer(struct_token& token) {
    t_offered.take_back(token);
    t_offered.give_back();
    if (state->stopped.load(std::memory_order_acquire) || !token.has_header()) {
        state->refused.fetch_add(1, std::memory_order_relaxed);
        return c_offer_refused;
    }
    if (state->is_full() || !state->put_share(token)) {
        state->note_busy();
        return c_offer_busy;
    }
    t_offered.keep(token);
    state->note_taken();
    state->takers.wake();
    return c_offer_taken;
}

std::size_t inbox::take(std::span<struct_token> tokens, std::chrono::nanoseconds longest) {
    std::uint64_t const wakes_before = state->wakes.load(std::memory_order_acquire);
    auto const is_called_off = [&] {
        return state->stopped.load(std::memory_order_acquire) ||
               state->wakes.load(std::memory_order_acquire) != wakes_before;
    };
    std::size_t count = state->take_waiting(tokens);
    // Without time to wait there is no sleep either: the kernel ends one that is over 50 us late.
    if (count != 0 || is_called_off() || tokens.empty() || longest <= std::chrono::nanoseconds(0)) {
        return count;
    }
    // Only whoever sleeps needs to know the time.
    steady_clock::time_point const deadline = steady_clock::now() + longest;
    auto const is_due = [&] { return state->queue.size() != 0 || is_called_off(); };
    while (count == 0 && state->takers.sleep_until(deadline, is_due)) {
        count = state->take_waiting(tokens);
        if (is_called_off()) {
            return count;
        }
    }
    return count;
}

void inbox::wake() {
    state->wakes.fetch_add(1, std::memory_order_acq_rel);
    state->takers.wake();
}

void inbox::stop() {
    state->stopped.store(true, std::memory_order_release);
    state->takers.wake();
}

void inbox::resume() {
    state->stopped.store(false, std::memory_order_release);
}

bool inbox::is_stopped() const {
    return state->stopped.load(std::memory_order_acquire);
}

void inbox::set_high_mark(std::size_t packets) {
    state->high_mark.store(std::min(packets, state->queue.capacity()), std::memory_order_relaxed);
}

void inbox::set_high_mark_bytes(std::uint64_t bytes) {
    state->high_mark_bytes.store(bytes, std::memory_order_relaxed);
}

inbox_counts inbox::count() const {
    return {state->taken.load(std::memory_order_relaxed), state->busy.load(std::memory_order_relaxed),
            state->refused.load(std::memory_order_relaxed), state->queue.size(),
            state->bytes.load(std::memory_order_relaxed)};
}

std::chrono::nanoseconds inbox::count_busy_time() const {
    return state->count_busy_time();
}

inbox& get_center_inbox() {
    // Never destroyed: a thread that ends late may still offer.
    static inbox* const center = new inbox;
    return *center;
}

void release_offered() {
    t_offered.give_back();
}

} // namespace Zolt::Reference_Host

namespace Zolt::Common::Global {

int send_zolt_center(struct_token& token) {
    auto* const observer = Reference_Host::get_relay_observer();
    struct_packet* const header = observer != nullptr ? token.get_header_packet() : nullptr;
    // A peer may send what looks like a notice, but only what arrived has an arrival clock.
    if (header != nullptr && Reference_Host::is_control(*header) && Reference_Host::get_arrival_clock(*header) == 0) {
        observer->on_notice(*header);
    }
    return Reference_Host::get_center_inbox().offer(token);
}

} // namespace Zolt::Common::Global
