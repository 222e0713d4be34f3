#include "Reference_Center/latency_histogram.hpp"

#include <algorithm>
#include <bit>
#include <cmath>

namespace Zolt::Reference_Center {

std::size_t latency_histogram::bucket_of(std::uint64_t value) {
    auto const width = static_cast<unsigned int>(std::bit_width(value));
    unsigned int const shift = width > c_part_bits + 1 ? width - c_part_bits - 1 : 0;
    return shift * c_parts + static_cast<std::size_t>(value >> shift);
}

std::uint64_t latency_histogram::value_of(std::size_t bucket) {
    if (bucket < 2 * c_parts) {
        return bucket;
    }
    std::size_t const shift = bucket / c_parts - 1;
    std::uint64_t const first = (bucket - shift * c_parts) << shift;
    return first + (std::uint64_t{1} << shift) / 2;
}

void latency_histogram::add(std::uint64_t value) {
    ++buckets[bucket_of(value)];
    ++total;
    smallest = std::min(smallest, value);
    largest = std::max(largest, value);
}

void latency_histogram::merge(latency_histogram const& other) {
    for (std::size_t i = 0; i < buckets.size(); ++i) {
        buckets[i] += other.buckets[i];
    }
    total += other.total;
    smallest = std::min(smallest, other.smallest);
    largest = std::max(largest, other.largest);
}

std::uint64_t latency_histogram::at_share(double share) const {
    auto const rank = static_cast<std::uint64_t>(std::ceil(share * static_cast<double>(total)));
    if (rank >= total) {
        return largest;
    }
    std::uint64_t below = 0;
    std::size_t bucket = 0;
    while ((below += buckets[bucket]) < std::max<std::uint64_t>(rank, 1)) {
        ++bucket;
    }
    return std::clamp(value_of(bucket), smallest, largest);
}

} // namespace Zolt::Reference_Center
