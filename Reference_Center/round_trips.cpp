#include "Reference_Center/round_trips.hpp"

#include <algorithm>
#include <fmt/format.h>

namespace Zolt::Reference_Center {
namespace {

double to_milliseconds(std::uint64_t microseconds) {
    return static_cast<double>(microseconds) / 1000;
}

} // namespace

trip_figures sum_up(std::vector<std::uint64_t> times) {
    if (times.empty()) {
        return {};
    }
    std::sort(times.begin(), times.end());
    std::size_t const count = times.size();
    // The smallest time that at least that part of all times does not exceed.
    std::size_t const median = (count + 1) / 2 - 1;
    std::size_t const p99 = (count * 99 + 99) / 100 - 1;
    return {count, to_milliseconds(times.front()), to_milliseconds(times[median]), to_milliseconds(times[p99])};
}

std::string trips_text(trip_figures const& figures) {
    return fmt::format("min {:.3f} ms, median {:.3f} ms, p99 {:.3f} ms", figures.least, figures.median, figures.p99);
}

json_object trips_json(trip_figures const& figures) {
    return {{"acknowledged", figures.count},
            {"min_ms", figures.least},
            {"median_ms", figures.median},
            {"p99_ms", figures.p99}};
}

} // namespace Zolt::Reference_Center
