#include "bench/support/percentiles.hpp"

#include "bench/plan.hpp"

#include <algorithm>
#include <cmath>

namespace relay_bench {

durations::durations(std::size_t room) : kept(room, 1) {}

void durations::write(figures& to) {
    if (count == 0) {
        throw failure("nothing was measured");
    }
    std::sort(kept.begin(), kept.begin() + static_cast<std::ptrdiff_t>(count));
    auto const at = [&](double share) {
        auto const rank = static_cast<std::size_t>(std::ceil(share * static_cast<double>(count)));
        return kept[std::clamp<std::size_t>(rank, 1, count) - 1];
    };
    to["p50_ns"] = at(0.5);
    to["p90_ns"] = at(0.9);
    to["p99_ns"] = at(0.99);
    to["p99_9_ns"] = at(0.999);
    to["min_ns"] = kept.front();
    to["max_ns"] = kept[count - 1];
}

} // namespace relay_bench
