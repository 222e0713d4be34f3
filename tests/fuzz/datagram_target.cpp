// Datagrams: a peer sends what the input says to a served port, in any order with what the Center sends.
//
//   a datagram   reaches the Center, byte for byte, when its version is right and it is as long as its header says, and
//                is dropped otherwise; the node may read it late, when it dropped one before, and never loses one
//   a packet     of the Center leaves as one datagram, byte for byte and in order

#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"
#include "Reference_Host/packet_building.hpp"
#include "tests/fuzz/raw_center.hpp"
#include "tests/fuzz/simulated_run.hpp"
#include "tests/fuzz/target.hpp"
#include "tests/race/simulation/host.hpp"
#include "tests/race/simulation/node.hpp"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>
#include <vector>

#include <sys/epoll.h>
#include <sys/socket.h>

namespace {

using namespace fuzz;
using namespace simulation;
using namespace Zolt::Reference_Host;
namespace INet_Relay = Zolt::Center::INet_Relay;

constexpr std::uint32_t c_peer_host = 2;
using bytes = std::vector<unsigned char>;

// Written out here, and not taken from the host's table: a mistake there must not be repeated.
constexpr std::size_t c_header = 72;
constexpr std::uint64_t c_most_unread = 8;        ///< packets of the Center
constexpr std::size_t c_most_unread_bytes = 8192; ///< of the peer
constexpr long c_source_at = 24;                  ///< the sender's address
constexpr std::array<unsigned char, 8> c_right_version{'Z', 'O', 'L', 'T', 0, 1, 0, 72};

std::size_t announced_size(bytes const& datagram) {
    return (std::size_t{datagram[12]} << 24) + (std::size_t{datagram[13]} << 16) + (std::size_t{datagram[14]} << 8) +
           datagram[15];
}

bool is_to_arrive(bytes const& datagram) {
    return datagram.size() >= c_header &&
           std::equal(c_right_version.begin(), c_right_version.end(), datagram.begin()) &&
           datagram.size() == c_header + announced_size(datagram) && announced_size(datagram) <= c_largest_data;
}

class datagram_run {
public:
    explicit datagram_run(input_reader& given) : input(given), host(the_node.add_host(c_peer_host)) {
        fd = host.socket(SOCK_DGRAM);
        host.bind(fd, {0, c_port});
        host.set_nonblocking(fd, true);
    }

    void run() {
        while (!input.is_over()) {
            act();
        }
        flush();
        the_node.shut_down();
        check_arrivals();
        host.close(fd);
    }

private:
    void act();
    void send(bytes const& datagram);
    void send_shaped();
    void hand_over();
    void read();
    void flush();
    void check_arrivals();

    input_reader& input;
    node the_node;
    kernel& host;
    int fd = -1;
    std::vector<bytes> expected;    ///< of the Center, oldest first
    std::size_t dropped = 0;        ///< since everything was read
    std::size_t perhaps_unread = 0; ///< bytes
    std::uint64_t handed_over = 0;
    std::uint64_t read_back = 0;
};

/// One at a time, and none that would meet a full socket.
void datagram_run::send(bytes const& datagram) {
    if (perhaps_unread + datagram.size() > c_most_unread_bytes) {
        flush();
    }
    perhaps_unread += datagram.size();
    (is_to_arrive(datagram) ? expected.push_back(datagram) : static_cast<void>(++dropped));
    host.sendto(fd, datagram.data(), datagram.size(), relay_address());
    require(wait_patiently("datagram", [this] { return !the_node.net.has_in_flight(); }),
            "a datagram stays on its way");
}

/// A right header, and data that is as long as it says, or not.
void datagram_run::send_shaped() {
    bytes datagram(c_header, 0);
    std::copy(c_right_version.begin(), c_right_version.end(), datagram.begin());
    datagram[8] = input.take_byte();
    std::size_t const size = input.take_number() % 1600;
    datagram[14] = static_cast<unsigned char>(size >> 8);
    datagram[15] = static_cast<unsigned char>(size & 0xFF);
    unsigned const shape = input.take_byte();
    std::size_t const length = shape % 4 == 0 ? size + shape / 4 : size - std::min<std::size_t>(size, shape % 4 - 1);
    datagram.resize(c_header + length, static_cast<unsigned char>(shape));
    send(datagram);
}

void datagram_run::hand_over() {
    constexpr packet_kind c_kinds[] = {packet_kind::data, packet_kind::command_udp, packet_kind::information_udp};
    packet_plan plan;
    plan.kind = c_kinds[input.take_below(std::size(c_kinds))];
    plan.destination = {ip_of(c_peer_host), c_port, 0};
    plan.sequence = ++handed_over;
    // A socket that is not read drops what it has no room for.
    require(wait_patiently("room", [this] { return handed_over - read_back < c_most_unread || (read(), false); }),
            "a packet of the Center was not sent");
    Zolt::struct_token token = make_packet(plan, bytes(input.take_number() % 1600, 9));
    INet_Relay::send_udp(token, token.get_header_packet());
}

void datagram_run::read() {
    for (;;) {
        bytes datagram(4096);
        address from;
        long const got = host.recvfrom(fd, datagram.data(), datagram.size(), 0, from);
        if (got < 0) {
            return;
        }
        datagram.resize(static_cast<std::size_t>(got));
        require(is_to_arrive(datagram), "the node sent a datagram that no node would take");
        require(load<header_field::sequence>(datagram.data()) == ++read_back, "a datagram is missing or out of order");
        require(std::all_of(datagram.begin() + c_header, datagram.end(), [](auto byte) { return byte == 9; }),
                "a datagram is damaged");
        require(from == relay_address(), "a datagram comes from another port than the one it was given to");
    }
}

void datagram_run::act() {
    unsigned const what = input.take_byte();
    switch (what % 6) {
    case 0: {
        auto const raw = input.take_bytes(what / 2);
        send({raw.begin(), raw.end()});
        return;
    }
    case 1:
    case 2:
        send_shaped();
        return;
    case 3:
        hand_over();
        return;
    case 4:
        read();
        return;
    default:
        pass_time(moment{50} * what);
    }
}

/// The node reads until it drops one; the next that comes makes it go on with what was left behind.
void datagram_run::flush() {
    bytes const last = [] {
        bytes header(c_header, 0);
        std::copy(c_right_version.begin(), c_right_version.end(), header.begin());
        return header;
    }();
    perhaps_unread = 0;
    for (std::size_t left = std::exchange(dropped, 0) + 1; left != 0; --left) {
        send(last);
        wait_patiently("rest", [this] { return list_arrivals().size() >= expected.size(); });
    }
    wait_patiently("sending", [this] { return read(), read_back == handed_over; });
}

void datagram_run::check_arrivals() {
    require(read_back == handed_over, "a packet of the Center was not sent");
    require(list_arrivals().size() == expected.size(), "a datagram did not arrive, or one that must not");
    for (std::size_t i = 0; i < expected.size(); ++i) {
        arrival const& one = list_arrivals()[i];
        bytes got = one.bytes;
        // The node writes the sender's address into the header of what has data.
        std::copy(expected[i].begin() + c_source_at, expected[i].begin() + c_source_at + 4, got.begin() + c_source_at);
        require(got == expected[i], "a datagram arrived damaged or out of order");
        require(one.has_data == (got.size() > c_header), "a packet carries another one's data");
        require(one.source.ip == ip_of(c_peer_host), "a datagram arrived with a forged address");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    input_reader input({data, size});
    run_simulated(input, [&input] { datagram_run(input).run(); });
    return 0;
}
