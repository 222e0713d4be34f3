// Public operations in any order, ticks, and what peers do, held against a model of the registries. After each act the
// node comes to rest; then its registries, the Center's view, the descriptors and the model must agree.

#include "Center/INet_Relay/EPoll/epoll.hpp"
#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"
#include "tests/fuzz/far_host.hpp"
#include "tests/fuzz/registry_model.hpp"
#include "tests/fuzz/simulated_run.hpp"
#include "tests/fuzz/target.hpp"
#include "tests/race/simulation/host.hpp"

#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace fuzz;
using namespace simulation;
using Zolt::struct_node_addr;
using Zolt::Reference_Host::packet_kind;
namespace INet_Relay = Zolt::Center::INet_Relay;
namespace EPoll = INet_Relay::EPoll;

constexpr std::size_t c_destinations = 3;
constexpr std::size_t c_visitors = 2;
constexpr std::size_t c_most_acts = 20;
constexpr int c_own_descriptors = 7; ///< five instances, a listening socket, a datagram socket
constexpr moment c_second = 1000000;
constexpr moment c_surely_heard = 7500000;   ///< that silent, a connection is not ended yet
constexpr moment c_surely_silent = 10500000; ///< that silent, it is, if nobody was overtaken by the time

/// A peer that visits, and its connection's port; 0: none.
struct visitor {
    std::unique_ptr<far_host> at;
    std::uint16_t port = 0;
};

class operations_run {
public:
    explicit operations_run(input_reader& bytes);

    void run() {
        for (std::size_t acts = 0; acts < c_most_acts && !input.is_over(); ++acts) {
            act();
            come_to_rest();
        }
        end();
    }

private:
    void act();
    void act_on_destination(std::size_t which, unsigned what);
    void act_on_visitor(visitor& which, unsigned what);
    void set_reach(std::size_t which, reach met);
    void lose(std::size_t which, leaving how);
    void pass_seconds(std::size_t count);
    void send_as_center(std::size_t size);
    void serve();
    void come_to_rest();
    void end();

    struct_node_addr name_of(std::size_t which) const { return {destinations[which]->ip(), c_peer_port}; }
    std::string find_disagreement() const;
    std::string compare_destination(std::size_t which) const;
    std::string compare_visitors() const;
    std::string compare_descriptors() const;
    std::string compare_center() const;

    input_reader& input;
    node the_node;
    registry_model model;
    std::vector<std::unique_ptr<far_host>> destinations;
    std::array<visitor, c_visitors> visitors;
    unsigned mute = 0; ///< one bit each, destinations first
};

operations_run::operations_run(input_reader& bytes) : input(bytes) {
    for (std::uint32_t i = 0; i < c_destinations; ++i) {
        destinations.push_back(std::make_unique<far_host>(the_node, 2 + i));
    }
    for (std::uint32_t i = 0; i < c_visitors; ++i) {
        visitors[i].at = std::make_unique<far_host>(the_node, 2 + c_destinations + i);
    }
    // The first is there, the second refuses, the third is there.
    set_reach(0, reach::open);
    set_reach(2, reach::open);
}

// --- what the registries say -----------------------------------------------------------------------------------------

bool has(EPoll::connection_map const& registry, struct_node_addr name) {
    return registry.contains(name);
}

unsigned find_standing(struct_node_addr name) HOST_NO_LOCK_ANALYSIS {
    if (has(EPoll::g_establish_client_map, name)) {
        return c_established;
    }
    if (has(EPoll::g_connect_map, name)) {
        return c_connecting;
    }
    return has(EPoll::g_connect_fail_map, name) ? c_waiting : c_nowhere;
}

std::optional<int> find_count(struct_node_addr name) HOST_NO_LOCK_ANALYSIS {
    auto const entry = EPoll::g_remote_server_map.find(name);
    return entry == EPoll::g_remote_server_map.end() ? std::nullopt : std::optional<int>(entry->second);
}

int count_outgoing_records() HOST_NO_LOCK_ANALYSIS {
    int count = 0;
    for (auto* rec = EPoll::g_outgoing.first; rec != nullptr; rec = EPoll::live_list::after(rec)) {
        ++count;
    }
    return count;
}

std::vector<struct_node_addr> list_keys(EPoll::connection_map const& registry) {
    std::vector<struct_node_addr> keys;
    for (auto const& [name, rec] : registry) {
        keys.push_back(name);
    }
    return keys;
}

// --- the comparison: empty, or what does not agree -------------------------------------------------------------------

std::string operations_run::compare_destination(std::size_t which) const {
    std::string const where = "destination " + std::to_string(which) + ": ";
    struct_node_addr const name = name_of(which);
    if (find_count(name) != model.count(which)) {
        return where + "its registrations";
    }
    unsigned const standing = find_standing(name);
    unsigned allowed = model.allowed(which, now());
    bool const is_silent = destinations[which]->longest_silence() > c_surely_heard;
    if (model.is_connected(which, now()) && is_silent) {
        allowed |= c_waiting | c_connecting;
    }
    if ((standing & allowed) == 0) {
        return where + "stands at " + std::to_string(standing) + ", allowed " + std::to_string(allowed);
    }
    std::uint16_t const gate = INet_Relay::get_gate_port_of_local(name);
    return gate == (standing == c_established ? c_peer_port : 0) ? "" : where + "its gate port";
}

std::string operations_run::compare_visitors() const HOST_NO_LOCK_ANALYSIS {
    std::size_t expected = 0;
    bool is_certain = true;
    for (visitor const& one : visitors) {
        bool const is_there = has(EPoll::g_establish_server_map, {one.at->ip(), one.port});
        bool const is_uncertain = one.port != 0 && one.at->longest_silence() > c_surely_heard;
        is_certain = is_certain && !is_uncertain;
        expected += one.port != 0 ? 1 : 0;
        if (!is_uncertain && is_there != (one.port != 0)) {
            return is_there ? "an accepted connection that has ended is filed" : "an accepted connection is not filed";
        }
    }
    bool const is_equal = EPoll::g_establish_server_map.size() == expected;
    return is_equal || !is_certain ? "" : "the accepted connections";
}

/// The records and descriptors that the registries' standing asks for, and none besides.
std::string operations_run::compare_descriptors() const HOST_NO_LOCK_ANALYSIS {
    int records = 0;
    int sockets = static_cast<int>(EPoll::g_establish_server_map.size());
    for (std::size_t i = 0; i < c_destinations; ++i) {
        if (model.has_remains(i, now())) {
            return "";
        }
        unsigned const standing = find_standing(name_of(i));
        records += standing != c_nowhere ? 1 : 0;
        sockets += standing == c_established || standing == c_connecting ? 1 : 0;
    }
    if (count_outgoing_records() != records) {
        return "the records of the outgoing side";
    }
    return relay_kernel().count_open() == c_own_descriptors + sockets ? "" : "the open descriptors";
}

std::string operations_run::compare_center() const HOST_NO_LOCK_ANALYSIS {
    for (side const which : {side::accepted, side::outgoing}) {
        auto const& registry = which == side::accepted ? EPoll::g_establish_server_map : EPoll::g_establish_client_map;
        if (the_node.the_center.list_connected(which) != list_keys(registry)) {
            return which == side::accepted ? "the Center's accepted peers" : "the Center's destinations";
        }
    }
    return "";
}

std::string operations_run::find_disagreement() const {
    for (std::size_t i = 0; i < c_destinations; ++i) {
        if (std::string found = compare_destination(i); !found.empty()) {
            return found;
        }
    }
    for (auto const compare :
         {&operations_run::compare_visitors, &operations_run::compare_descriptors, &operations_run::compare_center}) {
        if (std::string found = (this->*compare)(); !found.empty()) {
            return found;
        }
    }
    return "";
}

// --- coming to rest --------------------------------------------------------------------------------------------------

void operations_run::serve() {
    for (std::size_t i = 0; i < c_destinations; ++i) {
        far_host& host = *destinations[i];
        bool const was_due = model.is_connected(i, now());
        if (auto const silence = host.serve(); silence && model.is_wanted(i)) {
            require(!was_due || *silence > c_surely_heard, "the node ended a connection that nobody withdrew");
            model.lose(i, now());
        }
        require(host.ends().empty() || host.shortest_silence() < c_surely_silent, "a silent peer stays connected");
    }
    for (visitor& one : visitors) {
        if (auto const silence = one.at->serve(); silence) {
            require(*silence > c_surely_heard, "the node ended an accepted connection");
            one.port = 0;
        }
        require(one.port == 0 || one.at->shortest_silence() < c_surely_silent, "a silent visitor stays connected");
    }
}

void operations_run::come_to_rest() {
    constexpr int c_fewest_rounds = 3;
    constexpr int c_most_rounds = 64;
    constexpr moment c_round = 3000;
    std::string disagreement = "not compared";
    for (int round = 0; round < c_most_rounds && (round < c_fewest_rounds || !disagreement.empty()); ++round) {
        serve();
        pass_time(c_round);
        if (round + 1 >= c_fewest_rounds) {
            disagreement = find_disagreement();
        }
    }
    if (!disagreement.empty()) {
        fail("registries and model do not agree: " + disagreement);
    }
}

// --- the acts --------------------------------------------------------------------------------------------------------

void operations_run::set_reach(std::size_t which, reach met) {
    if (met != reach::open) {
        destinations[which]->stop_listening();
    } else if (!destinations[which]->listen()) {
        met = reach::refused;
    }
    the_node.net.black_hole({destinations[which]->ip(), c_peer_port}, met == reach::lost);
    model.set_reach(which, met, now());
}

void operations_run::lose(std::size_t which, leaving how) {
    if (!destinations[which]->ends().empty()) {
        destinations[which]->leave_all(how);
        model.lose(which, now());
    }
}

void operations_run::act_on_destination(std::size_t which, unsigned what) {
    struct_node_addr const name = name_of(which);
    switch (what % 8) {
    case 0:
    case 1:
        INet_Relay::add_client(name.ip, name.port);
        model.add(which, now());
        return;
    case 2:
    case 3:
        INet_Relay::del_client(name.ip, name.port);
        model.withdraw(which, now());
        return;
    case 4:
        set_reach(which, static_cast<reach>(what / 8 % 3));
        return;
    case 5:
        lose(which, static_cast<leaving>(what / 8 % c_leavings));
        return;
    case 6:
        destinations[which]->send_packets(16 + what);
        return;
    default:
        mute ^= 1U << which;
    }
}

void operations_run::act_on_visitor(visitor& which, unsigned what) {
    switch (what % 4) {
    case 0:
        if (which.port == 0) {
            which.port = which.at->visit();
        }
        return;
    case 1:
        which.at->leave_all(static_cast<leaving>(what / 4 % c_leavings));
        which.port = 0;
        return;
    case 2:
        which.at->send_packets(16 + what);
        return;
    default:
        mute ^= 1U << (c_destinations + static_cast<std::size_t>(&which - visitors.data()));
    }
}

void operations_run::pass_seconds(std::size_t count) {
    for (; count != 0; --count) {
        for (std::size_t i = 0; i < c_destinations + c_visitors; ++i) {
            if ((mute >> i & 1U) == 0) {
                (i < c_destinations ? *destinations[i] : *visitors[i - c_destinations].at).send_heartbeats();
            }
        }
        pass_time(c_second);
        serve();
    }
}

void operations_run::send_as_center(std::size_t size) {
    auto const bytes = static_cast<std::uint32_t>(16 + size);
    for (side const which : {side::accepted, side::outgoing}) {
        for (struct_node_addr const peer : the_node.the_center.list_connected(which)) {
            the_node.the_center.hand_over(which, peer, packet_kind::call_return, bytes);
        }
    }
    the_node.the_center.broadcast(bytes);
}

void operations_run::act() {
    unsigned const what = input.take_byte();
    std::size_t const which = what % 8;
    if (which < c_destinations) {
        act_on_destination(which, what / 8);
    } else if (which < c_destinations + c_visitors) {
        act_on_visitor(visitors[which - c_destinations], what / 8);
    } else if (which == 5) {
        pass_seconds(1 + what / 8 % 3);
    } else if (which == 6) {
        pass_seconds(what / 8 % 4 == 0 ? 12 : 1);
    } else {
        send_as_center(what);
    }
}

void operations_run::end() {
    for (std::size_t i = 0; i < c_destinations; ++i) {
        while (model.is_wanted(i)) {
            INet_Relay::del_client(name_of(i).ip, c_peer_port);
            model.withdraw(i, now());
        }
    }
    destinations.clear();
    for (visitor& one : visitors) {
        one.at.reset();
    }
    the_node.come_to_rest();
    the_node.shut_down();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    input_reader input({data, size});
    run_simulated(input, [&input] { operations_run(input).run(); });
    return 0;
}
