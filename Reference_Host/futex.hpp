// Sleeping on a word until another thread changes it. Private to Reference_Host/.
#ifndef REFERENCE_HOST_FUTEX_HPP
#define REFERENCE_HOST_FUTEX_HPP

#include <atomic>
#include <climits>
#include <cstdint>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Zolt::Reference_Host {

static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t)); // what the kernel compares

/// Returns when woken, at once when the word is not equal, or for no reason.
inline void wait_while_equal(std::atomic<std::uint32_t>& word, std::uint32_t value) {
    ::syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, value, nullptr, nullptr, 0);
}

/// The same, at the latest at the moment: a time of CLOCK_MONOTONIC. The system call's result and errno.
inline long wait_while_equal_until(std::atomic<std::uint32_t>& word, std::uint32_t value, timespec const& moment) {
    return ::syscall(SYS_futex, &word, FUTEX_WAIT_BITSET_PRIVATE, value, &moment, nullptr, FUTEX_BITSET_MATCH_ANY);
}

/// The word may be gone already: only its address is used.
inline void wake_one(std::atomic<std::uint32_t>& word) {
    ::syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

inline void wake_all(std::atomic<std::uint32_t>& word) {
    ::syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

} // namespace Zolt::Reference_Host

#endif
