// A picture of how latencies are distributed: percentiles across, each further nine as wide as the one before, and time upwards.
#ifndef REFERENCE_CENTER_LATENCY_PLOT_HPP
#define REFERENCE_CENTER_LATENCY_PLOT_HPP

#include "Reference_Center/latency_histogram.hpp"

#include <string>

namespace Zolt::Reference_Center {

/// An SVG document with light and dark colours; the same latencies give the same bytes. Without any latency it says so.
std::string draw_latencies(latency_histogram const& latencies, std::string const& title);

} // namespace Zolt::Reference_Center

#endif
