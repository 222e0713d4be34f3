// This host does not take part in the lock analysis: the names exist and say nothing.
#ifndef SECOND_HOST_LOCK_ANNOTATIONS_HPP
#define SECOND_HOST_LOCK_ANNOTATIONS_HPP

#define HOST_CAPABILITY(name)
#define HOST_SCOPED_CAPABILITY
#define HOST_GUARDED_BY(...)
#define HOST_REQUIRES(...)
#define HOST_EXCLUDES(...)
#define HOST_ACQUIRE(...)
#define HOST_RELEASE(...)
#define HOST_NO_LOCK_ANALYSIS

#endif
