// What a race detector is told about the host's own locks, so that it knows them as it knows those of the C library: who
// holds which, in which order they are taken, and that none is destroyed while held. Without a detector nothing is left
// of it. Private to Reference_Host/.
#ifndef REFERENCE_HOST_RACE_DETECTOR_HPP
#define REFERENCE_HOST_RACE_DETECTOR_HPP

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define REFERENCE_HOST_RACE_DETECTOR 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define REFERENCE_HOST_RACE_DETECTOR 1
#endif

#ifdef REFERENCE_HOST_RACE_DETECTOR
#include <sanitizer/tsan_interface.h>
#endif

namespace Zolt::Reference_Host::race_detector {

#ifdef REFERENCE_HOST_RACE_DETECTOR

inline void lock_is_made(auto& lock) {
    __tsan_mutex_create(&lock, __tsan_mutex_write_reentrant);
}
inline void lock_is_destroyed(auto& lock) {
    __tsan_mutex_destroy(&lock, __tsan_mutex_write_reentrant);
}
inline void lock_is_wanted(auto& lock) {
    __tsan_mutex_pre_lock(&lock, __tsan_mutex_write_reentrant);
}
inline void lock_is_taken(auto& lock) {
    __tsan_mutex_post_lock(&lock, __tsan_mutex_write_reentrant, 1);
}
inline void lock_is_returned(auto& lock) {
    __tsan_mutex_pre_unlock(&lock, __tsan_mutex_write_reentrant);
}
inline void lock_was_returned(auto& lock) {
    __tsan_mutex_post_unlock(&lock, __tsan_mutex_write_reentrant);
}

#else

inline void lock_is_made(auto&) {}
inline void lock_is_destroyed(auto&) {}
inline void lock_is_wanted(auto&) {}
inline void lock_is_taken(auto&) {}
inline void lock_is_returned(auto&) {}
inline void lock_was_returned(auto&) {}

#endif

} // namespace Zolt::Reference_Host::race_detector

#endif
