// The two processes of a run: the memory that they share, the channel between them, where they run, what they use.
#ifndef BENCH_SUPPORT_PROCESSES_HPP
#define BENCH_SUPPORT_PROCESSES_HPP

#include "bench/plan.hpp"

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include <sys/types.h>

namespace relay_bench {

/// Packets that arrived at the far end, counted by the one thread there that delivers.
class arrival_counter {
public:
    void add() {
        std::uint64_t const now = count.load(std::memory_order_relaxed) + 1;
        count.store(now, std::memory_order_release);
    }
    /// The same, and wakes who waits for that many.
    void add_and_tell();
    std::uint64_t get() const { return count.load(std::memory_order_acquire); }
    /// Waits until that many have arrived, or the time is over; the count. One thread at a time.
    std::uint64_t wait_for(std::uint64_t wanted, double seconds);

private:
    alignas(64) std::atomic<std::uint64_t> count{0};
    alignas(64) std::atomic<std::uint64_t> awaited{~std::uint64_t{0}};
    std::atomic<std::uint32_t> turn{0}; ///< a futex between processes
};

/// Lives in memory that both processes see.
struct shared_state {
    arrival_counter arrivals;
    alignas(64) std::atomic<std::uint64_t> requests{0}; ///< how often the near end asked for something
    std::atomic<std::uint64_t> faults{0};               ///< packets of a wrong size, connections lost, at both ends

    static shared_state& make();
};

/// What a process uses, as far as the kernel and the heap tell.
struct process_usage {
    std::uint64_t heap_bytes;        ///< handed out by malloc
    std::uint64_t resident_bytes;    ///< private and written to
    std::uint64_t wakeups;           ///< how often a thread of it, but the first, slept and went on
    std::uint64_t ticks_nanoseconds; ///< processor time of the ticking thread
};
process_usage measure_usage(int ticking_thread);
/// The kernel's number of the thread of this process that was started last.
int newest_thread();

/// Processor seconds of a process, kernel included.
double processor_seconds(pid_t process);

/// Binds the calling process: the near end to the first processor, the far end to the first or the second.
void bind_to_cores(placement cores, bool is_far);

/// What passes between the two ends beside packets.
struct message {
    enum what : std::uint32_t { serve, connect, datagrams, ticks, measure, stop, done, failed, refused } kind = done;
    std::uint64_t value = 0;
    union {
        process_usage usage;
        std::array<char, 400> text{};
    };
};

class channel {
public:
    explicit channel(int descriptor) : fd(descriptor) {}
    void send(message const& what);
    void send_text(message::what kind, std::string const& text);
    /// Waits for a message. Throws when there is none in time, when the other end is gone, or failed.
    message receive(double seconds);

private:
    int const fd;
};

/// A second process, forked from this one while that has one thread. It ends with this object, or with this process.
class far_process {
public:
    explicit far_process(std::function<void(channel&)> const& body);
    ~far_process();
    far_process(far_process const&) = delete;
    far_process& operator=(far_process const&) = delete;

    channel& link() { return near_link; }
    pid_t id() const { return child; }
    /// Ends the process at once.
    void finish();

private:
    explicit far_process(std::pair<int, pid_t> const& started);

    channel near_link;
    pid_t child;
};

} // namespace relay_bench

#endif
