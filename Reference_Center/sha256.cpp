#include "Reference_Center/sha256.hpp"

#include <algorithm>
#include <bit>
#include <fmt/format.h>

namespace Zolt::Reference_Center {
namespace {

constexpr std::array<std::uint32_t, 64> c_round_constants{
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

std::uint32_t load_word(unsigned char const* bytes) {
    return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 | std::uint32_t{bytes[2]} << 8 | bytes[3];
}

std::array<std::uint32_t, 64> make_schedule(unsigned char const* block) {
    std::array<std::uint32_t, 64> words;
    for (std::size_t i = 0; i < 16; ++i) {
        words[i] = load_word(block + 4 * i);
    }
    for (std::size_t i = 16; i < words.size(); ++i) {
        std::uint32_t const early = words[i - 15];
        std::uint32_t const late = words[i - 2];
        words[i] = words[i - 16] + (std::rotr(early, 7) ^ std::rotr(early, 18) ^ early >> 3) + words[i - 7] +
                   (std::rotr(late, 17) ^ std::rotr(late, 19) ^ late >> 10);
    }
    return words;
}

} // namespace

void sha256::digest(unsigned char const* block) {
    auto const words = make_schedule(block);
    auto [a, b, c, d, e, f, g, h] = state;
    for (std::size_t i = 0; i < words.size(); ++i) {
        std::uint32_t const first = h + (std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25)) + ((e & f) ^ (~e & g)) +
                                    c_round_constants[i] + words[i];
        std::uint32_t const second =
            (std::rotr(a, 2) ^ std::rotr(a, 13) ^ std::rotr(a, 22)) + ((a & b) ^ (a & c) ^ (b & c));
        h = g;
        g = f;
        f = e;
        e = d + first;
        d = c;
        c = b;
        b = a;
        a = first + second;
    }
    std::array<std::uint32_t, 8> const round{a, b, c, d, e, f, g, h};
    for (std::size_t i = 0; i < state.size(); ++i) {
        state[i] += round[i];
    }
}

void sha256::add(std::span<unsigned char const> bytes) {
    total += bytes.size();
    while (!bytes.empty()) {
        if (rest_size == 0 && bytes.size() >= c_block) {
            digest(bytes.data());
            bytes = bytes.subspan(c_block);
            continue;
        }
        std::size_t const taken = std::min(c_block - rest_size, bytes.size());
        std::copy_n(bytes.begin(), taken, rest.begin() + static_cast<std::ptrdiff_t>(rest_size));
        rest_size += taken;
        bytes = bytes.subspan(taken);
        if (rest_size == c_block) {
            digest(rest.data());
            rest_size = 0;
        }
    }
}

std::string sha256::finish() {
    std::uint64_t const bits = total * 8;
    std::array<unsigned char, 2 * c_block> padding{0x80};
    std::size_t const zeros = (c_block + 56 - 1 - rest_size) % c_block;
    for (std::size_t i = 0; i < 8; ++i) {
        padding[1 + zeros + i] = static_cast<unsigned char>(bits >> (56 - 8 * i));
    }
    add(std::span(padding).first(1 + zeros + 8));
    return fmt::format("{:08x}", fmt::join(state, ""));
}

} // namespace Zolt::Reference_Center
