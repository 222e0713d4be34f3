// Locks, guards, threads, the timer, clocks and sleep: what the relay requires of its host.
//
// Declarations only. The relay makes no thread, lock, timer or clock by itself. Every operation may run on all of the
// relay's threads at the same time. The relay's globals are constructed while the library is loaded, possibly
// before the host's own static objects: constructors here must not depend on those.
#ifndef HOST_TESK_OS_HPP
#define HOST_TESK_OS_HPP

#include "Host/lock_annotations.hpp"

#include <atomic>
#include <cstdint>

namespace Tesk::OS {

/// What a lock is made of: the host's own, as small as it gets, because each connection has two of them.
struct struct_lock_words {
    std::atomic<std::uint32_t> state{0}; ///< whether it is held, and waited for
    std::atomic<std::uint32_t> owner{0}; ///< the number that the host gave the thread that holds it
    std::uint16_t depth = 0;             ///< how often its owner holds it
    std::atomic<std::int16_t> core{-1};  ///< where its owner ran when it took the lock
};

/// A mutual-exclusion lock, re-entrant for its owner: as many unlocks as locks. May be destroyed by the thread that
/// took it last as soon as the thread before has let go of it. Taken and given back only by the two guards.
class HOST_CAPABILITY("lock") class_lock {
public:
    class_lock(class_lock const&) = delete;
    class_lock& operator=(class_lock const&) = delete;

protected:
    class_lock() = default;
    ~class_lock() = default;

    friend class class_locker;
    friend class class_unlocker;
    struct_lock_words words; ///< the host's own
};

/// The lock that the relay embeds in its records and keeps two of as globals. The argument is always 0.
class class_thread_lock : public class_lock {
public:
    explicit class_thread_lock(unsigned int const& kind); ///< held by nobody
    ~class_thread_lock();
};

/// Holds a lock from construction to destruction. The second argument is always null.
class HOST_SCOPED_CAPABILITY class_locker {
public:
    /// Waits for the lock and takes it, once more when the thread holds it already.
    class_locker(class_lock& lock, unsigned char* unused) HOST_ACQUIRE(lock);
    class_locker(class_lock* lock, unsigned char* unused) HOST_ACQUIRE(lock);
    ~class_locker() HOST_RELEASE();
    class_locker(class_locker const&) = delete;
    class_locker& operator=(class_locker const&) = delete;

private:
    class_lock* held;
};

/// Gives a lock that the calling thread holds back for as long as it lives, and takes it again when destroyed.
/// The lock analysis cannot express "released in between"; the caller still counts as the holder.
class class_unlocker {
public:
    explicit class_unlocker(class_lock* lock); ///< gives back one of the holds that the thread has
    ~class_unlocker();
    class_unlocker(class_unlocker const&) = delete;
    class_unlocker& operator=(class_unlocker const&) = delete;

private:
    class_lock* released;
};

/// One operating-system thread; constructing the object starts nothing.
class class_thread {
public:
    class_thread();
    ~class_thread();
    class_thread(class_thread const&) = delete;
    class_thread& operator=(class_thread const&) = delete;

    /// Starts a thread that calls entry with this object. The second argument is the entry's own; the relay passes
    /// null. 0, or an error number. Asynchronous signals are blocked in the thread.
    int eproc_create(void* (*entry)(class_thread*), void* argument);
    /// Waits until the entry has returned; stores its result when the argument is not null. Returns at once when
    /// the thread never ran or was waited for before. 0, or an error number.
    int proc_wait_exit(void** result);

private:
    struct thread_state;
    thread_state* state;
};

/// A periodic timer; constructing the object starts nothing.
class class_timer {
public:
    class_timer();
    ~class_timer();
    class_timer(class_timer const&) = delete;
    class_timer& operator=(class_timer const&) = delete;

    /// Calls callback with this object once every period (seconds) on a thread of the timer's own, holding no lock,
    /// until destroyed; a callback that overruns loses ticks instead of getting them in a burst. 0, or an error number.
    int eproc_create(double period, void (*callback)(class_timer*), void* argument);
    /// Stops the timer; on return no callback runs and none will start. Harmless on a timer that never ran.
    int proc_destroy();

private:
    struct timer_state;
    timer_state* state;
};

/// Monotonic count of ticks; the relay's time-outs are 8000 of them. It is read several times a packet: let it be cheap;
/// it may go in steps of some ticks.
unsigned long lemon_clock();
/// Finer monotonic count that is stamped into packets.
unsigned long lemon_cpu_clock();
/// Suspends the calling thread for that many seconds.
void rtsleep(double seconds);
/// Gives up the processor once.
void thread_yield();

} // namespace Tesk::OS

#endif
