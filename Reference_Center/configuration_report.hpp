// The relay's configuration as it is shown: which file, and for each key its value, what that does and where it came from.
#ifndef REFERENCE_CENTER_CONFIGURATION_REPORT_HPP
#define REFERENCE_CENTER_CONFIGURATION_REPORT_HPP

#include "Reference_Center/configuration.hpp"
#include "Reference_Center/configuration_values.hpp"
#include "Reference_Center/output.hpp"

#include <string>
#include <vector>

namespace Zolt::Reference_Center {

std::string origin_text(std::string const& file, key_value const& here);
json_object values_json(configuration_text const& text, std::vector<key_value> const& values);

} // namespace Zolt::Reference_Center

#endif
