#include "Reference_Center/demo_transfer.hpp"

#include "Reference_Center/link_message.hpp"

#include <algorithm>

namespace Zolt::Reference_Center {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// Transmissions under way; as many as fit into a socket's receive buffer of the usual size, and some room.
constexpr std::uint64_t c_window = 64;
constexpr milliseconds c_silence{100};
constexpr unsigned int c_report_every = 16;
constexpr milliseconds c_report_delay{2};
constexpr std::size_t c_most_gaps = 128;

/// A report's numbers, most significant byte first.
void put_number(std::vector<unsigned char>& bytes, std::uint64_t value) {
    for (int shift = 56; shift >= 0; shift -= 8) {
        bytes.push_back(static_cast<unsigned char>(value >> shift));
    }
}

std::vector<std::uint64_t> get_numbers(std::span<unsigned char const> bytes) {
    std::vector<std::uint64_t> numbers(bytes.size() / 8);
    for (std::size_t i = 0; i < numbers.size() * 8; ++i) {
        numbers[i / 8] = numbers[i / 8] << 8 | bytes[i];
    }
    return numbers;
}

std::uint32_t count_chunks(std::uint64_t size) {
    return static_cast<std::uint32_t>((size + c_chunk_size - 1) / c_chunk_size);
}

Reference_Host::packet_plan datagram_to(struct_node_addr to, link_message message) {
    Reference_Host::packet_plan packet;
    packet.destination = {to.ip, to.port, 0};
    packet.flags = to_flags(message);
    return packet;
}

} // namespace

// --- sender ----------------------------------------------------------------------------------------------------

datagram_file_task::datagram_file_task(center& of, struct_node_addr destination, int descriptor, std::uint64_t bytes)
    : node(of), to(destination), fd(descriptor), size(bytes), chunks(count_chunks(bytes)), last_sent(chunks),
      heard_at(steady_clock::now()) {}

void datagram_file_task::advance() {
    auto const now = steady_clock::now();
    if (now - heard_at > c_silence && !is_finished()) {
        // Nothing is under way any more, or no report comes through.
        heard_at = now;
        reported = transmissions;
        if (lost.empty()) {
            lost.push_back(first_missing);
        }
    }
    while (transmissions - reported < c_window && (!lost.empty() || next_new < chunks)) {
        if (lost.empty()) {
            send_chunk(next_new++);
        } else {
            send_chunk(lost.front());
            lost.pop_front();
        }
    }
}

void datagram_file_task::send_chunk(std::uint32_t index) {
    std::uint64_t const offset = std::uint64_t{index} * c_chunk_size;
    auto packet = datagram_to(to, link_message::chunk);
    packet.code = index;
    packet.sequence = ++transmissions;
    last_sent[index] = transmissions;
    auto const data = read_piece(fd, offset, std::min<std::uint64_t>(c_chunk_size, size - offset));
    node.send({to, way::udp}, Reference_Host::make_packet(packet, data));
}

void datagram_file_task::on_packet(arrival const& packet) {
    if (packet.from.via != way::udp || get_message(packet.header) != link_message::report) {
        return;
    }
    auto const numbers = get_numbers(Reference_Host::get_data_span(packet.token));
    if (numbers.size() < 2) {
        return;
    }
    heard_at = steady_clock::now();
    reported = std::max(reported, std::min(numbers[0], transmissions));
    first_missing = std::max(first_missing, static_cast<std::uint32_t>(std::min<std::uint64_t>(numbers[1], chunks)));
    for (std::size_t i = 2; i < numbers.size(); ++i) {
        resend(static_cast<std::uint32_t>(std::min<std::uint64_t>(numbers[i], chunks)), numbers[0]);
    }
}

void datagram_file_task::resend(std::uint32_t index, std::uint64_t seen) {
    if (index < next_new && last_sent[index] < seen && std::find(lost.begin(), lost.end(), index) == lost.end()) {
        lost.push_back(index);
    }
}

json_object datagram_file_task::figures() const {
    return {{"bytes", size}, {"chunks", chunks}, {"datagrams", transmissions}};
}

// --- receiver --------------------------------------------------------------------------------------------------

datagram_file_arrival::datagram_file_arrival(center& of, struct_node_addr sender, std::uint64_t expected,
                                             unsigned int percent)
    : node(of), from(sender), drop_percent(percent), content(expected), present(count_chunks(expected)) {}

bool datagram_file_arrival::is_unlucky() {
    // A linear congruential sequence: the same chunks are unlucky in every run.
    luck = luck * 6364136223846793005U + 1442695040888963407U;
    return (luck >> 33) % 100 < drop_percent;
}

void datagram_file_arrival::add(arrival const& chunk) {
    ++arrivals;
    if (is_unlucky()) {
        ++thrown_away;
        return;
    }
    auto const data = Reference_Host::get_data_span(chunk.token);
    std::uint32_t const index = Reference_Host::get_code(chunk.header);
    std::uint64_t const offset = std::uint64_t{index} * c_chunk_size;
    if (index >= present.size() || data.size() != std::min<std::uint64_t>(c_chunk_size, content.size() - offset)) {
        return;
    }
    std::copy(data.begin(), data.end(), content.begin() + static_cast<std::ptrdiff_t>(offset));
    present[index] = true;
    highest = std::max(highest, Reference_Host::get_sequence(chunk.header));
    beyond = std::max(beyond, index + 1);
    while (first_missing < present.size() && present[first_missing]) {
        ++first_missing;
    }
    ++unreported;
}

void datagram_file_arrival::advance() {
    bool const complete = first_missing == present.size();
    bool const waited = steady_clock::now() - reported_at >= c_report_delay;
    if (unreported != 0 && (complete || waited || unreported >= c_report_every)) {
        report();
    }
}

void datagram_file_arrival::report() {
    unreported = 0;
    reported_at = steady_clock::now();
    std::vector<unsigned char> numbers;
    put_number(numbers, highest);
    put_number(numbers, first_missing);
    std::size_t gaps = 0;
    for (std::uint32_t index = first_missing; index < beyond && gaps < c_most_gaps; ++index) {
        if (!present[index]) {
            put_number(numbers, index);
            ++gaps;
        }
    }
    node.send({from, way::udp}, Reference_Host::make_packet(datagram_to(from, link_message::report), numbers));
}

json_object datagram_file_arrival::figures() {
    bool const complete = first_missing == present.size();
    if (complete && checksum.empty()) {
        sha256 sum;
        sum.add(content);
        checksum = sum.finish();
    }
    return {{"bytes", std::min<std::uint64_t>(std::uint64_t{first_missing} * c_chunk_size, content.size())},
            {"datagrams", arrivals},
            {"thrown_away", thrown_away},
            {"sha256", checksum}};
}

} // namespace Zolt::Reference_Center
