#include "tests/fault/fault.hpp"

#include "Center/INet_Relay/EPoll/epoll.hpp"
#include "tests/support/real_calls.hpp"

#include <cerrno>
#include <map>
#include <sstream>
#include <stdexcept>
#include <utility>

#include <netinet/in.h>
#include <netinet/tcp.h>

namespace relay_test {
namespace {

namespace EPoll = Zolt::Center::INet_Relay::EPoll;

std::map<std::string, int> const& errno_names() {
    static std::map<std::string, int> const names{{"EACCES", EACCES},
                                                  {"EADDRINUSE", EADDRINUSE},
                                                  {"EADDRNOTAVAIL", EADDRNOTAVAIL},
                                                  {"EAGAIN", EAGAIN},
                                                  {"EBADF", EBADF},
                                                  {"ECONNABORTED", ECONNABORTED},
                                                  {"ECONNREFUSED", ECONNREFUSED},
                                                  {"ECONNRESET", ECONNRESET},
                                                  {"EFAULT", EFAULT},
                                                  {"EHOSTUNREACH", EHOSTUNREACH},
                                                  {"EINPROGRESS", EINPROGRESS},
                                                  {"EINTR", EINTR},
                                                  {"EINVAL", EINVAL},
                                                  {"EIO", EIO},
                                                  {"EMFILE", EMFILE},
                                                  {"EMSGSIZE", EMSGSIZE},
                                                  {"ENETUNREACH", ENETUNREACH},
                                                  {"ENFILE", ENFILE},
                                                  {"ENOBUFS", ENOBUFS},
                                                  {"ENODEV", ENODEV},
                                                  {"ENOENT", ENOENT},
                                                  {"ENOMEM", ENOMEM},
                                                  {"ENOSPC", ENOSPC},
                                                  {"ENOTCONN", ENOTCONN},
                                                  {"EOPNOTSUPP", EOPNOTSUPP},
                                                  {"EPERM", EPERM},
                                                  {"EPIPE", EPIPE},
                                                  {"EPROTO", EPROTO},
                                                  {"ETIMEDOUT", ETIMEDOUT}};
    return names;
}

/// What a word after the call's name asks of one argument.
struct narrowing {
    std::size_t argument;
    long value;
};

std::map<std::string, narrowing> const& narrowings() {
    static std::map<std::string, narrowing> const words{{"ADD", {1, EPOLL_CTL_ADD}},
                                                        {"MOD", {1, EPOLL_CTL_MOD}},
                                                        {"DEL", {1, EPOLL_CTL_DEL}},
                                                        {"TCP_NODELAY", {2, TCP_NODELAY}},
                                                        {"SO_SNDTIMEO", {2, SO_SNDTIMEO}},
                                                        {"SO_BROADCAST", {2, SO_BROADCAST}},
                                                        {"IP_MULTICAST_TTL", {2, IP_MULTICAST_TTL}},
                                                        {"IP_MULTICAST_LOOP", {2, IP_MULTICAST_LOOP}},
                                                        {"IP_MULTICAST_IF", {2, IP_MULTICAST_IF}},
                                                        {"IP_ADD_SOURCE_MEMBERSHIP", {2, IP_ADD_SOURCE_MEMBERSHIP}},
                                                        {"IP_DROP_SOURCE_MEMBERSHIP", {2, IP_DROP_SOURCE_MEMBERSHIP}}};
    return words;
}

std::map<std::string, int*> const& instance_words() {
    static std::map<std::string, int*> const words{{"tcp_init", &EPoll::epoll_tcp_init},
                                                   {"tcp_recv", &EPoll::epoll_tcp_recv},
                                                   {"tcp_send", &EPoll::epoll_tcp_send},
                                                   {"udp_recv", &EPoll::epoll_udp_recv},
                                                   {"udp_send", &EPoll::epoll_udp_send}};
    return words;
}

bool fits(std::string const& word, system_call const& made) {
    if (auto const instance = instance_words().find(word); instance != instance_words().end()) {
        return made.descriptor == *instance->second;
    }
    auto const found = narrowings().find(word);
    if (found == narrowings().end()) {
        throw std::runtime_error("no system call is narrowed down by " + word);
    }
    narrowing const& wanted = found->second;
    return made.arguments.size() > wanted.argument && made.arguments[wanted.argument] == wanted.value;
}

/// Takes the datagram at the front away, as a read that could not place all of it does.
void lose_datagram(system_call const& made) {
    unsigned char byte = 0;
    __real_recv(made.descriptor, &byte, 1, MSG_DONTWAIT);
}

} // namespace

int errno_by_name(std::string const& name) {
    auto const found = errno_names().find(name);
    if (found == errno_names().end()) {
        throw std::runtime_error("no errno is called " + name);
    }
    return found->second;
}

std::string errno_name(int number) {
    for (auto const& [name, value] : errno_names()) {
        if (value == number) {
            return name;
        }
    }
    throw std::runtime_error("errno " + std::to_string(number) + " has no name here");
}

bool is_call(std::string const& words, system_call const& made) {
    std::istringstream in(words);
    std::string word;
    in >> word;
    bool fitting = word == made.name;
    while (fitting && in >> word) {
        fitting = fits(word, made);
    }
    return fitting;
}

injection::injection(system_calls& system, fault what, std::function<void()> first_hit)
    : script(system), wanted(std::move(what)), on_first_hit(std::move(first_hit)) {
    script.on(wanted.call.substr(0, wanted.call.find(' ')), [this](system_call const& made) {
        if (is_call(wanted.call, made)) {
            meet(made);
        }
    });
}

injection::~injection() {
    script.on(wanted.call.substr(0, wanted.call.find(' ')), nullptr);
}

int injection::hits() const {
    return hit;
}

void injection::meet(system_call const& made) {
    ++seen;
    bool const is_due = seen == wanted.position || (wanted.persistent && seen > wanted.position);
    if (!is_due || (wanted.result == "EINTR" && hit >= c_interruptions)) {
        return;
    }
    if (++hit == 1 && on_first_hit) {
        on_first_hit();
    }
    if (wanted.result == "0") {
        script.answer(made.name, 1, 0);
    } else if (wanted.result != "short") {
        script.fail(made.name, 1, errno_by_name(wanted.result));
    } else if (made.name == "recvfrom" && made.arguments[1] == MSG_TRUNC) {
        lose_datagram(made);
        script.answer(made.name, 1, c_short_transfer);
    } else {
        script.cap(made.name, 1, c_short_transfer);
    }
}

} // namespace relay_test
