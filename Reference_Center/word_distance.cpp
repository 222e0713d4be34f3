#include "Reference_Center/word_distance.hpp"

#include <algorithm>
#include <numeric>

namespace Zolt::Reference_Center {

std::size_t count_edits(std::string_view from, std::string_view to) {
    std::vector<std::size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < from.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i + 1;
        for (std::size_t j = 0; j < to.size(); ++j) {
            std::size_t const changed = diagonal + (from[i] == to[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({changed, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

std::string find_similar(std::vector<std::string> const& names, std::string_view word, std::size_t most_edits) {
    auto const nearest = std::min_element(names.begin(), names.end(), [&](auto const& a, auto const& b) {
        return count_edits(word, a) < count_edits(word, b);
    });
    return nearest != names.end() && count_edits(word, *nearest) <= most_edits ? *nearest : "";
}

} // namespace Zolt::Reference_Center
