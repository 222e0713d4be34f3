#include "Host/tesk_os.hpp"

namespace Tesk::OS {

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
    ::pthread_mutex_lock(&held->mutex);
}

class_locker::class_locker(class_lock* lock, unsigned char*) HOST_NO_LOCK_ANALYSIS : held(lock) {
    ::pthread_mutex_lock(&held->mutex);
}

class_locker::~class_locker() HOST_NO_LOCK_ANALYSIS {
    ::pthread_mutex_unlock(&held->mutex);
}

class_unlocker::class_unlocker(class_lock* lock) : released(lock) {
    ::pthread_mutex_unlock(&released->mutex);
}

class_unlocker::~class_unlocker() {
    ::pthread_mutex_lock(&released->mutex);
}

} // namespace Tesk::OS
