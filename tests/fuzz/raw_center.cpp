#include "tests/fuzz/raw_center.hpp"

#include "Reference_Host/inbox.hpp"
#include "Reference_Host/packet_building.hpp"
#include "Reference_Host/packet_reading.hpp"
#include "tests/race/simulation/center.hpp"

#include <chrono>
#include <span>

namespace fuzz {
namespace {

std::vector<arrival> g_arrivals;

arrival read_arrival(Zolt::struct_token& token) {
    using namespace Zolt::Reference_Host;
    Zolt::struct_packet& packet = *token.get_header_packet();
    arrival read;
    read.bytes.assign(packet.get_header(), packet.get_header() + packet.get_header_size());
    read.has_data = token.has_data();
    if (read.has_data) {
        auto const data = get_data_span(token);
        read.bytes.insert(read.bytes.end(), data.begin(), data.end());
    }
    packet_end const source = get_source(packet);
    read.source = {source.ip, source.port};
    read.gate_port = get_destination(packet).port;
    read.kind = get_kind(packet);
    read.event = get_event(packet);
    read.sequence = get_sequence(packet);
    return read;
}

} // namespace

std::vector<arrival> const& list_arrivals() {
    return g_arrivals;
}

} // namespace fuzz

namespace simulation {

center::center() = default;
center::~center() = default;

void center::open() {
    fuzz::g_arrivals.clear();
    Zolt::Reference_Host::get_center_inbox().resume();
    consumer = spawn("center", [this] { consume(); });
}

void center::refuse() {
    Zolt::Reference_Host::get_center_inbox().stop();
}

void center::close() {
    closing = true;
    wait_for("center's end", [this] { return has_ended(consumer); });
}

/// The targets count notices themselves.
int center::count_connected(side) const {
    return 0;
}

void center::consume() {
    auto& inbox = Zolt::Reference_Host::get_center_inbox();
    for (;;) {
        wait_for("inbox", [&] { return closing || inbox.count().packets != 0; });
        Zolt::struct_token token;
        if (inbox.take(std::span(&token, 1), std::chrono::milliseconds(0)) == 1) {
            fuzz::g_arrivals.push_back(fuzz::read_arrival(token));
            token.free();
        } else if (closing) {
            return;
        }
    }
}

} // namespace simulation
