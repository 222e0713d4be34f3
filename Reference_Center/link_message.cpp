#include "Reference_Center/link_message.hpp"

#include "Reference_Host/packet_reading.hpp"

namespace Zolt::Reference_Center {
namespace {

constexpr unsigned int c_application_shift = 8;

} // namespace

link_message get_message(struct_packet const& packet) {
    return static_cast<link_message>(Reference_Host::get_flags(packet) >> c_application_shift);
}

std::uint16_t to_flags(link_message message) {
    return static_cast<std::uint16_t>(static_cast<unsigned int>(message) << c_application_shift);
}

} // namespace Zolt::Reference_Center
