// What a Center tells of itself, as Prometheus reads it. Names, types and labels: docs/metrics.md.
#ifndef REFERENCE_CENTER_NODE_METRICS_HPP
#define REFERENCE_CENTER_NODE_METRICS_HPP

#include "Reference_Center/node_report.hpp"

#include <string>
#include <vector>

namespace Zolt::Reference_Center {

/// The media type of the text below.
inline constexpr char const* c_metrics_type = "text/plain; version=0.0.4; charset=utf-8";

/// So many peers have figures of their own: destinations first, then those that have been connected longest.
inline constexpr std::size_t c_most_peers_in_metrics = 100;

std::string metrics_text(status_report const& status, std::vector<peer_report> peers);

} // namespace Zolt::Reference_Center

#endif
