#include "tests/race/simulation/leaving_datagrams.hpp"

#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"
#include "Reference_Host/packet_building.hpp"
#include "Reference_Host/packet_limits.hpp"
#include "tests/race/simulation/center.hpp"
#include "tests/race/simulation/node.hpp"
#include "tests/race/simulation/peer.hpp"
#include "tests/race/simulation/scheduler.hpp"

#include <algorithm>
#include <span>

#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>

namespace simulation {

using namespace Zolt::Reference_Host;
namespace INet_Relay = Zolt::Center::INet_Relay;

namespace {

constexpr std::uint32_t c_group_ip = 232U | 1U << 8 | 2U << 16 | 3U << 24; ///< 232.1.2.3
constexpr std::uint16_t c_unserved_port = 7009;
constexpr std::uint32_t c_unsendable = 65500;    ///< bytes of data that a datagram can carry without a header only
constexpr std::size_t c_enough = 1U << 20;       ///< bytes that receivers have room for: more than is ever sent
constexpr std::size_t c_longest_datagram = 2048; ///< bytes that are ever received

bool is_served(std::uint16_t port) {
    return std::find(c_served_ports.begin(), c_served_ports.end(), port) != c_served_ports.end();
}

std::uint16_t any_port() {
    return scenario_dice().one_in(10) ? c_unserved_port : c_served_ports[scenario_dice().below(c_served_ports.size())];
}

std::uint32_t any_data_size() {
    if (scenario_dice().one_in(12)) {
        return c_unsendable;
    }
    return scenario_dice().one_in(3) ? 0 : any_size();
}

} // namespace

leaving_datagrams* leaving_datagrams::current = nullptr;

leaving_datagrams::leaving_datagrams(network& net, std::vector<kernel*> const& hosts)
    : everybody(net, INADDR_BROADCAST), group(net, c_group_ip) {
    for (std::size_t i = 0; i < hosts.size(); ++i) {
        open_receivers(*hosts[i], ip_of(static_cast<std::uint32_t>(i) + 2));
    }
    open_receivers(everybody, INADDR_BROADCAST);
    open_receivers(group, c_group_ip);
    current = this;
    set_release_observer([](std::uint64_t cookie, Zolt::struct_packet const&) {
        require(!std::exchange(current->handed[cookie - 1].is_released, true), "a packet of the Center ended twice");
    });
}

leaving_datagrams::~leaving_datagrams() {
    set_release_observer(nullptr);
}

void leaving_datagrams::open_receivers(kernel& host, std::uint32_t ip) {
    for (std::uint16_t const port : c_served_ports) {
        int const fd = host.socket(SOCK_DGRAM);
        host.bind(fd, {0, port});
        host.set_buffers(fd, c_enough, c_enough);
        receivers.push_back({&host, {ip, port}, fd});
    }
}

void leaving_datagrams::hand_over(std::uint32_t speaker) {
    receiver const& chosen = receivers[scenario_dice().below(receivers.size())];
    handed_datagram fresh{speaker, {chosen.at.ip, any_port()}, any_data_size()};
    packet_plan plan;
    plan.kind = any_kind();
    plan.destination = {fresh.to.ip, fresh.to.port, 0};
    plan.sequence = handed.size() + 1;
    plan.multicast_interface = ip_of(1);
    auto const data = make_data({speaker, fresh.to.port, static_cast<std::uint32_t>(plan.sequence), fresh.size});
    Zolt::struct_token token = make_packet(plan, std::span(data.data(), fresh.size == 0 ? 0 : data.size()));
    set_cookie(*token.get_header_packet(), plan.sequence);
    fresh.token = token;
    handed.push_back(fresh);
    if (is_telling()) {
        note("hands over datagram " + std::to_string(plan.sequence) + " of " + std::to_string(fresh.size) + " bytes");
    }
    require(INet_Relay::send_udp(token, token.get_header_packet()) == 0, "a datagram is not queued");
    if (!is_served(fresh.to.port)) {
        require(!handed[plan.sequence - 1].is_released, "a packet for an unserved port was taken");
        token.free();
    }
}

bool leaving_datagrams::are_all_released() const {
    return std::all_of(handed.begin(), handed.end(), [](handed_datagram const& one) { return one.is_released; });
}

void leaving_datagrams::receive(receiver const& at, address from, std::vector<unsigned char> const& datagram) {
    unsigned char const* const header = datagram.data();
    require(datagram.size() >= c_header_size && load<header_field::magic>(header) == c_header_magic &&
                datagram.size() == c_header_size + load<header_field::data_size>(header),
            "the relay sent a datagram that no node would take");
    std::uint64_t const sequence = load<header_field::sequence>(header);
    require(sequence != 0 && sequence <= handed.size(), "the relay sent a datagram that the Center did not");
    handed_datagram& one = handed[sequence - 1];
    require(one.to == at.at, "a datagram went somewhere else");
    require(from == address{ip_of(1), one.to.port}, "a datagram left from another port than the one it was given to");
    require(!std::exchange(one.is_received, true), "the relay sent a datagram twice");
    std::uint64_t& last = last_received[{one.speaker, at.at}];
    require(sequence > last, "a datagram of the Center overtook another one");
    last = sequence;
    require(datagram.size() == c_header_size + one.size, "a datagram left with another size");
    serial read;
    require(one.size == 0 || (read_data(header + c_header_size, one.size, read) && read.number == sequence),
            "a datagram left damaged");
}

void leaving_datagrams::read_all(receiver const& from) {
    while ((from.host->poll(from.fd) & EPOLLIN) != 0) {
        std::vector<unsigned char> datagram(c_longest_datagram);
        address sender;
        long const got = from.host->recvfrom(from.fd, datagram.data(), datagram.size(), MSG_DONTWAIT, sender);
        datagram.resize(static_cast<std::size_t>(std::max(got, 0L)));
        receive(from, sender, datagram);
    }
}

/// It left, or the kernel refused it.
bool leaving_datagrams::is_sent(handed_datagram const& one) const {
    require(!(one.is_received && one.size == c_unsendable), "a datagram left that is too large for one");
    return one.is_received || one.size == c_unsendable;
}

/// The queue is sent in order: behind one that was left in it there is none that was sent.
void leaving_datagrams::check_queued(handed_datagram const& one) {
    bool& is_behind_one = has_queued[{one.speaker, one.to.port}];
    require(!(is_behind_one && one.is_released), "a datagram was sent before one that had been handed over earlier");
    is_behind_one = is_behind_one || !one.is_released;
}

void leaving_datagrams::settle(std::vector<std::string> const& printed) {
    for (receiver const& one : receivers) {
        read_all(one);
    }
    auto refused = std::count(printed.begin(), printed.end(), "sent err : ");
    for (handed_datagram& one : handed) {
        if (!is_served(one.to.port)) {
            require(!one.is_received, "a datagram left by a port that is not served");
            continue;
        }
        check_queued(one);
        if (!one.is_released) {
            require(!one.is_received, "a packet left and was not given back");
            one.token.free();
            require(one.is_released, "a packet in the queue has another owner");
            continue;
        }
        require(is_sent(one), "a packet was given back and never left");
        refused -= one.is_received ? 0 : 1;
    }
    require(refused == 0, "the relay told of more or fewer failed datagrams than there were");
}

} // namespace simulation
