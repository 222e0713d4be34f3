// The nine keys of the configuration as a table, for whichever host reads them.
#ifndef TESTS_UNIT_CONFIGURATION_KEYS_HPP
#define TESTS_UNIT_CONFIGURATION_KEYS_HPP

#include "Center/INet_Relay/EPoll/epoll.hpp"

#include <array>

namespace relay_test {

/// A key of the configuration. Exactly one of the two globals is set.
struct key_row {
    char const* key;
    bool* setting;
    bool built_in;
    int* number;
    int fallback;
};

inline std::array<key_row, 9> keys() {
    namespace engine = Zolt::Center::INet_Relay::EPoll;
    return {{{"AUTO_DISCONNECT", &engine::g_auto_disconnect, true, nullptr, 0},
             {"SERVER_SOCKET_REUSE", &engine::g_server_socket_reuse, true, nullptr, 0},
             {"SERVER_LISTEN_BACKLOG", nullptr, false, &engine::g_listen_backlog, 5},
             {"SERVER_LINGER_USE", &engine::g_server_linger_use, false, nullptr, 0},
             {"SERVER_LINGER_TIME", nullptr, false, &engine::g_server_linger_time, 1024},
             {"SERVER_NAGLE_OFF_USE", &engine::g_server_nagle_off_use, true, nullptr, 0},
             {"CLIENT_LINGER_USE", &engine::g_client_linger_use, false, nullptr, 0},
             {"CLIENT_LINGER_TIME", nullptr, false, &engine::g_client_linger_time, 1024},
             {"CLIENT_NAGLE_OFF_USE", &engine::g_client_nagle_off_use, true, nullptr, 0}}};
}

} // namespace relay_test

#endif
