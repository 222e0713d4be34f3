#include "Host/tesk_os.hpp"

#include <sched.h>

namespace Tesk::OS {
namespace {

/// Tells the processor that this thread waits for another one.
void relax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

bool try_for_a_moment(pthread_mutex_t& mutex) {
    constexpr int c_looks = 100;
    for (int looks = 0; looks < c_looks; ++looks) {
        if (::pthread_mutex_trylock(&mutex) == 0) {
            return true;
        }
        relax();
    }
    return false;
}

// A lock is held for one system call or less. Whoever finds it taken has often been woken by that very call and has
// pushed the owner off the core that both want: the owner gets the core back. An owner on another core needs a moment.
// What lasts longer is left to the kernel's queue.
[[gnu::noinline]] void take_contended(pthread_mutex_t& mutex, int owners_core, int own_core) {
    if (owners_core == own_core) {
        ::sched_yield();
    } else if (try_for_a_moment(mutex)) {
        return;
    }
    ::pthread_mutex_lock(&mutex);
}

void take(pthread_mutex_t& mutex, std::atomic<int>& owners_core) {
    int const own_core = ::sched_getcpu();
    if (::pthread_mutex_trylock(&mutex) != 0) {
        take_contended(mutex, owners_core.load(std::memory_order_relaxed), own_core);
    }
    owners_core.store(own_core, std::memory_order_relaxed);
}

} // namespace

class_thread_lock::class_thread_lock(unsigned int const&) {
    pthread_mutexattr_t attributes;
    ::pthread_mutexattr_init(&attributes);
    ::pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    ::pthread_mutex_init(&mutex, &attributes);
    ::pthread_mutexattr_destroy(&attributes);
}

class_thread_lock::~class_thread_lock() {
    ::pthread_mutex_destroy(&mutex);
}

// The bodies of the guards are where the annotated lock meets the unannotated mutex, so the analysis ends here.

class_locker::class_locker(class_lock& lock, unsigned char*) HOST_NO_LOCK_ANALYSIS : held(&lock) {
    take(held->mutex, held->core);
}

class_locker::class_locker(class_lock* lock, unsigned char*) HOST_NO_LOCK_ANALYSIS : held(lock) {
    take(held->mutex, held->core);
}

class_locker::~class_locker() HOST_NO_LOCK_ANALYSIS {
    ::pthread_mutex_unlock(&held->mutex);
}

class_unlocker::class_unlocker(class_lock* lock) : released(lock) {
    ::pthread_mutex_unlock(&released->mutex);
}

class_unlocker::~class_unlocker() {
    take(released->mutex, released->core);
}

} // namespace Tesk::OS
