#include "Reference_Center/utf8.hpp"

#include <algorithm>
#include <array>
#include <cstdint>
#include <fmt/format.h>

namespace Zolt::Reference_Center {
namespace {

/// The smallest character that needs so many bytes.
constexpr std::array<std::uint32_t, 5> c_smallest = {0, 0, 0x80, 0x800, 0x10000};

std::size_t length_by_first_byte(unsigned char first) {
    if (first < 0x80) {
        return 1;
    }
    if (first >= 0xF0) {
        return first < 0xF8 ? 4 : 0;
    }
    return first >= 0xE0 ? 3 : (first >= 0xC0 ? 2 : 0);
}

/// The length of the character at the front, or 0 when there is none.
std::size_t character_length(std::string_view text) {
    auto const first = static_cast<unsigned char>(text.front());
    std::size_t const length = length_by_first_byte(first);
    if (length <= 1 || length > text.size()) {
        return length == 1 ? 1 : 0;
    }
    std::uint32_t value = first & (0x7FU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        auto const next = static_cast<unsigned char>(text[i]);
        if ((next & 0xC0U) != 0x80) {
            return 0;
        }
        value = (value << 6U) | (next & 0x3FU);
    }
    bool const is_surrogate = value >= 0xD800 && value < 0xE000;
    return value < c_smallest[length] || value > 0x10FFFF || is_surrogate ? 0 : length;
}

bool is_control(std::string_view character) {
    auto const first = static_cast<unsigned char>(character.front());
    bool const is_second_set =
        first == 0xC2 && character.size() == 2 && static_cast<unsigned char>(character[1]) < 0xA0;
    return first < 0x20 || first == 0x7F || is_second_set;
}

} // namespace

std::size_t find_wrong_byte(std::string_view text) {
    for (std::size_t i = 0; i < text.size();) {
        std::size_t const length = character_length(text.substr(i));
        if (length == 0) {
            return i + 1;
        }
        i += length;
    }
    return 0;
}

std::string printable_text(std::string_view text) {
    std::string printable;
    while (!text.empty()) {
        std::size_t const length = character_length(text);
        std::string_view const piece = text.substr(0, std::max<std::size_t>(length, 1));
        if (length != 0 && !is_control(piece)) {
            printable += piece;
        } else {
            for (char const byte : piece) {
                printable += fmt::format("\\x{:02X}", static_cast<unsigned char>(byte));
            }
        }
        text.remove_prefix(piece.size());
    }
    return printable;
}

} // namespace Zolt::Reference_Center
