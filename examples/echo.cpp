// Sends what a peer sends over a connection back to it.
//
//   echo PORT
#include "examples/node.hpp"

int main(int argc, char** argv) {
    using namespace examples;
    if (argc != 2) {
        std::cerr << "usage: echo PORT\n";
        return 2;
    }
    node here(parse_port(argv[1]));
    std::cout << "ready" << std::endl;
    here.serve([](struct_token& token, struct_packet& header) {
        // Events of connections and packets that came back are no data; datagrams come from no connection.
        if (host::get_kind(header) == host::packet_kind::data) {
            host::packet_plan plan;
            plan.code = host::get_code(header);
            plan.sequence = host::get_sequence(header);
            send(source_of(header), make_packet(plan, text_of(token)));
        }
    });
}
