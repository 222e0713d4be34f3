// The block that opens a TCP connection. Bytes 0 and 1: port of the sender; 2 and 3: port of the receiver; each with
// its most significant byte first; the rest is zero (decision 28).
#include "Host/zolt_packet.hpp"

#include <cstring>

namespace Zolt {
namespace {

void write_port(unsigned char* at, unsigned short port) {
    at[0] = static_cast<unsigned char>(port >> 8);
    at[1] = static_cast<unsigned char>(port & 0xFF);
}

} // namespace

struct_tcp_header::struct_tcp_header() {
    std::memset(block, 0, sizeof block);
}

void struct_tcp_header::set_port_of_sender(unsigned short port) {
    write_port(block, port);
}

void struct_tcp_header::set_port_of_receiver(unsigned short port) {
    write_port(block + 2, port);
}

unsigned short struct_tcp_header::get_port_of_receiver() {
    return static_cast<unsigned short>(block[2] << 8 | block[3]);
}

} // namespace Zolt
