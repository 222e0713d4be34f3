#include "tests/race/simulation/node.hpp"

#include "Center/INet_Relay/EPoll/epoll.hpp"
#include "Center/INet_Relay/EPoll/epoll_tcp_method.hpp"
#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"
#include "Reference_Host/inbox.hpp"
#include "Reference_Host/ledger.hpp"
#include "tests/race/simulation/host.hpp"
#include "tests/race/simulation/memory.hpp"

#include <algorithm>
#include <utility>

namespace simulation {

namespace INet_Relay = Zolt::Center::INet_Relay;
namespace EPoll = INet_Relay::EPoll;

namespace {

/// The longest way to an end: silence, the time-out of what then stands doomed, and a few ticks.
constexpr moment c_rest_bound = 60000000;

void clear_registries() HOST_NO_LOCK_ANALYSIS {
    INet_Relay::clear_leftovers();
    EPoll::g_remote_server_map.clear();
    EPoll::g_server_map.clear();
}

void check_ledger() {
    Zolt::Reference_Host::release_held_back();
    auto const reports = Zolt::Reference_Host::take_ledger_reports();
    if (!reports.empty()) {
        fail("the ledger reports: " + reports.front());
    }
    if (Zolt::Reference_Host::count_live_parts() != Zolt::Reference_Host::ledger_counts{}) {
        fail("a part of a packet is left: " + Zolt::Reference_Host::list_live_parts().front());
    }
}

} // namespace

std::uint32_t ip_of(std::uint32_t number) {
    return 10U | number << 24;
}

node::node() : node(std::span(&c_port, 1)) {
    the_center.open();
    is_center_open = true;
}

node::node(std::span<std::uint16_t const> ports) : host(net, ip_of(1)), locks_before(count_locks()) {
    set_relay_kernel(&host);
    carrier = spawn("network", [this] { carry(); });
    INet_Relay::initialize();
    for (std::uint16_t const port : ports) {
        require(INet_Relay::add_server(port) == 0, "the relay cannot listen");
    }
    resting_locks = count_locks();
    INet_Relay::start();
}

void node::carry() {
    while (!is_over) {
        // What is sent again later comes due with time; what is sent meanwhile may come due earlier.
        moment const next = net.next_in_flight();
        wait_until("network", next, [&] { return is_over || net.has_in_flight() || net.next_in_flight() != next; });
        if (net.has_in_flight()) {
            net.deliver_one(scenario_dice());
        }
    }
}

node::~node() {
    set_relay_kernel(nullptr);
}

kernel& node::add_host(std::uint32_t number) {
    return *others.emplace_back(std::make_unique<kernel>(net, ip_of(number)));
}

void node::spawn_peer(std::string const& name, std::function<void()> body) {
    peers.push_back(spawn(name, std::move(body)));
}

void node::wait_for_peers() {
    wait_for("peers' end", [this] { return std::all_of(peers.begin(), peers.end(), has_ended); });
}

void node::come_to_rest() {
    auto const is_at_rest = [this] {
        return count_locks() == resting_locks && Zolt::Reference_Host::get_center_inbox().count().packets == 0 &&
               the_center.count_connected(side::accepted) + the_center.count_connected(side::outgoing) == 0;
    };
    if (!wait_until("rest", now() + c_rest_bound, is_at_rest)) {
        fail(count_locks() == resting_locks ? "a connection ended and the Center was not told"
                                            : "a connection does not come to its end");
    }
}

void node::shut_down() {
    the_center.refuse();
    INet_Relay::stop();
    wait_for_peers();
    INet_Relay::finalize();
    clear_registries();
    Zolt::Reference_Host::release_offered();
    if (is_center_open) {
        the_center.close();
    }
    if (on_finalized) {
        on_finalized();
    }
    if (host.count_open() != 0) {
        fail("a descriptor is left open: " + host.list_open().front());
    }
    require(count_locks() == locks_before, "a record is left that no registry names");
    take_errors();
    check_ledger();
    release_destroyed();
    is_over = true;
    wait_for("network's end", [this] { return has_ended(carrier); });
}

} // namespace simulation
