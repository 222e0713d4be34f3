// A request and its acknowledgement: one node calls and waits, the other acknowledges with the answer.
//
//   request answer PORT
//   request ask IP:PORT TEXT
#include "examples/node.hpp"

#include <algorithm>

namespace {

using namespace examples;
using host::packet_kind;

constexpr std::chrono::seconds c_patience{2};

int answer(unsigned short port) {
    node here(port);
    std::cout << "ready" << std::endl;
    here.serve([](struct_token& token, struct_packet& header) {
        if (!header.is_call_return()) {
            return;
        }
        host::packet_plan plan;
        plan.kind = packet_kind::call_return_ack;
        plan.sequence = host::get_sequence(header); // by this the caller knows which call it is
        std::string text(text_of(token));
        std::reverse(text.begin(), text.end());
        send(source_of(header), make_packet(plan, text));
    });
    return 0;
}

int ask(struct_node_addr peer, char const* question) {
    constexpr std::uint64_t c_call = 1;
    bool is_answered = false;
    node here(0);
    relay::add_client(peer.ip, peer.port);
    auto const deadline = std::chrono::steady_clock::now() + c_patience;
    here.serve(
        [&](struct_token& token, struct_packet& header) {
            if (host::get_event(header) == host::connection_event::connected_to_server) {
                host::packet_plan plan;
                plan.kind = packet_kind::call_return;
                plan.sequence = c_call;
                send(peer, make_packet(plan, question));
            } else if (header.is_call_return_ack() && host::get_sequence(header) == c_call) {
                std::cout << text_of(token) << std::endl;
                is_answered = true;
            }
        },
        [&] { return is_answered || std::chrono::steady_clock::now() > deadline; });
    return is_answered ? 0 : 5;
}

} // namespace

int main(int argc, char** argv) {
    std::string const role = argc > 2 ? argv[1] : "";
    if (role == "answer" && argc == 3) {
        return answer(parse_port(argv[2]));
    }
    if (role == "ask" && argc == 4) {
        return ask(parse_address(argv[2]), argv[3]);
    }
    std::cerr << "usage: request answer PORT | request ask IP:PORT TEXT\n";
    return 2;
}
