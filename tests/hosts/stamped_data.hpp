// The data of a packet that can be told apart from every other one: where it stands, when it was made, a checksum.
#ifndef TESTS_HOSTS_STAMPED_DATA_HPP
#define TESTS_HOSTS_STAMPED_DATA_HPP

#include <cstdint>
#include <optional>
#include <span>

namespace hosts {

/// Where a packet stands in what one run of one node sends. A flow begins with each "connected" that the node hears;
/// the packets that may be dropped are numbered by themselves.
struct data_stamp {
    std::uint64_t made = 0; ///< milliseconds since 1970
    std::uint32_t sender = 0;
    std::uint32_t boot = 0;
    std::uint32_t flow = 0;
    std::uint32_t number = 0;
};

/// Bytes of data of the packet with that number: mostly little, now and then more than a socket takes at once.
std::uint32_t size_of_data(std::uint32_t number);
/// Fills data of that size.
void write_stamp(data_stamp const& stamp, std::span<unsigned char> data);
/// Nothing when a byte is not as it was written.
std::optional<data_stamp> read_stamp(std::span<unsigned char const> data);

} // namespace hosts

#endif
