// Stands before the C library: epoll_wait fails on the thread whose name the variable ENDED_THREAD holds, so that the
// relay's thread ends.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <pthread.h>
#include <sys/epoll.h>

extern "C" int epoll_wait(int instance, epoll_event* events, int most, int longest) {
    static auto* const real = reinterpret_cast<decltype(&epoll_wait)>(::dlsym(RTLD_NEXT, "epoll_wait"));
    char name[16] = "";
    ::pthread_getname_np(::pthread_self(), name, sizeof name);
    char const* const ended = std::getenv("ENDED_THREAD");
    if (ended != nullptr && std::strcmp(name, ended) == 0) {
        errno = EINVAL;
        return -1;
    }
    return real(instance, events, most, longest);
}
