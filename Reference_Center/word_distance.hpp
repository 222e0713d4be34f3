// Which known word somebody meant who wrote another one.
#ifndef REFERENCE_CENTER_WORD_DISTANCE_HPP
#define REFERENCE_CENTER_WORD_DISTANCE_HPP

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Zolt::Reference_Center {

/// How many letters must be changed, put in or taken out to turn one word into the other.
std::size_t count_edits(std::string_view from, std::string_view to);

/// The nearest name, or "" when each is more than that many edits away.
std::string find_similar(std::vector<std::string> const& names, std::string_view word, std::size_t most_edits);

} // namespace Zolt::Reference_Center

#endif
