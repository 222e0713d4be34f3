// Prints the part of packaging/wireshark/zolt.lua that is made from the code: the header's fields and what their values mean.
#include "Reference_Host/packet_layout.hpp"

#include "Host/zolt_packet.hpp"

#include <array>
#include <cstdint>
#include <cstdio>
#include <string>

namespace {

using namespace Zolt::Reference_Host;

struct error_row {
    std::uint32_t code;
    char const* name;
};

constexpr std::array<error_row, 3> c_errors{{
    {Zolt::c_zolt_err_none, "none"},
    {Zolt::c_zolt_err_not_connected_tcp, "not_connected_tcp"},
    {Zolt::c_zolt_err_disconnected_tcp, "disconnected_tcp"},
}};

void print_fields() {
    std::puts("    fields = {");
    for (header_field_row const& row : c_header_fields) {
        std::printf("        {name = \"%s\", offset = %u, size = %u,\n            meaning = \"%s\"},\n",
                    std::string(row.name).c_str(), row.offset, row.size, std::string(row.meaning).c_str());
    }
    std::puts("    },");
}

template <class Rows>
void print_values(char const* name, Rows const& rows) {
    std::printf("    %s = {\n", name);
    unsigned int number = 0;
    for (value_row const& row : rows) {
        std::printf("        [%u] = \"%s\",\n", number++, std::string(row.name).c_str());
    }
    std::puts("    },");
}

void print_errors() {
    std::puts("    errors = {");
    for (error_row const& row : c_errors) {
        std::printf("        [0x%08X] = \"%s\",\n", row.code, row.name);
    }
    std::puts("    },");
}

} // namespace

int main() {
    std::puts("local layout = {");
    std::printf("    magic = 0x%08X,\n    version = %u,\n    header_size = %u,\n    block_size = %zu,\n",
                c_header_magic, unsigned{c_header_version}, c_header_size, sizeof(Zolt::struct_tcp_header));
    std::printf("    flag_broadcast = 0x%04X,\n    flag_multicast = 0x%04X,\n    flags_application = 0x%04X,\n",
                unsigned{c_flag_broadcast}, unsigned{c_flag_multicast}, unsigned{c_flags_application});
    print_fields();
    print_values("kinds", c_packet_kinds);
    print_values("events", c_connection_events);
    print_errors();
    std::puts("}");
}
