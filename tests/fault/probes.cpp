#include "tests/fault/probes.hpp"

#include <algorithm>

namespace relay_test {
namespace {

constexpr std::uint32_t c_stream_sequence = 7001;
constexpr std::uint32_t c_datagram_sequence = 7002;
constexpr int c_patience = 20000; ///< milliseconds
constexpr int c_soon = 20;
constexpr int c_one_look = 1;
constexpr int c_nudges = 8; ///< one accept, one datagram per event: those who wait already are taken first

} // namespace

std::string probing_stage::words_of_connections() const {
    std::vector<std::string> words;
    for (auto* rec = EPoll::g_outgoing.first; rec != nullptr; rec = EPoll::live_list::after(rec)) {
        auto const stands_in = [rec](EPoll::connection_map const& registry) {
            auto const entry = registry.find(EPoll::peer_of(rec));
            return entry != registry.end() && entry->second == rec;
        };
        char const* const state = stands_in(EPoll::g_connect_fail_map) ? "outgoing waiting"
                                  : stands_in(EPoll::g_connect_map)    ? "outgoing connecting"
                                  : stands_in(outgoing())              ? "outgoing established"
                                  : rec->shadowed                      ? "outgoing shadowed"
                                  : rec->ending.back != nullptr        ? "outgoing ending"
                                                                       : "outgoing unfiled";
        words.emplace_back(state);
    }
    words.insert(words.end(), accepted().size(), "accepted established");
    for (auto* rec = EPoll::g_accepted_exchanging.first; rec != nullptr; rec = EPoll::live_list::after(rec)) {
        words.emplace_back("accepted exchanging");
    }
    for (auto* rec = EPoll::g_accepted_ending.first; rec != nullptr; rec = EPoll::ending_list::after(rec)) {
        words.emplace_back("accepted ending");
    }
    return words.empty() ? "none" : joined(words, ", ");
}

std::string probing_stage::probe(std::string const& expected) {
    constexpr struct {
        char const* name;
        bool (probing_stage::*works)(int patience);
    } c_probes[] = {{"accepted", &probing_stage::probe_accepted},
                    {"outgoing", &probing_stage::probe_outgoing},
                    {"udp", &probing_stage::probe_udp}};
    std::vector<std::string> working;
    for (auto const& [name, works] : c_probes) {
        bool const is_expected = expected.find(name) != std::string::npos;
        if ((this->*works)(is_expected ? c_patience : c_one_look)) {
            working.emplace_back(name);
        }
    }
    return working.empty() ? "none" : joined(working);
}

bool probing_stage::nudge_until(std::function<bool()> const& is_so, int patience, std::function<void()> const& nudge) {
    for (int nudges = 0; nudges < c_nudges; ++nudges) {
        if (serve_until(is_so, std::min(patience, c_soon))) {
            return true;
        }
        nudge();
    }
    return serve_until(is_so, patience);
}

bool probing_stage::probe_accepted(int patience) {
    peer& newcomer = knock();
    newcomer.put(block());
    auto const is_served = [&] { return is_established(accepted(), newcomer) && newcomer.hear() == c_block_size; };
    return nudge_until(is_served, patience, [this] { knock(); }) && exchange_packets(accepted(), newcomer, patience);
}

bool probing_stage::probe_outgoing(int patience) {
    peer& added = listening();
    INet_Relay::add_client(added.address.ip, added.address.port);
    if (!serve_until([&added] { return added.take_connection(); }, patience)) {
        return false;
    }
    added.put(block());
    auto const is_served = [&] { return is_established(outgoing(), added) && added.hear() == c_block_size; };
    return serve_until(is_served, patience) && exchange_packets(outgoing(), added, patience);
}

bool probing_stage::exchange_packets(EPoll::connection_map const& registry, peer& with, int patience) {
    std::size_t const heard = with.hear();
    std::size_t const told = sequences.size();
    hand_over(registry, with, {.sequence = c_stream_sequence, .data = bytes(10, 5)});
    with.put(packet_bytes({.sequence = c_stream_sequence, .data = bytes(20, 6)}));
    return serve_until([&] { return with.hear() == heard + header_size() + 10 && came_since(told, c_stream_sequence); },
                       patience);
}

// What an older connection still has to deliver may come after the awaited packet.
bool probing_stage::came_since(std::size_t told, std::uint32_t sequence) const {
    return std::ranges::find(sequences.begin() + static_cast<std::ptrdiff_t>(told), sequences.end(), sequence) !=
           sequences.end();
}

bool probing_stage::probe_udp(int patience) {
    auto const throw_one = [this] {
        hand_over_udp(port, {.dst_ip = Zolt::c_local_host, .sequence = c_datagram_sequence});
    };
    std::size_t const told = sequences.size();
    throw_one();
    return nudge_until([&] { return came_since(told, c_datagram_sequence); }, patience, throw_one);
}

} // namespace relay_test
