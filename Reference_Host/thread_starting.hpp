// How every thread of this host is started. Private to Reference_Host/.
#ifndef REFERENCE_HOST_THREAD_STARTING_HPP
#define REFERENCE_HOST_THREAD_STARTING_HPP

#include <pthread.h>

namespace Zolt::Reference_Host {

/// A thread's name, cut to what the kernel holds.
struct thread_name {
    char text[16];
};

/// "relay-" and the running number of the threads that asked before, from 1.
thread_name take_next_thread_name();
/// Names the calling thread; the first thing that a started thread does.
void wear_thread_name(thread_name const& name);

/// Starts a thread with every signal blocked but those that a fault raises. 0, or an error number; then nothing runs.
int start_thread(pthread_t& thread, void* (*entry)(void*), void* argument);

} // namespace Zolt::Reference_Host

#endif
