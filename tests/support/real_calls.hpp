// The kernel itself, for the harness's own use: never written down, never answered by a script.
// The linker's --wrap gives each call these two names: __wrap_X is what the program calls, __real_X is libc's.
#ifndef TESTS_SUPPORT_REAL_CALLS_HPP
#define TESTS_SUPPORT_REAL_CALLS_HPP

#include <cstdio>

#include <sys/epoll.h>
#include <sys/socket.h>

extern "C" {
int __real_socket(int family, int type, int protocol);
int __real_bind(int fd, sockaddr const* address, socklen_t length);
int __real_listen(int fd, int backlog);
int __real_accept(int fd, sockaddr* address, socklen_t* length);
int __real_connect(int fd, sockaddr const* address, socklen_t length);
int __real_getsockname(int fd, sockaddr* address, socklen_t* length);
int __real_setsockopt(int fd, int level, int option, void const* value, socklen_t length);
ssize_t __real_send(int fd, void const* data, size_t size, int flags);
ssize_t __real_recv(int fd, void* data, size_t size, int flags);
ssize_t __real_sendto(int fd, void const* data, size_t size, int flags, sockaddr const* to, socklen_t length);
ssize_t __real_recvfrom(int fd, void* data, size_t size, int flags, sockaddr* from, socklen_t* length);
int __real_shutdown(int fd, int how);
int __real_close(int fd);
int __real_epoll_create1(int flags);
int __real_epoll_ctl(int instance, int operation, int fd, epoll_event* event);
int __real_epoll_wait(int instance, epoll_event* events, int room, int timeout);
int __real_fflush(std::FILE* stream);
int __real_fcntl(int fd, int command, long argument);
}

namespace relay_test::real {

inline int close(int fd) {
    return __real_close(fd);
}
inline int fcntl(int fd, int command, long argument) {
    return __real_fcntl(fd, command, argument);
}

} // namespace relay_test::real

#endif
