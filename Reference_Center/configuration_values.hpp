// What the relay makes of its configuration: the value of each key, and where it came from.
#ifndef REFERENCE_CENTER_CONFIGURATION_VALUES_HPP
#define REFERENCE_CENTER_CONFIGURATION_VALUES_HPP

#include "Reference_Center/configuration_keys.hpp"
#include "Reference_Host/ini_file.hpp"

#include <string>
#include <vector>

namespace Zolt::Reference_Center {

struct key_value {
    configuration_key const* key = nullptr;
    std::string value;   ///< as the relay takes it: "yes", "no" or a number
    std::string written; ///< as it stands in the file; empty without a line
    int line = 0;        ///< of the entry that counts; 0 without one
    bool is_default = true;

    std::string_view effect() const;
};

/// All nine keys, in the relay's order.
std::vector<key_value> read_key_values(Reference_Host::ini_content const& content);

} // namespace Zolt::Reference_Center

#endif
