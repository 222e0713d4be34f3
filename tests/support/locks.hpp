// The host's locks: real re-entrant mutexes that are written down, counted and checked for order.
#ifndef TESTS_SUPPORT_LOCKS_HPP
#define TESTS_SUPPORT_LOCKS_HPP

#include <string>

namespace relay_test {

/// Where a lock stands in the order: a registry's before a record's send_lock before its ack_lock, never two of a rank.
enum class lock_rank { unknown, registry, send, ack };

/// Tells the rank of a live lock; called with the harness's own book of locks held, so it must not lock anything.
using lock_classifier = lock_rank (*)(void const* lock, bool (*is_live)(void const* lock));
/// Without a classifier only names and depth are kept and no order is checked.
void set_lock_classifier(lock_classifier classify);

/// Counts since load, relaxed atomics, also kept while recording is off.
struct lock_counts {
    long made = 0;
    long destroyed = 0;
};
lock_counts count_locks();

/// Locks held by the calling thread, of every rank; counted by depth one each.
int held_lock_count();
/// True when the calling thread holds a registry lock or an ack_lock.
bool holds_registry_or_ack_lock();
/// Locks that some thread still holds. Only those taken while recording was on.
int locked_lock_count();

} // namespace relay_test

#endif
