// What a byte stream means, told apart from the relay: which packets the Center must get, and how many answers are due.
#ifndef TESTS_FUZZ_STREAM_MODEL_HPP
#define TESTS_FUZZ_STREAM_MODEL_HPP

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace fuzz {

/// The side of the node whose stream is read.
enum class stream_side { accepted, outgoing };

struct stream_meaning {
    std::vector<std::vector<unsigned char>> delivered; ///< header and data of each, oldest first
    std::size_t answers = 0;                           ///< calls and signals that the node answers by itself
    bool is_stopped = false; ///< a header announces more than the node takes: it reads no further
};

/// The header comes first, then as many bytes as it announces. Kept by the node: heartbeats without data, and on the
/// accepted side acknowledgements without data. Answered: calls and signals, on the outgoing side.
stream_meaning read_stream(stream_side side, std::span<unsigned char const> bytes, std::size_t largest_data);

} // namespace fuzz

#endif
