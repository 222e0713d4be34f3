// Locks with virtual operations, threads and the timer on the standard library: nothing here has the size, the layout
// or the base classes of the other host.
#ifndef SECOND_HOST_TESK_OS_HPP
#define SECOND_HOST_TESK_OS_HPP

#include "Host/lock_annotations.hpp"

#include <condition_variable>
#include <mutex>
#include <thread>

namespace Tesk::OS {

class class_lock {
public:
    virtual void enter() = 0;
    virtual void leave() = 0;

protected:
    virtual ~class_lock();
};

class class_thread_lock final : public class_lock {
public:
    explicit class_thread_lock(unsigned int const& spins);
    ~class_thread_lock() override;
    void enter() override;
    void leave() override;

private:
    unsigned int spin_count;
    std::recursive_mutex gate;
};

class class_locker {
public:
    class_locker(class_lock& what, unsigned char* note);
    class_locker(class_lock* what, unsigned char* note);
    ~class_locker();

private:
    unsigned char* left_note;
    class_lock& taken;
};

class class_unlocker {
public:
    explicit class_unlocker(class_lock* what);
    ~class_unlocker();

private:
    class_lock& lent;
};

class class_thread {
public:
    class_thread();
    ~class_thread();
    int eproc_create(void* (*body)(class_thread*), void* extra);
    int proc_wait_exit(void** answer);

private:
    void* outcome;
    std::thread worker;
};

class class_timer {
public:
    class_timer();
    ~class_timer();
    int eproc_create(double seconds, void (*tick)(class_timer*), void* extra);
    int proc_destroy();

private:
    bool ending;
    std::mutex guard;
    std::condition_variable wake;
    std::thread worker;
};

unsigned long lemon_clock(), lemon_cpu_clock();
void rtsleep(double seconds), thread_yield();

} // namespace Tesk::OS

#endif
