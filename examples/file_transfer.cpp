// Carries a file from one node to another, a few pieces at a time: each piece that was stored is answered, and an answer
// lets the next piece go. An empty piece is the end of the file.
//
//   file_transfer receive PORT FILE
//   file_transfer send IP:PORT FILE
#include "examples/node.hpp"

#include <fstream>

namespace {

using namespace examples;
using host::connection_event;

constexpr std::size_t c_piece = 65536;
constexpr int c_pieces_on_their_way = 16;

int receive(unsigned short port, char const* path) {
    std::ofstream file(path, std::ios::binary);
    bool is_whole = false;
    node here(port);
    std::cout << "ready" << std::endl;
    here.serve([&](struct_token& token, struct_packet& header) {
        if (host::get_kind(header) == host::packet_kind::data && file << text_of(token) << std::flush) {
            is_whole = text_of(token).empty();
            send(source_of(header), make_packet({}, ""));
        } else if (host::get_event(header) == connection_event::disconnected_from_client) {
            node::end(); // not before: now the sender has the last answer
        }
    });
    return is_whole ? 0 : 1;
}

int send_file(struct_node_addr peer, char const* path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        std::cerr << "cannot read " << path << '\n';
        return 1;
    }
    std::string piece(c_piece, '\0');
    int unanswered = 0;
    auto const send_next = [&] {
        if (!piece.empty()) {
            file.read(piece.data(), c_piece);
            piece.resize(static_cast<std::size_t>(file.gcount()));
            unanswered += send(peer, make_packet({}, piece));
        }
    };
    node here(0);
    relay::add_client(peer.ip, peer.port);
    here.serve(
        [&](struct_token&, struct_packet& header) {
            connection_event const event = host::get_event(header);
            for (int i = 0; event == connection_event::connected_to_server && i < c_pieces_on_their_way; i++) {
                send_next();
            }
            if (event == connection_event::disconnected_from_server) {
                node::end();
            } else if (host::get_kind(header) == host::packet_kind::data) {
                --unanswered;
                send_next();
            }
        },
        [&] { return piece.empty() && unanswered == 0; });
    return piece.empty() && unanswered == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    std::string const way = argc == 4 ? argv[1] : "";
    if (way != "send" && way != "receive") {
        std::cerr << "usage: file_transfer receive PORT FILE | file_transfer send IP:PORT FILE\n";
        return 2;
    }
    return way == "send" ? send_file(parse_address(argv[2]), argv[3]) : receive(parse_port(argv[2]), argv[3]);
}
