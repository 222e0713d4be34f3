#include "Host/tesk_inet.hpp"

#include <cstdio>
#include <cstring>

namespace Tesk::INet {

char const* str_from_ip(unsigned int ip) {
    // A few texts a thread, used in turn, so that one message may show several addresses.
    constexpr unsigned int c_texts = 4;
    static thread_local char texts[c_texts][16];
    static thread_local unsigned int next = 0;
    char(&text)[16] = texts[next++ % c_texts];
    unsigned char bytes[4];
    std::memcpy(bytes, &ip, sizeof bytes);
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", bytes[0] + 0U, bytes[1] + 0U, bytes[2] + 0U, bytes[3] + 0U);
    return text;
}

} // namespace Tesk::INet
