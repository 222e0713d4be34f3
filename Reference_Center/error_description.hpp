// The words for an error number of the system.
#ifndef REFERENCE_CENTER_ERROR_DESCRIPTION_HPP
#define REFERENCE_CENTER_ERROR_DESCRIPTION_HPP

#include <cstring>
#include <string>

namespace Zolt::Reference_Center {

/// What an errno means, in English whatever the locale; from any thread, unlike std::strerror. Leaves errno alone.
inline std::string describe_error(int error) {
    char const* const description = ::strerrordesc_np(error);
    return description != nullptr ? description : "unknown error " + std::to_string(error);
}

} // namespace Zolt::Reference_Center

#endif
