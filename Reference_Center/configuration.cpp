#include "Reference_Center/configuration.hpp"

#include "Reference_Center/configuration_keys.hpp"
#include "Reference_Center/error_description.hpp"
#include "Reference_Center/failure.hpp"
#include "Reference_Host/ini_file.hpp"

#include <cerrno>
#include <fmt/format.h>

namespace Zolt::Reference_Center {

configuration_text read_configuration_text(std::string const& path) {
    bool const is_chosen = !path.empty();
    configuration_text text{is_chosen ? path : c_relays_file, true, ""};
    int const error = Reference_Host::read_ini_text(text.file.c_str(), text.bytes);
    if (!is_chosen && (error == ENOENT || error == ENOTDIR)) {
        text.is_present = false;
    } else if (error != 0) {
        throw failure(exit_code::bad_configuration,
                      fmt::format("cannot read configuration file {}: {}", text.file, describe_error(error)));
    }
    return text;
}

void use_configuration(std::string const& path) {
    configuration_text const text = read_configuration_text(path);
    Reference_Host::ini_content const content = Reference_Host::parse_ini(text.bytes);
    if (!content.faults.empty()) {
        auto const& fault = content.faults.front();
        throw failure(exit_code::bad_configuration, fmt::format("{}:{}: {}", text.file, fault.line, fault.reason));
    }
    Reference_Host::redirect_ini_files(path);
}

} // namespace Zolt::Reference_Center
