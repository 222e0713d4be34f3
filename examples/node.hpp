// What the examples on the reference host share: the relay's life, from initialize to clear_leftovers, and the loop that
// takes packets out of the inbox.
#ifndef EXAMPLES_NODE_HPP
#define EXAMPLES_NODE_HPP

#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"
#include "Reference_Host/inbox.hpp"
#include "Reference_Host/packet_building.hpp"
#include "Reference_Host/packet_reading.hpp"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>

#include <arpa/inet.h>

namespace examples {

namespace host = Zolt::Reference_Host;
namespace relay = Zolt::Center::INet_Relay;
using Zolt::struct_node_addr;
using Zolt::struct_packet;
using Zolt::struct_token;

inline volatile std::sig_atomic_t g_is_ending = 0;

/// The relay, running for as long as this lives. SIGINT and SIGTERM end serve.
class node {
public:
    /// Port: to be served over UDP and TCP; 0 for a node that only connects. Ends the program when it is taken.
    explicit node(unsigned short port) {
        struct sigaction end {};
        end.sa_handler = [](int) { g_is_ending = 1; };
        sigaction(SIGINT, &end, nullptr);
        sigaction(SIGTERM, &end, nullptr);
        relay::initialize();
        if (port != 0 && relay::add_server(port) != 0) {
            std::exit(4);
        }
        relay::start();
    }
    /// The inbox refuses first, so that no event thread waits for a Center that does not take any more.
    ~node() {
        host::get_center_inbox().stop();
        relay::stop();
        relay::finalize();
        relay::clear_leftovers();
    }
    node(node const&) = delete;
    node& operator=(node const&) = delete;

    /// Makes serve return.
    static void end() { g_is_ending = 1; }

    /// Gives each packet that arrives, and each event of a connection, to the function and frees it afterwards, until
    /// the end or until is_done() says so.
    template <class Handle, class Done = bool (*)()>
    void serve(
        Handle&& handle, Done&& is_done = [] { return false; }) {
        struct_token token;
        while (g_is_ending == 0 && !is_done()) {
            if (host::get_center_inbox().take({&token, 1}, std::chrono::milliseconds(50)) == 1) {
                handle(token, *token.get_header_packet());
                token.free();
            }
        }
    }
};

inline struct_node_addr source_of(struct_packet const& header) {
    auto const from = host::get_source(header);
    return {from.ip, from.port};
}

inline std::string_view text_of(struct_token& token) {
    auto const data = host::get_data_span(token);
    return {reinterpret_cast<char const*>(data.data()), data.size()};
}

inline std::string to_text(struct_node_addr addr) {
    in_addr const ip{addr.ip};
    return ::inet_ntoa(ip) + (':' + std::to_string(addr.port));
}

/// A packet of that plan with the text as its data. Owner: the caller.
inline struct_token make_packet(host::packet_plan const& plan, std::string_view text) {
    return host::make_packet(plan, {reinterpret_cast<unsigned char const*>(text.data()), text.size()});
}

/// Sends over the connection to that peer, whoever opened it. False, and the packet freed, when there is none.
inline bool send(struct_node_addr peer, struct_token token) {
    struct_packet* const header = token.get_header_packet();
    if (relay::send_tcp_server(peer, token, header) == 0 || relay::send_tcp_client(peer, token, header) == 0) {
        return true;
    }
    token.free();
    return false;
}

inline unsigned short parse_port(std::string const& text) {
    return static_cast<unsigned short>(std::atoi(text.c_str()));
}

/// IP:PORT, as in 10.0.0.2:7000.
inline struct_node_addr parse_address(std::string const& text) {
    std::size_t const colon = text.find(':');
    return {::inet_addr(text.substr(0, colon).c_str()), parse_port(text.substr(colon + 1))};
}

} // namespace examples

#endif
