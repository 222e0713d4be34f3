// The relay's configuration file, looked at before the relay reads it.
#ifndef REFERENCE_CENTER_CONFIGURATION_HPP
#define REFERENCE_CENTER_CONFIGURATION_HPP

#include <string>

namespace Zolt::Reference_Center {

/// The file that the relay is given, and its bytes.
struct configuration_text {
    std::string file;
    bool is_present = true; ///< the relay's own file may be absent
    std::string bytes;
};

/// Without a path, of "../Config/zolt.ini". Throws failure for a file that cannot be read.
configuration_text read_configuration_text(std::string const& path);

/// Makes the relay read that file instead of "../Config/zolt.ini"; with an empty path it reads that one, which may be
/// absent. Throws failure for a file that cannot be read, or that has a line without meaning.
void use_configuration(std::string const& path);

} // namespace Zolt::Reference_Center

#endif
