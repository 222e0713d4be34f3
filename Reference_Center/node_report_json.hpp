// What a Center tells of itself, as the JSON of its admin endpoint. Docs: docs/admin-api.md.
#ifndef REFERENCE_CENTER_NODE_REPORT_JSON_HPP
#define REFERENCE_CENTER_NODE_REPORT_JSON_HPP

#include "Reference_Center/node_report.hpp"
#include "Reference_Center/output.hpp"

#include <vector>

namespace Zolt::Reference_Center {

json_object status_json(status_report const& report);
json_object peers_json(std::vector<peer_report> const& peers);
/// Of each reason, also when it is 0.
json_object close_counts_json(close_counts const& counts);
json_object closed_json(std::vector<closed_report> const& closed);

} // namespace Zolt::Reference_Center

#endif
