// A queue of a fixed number of places, for any number of threads at both ends, without a lock. Private to
// Reference_Host/. Each place carries a turn: the position whose writer may fill it, or that position + 1 for its
// reader; a thread claims a position and then owns the place until it passes the turn on. Items that one thread puts
// in come out in the order in which it put them in.
#ifndef REFERENCE_HOST_BOUNDED_QUEUE_HPP
#define REFERENCE_HOST_BOUNDED_QUEUE_HPP

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace Zolt::Reference_Host {

template <class Item>
class bounded_queue {
public:
    /// Places: rounded up to a power of two. Throws std::bad_alloc.
    explicit bounded_queue(std::size_t wanted)
        : mask(std::bit_ceil(wanted < 2 ? std::size_t{2} : wanted) - 1), places(new place[mask + 1]) {
        for (std::size_t i = 0; i <= mask; ++i) {
            places[i].turn.store(i, std::memory_order_relaxed);
        }
    }

    /// Calls write(Item&) on a place of its own. False when the queue is full.
    template <class Write>
    bool put(Write&& write) {
        return pass(tail.position, 0, 1, write);
    }

    /// Calls read(Item&) on the oldest item. False when there is none.
    template <class Read>
    bool take(Read&& read) {
        return pass(head.position, 1, mask + 1, read);
    }

    /// About how many items are queued; exact when nobody puts or takes.
    std::size_t size() const {
        std::size_t const first = head.position.load(std::memory_order_acquire);
        std::size_t const last = tail.position.load(std::memory_order_acquire);
        return last > first ? last - first : 0;
    }

    /// Positions that writers have claimed since the start.
    std::size_t count_put() const { return tail.position.load(std::memory_order_acquire); }

    std::size_t capacity() const { return mask + 1; }

private:
    struct place {
        std::atomic<std::size_t> turn;
        Item item;
    };

    /// Claims the next position at one end once its place has that turn, uses the item and passes the turn on.
    template <class Use>
    bool pass(std::atomic<std::size_t>& end, std::size_t turn_offset, std::size_t turn_step, Use& use) {
        std::size_t position = end.load(std::memory_order_relaxed);
        for (;;) {
            place& here = places[position & mask];
            std::size_t const turn = here.turn.load(std::memory_order_acquire);
            auto const ahead = static_cast<std::ptrdiff_t>(turn - (position + turn_offset));
            if (ahead < 0) {
                return false;
            }
            if (ahead > 0) {
                position = end.load(std::memory_order_relaxed);
            } else if (end.compare_exchange_weak(position, position + 1, std::memory_order_relaxed)) {
                use(here.item);
                here.turn.store(position + turn_step, std::memory_order_release);
                return true;
            }
        }
    }

    /// On a cache line of its own: writers and readers do not slow each other down.
    struct alignas(64) queue_end {
        std::atomic<std::size_t> position{0};
    };

    queue_end tail;
    queue_end head;
    std::size_t const mask;
    std::unique_ptr<place[]> const places;
};

} // namespace Zolt::Reference_Host

#endif
