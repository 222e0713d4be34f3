#include "tests/race/simulation/arriving_datagrams.hpp"

#include "Reference_Host/packet_building.hpp"
#include "Reference_Host/packet_reading.hpp"
#include "tests/race/simulation/center.hpp"
#include "tests/race/simulation/node.hpp"
#include "tests/race/simulation/peer.hpp"
#include "tests/race/simulation/scheduler.hpp"

#include <algorithm>
#include <span>

namespace simulation {

using namespace Zolt::Reference_Host;

namespace {

constexpr std::uint32_t c_too_large = 70000; ///< bytes of data
constexpr std::size_t c_version_bytes = 8;   ///< of a header: what a packet of this version begins with
constexpr std::size_t c_most_surplus = 100;  ///< bytes

/// What the relay prints when it drops one with that flaw; null: nothing.
constexpr std::array<char const*, c_flaws> c_lines{nullptr,
                                                   "send_size!= sent_size",
                                                   "recd_len!= recv_len",
                                                   "! p_pkt->is_right_version()",
                                                   "recd_len!= recv_len",
                                                   "recd_len!= recv_len",
                                                   nullptr};

char const* line_of(flaw what) {
    return c_lines[static_cast<std::size_t>(what)];
}

/// At most as many as were due, and exactly so many when nothing was lost on the way.
void check_count(std::size_t due, std::size_t found, bool is_complete, std::string const& what) {
    if (is_complete ? found != due : found > due) {
        fail(what + ": " + std::to_string(found) + " where " + std::to_string(due) + " were due");
    }
}

std::size_t any_below(std::size_t limit) {
    return scenario_dice().below(limit);
}

} // namespace

arriving_datagrams::arriving_datagrams() : before(get_center_inbox().count()) {}

std::vector<unsigned char> arriving_datagrams::make(sent_datagram const& one, std::size_t number) const {
    auto const header = make_header(any_kind(), one.what == flaw::too_large ? c_too_large : one.size, number + 1);
    std::vector<unsigned char> bytes(header.begin(), header.end());
    if (one.size != 0) {
        auto const data = make_data({one.peer, one.port, static_cast<std::uint32_t>(number), one.size});
        bytes.insert(bytes.end(), data.begin(), data.end());
    }
    switch (one.what) {
    case flaw::none:
    case flaw::too_large:
        break;
    case flaw::empty:
        bytes.clear();
        break;
    case flaw::cut_header:
        bytes.resize(1 + any_below(c_header_size - 1));
        break;
    case flaw::foreign:
        bytes[any_below(c_version_bytes)] ^= 0x80;
        break;
    case flaw::too_long:
        bytes.resize(bytes.size() + 1 + any_below(c_most_surplus));
        break;
    case flaw::too_short:
        bytes.resize(bytes.size() - 1 - any_below(one.size));
        break;
    }
    return bytes;
}

std::size_t arriving_datagrams::send(kernel& host, int fd, std::uint32_t peer, std::uint16_t port, flaw what) {
    bool const is_header_only = what != flaw::too_short && scenario_dice().one_in(3);
    std::size_t const number = sent.size();
    sent.push_back({peer, port, what, is_header_only ? 0 : any_size()});
    auto const bytes = make(sent.back(), number);
    if (is_telling()) {
        note("sends datagram " + std::to_string(number) + ", flaw " + std::to_string(static_cast<int>(what)));
    }
    host.sendto(fd, bytes.data(), bytes.size(), {ip_of(1), port});
    return number;
}

void arriving_datagrams::take(Zolt::struct_token& token) {
    Zolt::struct_packet const& packet = *token.get_header_packet();
    std::uint64_t const sequence = get_sequence(packet);
    require(sequence != 0 && sequence <= sent.size(), "a datagram arrived that nobody sent");
    sent_datagram& one = sent[sequence - 1];
    require(one.what == flaw::none, "a datagram arrived that no node would take");
    require(!one.has_arrived, "a datagram arrived twice");
    require(get_source(packet).ip == ip_of(one.peer), "a datagram arrived with a forged address");
    require(get_destination(packet).port == one.port, "a datagram arrived at another port");
    one.has_arrived = true;
    std::uint64_t& last = last_taken[{one.peer, one.port}];
    require(sequence > last, "a datagram overtook another one");
    last = sequence;
    require(token.has_data() == (one.size != 0), "a datagram arrived without its data, or with another one's");
    if (one.size != 0) {
        serial read;
        std::span<unsigned char> const data = get_data_span(token);
        require(read_data(data.data(), data.size(), read) && read.number + 1 == sequence && read.size == one.size,
                "a datagram arrived damaged");
    }
}

std::size_t arriving_datagrams::count_spoilt() const {
    return static_cast<std::size_t>(
        std::count_if(sent.begin(), sent.end(), [](sent_datagram const& one) { return one.what != flaw::none; }));
}

void arriving_datagrams::check(std::vector<std::string> const& printed, bool is_complete) const {
    inbox_counts const after = get_center_inbox().count();
    auto const arrived = std::count_if(sent.begin(), sent.end(), [](auto const& one) { return one.has_arrived; });
    check_count(after.taken - before.taken, static_cast<std::size_t>(arrived), true, "datagrams that the Center took");
    check_count(count_whole(), after.taken + after.busy + after.refused - before.taken - before.busy - before.refused,
                is_complete, "datagrams that the Center was offered");
    check_lines(printed, is_complete);
}

void arriving_datagrams::check_lines(std::vector<std::string> const& printed, bool is_complete) const {
    std::map<std::string, std::size_t> due;
    for (sent_datagram const& one : sent) {
        if (line_of(one.what) != nullptr) {
            ++due[line_of(one.what)];
        }
    }
    for (flaw const what : {flaw::empty, flaw::cut_header, flaw::foreign}) {
        std::string const line = line_of(what);
        auto const found = static_cast<std::size_t>(std::count(printed.begin(), printed.end(), line));
        check_count(due[line], found, is_complete, "\"" + line + "\" printed");
    }
}

} // namespace simulation
