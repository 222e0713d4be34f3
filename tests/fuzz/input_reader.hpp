// A fuzz input, taken from the front; an input that has come to its end goes on as zeros.
#ifndef TESTS_FUZZ_INPUT_READER_HPP
#define TESTS_FUZZ_INPUT_READER_HPP

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

namespace fuzz {

class input_reader {
public:
    explicit input_reader(std::span<unsigned char const> input) : rest(input) {}

    bool is_over() const { return rest.empty(); }
    std::uint8_t take_byte() {
        std::uint8_t const byte = rest.empty() ? std::uint8_t{0} : rest.front();
        rest = rest.subspan(rest.empty() ? 0 : 1);
        return byte;
    }
    std::uint16_t take_number() {
        auto const high = static_cast<unsigned>(take_byte() << 8);
        return static_cast<std::uint16_t>(high | take_byte());
    }
    /// 0 to below limit.
    std::size_t take_below(std::size_t limit) { return take_byte() % limit; }
    /// That many bytes, or as many as there are.
    std::span<unsigned char const> take_bytes(std::size_t count) {
        auto const taken = rest.first(std::min(count, rest.size()));
        rest = rest.subspan(taken.size());
        return taken;
    }

private:
    std::span<unsigned char const> rest;
};

} // namespace fuzz

#endif
