#include "Host/tesk_os.hpp"
#include "Reference_Host/relay_observer.hpp"
#include "Reference_Host/thread_starting.hpp"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <memory>
#include <new>
#include <utility>

namespace Zolt::Reference_Host {
namespace {

constinit std::atomic<unsigned int> g_threads_named{0};

/// All signals but those that a thread raises by its own fault; blocking these is undefined.
sigset_t asynchronous_signals() {
    sigset_t signals;
    ::sigfillset(&signals);
    for (int const fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) {
        ::sigdelset(&signals, fault);
    }
    return signals;
}

/// Blocks them for as long as it lives, so that a thread started meanwhile never had them open.
class signal_blocker {
public:
    signal_blocker() {
        sigset_t const blocked = asynchronous_signals();
        ::pthread_sigmask(SIG_BLOCK, &blocked, &before);
    }
    ~signal_blocker() { ::pthread_sigmask(SIG_SETMASK, &before, nullptr); }
    signal_blocker(signal_blocker const&) = delete;
    signal_blocker& operator=(signal_blocker const&) = delete;

private:
    sigset_t before;
};

} // namespace

unsigned int count_thread_names() {
    return g_threads_named.load(std::memory_order_relaxed);
}

thread_name take_next_thread_name() {
    unsigned int const number = g_threads_named.fetch_add(1, std::memory_order_relaxed) + 1;
    thread_name name;
    std::snprintf(name.text, sizeof name.text, "relay-%u", number % 1000000000U);
    return name;
}

void wear_thread_name(thread_name const& name) {
    ::pthread_setname_np(::pthread_self(), name.text);
}

int start_thread(pthread_t& thread, void* (*entry)(void*), void* argument) {
    signal_blocker const blocker;
    return ::pthread_create(&thread, nullptr, entry, argument);
}

} // namespace Zolt::Reference_Host

namespace Tesk::OS {

/// Shared by the thread object and its thread: whichever lets go last destroys it.
struct class_thread::thread_state {
    pthread_t thread{};
    class_thread* owner = nullptr;
    void* (*entry)(class_thread*) = nullptr;
    void* result = nullptr;
    Zolt::Reference_Host::thread_name name = Zolt::Reference_Host::take_next_thread_name();
    std::atomic<int> holders{2};

    void let_go() {
        if (holders.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete this;
        }
    }

    static void* run(void* argument) {
        thread_state* const state = static_cast<thread_state*>(argument);
        Zolt::Reference_Host::wear_thread_name(state->name);
        state->result = state->entry(state->owner);
        state->let_go();
        return nullptr;
    }
};

class_thread::class_thread() : state(nullptr) {}

class_thread::~class_thread() {
    // A thread that nobody waited for may never end: it is left alone, not waited for.
    if (state != nullptr) {
        ::pthread_detach(state->thread);
        state->let_go();
    }
}

int class_thread::eproc_create(void* (*entry)(class_thread*), void*) {
    if (state != nullptr) {
        return EBUSY;
    }
    auto fresh = std::unique_ptr<thread_state>(new (std::nothrow) thread_state);
    if (fresh == nullptr) {
        return ENOMEM;
    }
    fresh->owner = this;
    fresh->entry = entry;
    // The thread stores nothing in pthread_t, so writing it from here while the thread runs disturbs nobody.
    int const error = Zolt::Reference_Host::start_thread(fresh->thread, &thread_state::run, fresh.get());
    if (error == 0) {
        state = fresh.release();
    }
    return error;
}

int class_thread::proc_wait_exit(void** result) {
    if (state == nullptr) {
        return 0;
    }
    int const error = ::pthread_join(state->thread, nullptr);
    if (error != 0) {
        return error;
    }
    thread_state* const ended = std::exchange(state, nullptr);
    if (result != nullptr) {
        *result = ended->result;
    }
    ended->let_go();
    return 0;
}

} // namespace Tesk::OS
