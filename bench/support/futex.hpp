// Waiting for a word of memory to change, and telling who waits; also between processes that share the memory.
#ifndef BENCH_SUPPORT_FUTEX_HPP
#define BENCH_SUPPORT_FUTEX_HPP

#include <atomic>
#include <cstdint>
#include <ctime>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace relay_bench {

/// Returns when told, when the word is another one, when the time is over, or for no reason.
inline void futex_wait(std::atomic<std::uint32_t>& word, std::uint32_t value, timespec const* longest = nullptr) {
    ::syscall(SYS_futex, &word, FUTEX_WAIT, value, longest, nullptr, 0);
}

inline void futex_wake(std::atomic<std::uint32_t>& word) {
    ::syscall(SYS_futex, &word, FUTEX_WAKE, 1, nullptr, nullptr, 0);
}

} // namespace relay_bench

#endif
