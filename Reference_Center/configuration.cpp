#include "Reference_Center/configuration.hpp"

#include "Reference_Center/configuration_keys.hpp"
#include "Reference_Center/failure.hpp"
#include "Reference_Host/ini_file.hpp"

#include <cerrno>
#include <cstring>
#include <fmt/format.h>

namespace Zolt::Reference_Center {

void use_configuration(std::string const& path) {
    bool const is_chosen = !path.empty();
    std::string const& file = is_chosen ? path : c_relays_file;
    Reference_Host::ini_content const content = Reference_Host::read_ini_file(file.c_str());
    bool const is_absent = content.error == ENOENT || content.error == ENOTDIR;
    if (content.error != 0 && (is_chosen || !is_absent)) {
        throw failure(exit_code::bad_configuration,
                      fmt::format("cannot read configuration file {}: {}", file, std::strerror(content.error)));
    }
    if (!content.faults.empty()) {
        auto const& fault = content.faults.front();
        throw failure(exit_code::bad_configuration, fmt::format("{}:{}: {}", file, fault.line, fault.reason));
    }
    Reference_Host::redirect_ini_files(path);
}

} // namespace Zolt::Reference_Center
