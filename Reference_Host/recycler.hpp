// Memory of nodes, header parts and data parts: kept after use and handed out again. Private to Reference_Host/.
//
// A thread keeps a bounded number of small blocks of its own. What it has too many of goes, a batch at a time, to a
// shelf that all threads share, and a thread that has none takes a batch from there: one thread may allocate for ever
// what another frees, without a lock. Large data blocks stand on a shelf of their own, one by one, up to a number of
// bytes. What fits nowhere goes back to the heap; so does all that a thread kept when it ends.
//
// Any thread, also while the program's static objects are constructed or destroyed. Takes no lock.
// The ledger build puts ledger.cpp in the place of recycler.cpp.
#ifndef REFERENCE_HOST_RECYCLER_HPP
#define REFERENCE_HOST_RECYCLER_HPP

#include "Reference_Host/packet_storage.hpp"

#include <array>
#include <cstddef>
#include <cstdint>

namespace Zolt::Reference_Host {

/// Names one size of block.
using recycler_bin = std::uint32_t;

struct recycler_bin_row {
    std::uint64_t bytes; ///< of one block
    std::uint32_t
        per_thread; ///< blocks that one thread keeps; 0: no thread keeps any, blocks stand singly on the shelf
};

constexpr recycler_bin_row data_row(std::uint64_t capacity, std::uint32_t per_thread) {
    return {sizeof(data_part) + capacity, per_thread};
}

/// Nodes, header parts, then data parts by capacity.
inline constexpr std::array<recycler_bin_row, 18> c_recycler_bins{{
    {sizeof(struct_token_node), 128},
    {sizeof(header_part), 128},
    data_row(128, 64),
    data_row(512, 64),
    data_row(2048, 32),
    data_row(8192, 16),
    data_row(32768, 8),
    data_row(1U << 16, 0),
    data_row(1U << 17, 0),
    data_row(1U << 18, 0),
    data_row(1U << 19, 0),
    data_row(1U << 20, 0),
    data_row(1U << 21, 0),
    data_row(1U << 22, 0),
    data_row(1U << 23, 0),
    data_row(1U << 24, 0),
    data_row(1U << 25, 0),
    data_row(1U << 26, 0),
}};
inline constexpr recycler_bin c_bin_node = 0;
inline constexpr recycler_bin c_bin_header = 1;
inline constexpr recycler_bin c_bin_first_data = 2;
/// Data parts larger than the last bin: straight from and to the heap.
inline constexpr recycler_bin c_bin_oversized = c_recycler_bins.size();

/// The smallest bin whose data parts hold that many bytes.
constexpr recycler_bin find_data_bin(std::uint64_t data_size) {
    recycler_bin bin = c_bin_first_data;
    while (bin < c_bin_oversized && c_recycler_bins[bin].bytes < sizeof(data_part) + data_size) {
        ++bin;
    }
    return bin;
}

/// Bytes of a block of that bin; data_size counts for the oversized only.
constexpr std::uint64_t block_bytes(recycler_bin bin, std::uint64_t data_size) {
    return bin < c_bin_oversized ? c_recycler_bins[bin].bytes : sizeof(data_part) + data_size;
}

/// A block of the bin, or null when there is no memory. Its content is undefined.
void* obtain_block(recycler_bin bin, std::uint64_t data_size = 0);
/// Takes back what obtain_block gave for that bin.
void return_block(recycler_bin bin, void* block);

} // namespace Zolt::Reference_Host

#endif
