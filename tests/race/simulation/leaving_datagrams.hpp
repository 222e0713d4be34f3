// What the Center hands over to leave as datagrams, and what becomes of it.
#ifndef TESTS_RACE_SIMULATION_LEAVING_DATAGRAMS_HPP
#define TESTS_RACE_SIMULATION_LEAVING_DATAGRAMS_HPP

#include "Host/zolt_packet.hpp"
#include "tests/race/simulation/kernel.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace simulation {

inline constexpr std::array<std::uint16_t, 2> c_served_ports{7000, 7001};

class leaving_datagrams {
public:
    /// Opens the sockets that datagrams may go to: those of each host, of everybody and of a group. What is sent to everybody
    /// or to a group ends at one host that has this address.
    leaving_datagrams(network& net, std::vector<kernel*> const& hosts);
    ~leaving_datagrams();
    leaving_datagrams(leaving_datagrams const&) = delete;
    leaving_datagrams& operator=(leaving_datagrams const&) = delete;

    /// A packet of that thread of the Center: to anybody, from any port, of any size.
    void hand_over(std::uint32_t speaker);
    /// None of them waits to be sent.
    bool are_all_released() const;

    /// After finalize: checks what every packet came to, and gives back those that were still queued. Reads what has
    /// arrived, so nothing may be in flight any more.
    void settle(std::vector<std::string> const& printed);

private:
    struct handed_datagram {
        std::uint32_t speaker = 0;
        address to;
        std::uint32_t size = 0; ///< bytes of data
        bool is_released = false;
        bool is_received = false;
        Zolt::struct_token token{};
    };
    struct receiver {
        kernel* host;
        address at;
        int fd;
    };

    static leaving_datagrams* current; ///< there is one at a time

    void open_receivers(kernel& host, std::uint32_t ip);
    void read_all(receiver const& from);
    void receive(receiver const& at, address from, std::vector<unsigned char> const& datagram);
    bool is_sent(handed_datagram const& one) const;
    void check_queued(handed_datagram const& one);

    kernel everybody;
    kernel group;
    std::vector<receiver> receivers;
    std::vector<handed_datagram> handed;
    std::map<std::pair<std::uint32_t, address>, std::uint64_t> last_received; ///< of a speaker at an address
    std::map<std::pair<std::uint32_t, std::uint16_t>, bool> has_queued;       ///< of a speaker at a port
};

} // namespace simulation

#endif
