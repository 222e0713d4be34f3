// Bytes that may be text.
#ifndef REFERENCE_CENTER_UTF8_HPP
#define REFERENCE_CENTER_UTF8_HPP

#include <cstddef>
#include <string>
#include <string_view>

namespace Zolt::Reference_Center {

/// The first byte that is no UTF-8, from 1; 0 when all are.
std::size_t find_wrong_byte(std::string_view text);

/// The text with each byte that is no UTF-8, and each that steers a terminal, as \xNN.
std::string printable_text(std::string_view text);

} // namespace Zolt::Reference_Center

#endif
