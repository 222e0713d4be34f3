#include "tests/fuzz/stream_model.hpp"

namespace fuzz {
namespace {

// Written out here, and not taken from the host's table: a mistake there must not be repeated.
constexpr std::size_t c_header = 72;
constexpr std::size_t c_kind_at = 8;
constexpr std::size_t c_size_at = 12;
enum : unsigned char { c_call = 1, c_signal = 2, c_call_answer = 3, c_signal_answer = 4, c_heartbeat = 5 };

std::size_t read_size(std::span<unsigned char const> header) {
    std::size_t size = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        size = size << 8 | header[c_size_at + i];
    }
    return size;
}

bool is_kept(stream_side side, unsigned char kind) {
    bool const is_answer = kind == c_call_answer || kind == c_signal_answer;
    return kind == c_heartbeat || (side == stream_side::accepted && is_answer);
}

} // namespace

stream_meaning read_stream(stream_side side, std::span<unsigned char const> bytes, std::size_t largest_data) {
    stream_meaning meaning;
    while (bytes.size() >= c_header) {
        std::size_t const data = read_size(bytes);
        unsigned char const kind = bytes[c_kind_at];
        if (side == stream_side::outgoing && (kind == c_call || kind == c_signal)) {
            ++meaning.answers;
        }
        meaning.is_stopped = data > largest_data;
        if (meaning.is_stopped || bytes.size() < c_header + data) {
            return meaning;
        }
        if (data != 0 || !is_kept(side, kind)) {
            auto const packet = bytes.first(c_header + data);
            meaning.delivered.emplace_back(packet.begin(), packet.end());
        }
        bytes = bytes.subspan(c_header + data);
    }
    return meaning;
}

} // namespace fuzz
