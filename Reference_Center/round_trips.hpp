// Round-trip times.
#ifndef REFERENCE_CENTER_ROUND_TRIPS_HPP
#define REFERENCE_CENTER_ROUND_TRIPS_HPP

#include "Reference_Center/output.hpp"

#include <cstdint>
#include <string>
#include <vector>

namespace Zolt::Reference_Center {

/// Of a list of times in microseconds.
struct trip_figures {
    std::uint64_t count = 0;
    double least = 0; ///< milliseconds
    double median = 0;
    double p99 = 0; ///< at most one in a hundred took longer
};

/// All 0 for no times.
trip_figures sum_up(std::vector<std::uint64_t> times);
std::string trips_text(trip_figures const& figures);
json_object trips_json(trip_figures const& figures);

} // namespace Zolt::Reference_Center

#endif
