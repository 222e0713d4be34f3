// The buckets of both kinds of latency counts: their width grows with the value, so that few of them hold any time.
#ifndef REFERENCE_CENTER_LATENCY_BUCKETS_HPP
#define REFERENCE_CENTER_LATENCY_BUCKETS_HPP

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>

namespace Zolt::Reference_Center {

/// A power of two is divided into two to the power of PartBits buckets; below twice that number a bucket is one value.
/// Values of more than ValueBits bits count as the largest that has no more.
template <unsigned int PartBits, unsigned int ValueBits>
struct latency_buckets {
    static constexpr std::size_t c_parts = std::size_t{1} << PartBits;
    static constexpr std::size_t c_buckets = (ValueBits - PartBits + 1) * c_parts;
    static constexpr std::uint64_t c_largest = ~std::uint64_t{0} >> (64 - ValueBits);
    using counts = std::array<std::uint64_t, c_buckets>;

    static std::size_t bucket_of(std::uint64_t value) {
        std::uint64_t const held = std::min(value, c_largest);
        auto const width = static_cast<unsigned int>(std::bit_width(held));
        unsigned int const shift = width > PartBits + 1 ? width - PartBits - 1 : 0;
        return shift * c_parts + static_cast<std::size_t>(held >> shift);
    }

    /// The value at a part, from 0 to 1, of a bucket's width.
    static std::uint64_t value_of(std::size_t bucket, double part) {
        if (bucket < 2 * c_parts) {
            return bucket;
        }
        std::size_t const shift = bucket / c_parts - 1;
        std::uint64_t const first = (bucket - shift * c_parts) << shift;
        return first + static_cast<std::uint64_t>(static_cast<double>(std::uint64_t{1} << shift) * part);
    }

    /// About the smallest value that at least that share of all, from 0 to 1, does not exceed: as if those of a bucket
    /// stood evenly in it. Total: of the counts, not 0.
    static std::uint64_t value_at(counts const& of, std::uint64_t total, double share) {
        auto const wanted = static_cast<std::uint64_t>(std::ceil(share * static_cast<double>(total)));
        std::uint64_t rank = std::clamp<std::uint64_t>(wanted, 1, total);
        std::size_t bucket = 0;
        while (of[bucket] < rank) {
            rank -= of[bucket++];
        }
        return value_of(bucket, (static_cast<double>(rank) - 0.5) / static_cast<double>(of[bucket]));
    }
};

} // namespace Zolt::Reference_Center

#endif
