// Prints the datagrams that one source sends to a multicast group.
//
//   multicast_listener GROUP SOURCE INTERFACE PORT    for example 232.1.1.1 10.0.0.2 10.0.0.1 7000
#include "examples/node.hpp"

int main(int argc, char** argv) {
    using namespace examples;
    if (argc != 5) {
        std::cerr << "usage: multicast_listener GROUP SOURCE INTERFACE PORT\n";
        return 2;
    }
    unsigned long const group = ::inet_addr(argv[1]);
    unsigned long const source = ::inet_addr(argv[2]);
    unsigned long const interface = ::inet_addr(argv[3]);
    unsigned short const port = parse_port(argv[4]);
    node here(port);
    relay::add_membership(group, interface, source, port);
    std::cout << "ready" << std::endl;
    here.serve([](struct_token& token, struct_packet& header) {
        if (!host::is_control(header)) {
            std::cout << to_text(source_of(header)) << ' ' << text_of(token) << std::endl;
        }
    });
    relay::drop_membership(group, interface, source, port);
}
