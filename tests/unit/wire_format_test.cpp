// docs/wire-format.md against the code: its tables, and the bytes of its examples.
#include "tests/unit/reference_host_fixtures.hpp"

#include "Reference_Host/packet_layout.hpp"

#include <algorithm>
#include <cstring>
#include <sstream>

namespace reference_host_test {
namespace {

using table = std::vector<std::vector<std::string>>;

std::vector<std::string> read_document() {
    std::ifstream file(WIRE_FORMAT_DOCUMENT);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> cells_of(std::string const& line) {
    std::vector<std::string> cells;
    std::istringstream rest(line.substr(1));
    for (std::string cell; std::getline(rest, cell, '|');) {
        std::size_t const first = cell.find_first_not_of(' ');
        std::size_t const last = cell.find_last_not_of(' ');
        cells.push_back(first == std::string::npos ? "" : cell.substr(first, last - first + 1));
    }
    return cells;
}

/// The rows of the table with that head, without head and rule.
table table_with_head(std::string const& head) {
    std::vector<std::string> const lines = read_document();
    auto line = std::find(lines.begin(), lines.end(), head);
    table rows;
    for (line += line == lines.end() ? 0 : 2; line < lines.end() && line->starts_with('|'); ++line) {
        rows.push_back(cells_of(*line));
    }
    return rows;
}

/// The bytes of the fenced block of that name.
std::vector<unsigned char> bytes_of_block(std::string const& name) {
    std::vector<std::string> const lines = read_document();
    auto line = std::find(lines.begin(), lines.end(), "```" + name);
    std::vector<unsigned char> bytes;
    for (line += line == lines.end() ? 0 : 1; line < lines.end() && !line->starts_with("```"); ++line) {
        std::istringstream numbers(*line);
        for (std::string number; numbers >> number;) {
            bytes.push_back(static_cast<unsigned char>(std::stoul(number, nullptr, 16)));
        }
    }
    return bytes;
}

TEST(wire_format, the_documented_fields_are_those_of_the_code) {
    table expected;
    for (header_field_row const& row : c_header_fields) {
        expected.push_back(
            {std::to_string(row.offset), std::to_string(row.size), std::string(row.name), std::string(row.meaning)});
    }
    EXPECT_EQ(table_with_head("| offset | size | field | meaning |"), expected);
}

template <class Rows>
table numbered(Rows const& rows) {
    table expected;
    for (value_row const& row : rows) {
        expected.push_back({std::to_string(expected.size()), std::string(row.name), std::string(row.meaning)});
    }
    return expected;
}

TEST(wire_format, the_documented_kinds_and_events_are_those_of_the_code) {
    EXPECT_EQ(table_with_head("| number | kind | meaning |"), numbered(c_packet_kinds));
    EXPECT_EQ(table_with_head("| number | event | meaning |"), numbered(c_connection_events));
}

TEST(wire_format, the_enumerations_have_the_numbers_of_their_rows) {
    constexpr std::pair<packet_kind, std::string_view> c_kinds[] = {
        {packet_kind::data, "data"},
        {packet_kind::call_return, "call_return"},
        {packet_kind::signal_return, "signal_return"},
        {packet_kind::call_return_ack, "call_return_ack"},
        {packet_kind::signal_return_ack, "signal_return_ack"},
        {packet_kind::heartbeat, "heartbeat"},
        {packet_kind::control, "control"},
        {packet_kind::command_udp, "command_udp"},
        {packet_kind::information_udp, "information_udp"},
        {packet_kind::error, "error"},
        {static_cast<packet_kind>(10), "unknown"},
    };
    for (auto const& [kind, name] : c_kinds) {
        EXPECT_EQ(name_of(kind), name);
    }
    constexpr std::pair<connection_event, std::string_view> c_events[] = {
        {connection_event::none, "none"},
        {connection_event::connected_to_server, "connected_to_server"},
        {connection_event::disconnected_from_server, "disconnected_from_server"},
        {connection_event::connected_from_client, "connected_from_client"},
        {connection_event::disconnected_from_client, "disconnected_from_client"},
        {static_cast<connection_event>(5), "unknown"},
    };
    for (auto const& [event, name] : c_events) {
        EXPECT_EQ(name_of(event), name);
    }
}

TEST(wire_format, the_documented_error_codes_are_those_of_the_code) {
    table const rows = table_with_head("| code | meaning |");
    std::vector<unsigned long> codes;
    for (auto const& row : rows) {
        codes.push_back(std::stoul(row.front(), nullptr, 16));
    }
    EXPECT_EQ(codes,
              (std::vector<unsigned long>{c_zolt_err_none, c_zolt_err_not_connected_tcp, c_zolt_err_disconnected_tcp}));
}

class example_packet : public accounted_test {
protected:
    void SetUp() override {
        std::vector<unsigned char> const bytes = bytes_of_block("packet");
        ASSERT_EQ(bytes.size(), c_header_size + 5U);
        example = bytes;
    }

    std::vector<unsigned char> example;
};

TEST_F(example_packet, is_what_the_code_writes) {
    struct_token one = make_packet({}, bytes_of("hello"));
    struct_packet& header = *one.get_header_packet();
    header.initialize_packet(0, 1000000, 5.0);
    header.initialize_header(42, 0, 0, 7, c_zolt_err_none);
    header.set_source(0x0A00A8C0, 7000, 1);
    header.set_destination(0x1400A8C0, 7001, 2);
    header.set_data_size(5);
    *one.get_data_packet() = header;
    unsigned char const* const first = one.get_data_packet()->get_header();
    EXPECT_EQ(std::vector<unsigned char>(first, first + header.get_packet_size()), example);
    one.free();
}

TEST_F(example_packet, is_read_as_the_document_says) {
    struct_token one;
    one.alloc_header_force();
    struct_packet& header = *one.get_header_packet();
    std::memcpy(header.get_header(), example.data(), c_header_size);
    EXPECT_TRUE(header.is_right_version());
    EXPECT_EQ(get_kind(header), packet_kind::data);
    EXPECT_EQ(get_code(header), 7U);
    EXPECT_EQ(get_source(header), (packet_end{0x0A00A8C0, 7000, 1}));
    EXPECT_EQ(get_destination(header), (packet_end{0x1400A8C0, 7001, 2}));
    EXPECT_EQ(get_sequence(header), 42U);
    EXPECT_EQ(get_creation_clock(header), 1000000U);
    EXPECT_EQ(get_timeout(header), 5000000U);
    EXPECT_EQ(get_elapsed(header), 0U);
    EXPECT_EQ(get_error(header), 0U);
    EXPECT_EQ(header.get_data_size(), 5U);
    one.free();
}

TEST(wire_format, the_example_block_is_what_the_code_writes) {
    struct_tcp_header block;
    block.set_port_of_sender(49152);
    block.set_port_of_receiver(7000);
    unsigned char bytes[sizeof block];
    std::memcpy(bytes, &block, sizeof block);
    EXPECT_EQ(std::vector<unsigned char>(bytes, bytes + 4), bytes_of_block("block"));
    table const rows = table_with_head("| offset | size | field |");
    EXPECT_EQ(rows,
              (table{{"0", "2", "port of the sender"}, {"2", "2", "port of the receiver"}, {"4", "1020", "zero"}}));
}

} // namespace
} // namespace reference_host_test
