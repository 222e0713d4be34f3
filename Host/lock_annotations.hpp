// Names for clang's thread-safety attributes, so that a lock requirement stands in the declaration
// and a clang build checks it (-Wthread-safety). Other compilers see nothing.
#ifndef HOST_LOCK_ANNOTATIONS_HPP
#define HOST_LOCK_ANNOTATIONS_HPP

/// What all of the names below come down to.
#if defined(__clang__)
#define HOST_LOCK_ATTRIBUTE(x) __attribute__((x))
#else
#define HOST_LOCK_ATTRIBUTE(x)
#endif

/// The type is a lock.
#define HOST_CAPABILITY(name) HOST_LOCK_ATTRIBUTE(capability(name))
/// The type is a guard that holds a lock for as long as it lives.
#define HOST_SCOPED_CAPABILITY HOST_LOCK_ATTRIBUTE(scoped_lockable)
/// The field may be touched only while the named lock is held.
#define HOST_GUARDED_BY(...) HOST_LOCK_ATTRIBUTE(guarded_by(__VA_ARGS__))
/// The caller holds the named lock.
#define HOST_REQUIRES(...) HOST_LOCK_ATTRIBUTE(requires_capability(__VA_ARGS__))
/// The caller does not hold the named lock.
#define HOST_EXCLUDES(...) HOST_LOCK_ATTRIBUTE(locks_excluded(__VA_ARGS__))
/// The operation takes the named lock and returns with it held.
#define HOST_ACQUIRE(...) HOST_LOCK_ATTRIBUTE(acquire_capability(__VA_ARGS__))
/// The operation gives the named lock back.
#define HOST_RELEASE(...) HOST_LOCK_ATTRIBUTE(release_capability(__VA_ARGS__))
/// The body is not checked; a comment beside it says why.
#define HOST_NO_LOCK_ANALYSIS HOST_LOCK_ATTRIBUTE(no_thread_safety_analysis)

#endif
