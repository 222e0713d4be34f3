#include "Host/tesk_os.hpp"
#include "Reference_Host/futex.hpp"
#include "Reference_Host/race_detector.hpp"

#include <sched.h>

namespace Tesk::OS {
namespace {

using namespace Zolt::Reference_Host;

/// Tells the processor that this thread waits for another one.
void relax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

constexpr std::uint32_t c_free = 0;
constexpr std::uint32_t c_taken = 1;
constexpr std::uint32_t c_awaited = 2; ///< taken, and somebody may sleep until it is free

/// Of the calling thread, for as long as the process lives; never 0.
std::uint32_t own_number() {
    static constinit std::atomic<std::uint32_t> last{0};
    static constinit thread_local std::uint32_t number = 0;
    if (number == 0) {
        number = last.fetch_add(1, std::memory_order_relaxed) + 1;
    }
    return number;
}

bool try_to_take(struct_lock_words& lock) {
    std::uint32_t expected = c_free;
    return lock.state.compare_exchange_strong(expected, c_taken, std::memory_order_acquire, std::memory_order_relaxed);
}

bool try_for_a_moment(struct_lock_words& lock) {
    constexpr int c_looks = 100;
    for (int looks = 0; looks < c_looks; ++looks) {
        if (lock.state.load(std::memory_order_relaxed) == c_free && try_to_take(lock)) {
            return true;
        }
        relax();
    }
    return false;
}

void sleep_until_taken(struct_lock_words& lock) {
    while (lock.state.exchange(c_awaited, std::memory_order_acquire) != c_free) {
        wait_while_equal(lock.state, c_awaited);
    }
}

// A lock is held for one system call or less. Whoever finds it taken has often been woken by that very call and has
// pushed the owner off the core that both want: the owner gets the core back. An owner on another core needs a moment.
// What lasts longer sleeps.
[[gnu::noinline]] void take_contended(struct_lock_words& lock, int own_core) {
    bool is_taken = false;
    if (lock.core.load(std::memory_order_relaxed) == own_core) {
        ::sched_yield();
        is_taken = try_to_take(lock);
    } else {
        is_taken = try_for_a_moment(lock);
    }
    if (!is_taken) {
        sleep_until_taken(lock);
    }
}

void take(struct_lock_words& lock) {
    race_detector::lock_is_wanted(lock);
    // Nobody else writes this thread's number, so what another thread writes meanwhile cannot be mistaken for it.
    std::uint32_t const self = own_number();
    if (lock.owner.load(std::memory_order_relaxed) != self) {
        auto const own_core = static_cast<std::int16_t>(::sched_getcpu());
        if (!try_to_take(lock)) {
            take_contended(lock, own_core);
        }
        lock.owner.store(self, std::memory_order_relaxed);
        lock.core.store(own_core, std::memory_order_relaxed);
    }
    ++lock.depth;
    race_detector::lock_is_taken(lock);
}

/// The thread that comes next may destroy the lock as soon as it is free: from there on only its address is used.
void give_back(struct_lock_words& lock) {
    race_detector::lock_is_returned(lock);
    if (--lock.depth == 0) {
        lock.owner.store(0, std::memory_order_relaxed);
        if (lock.state.exchange(c_free, std::memory_order_release) == c_awaited) {
            wake_one(lock.state);
        }
    }
    race_detector::lock_was_returned(lock);
}

} // namespace

class_thread_lock::class_thread_lock(unsigned int const&) {
    race_detector::lock_is_made(words);
}

class_thread_lock::~class_thread_lock() {
    race_detector::lock_is_destroyed(words);
}

// The bodies of the guards are where the annotated lock meets its words, so the analysis ends here.

class_locker::class_locker(class_lock& lock, unsigned char*) HOST_NO_LOCK_ANALYSIS : held(&lock) {
    take(held->words);
}

class_locker::class_locker(class_lock* lock, unsigned char*) HOST_NO_LOCK_ANALYSIS : held(lock) {
    take(held->words);
}

class_locker::~class_locker() HOST_NO_LOCK_ANALYSIS {
    give_back(held->words);
}

class_unlocker::class_unlocker(class_lock* lock) : released(lock) {
    give_back(released->words);
}

class_unlocker::~class_unlocker() {
    take(released->words);
}

} // namespace Tesk::OS
