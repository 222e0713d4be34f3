// What the linker's --wrap puts in place of each system call.
#include "tests/support/journal.hpp"
#include "tests/support/system_script.hpp"

#include <algorithm>
#include <cstdarg>
#include <cstring>

#include <fcntl.h>
#include <netinet/in.h>

namespace relay_test {
namespace {

bytes copy_of(void const* data, std::size_t size) {
    auto const* const first = static_cast<unsigned char const*>(data);
    return first == nullptr ? bytes() : bytes(first, first + size);
}

long no_name(system_call&, answer_entry const*, long result) {
    return result;
}

system_call on_descriptor(char const* name, int fd, std::vector<long> arguments = {}) {
    system_call call;
    call.name = name;
    call.descriptor = fd;
    call.arguments.push_back(fd);
    call.arguments.insert(call.arguments.end(), arguments.begin(), arguments.end());
    return call;
}

auto naming(char const* family) {
    return [family](system_call&, answer_entry const*, long result) {
        if (result >= 0 && recording()) {
            name_new_descriptor(static_cast<int>(result), family);
        }
        return result;
    };
}

// Gives scripted bytes to the caller of recv or recvfrom and keeps a copy of what arrived.
auto receiving(void* data, std::size_t size, sockaddr* from, socklen_t* length) {
    return [=](system_call& call, answer_entry const* scripted, long result) {
        if (scripted != nullptr && scripted->delivers) {
            bytes const& source = scripted->delivered;
            std::size_t const moved = std::min(size, source.size());
            std::memcpy(data, source.data(), moved);
            bool const whole = (call.arguments[1] & MSG_TRUNC) != 0;
            result = static_cast<long>(whole ? source.size() : moved);
            if (from != nullptr && length != nullptr) {
                sockaddr_in in{};
                in.sin_family = AF_INET;
                in.sin_addr.s_addr = scripted->ip;
                in.sin_port = htons(scripted->port);
                std::memcpy(from, &in, std::min<std::size_t>(sizeof in, *length));
                *length = sizeof in;
            }
        }
        if (result > 0 && recording()) {
            call.data = copy_of(data, std::min(size, static_cast<std::size_t>(result)));
        }
        return result;
    };
}

} // namespace
} // namespace relay_test

using namespace relay_test;

extern "C" {

int __wrap_socket(int family, int type, int protocol) {
    if (!interposing()) {
        return __real_socket(family, type, protocol);
    }
    system_call call;
    call.name = "socket";
    call.arguments = {family, type, protocol};
    std::string const text =
        call_text("socket", word_for({{AF_INET, "AF_INET"}}, family),
                  word_for({{SOCK_STREAM, "SOCK_STREAM"}, {SOCK_DGRAM, "SOCK_DGRAM"}}, type),
                  word_for({{IPPROTO_TCP, "IPPROTO_TCP"}, {IPPROTO_UDP, "IPPROTO_UDP"}}, protocol));
    return static_cast<int>(perform(
        call, about::system, text, [&](std::size_t) { return __real_socket(family, type, protocol); },
        naming("socket")));
}

int __wrap_bind(int fd, sockaddr const* address, socklen_t length) {
    if (!interposing()) {
        return __real_bind(fd, address, length);
    }
    system_call call = on_descriptor("bind", fd);
    set_address(call, address, length);
    return static_cast<int>(perform(
        call, about::system, call_text("bind", descriptor_name(fd), address_text(call)),
        [&](std::size_t) { return __real_bind(fd, address, length); }, no_name));
}

int __wrap_listen(int fd, int backlog) {
    if (!interposing()) {
        return __real_listen(fd, backlog);
    }
    return static_cast<int>(perform(
        on_descriptor("listen", fd, {backlog}), about::system, call_text("listen", descriptor_name(fd), backlog),
        [&](std::size_t) { return __real_listen(fd, backlog); }, no_name));
}

int __wrap_accept(int fd, sockaddr* address, socklen_t* length) {
    if (!interposing()) {
        return __real_accept(fd, address, length);
    }
    return static_cast<int>(perform(
        on_descriptor("accept", fd), about::system, call_text("accept", descriptor_name(fd)),
        [&](std::size_t) { return __real_accept(fd, address, length); }, naming("accepted")));
}

int __wrap_connect(int fd, sockaddr const* address, socklen_t length) {
    if (!interposing()) {
        return __real_connect(fd, address, length);
    }
    system_call call = on_descriptor("connect", fd);
    set_address(call, address, length);
    return static_cast<int>(perform(
        call, about::system, call_text("connect", descriptor_name(fd), address_text(call)),
        [&](std::size_t) { return __real_connect(fd, address, length); }, no_name));
}

int __wrap_getsockname(int fd, sockaddr* address, socklen_t* length) {
    if (!interposing()) {
        return __real_getsockname(fd, address, length);
    }
    return static_cast<int>(perform(
        on_descriptor("getsockname", fd), about::system, call_text("getsockname", descriptor_name(fd)),
        [&](std::size_t) { return __real_getsockname(fd, address, length); }, no_name));
}

int __wrap_setsockopt(int fd, int level, int option, void const* value, socklen_t length) {
    if (!interposing()) {
        return __real_setsockopt(fd, level, option, value, length);
    }
    system_call call = on_descriptor("setsockopt", fd, {level, option, static_cast<long>(length)});
    call.data = copy_of(value, length);
    bool const is_addition = level == SOL_SOCKET && option == SO_SNDTIMEO;
    return static_cast<int>(perform(
        call, is_addition ? about::close_on_exec : about::system,
        call_text("setsockopt", descriptor_name(fd), option_text(level, option), bytes_text(call.data)),
        [&](std::size_t) { return __real_setsockopt(fd, level, option, value, length); }, no_name));
}

ssize_t __wrap_send(int fd, void const* data, size_t size, int flags) {
    if (!interposing()) {
        return __real_send(fd, data, size, flags);
    }
    system_call call = on_descriptor("send", fd, {static_cast<long>(size), flags});
    call.size = size;
    call.data = recording() ? copy_of(data, size) : bytes();
    return perform(
        call, about::system, call_text("send", descriptor_name(fd), size_text(size), message_flags(flags)),
        [&](std::size_t most) { return __real_send(fd, data, std::min(size, most), flags); }, no_name);
}

ssize_t __wrap_recv(int fd, void* data, size_t size, int flags) {
    if (!interposing()) {
        return __real_recv(fd, data, size, flags);
    }
    system_call call = on_descriptor("recv", fd, {flags});
    call.size = size;
    return perform(
        call, about::system, call_text("recv", descriptor_name(fd), size_text(size), message_flags(flags)),
        [&](std::size_t most) { return __real_recv(fd, data, std::min(size, most), flags); },
        receiving(data, size, nullptr, nullptr));
}

ssize_t __wrap_sendto(int fd, void const* data, size_t size, int flags, sockaddr const* to, socklen_t length) {
    if (!interposing()) {
        return __real_sendto(fd, data, size, flags, to, length);
    }
    system_call call = on_descriptor("sendto", fd, {static_cast<long>(size), flags});
    call.size = size;
    call.data = recording() ? copy_of(data, size) : bytes();
    set_address(call, to, length);
    return perform(
        call, about::system,
        call_text("sendto", descriptor_name(fd), size_text(size), message_flags(flags), address_text(call)),
        [&](std::size_t most) { return __real_sendto(fd, data, std::min(size, most), flags, to, length); }, no_name);
}

ssize_t __wrap_recvfrom(int fd, void* data, size_t size, int flags, sockaddr* from, socklen_t* length) {
    if (!interposing()) {
        return __real_recvfrom(fd, data, size, flags, from, length);
    }
    system_call call = on_descriptor("recvfrom", fd, {flags});
    call.size = size;
    return perform(
        call, about::system, call_text("recvfrom", descriptor_name(fd), size_text(size), message_flags(flags)),
        [&](std::size_t most) { return __real_recvfrom(fd, data, std::min(size, most), flags, from, length); },
        receiving(data, size, from, length));
}

int __wrap_shutdown(int fd, int how) {
    if (!interposing()) {
        return __real_shutdown(fd, how);
    }
    std::string const word = word_for({{SHUT_RD, "SHUT_RD"}, {SHUT_WR, "SHUT_WR"}, {SHUT_RDWR, "SHUT_RDWR"}}, how);
    return static_cast<int>(perform(
        on_descriptor("shutdown", fd, {how}), about::system, call_text("shutdown", descriptor_name(fd), word),
        [&](std::size_t) { return __real_shutdown(fd, how); }, no_name));
}

int __wrap_close(int fd) {
    if (!interposing()) {
        return __real_close(fd);
    }
    std::string const text = call_text("close", descriptor_name(fd));
    forget_descriptor(fd);
    return static_cast<int>(perform(
        on_descriptor("close", fd), about::system, text, [&](std::size_t) { return __real_close(fd); }, no_name));
}

int __wrap_epoll_create1(int flags) {
    if (!interposing()) {
        return __real_epoll_create1(flags);
    }
    system_call call;
    call.name = "epoll_create1";
    call.arguments = {flags};
    return static_cast<int>(perform(
        call, about::system, call_text("epoll_create1", flags),
        [&](std::size_t) { return __real_epoll_create1(flags); }, naming("epoll")));
}

int __wrap_epoll_ctl(int instance, int operation, int fd, epoll_event* event) {
    if (!interposing()) {
        return __real_epoll_ctl(instance, operation, fd, event);
    }
    system_call call = on_descriptor("epoll_ctl", instance, {operation, fd});
    call.target = fd;
    call.mask = event == nullptr ? 0 : event->events;
    call.pointer = event == nullptr ? nullptr : event->data.ptr;
    std::string const record = recording() ? object_name(call.pointer) : std::string();
    return static_cast<int>(perform(
        call, about::system,
        call_text("epoll_ctl", descriptor_name(instance), operation_text(operation), descriptor_name(fd),
                  mask_text(call.mask), record),
        [&](std::size_t) { return __real_epoll_ctl(instance, operation, fd, event); }, no_name));
}

int __wrap_epoll_wait(int instance, epoll_event* events, int room, int timeout) {
    if (!interposing()) {
        return __real_epoll_wait(instance, events, room, timeout);
    }
    auto const wait = [&](std::size_t) {
        scripted_event event;
        if (!next_event(instance, event)) {
            return __real_epoll_wait(instance, events, room, timeout);
        }
        events[0].events = event.mask;
        events[0].data.ptr = event.record;
        return 1;
    };
    auto const describe = [&](system_call& call, answer_entry const*, long result) {
        call.mask = result > 0 ? events[0].events : 0;
        call.pointer = result > 0 ? events[0].data.ptr : nullptr;
        return result;
    };
    return static_cast<int>(perform(on_descriptor("epoll_wait", instance, {room, timeout}), about::system,
                                    call_text("epoll_wait", descriptor_name(instance), room, timeout), wait, describe));
}

int __wrap_fflush(std::FILE* stream) {
    if (!interposing()) {
        return __real_fflush(stream);
    }
    system_call call;
    call.name = "fflush";
    std::string const which = stream == stdout ? "stdout" : stream == nullptr ? "null" : "another stream";
    return static_cast<int>(perform(
        call, about::system, call_text("fflush", which), [&](std::size_t) { return __real_fflush(stream); }, no_name));
}

int __wrap_fcntl(int fd, int command, ...) {
    va_list list;
    va_start(list, command);
    long const argument = va_arg(list, long);
    va_end(list);
    if (!interposing()) {
        return __real_fcntl(fd, command, argument);
    }
    std::string const word =
        word_for({{F_GETFL, "F_GETFL"}, {F_SETFL, "F_SETFL"}, {F_SETFD, "F_SETFD"}, {F_GETFD, "F_GETFD"}}, command);
    std::string const value = command == F_SETFD && argument == FD_CLOEXEC ? "FD_CLOEXEC" : std::to_string(argument);
    return static_cast<int>(perform(
        on_descriptor("fcntl", fd, {command, argument}), command == F_SETFD ? about::close_on_exec : about::system,
        call_text("fcntl", descriptor_name(fd), word, value),
        [&](std::size_t) { return __real_fcntl(fd, command, argument); }, no_name));
}

} // extern "C"
