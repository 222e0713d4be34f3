#include "tests/support/system_script.hpp"

#include "tests/support/journal.hpp"

#include <cstring>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

namespace relay_test {

std::string word_for(std::vector<word> const& words, long value) {
    for (word const& w : words) {
        if (w.value == value) {
            return w.name;
        }
    }
    return std::to_string(value);
}

namespace {

// Flags by name, the remainder in hexadecimal; "0" for none.
std::string flags_for(std::vector<word> const& words, unsigned long value) {
    std::string text;
    for (word const& w : words) {
        auto const bit = static_cast<unsigned long>(w.value);
        if ((value & bit) != 0) {
            text += (text.empty() ? "" : "|") + std::string(w.name);
            value &= ~bit;
        }
    }
    if (value != 0) {
        text += (text.empty() ? "" : "|") + hex(value);
    }
    return text.empty() ? "0" : text;
}

} // namespace

std::string option_text(int level, int option) {
    if (level == SOL_SOCKET) {
        return "SOL_SOCKET, " + word_for({{SO_BROADCAST, "SO_BROADCAST"},
                                          {SO_REUSEADDR, "SO_REUSEADDR"},
                                          {SO_LINGER, "SO_LINGER"},
                                          {SO_SNDTIMEO, "SO_SNDTIMEO"}},
                                         option);
    }
    if (level == IPPROTO_TCP) {
        return "IPPROTO_TCP, " + word_for({{TCP_NODELAY, "TCP_NODELAY"}}, option);
    }
    if (level == IPPROTO_IP) {
        return "IPPROTO_IP, " + word_for({{IP_MULTICAST_TTL, "IP_MULTICAST_TTL"},
                                          {IP_MULTICAST_LOOP, "IP_MULTICAST_LOOP"},
                                          {IP_MULTICAST_IF, "IP_MULTICAST_IF"},
                                          {IP_ADD_SOURCE_MEMBERSHIP, "IP_ADD_SOURCE_MEMBERSHIP"},
                                          {IP_DROP_SOURCE_MEMBERSHIP, "IP_DROP_SOURCE_MEMBERSHIP"}},
                                         option);
    }
    return std::to_string(level) + ", " + std::to_string(option);
}

std::string bytes_text(bytes const& data) {
    std::string text;
    for (unsigned char const byte : data) {
        constexpr char digits[] = "0123456789abcdef";
        text += {digits[byte >> 4], digits[byte & 15]};
    }
    return text;
}

std::string operation_text(int operation) {
    return word_for({{EPOLL_CTL_ADD, "ADD"}, {EPOLL_CTL_MOD, "MOD"}, {EPOLL_CTL_DEL, "DEL"}}, operation);
}

std::string message_flags(int flags) {
    return flags_for({{MSG_PEEK, "MSG_PEEK"},
                      {MSG_TRUNC, "MSG_TRUNC"},
                      {MSG_DONTWAIT, "MSG_DONTWAIT"},
                      {MSG_NOSIGNAL, "MSG_NOSIGNAL"}},
                     static_cast<unsigned>(flags));
}

std::string size_text(std::size_t size) {
    return std::to_string(size);
}

void set_address(system_call& call, sockaddr const* address, socklen_t length) {
    if (address == nullptr || length < sizeof(sockaddr_in)) {
        report_failure(call.name + " with an address of " + std::to_string(length) + " bytes");
        return;
    }
    sockaddr_in in{};
    std::memcpy(&in, address, sizeof in);
    call.ip = in.sin_addr.s_addr;
    call.port = ntohs(in.sin_port);
    call.arguments.push_back(in.sin_family);
    call.arguments.push_back(static_cast<long>(length));
}

std::string address_text(system_call const& call) {
    in_addr const in{call.ip};
    char dotted[INET_ADDRSTRLEN];
    return std::string(::inet_ntop(AF_INET, &in, dotted, sizeof dotted)) + ":" + std::to_string(call.port);
}

std::string mask_text(std::uint32_t mask) {
    static std::vector<word> const words{{EPOLLIN, "EPOLLIN"},
                                         {EPOLLOUT, "EPOLLOUT"},
                                         {EPOLLERR, "EPOLLERR"},
                                         {EPOLLHUP, "EPOLLHUP"},
                                         {EPOLLRDHUP, "EPOLLRDHUP"},
                                         {long{EPOLLONESHOT}, "EPOLLONESHOT"},
                                         {static_cast<long>(static_cast<std::uint32_t>(EPOLLET)), "EPOLLET"}};
    return flags_for(words, mask);
}

} // namespace relay_test
