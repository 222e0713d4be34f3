#include "tests/fuzz/fuzzed_link.hpp"

#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"

#include <algorithm>
#include <array>
#include <utility>

#include <sys/socket.h>

namespace fuzz {

namespace INet_Relay = Zolt::Center::INet_Relay;
using simulation::ip_of;

namespace {

constexpr std::uint32_t c_peer_host = 2;

} // namespace

fuzzed_link::fuzzed_link(stream_side which) : side(which), host(the_node.add_host(c_peer_host)) {
    began_at = simulation::now();
    if (side == stream_side::accepted) {
        other_end.emplace(host, simulation::relay_address());
        peer_name = {ip_of(c_peer_host), other_end->local().port};
        return;
    }
    int const listener = host.socket(SOCK_STREAM);
    host.bind(listener, {0, c_peer_port});
    host.listen(listener, 1);
    INet_Relay::add_client(ip_of(c_peer_host), c_peer_port);
    is_registered = true;
    other_end.emplace(host, listener);
    // Nobody is there when the node connects once more.
    host.close(listener);
    peer_name = {ip_of(c_peer_host), c_peer_port};
}

void fuzzed_link::withdraw() {
    if (std::exchange(is_registered, false)) {
        INet_Relay::del_client(peer_name.ip, peer_name.port);
    }
}

void fuzzed_link::check_block_of_node() const {
    bool const is_accepted = side == stream_side::accepted;
    auto const expected = make_block(is_accepted ? simulation::c_port : other_end->taken_from().port, peer_name.port);
    auto const& got = other_end->received();
    simulation::require(
        std::equal(got.begin(), got.begin() + static_cast<long>(std::min(got.size(), c_block_size)), expected.begin()),
        "the node's block carries something else than its two ports");
}

void fuzzed_link::end() {
    withdraw();
    the_node.come_to_rest();
    the_node.shut_down();
}

} // namespace fuzz
