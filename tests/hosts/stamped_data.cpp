#include "tests/hosts/stamped_data.hpp"

#include <algorithm>
#include <cstring>

namespace hosts {
namespace {

/// What stands in front; the rest of the data follows from it.
struct stamped_front {
    std::uint64_t checksum;
    data_stamp stamp;
};
static_assert(sizeof(stamped_front) == 32);

constexpr std::uint64_t c_sum_start = 14695981039346656037u;
constexpr std::uint64_t c_sum_factor = 1099511628211u;

/// Depends on each byte and on its place.
std::uint64_t sum_behind_checksum(std::span<unsigned char const> data) {
    std::uint64_t sum = c_sum_start;
    for (unsigned char const byte : data.subspan(sizeof(stamped_front::checksum))) {
        sum = (sum ^ byte) * c_sum_factor;
    }
    return sum;
}

} // namespace

std::uint32_t size_of_data(std::uint32_t number) {
    std::uint32_t const filler = number % 64 == 5 ? 150'000 : number * 37 % 1400;
    return static_cast<std::uint32_t>(sizeof(stamped_front)) + filler;
}

void write_stamp(data_stamp const& stamp, std::span<unsigned char> data) {
    std::span<unsigned char> const filler = data.subspan(sizeof(stamped_front));
    std::uint32_t state = stamp.number * 2654435761u + stamp.flow;
    std::ranges::generate(filler, [&] {
        state = state * 1664525u + 1013904223u;
        return static_cast<unsigned char>(state >> 24);
    });
    stamped_front front{0, stamp};
    std::memcpy(data.data(), &front, sizeof front);
    front.checksum = sum_behind_checksum(data);
    std::memcpy(data.data(), &front.checksum, sizeof front.checksum);
}

std::optional<data_stamp> read_stamp(std::span<unsigned char const> data) {
    stamped_front front{};
    if (data.size() < sizeof front) {
        return std::nullopt;
    }
    std::memcpy(&front, data.data(), sizeof front);
    bool const is_whole =
        data.size() == size_of_data(front.stamp.number) && front.checksum == sum_behind_checksum(data);
    return is_whole ? std::optional(front.stamp) : std::nullopt;
}

} // namespace hosts
