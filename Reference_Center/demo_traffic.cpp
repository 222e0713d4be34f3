#include "Reference_Center/demo_traffic.hpp"

#include "Reference_Center/link_message.hpp"
#include "Reference_Center/round_trips.hpp"

#include <algorithm>
#include <cerrno>
#include <unistd.h>

namespace Zolt::Reference_Center {
namespace {

using std::chrono::steady_clock;

constexpr std::size_t c_piece = 65536;
constexpr std::uint64_t c_transfer_queue_bytes = 4U << 20;
/// How many packets a stream that fell behind may catch up with in one round.
constexpr int c_burst = 8;
constexpr std::uint64_t c_most_sequence = 1U << 24;

} // namespace

// --- numbered packets ------------------------------------------------------------------------------------------

stream_task::stream_task(center& of, stream_plan const& wanted)
    : node(of), plan(wanted), next_at(steady_clock::now()) {}

void stream_task::advance() {
    auto const now = steady_clock::now();
    for (int i = 0; i < c_burst && sent < plan.count && now >= next_at; ++i) {
        send_one();
        next_at += plan.interval;
    }
    // What could not be caught up with is not hurried after.
    next_at = std::max(next_at, now - c_burst * plan.interval);
}

void stream_task::send_one() {
    Reference_Host::packet_plan packet;
    packet.kind = plan.kind;
    packet.destination = {plan.to.address.ip, plan.to.address.port, 0};
    packet.flags = to_flags(link_message::counted);
    packet.code = plan.stream;
    packet.sequence = sent++;
    packet.multicast_interface = plan.multicast_interface;
    std::vector<unsigned char> const data(plan.size, static_cast<unsigned char>(plan.stream));
    struct_token const token = Reference_Host::make_packet(packet, data);
    if (plan.to_all_accepted) {
        node.send_to_all_accepted(token);
    } else if (!node.send(plan.to, token)) {
        ++refused;
    }
}

json_object stream_task::figures() const {
    return {{"sent", sent}, {"refused", refused}};
}

void stream_count::add(std::uint64_t sequence) {
    ++arrivals;
    if (sequence >= c_most_sequence) {
        return;
    }
    if (sequence >= seen.size()) {
        seen.resize(sequence + 1);
    }
    if (!seen[sequence]) {
        seen[sequence] = true;
        ++seen_count;
    }
}

// --- calls -----------------------------------------------------------------------------------------------------

call_task::call_task(center& node, peer to, std::uint64_t count, std::uint32_t size)
    : probe(node, to, Reference_Host::packet_kind::call_return, size), wanted(count) {}

void call_task::advance() {
    if (auto const time = under_way ? probe.time() : std::nullopt) {
        times.push_back(*time);
        under_way = false;
    }
    if (!is_finished() && !under_way) {
        under_way = probe.start();
        failed = !under_way;
    }
    failed = failed || (under_way && probe.came_back());
}

json_object call_task::figures() const {
    return trips_json(sum_up(times));
}

// --- a file over a connection ----------------------------------------------------------------------------------

std::vector<unsigned char> read_piece(int descriptor, std::uint64_t offset, std::size_t size) {
    std::vector<unsigned char> data(size);
    std::size_t done = 0;
    while (done < size) {
        ssize_t const got = ::pread(descriptor, data.data() + done, size - done, static_cast<off_t>(offset + done));
        if (got == 0 || (got == -1 && errno != EINTR)) {
            break;
        }
        done += static_cast<std::size_t>(std::max<ssize_t>(got, 0));
    }
    data.resize(done);
    return data;
}

file_task::file_task(center& of, peer destination, int descriptor, std::uint64_t bytes)
    : node(of), to(destination), fd(descriptor), size(bytes) {}

void file_task::advance() {
    while (!failed && offset < size && count_hand_overs().queued_bytes < c_transfer_queue_bytes) {
        auto const piece = read_piece(fd, offset, std::min<std::uint64_t>(c_piece, size - offset));
        Reference_Host::packet_plan packet;
        packet.destination = {to.address.ip, to.address.port, 0};
        packet.flags = to_flags(link_message::chunk);
        packet.sequence = pieces++;
        failed = piece.empty() || !node.send(to, Reference_Host::make_packet(packet, piece));
        offset += piece.size();
    }
    wake_when_queue_is_below(offset < size ? c_transfer_queue_bytes / 2 : 0, ~std::uint64_t{0});
}

json_object file_task::figures() const {
    return {{"bytes", offset}, {"packets", pieces}, {"complete", offset == size && !failed}};
}

void file_arrival::add(arrival const& piece) {
    auto const data = Reference_Host::get_data_span(piece.token);
    in_order = in_order && Reference_Host::get_sequence(piece.header) == next++;
    bytes += data.size();
    sum.add(data);
}

json_object file_arrival::figures() {
    if (bytes == size && checksum.empty()) {
        checksum = sum.finish();
    }
    return {{"bytes", bytes}, {"in_order", in_order}, {"sha256", bytes == size ? checksum : ""}};
}

} // namespace Zolt::Reference_Center
