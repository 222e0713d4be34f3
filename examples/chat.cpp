// A chat. The room tells everybody who is connected what one of them says; a member says the lines of its input.
//
//   chat PORT       the room
//   chat IP:PORT    a member; the end of its input is its end
#include "examples/node.hpp"

#include <thread>

namespace {

using namespace examples;
using host::connection_event;

/// A copy for each accepted connection; the packet itself stays here.
void tell_everybody(std::string const& text) {
    struct_token token = make_packet({}, text);
    relay::send_tcp_broadcast(token, token.get_header_packet());
    token.free();
}

void keep_room(node& here) {
    here.serve([](struct_token& token, struct_packet& header) {
        std::string const who = to_text(source_of(header));
        if (host::get_event(header) == connection_event::connected_from_client) {
            tell_everybody(who + " came");
        } else if (host::get_event(header) == connection_event::disconnected_from_client) {
            tell_everybody(who + " left");
        } else if (host::get_kind(header) == host::packet_kind::data) {
            tell_everybody(who + ": " + std::string(text_of(token)));
        }
    });
}

void be_member(node& here, struct_node_addr room) {
    relay::add_client(room.ip, room.port);
    std::thread printer([&here] {
        here.serve([](struct_token& token, struct_packet& header) {
            if (host::get_kind(header) == host::packet_kind::data) {
                std::cout << text_of(token) << std::endl;
            } else if (host::is_control(header)) {
                std::cout << name_of(host::get_event(header)) << std::endl;
            }
        });
    });
    for (std::string line; std::getline(std::cin, line);) {
        if (!send(room, make_packet({}, line))) {
            std::cerr << "not connected; nobody heard: " << line << '\n';
        }
    }
    node::end();
    printer.join();
}

} // namespace

int main(int argc, char** argv) {
    std::string const where = argc == 2 ? argv[1] : "";
    if (where.empty()) {
        std::cerr << "usage: chat PORT | chat IP:PORT\n";
        return 2;
    }
    bool const is_room = where.find(':') == std::string::npos;
    node here(is_room ? parse_port(where) : static_cast<unsigned short>(0));
    std::cout << "ready" << std::endl;
    is_room ? keep_room(here) : be_member(here, parse_address(where));
}
