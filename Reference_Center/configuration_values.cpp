#include "Reference_Center/configuration_values.hpp"

#include <optional>

namespace Zolt::Reference_Center {
namespace {

/// What the relay takes from the text; nothing when the default counts all the same.
std::optional<std::string> take_value(key_kind kind, std::string const& text) {
    if (kind == key_kind::on_off) {
        return Reference_Host::to_lower(text) == "no" ? "no" : "yes";
    }
    auto const number = Reference_Host::parse_integer(text);
    return number ? std::optional(std::to_string(*number)) : std::nullopt;
}

} // namespace

std::string_view key_value::effect() const {
    bool const is_off = key->kind == key_kind::on_off && value == "no";
    return is_off ? key->effect_off : key->effect;
}

std::vector<key_value> read_key_values(Reference_Host::ini_content const& content) {
    std::vector<key_value> values;
    for (configuration_key const& key : configuration_keys()) {
        key_value here{&key, std::string(key.fallback), "", 0, true};
        auto const* const entry = Reference_Host::find_entry(content, c_relays_section, key.name);
        if (entry != nullptr) {
            auto const taken = take_value(key.kind, entry->value);
            here.value = taken.value_or(here.value);
            here.written = entry->value;
            here.line = entry->line;
            here.is_default = !taken;
        }
        values.push_back(here);
    }
    return values;
}

} // namespace Zolt::Reference_Center
