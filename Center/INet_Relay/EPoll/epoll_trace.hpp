// Traced events. Some sites carry a file and line that tools know by heart; they are fixed here and stay what they are
// when the code around them moves. Every other trace carries the real line of its call.
#ifndef CENTER_INET_RELAY_EPOLL_EPOLL_TRACE_HPP
#define CENTER_INET_RELAY_EPOLL_EPOLL_TRACE_HPP

#include "Host/zolt_global.hpp"

namespace Zolt::Center::INet_Relay::EPoll {

constexpr char const* c_file_public = "Center/INet_Relay/EPoll/inet_relay_epoll";
constexpr char const* c_file_timer = "Center/INet_Relay/EPoll/epoll";
constexpr char const* c_file_method = "Center/INet_Relay/EPoll/epoll_tcp_method";
constexpr char const* c_file_client = "Center/INet_Relay/EPoll/epoll_tcp_method_client";
constexpr char const* c_file_server = "Center/INet_Relay/EPoll/epoll_tcp_method_server";

/// Where a trace says it comes from; the letter is t or T for traffic, C for connections, E for the engine.
struct struct_trace_site {
    char letter;
    char const* file;
    int line;
};

constexpr struct_trace_site c_site_hand_over_client{'T', c_file_public, 386};
constexpr struct_trace_site c_site_hand_over_server{'T', c_file_public, 470};
constexpr struct_trace_site c_site_broadcast{'T', c_file_public, 562};
constexpr struct_trace_site c_site_cleared{'C', c_file_method, 114};
constexpr struct_trace_site c_site_deleted{'E', c_file_method, 120};
constexpr struct_trace_site c_site_received{'t', c_file_method, 190};
constexpr struct_trace_site c_site_given_up{'C', c_file_method, 213};
constexpr struct_trace_site c_site_sending_client{'E', c_file_client, 795};
constexpr struct_trace_site c_site_server_nagle{'C', c_file_server, 240};
constexpr struct_trace_site c_site_server_untold{'E', c_file_server, 470};
constexpr struct_trace_site c_site_server_unheard{'E', c_file_server, 498};
constexpr struct_trace_site c_site_sending_server{'E', c_file_server, 757};

/// A site with the line of the call.
constexpr struct_trace_site here(char letter, char const* file, int line = __builtin_LINE()) {
    return {letter, file, line};
}

/// Hands one event to the host, which formats it only when somebody listens; the result is the host's.
template <typename... Values>
int trace(struct_trace_site const& site, struct_token const& token, char const* format, Values... values) {
    return Common::Global::zolt_debug_not_send(site.letter, token, site.file, site.line, format, values...);
}

} // namespace Zolt::Center::INet_Relay::EPoll

#endif
