#include "Reference_Host/packet_building.hpp"

#include "Host/tesk_os.hpp"
#include "Reference_Host/packet_storage.hpp"

#include <algorithm>
#include <cstring>
#include <new>

namespace Zolt::Reference_Host {
namespace {

void write_header(struct_packet& packet, packet_plan const& plan, std::uint32_t data_size) {
    packet.initialize_packet(plan.source.ip, Tesk::OS::lemon_cpu_clock(), plan.timeout);
    packet.set_source(plan.source.ip, plan.source.port, plan.source.id);
    packet.set_destination(plan.destination.ip, plan.destination.port, plan.destination.id);
    packet.initialize_header(0, plan.flags, static_cast<unsigned char>(plan.kind), 0, c_zolt_err_none);
    set_sequence(packet, plan.sequence);
    set_code(packet, plan.code);
    packet.set_mct_ip(plan.multicast_interface);
    packet.set_data_size(data_size);
}

} // namespace

struct_token make_packet(packet_plan const& plan, std::uint32_t data_size) {
    struct_token token;
    token.alloc_header_force();
    write_header(*token.get_header_packet(), plan, data_size);
    if (data_size == 0) {
        return token;
    }
    int failed = 0;
    try {
        failed = token.alloc_data(data_size);
    } catch (...) {
        token.free();
        throw;
    }
    if (failed != 0) {
        token.free();
        throw std::bad_alloc();
    }
    return token;
}

struct_token make_packet(packet_plan const& plan, std::span<unsigned char const> data) {
    if (data.size() > std::numeric_limits<std::uint32_t>::max()) {
        throw std::bad_alloc();
    }
    struct_token token = make_packet(plan, static_cast<std::uint32_t>(data.size()));
    if (!data.empty()) {
        std::memcpy(token.get_data(), data.data(), data.size());
    }
    return token;
}

std::span<unsigned char> get_data_span(struct_token& token) {
    if (!token.has_header() || !token.has_data()) {
        return {};
    }
    std::size_t const announced = token.get_header_packet()->get_data_size();
    data_part const* const data = node_of(token)->data;
    return {token.get_data(), data != nullptr ? std::min<std::size_t>(announced, data->size) : announced};
}

} // namespace Zolt::Reference_Host
