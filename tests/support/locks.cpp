#include "tests/support/locks.hpp"

#include "Host/tesk_os.hpp"
#include "tests/support/journal.hpp"

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <vector>

namespace relay_test {
namespace {

struct held_lock {
    void const* lock;
    lock_rank rank;
    int depth;
    std::string name;
};

struct lock_book {
    std::mutex guard;
    std::map<void const*, unsigned> live;
    unsigned numbering = 0;
};

lock_book& book() {
    static auto* const the_book = new lock_book;
    return *the_book;
}

constinit std::atomic<lock_classifier> g_classify{nullptr};
constinit std::atomic<long> g_made{0};
constinit std::atomic<long> g_destroyed{0};
constinit std::atomic<int> g_locked{0};
thread_local std::vector<held_lock> t_held;

bool is_live(void const* lock) {
    return book().live.contains(lock);
}

lock_rank rank_of(void const* lock) {
    lock_classifier const classify = g_classify.load();
    if (classify == nullptr) {
        return lock_rank::unknown;
    }
    lock_book& b = book();
    std::lock_guard const hold(b.guard);
    return classify(lock, is_live);
}

std::string lock_name(void const* lock) {
    if (std::string known = known_object_name(lock); !known.empty()) {
        return known;
    }
    lock_book& b = book();
    std::lock_guard const hold(b.guard);
    auto const found = b.live.find(lock);
    return "lock#" + std::to_string(found == b.live.end() ? 0 : found->second);
}

held_lock* find_held(void const* lock) {
    auto const found = std::find_if(t_held.begin(), t_held.end(), [&](held_lock const& h) { return h.lock == lock; });
    return found == t_held.end() ? nullptr : &*found;
}

void check_order(held_lock const& taken) {
    if (taken.rank == lock_rank::unknown) {
        return;
    }
    for (held_lock const& outer : t_held) {
        if (outer.rank != lock_rank::unknown && outer.rank >= taken.rank) {
            report_failure("lock order: " + taken.name + " taken while holding " + outer.name);
        }
    }
}

// Writes the lock into the thread's list. The lock itself is held by now.
int enter(void const* lock) {
    if (held_lock* const again = find_held(lock)) {
        return ++again->depth;
    }
    held_lock taken{lock, rank_of(lock), 1, lock_name(lock)};
    check_order(taken);
    t_held.push_back(std::move(taken));
    g_locked.fetch_add(1, std::memory_order_relaxed);
    return 1;
}

// Takes the lock out of the thread's list; -1 when the thread did not hold it. The lock itself is still held.
int leave(void const* lock) {
    held_lock* const held = find_held(lock);
    if (held == nullptr) {
        return -1;
    }
    if (--held->depth > 0) {
        return held->depth;
    }
    t_held.erase(t_held.begin() + (held - t_held.data()));
    g_locked.fetch_sub(1, std::memory_order_relaxed);
    return 0;
}

void note_lock(void const* lock, char const* name, char const* form, int depth) {
    if (recording()) {
        note(about::lock, lock_name(lock), name, std::string(form), "depth " + std::to_string(depth));
    }
}

/// Of the calling thread; never 0.
std::uint32_t own_number() {
    static std::atomic<std::uint32_t> last{0};
    thread_local std::uint32_t const number = ++last;
    return number;
}

void take(Tesk::OS::struct_lock_words& words) {
    if (words.owner != own_number()) {
        while (words.state.exchange(1) != 0) {
            words.state.wait(1);
        }
        words.owner = own_number();
    }
    ++words.depth;
}

void let_go(Tesk::OS::struct_lock_words& words) {
    if (--words.depth == 0) {
        words.owner = 0;
        words.state = 0;
        words.state.notify_one();
    }
}

void acquire(void const* lock, Tesk::OS::struct_lock_words& words, char const* name, char const* form) {
    take(words);
    if (recording()) {
        note_lock(lock, name, form, enter(lock));
    }
}

void give_back(void const* lock, Tesk::OS::struct_lock_words& words, char const* name, char const* form) {
    int const depth = leave(lock);
    if (depth == -1 && recording()) {
        report_failure(std::string(name) + " of " + lock_name(lock) + ", which the thread does not hold");
    }
    note_lock(lock, name, form, depth);
    let_go(words);
}

void check_unused(unsigned char const* unused) {
    if (unused != nullptr) {
        report_failure("class_locker: the second argument is not null");
    }
}

} // namespace

void set_lock_classifier(lock_classifier classify) {
    g_classify.store(classify);
}

lock_counts count_locks() {
    return {g_made.load(), g_destroyed.load()};
}

int held_lock_count() {
    return static_cast<int>(t_held.size());
}

bool holds_registry_or_ack_lock() {
    return std::any_of(t_held.begin(), t_held.end(), [](held_lock const& held) {
        return held.rank == lock_rank::registry || held.rank == lock_rank::ack;
    });
}

int locked_lock_count() {
    return g_locked.load();
}

std::vector<std::string> held_locks() {
    std::vector<std::string> names;
    for (held_lock const& held : t_held) {
        names.push_back(held.name);
    }
    return names;
}

} // namespace relay_test

namespace Tesk::OS {

using namespace relay_test;

class_thread_lock::class_thread_lock(unsigned int const& kind) {
    errno_guard const keep;
    g_made.fetch_add(1, std::memory_order_relaxed);
    if (kind != 0) {
        report_failure("class_thread_lock made with " + std::to_string(kind));
    }
    if (!recording()) {
        return;
    }
    {
        lock_book& b = book();
        std::lock_guard const hold(b.guard);
        b.live[this] = ++b.numbering;
    }
    note_object(this, "lock", "class_thread_lock");
}

class_thread_lock::~class_thread_lock() {
    errno_guard const keep;
    g_destroyed.fetch_add(1, std::memory_order_relaxed);
    if (recording()) {
        note_object(this, "lock", "~class_thread_lock");
        lock_book& b = book();
        std::lock_guard const hold(b.guard);
        b.live.erase(this);
        forget_object(this);
    }
    if (words.state != 0) {
        report_failure("a lock was destroyed while held");
    }
}

class_locker::class_locker(class_lock& lock, unsigned char* unused) : held(&lock) {
    errno_guard const keep;
    check_unused(unused);
    acquire(held, held->words, "lock", "reference");
}

class_locker::class_locker(class_lock* lock, unsigned char* unused) : held(lock) {
    errno_guard const keep;
    check_unused(unused);
    acquire(held, held->words, "lock", "pointer");
}

class_locker::~class_locker() {
    errno_guard const keep;
    give_back(held, held->words, "unlock", "guard");
}

class_unlocker::class_unlocker(class_lock* lock) : released(lock) {
    errno_guard const keep;
    give_back(released, released->words, "release", "unlocker");
}

class_unlocker::~class_unlocker() {
    errno_guard const keep;
    acquire(released, released->words, "retake", "unlocker");
}

} // namespace Tesk::OS
