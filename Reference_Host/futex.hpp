// Sleeping on a word until another thread changes it. Private to Reference_Host/.
//
// What has no result leaves errno alone: a lock is taken and given back between a failed call and the line that tells why.
#ifndef REFERENCE_HOST_FUTEX_HPP
#define REFERENCE_HOST_FUTEX_HPP

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <ctime>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Zolt::Reference_Host {

static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t)); // what the kernel compares

/// Returns when woken, at once when the word is not equal, or for no reason.
inline void wait_while_equal(std::atomic<std::uint32_t>& word, std::uint32_t value) {
    int const before = errno;
    ::syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, value, nullptr, nullptr, 0);
    errno = before;
}

/// The same, at the latest at the moment: a time of CLOCK_MONOTONIC. The system call's result and errno.
inline long wait_while_equal_until(std::atomic<std::uint32_t>& word, std::uint32_t value, timespec const& moment) {
    return ::syscall(SYS_futex, &word, FUTEX_WAIT_BITSET_PRIVATE, value, &moment, nullptr, FUTEX_BITSET_MATCH_ANY);
}

/// Wakes so many at most. The word may be gone already: only its address is used.
inline void wake(std::atomic<std::uint32_t>& word, int most) {
    int const before = errno;
    ::syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, most, nullptr, nullptr, 0);
    errno = before;
}

inline void wake_one(std::atomic<std::uint32_t>& word) {
    wake(word, 1);
}

inline void wake_all(std::atomic<std::uint32_t>& word) {
    wake(word, INT_MAX);
}

} // namespace Zolt::Reference_Host

#endif
