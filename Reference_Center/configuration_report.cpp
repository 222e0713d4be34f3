#include "Reference_Center/configuration_report.hpp"

#include <fmt/format.h>

namespace Zolt::Reference_Center {
namespace {

json_object value_json(key_value const& here, std::string const& origin) {
    json_object object{{"key", here.key->name},
                       {"value", here.value},
                       {"default", here.key->fallback},
                       {"has_effect", here.key->has_effect},
                       {"effect", here.effect()},
                       {"origin", origin},
                       {"line", nullptr},
                       {"written", nullptr}};
    if (here.line != 0) {
        object["line"] = here.line;
        object["written"] = here.written;
    }
    return object;
}

} // namespace

std::string origin_text(std::string const& file, key_value const& here) {
    if (here.line == 0) {
        return "default";
    }
    return here.is_default ? fmt::format("default; {}:{} has \"{}\", which is no number", file, here.line, here.written)
                           : fmt::format("{}:{}", file, here.line);
}

json_object values_json(configuration_text const& text, std::vector<key_value> const& values) {
    json_object keys = json_object::array();
    for (key_value const& here : values) {
        keys.push_back(value_json(here, origin_text(text.file, here)));
    }
    return {{"file", text.file}, {"present", text.is_present}, {"keys", keys}};
}

} // namespace Zolt::Reference_Center
