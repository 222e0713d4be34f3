#include "Reference_Center/call_probe.hpp"

#include "Host/tesk_os.hpp"

#include <algorithm>

namespace Zolt::Reference_Center {
namespace {

/// As far as the clock of an end is known.
constexpr std::uint64_t c_clock_mask = (std::uint64_t{1} << c_end_clock_bits) - 1;

} // namespace

call_probe::call_probe(center& of, peer destination, Reference_Host::packet_kind kind, std::uint32_t data_size)
    : node(of), to(destination), size(data_size) {
    plan.kind = kind;
    plan.destination = {to.address.ip, to.address.port, 0};
}

bool call_probe::start() {
    acknowledged_at = std::nullopt;
    number = take_packet_number();
    plan.sequence = number;
    struct_token call = Reference_Host::make_packet(plan, size);
    auto const data = Reference_Host::get_data_span(call);
    std::fill(data.begin(), data.end(), static_cast<unsigned char>(number));
    sent_at = Tesk::OS::lemon_cpu_clock();
    return node.send(to, call, number);
}

void call_probe::look_at(arrival const& packet) {
    bool const is_answer = packet.header.is_call_return_ack() || packet.header.is_signal_return_ack();
    if (is_answer && Reference_Host::get_sequence(packet.header) == plan.sequence) {
        acknowledged_at = Reference_Host::get_arrival_clock(packet.header);
    }
}

std::optional<std::uint64_t> call_probe::time() const {
    auto end = acknowledged_at;
    // Over an outgoing connection the end says only that the call was written.
    if (auto const known = find_end(number); known && known->written && to.via == way::accepted) {
        end = known->clock;
    }
    return end ? std::optional((*end - sent_at) & c_clock_mask) : std::nullopt;
}

bool call_probe::came_back() const {
    auto const known = find_end(number);
    return known && !known->written;
}

} // namespace Zolt::Reference_Center
