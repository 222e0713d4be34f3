// The nine keys of the relay's configuration, and what each of them really does.
#ifndef REFERENCE_CENTER_CONFIGURATION_KEYS_HPP
#define REFERENCE_CENTER_CONFIGURATION_KEYS_HPP

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Zolt::Reference_Center {

/// The file that the relay asks its host for, as seen from the working directory.
constexpr char c_relays_file[] = "../Config/zolt.ini";
/// The section that it reads its keys from.
constexpr std::string_view c_relays_section = "ZOLT";

enum class key_kind { on_off, number };

struct configuration_key {
    std::string_view name;
    std::string_view fallback; ///< the value without the key: "yes", "no" or a number
    key_kind kind;
    bool has_effect;
    std::string_view effect;     ///< of a number, or of a switch that is on
    std::string_view effect_off; ///< of a switch that is off
};

/// In the order in which the relay reads them.
std::span<configuration_key const> configuration_keys();
/// Letter case does not count. Null when there is no such key.
configuration_key const* find_key(std::string_view name);
std::vector<std::string> key_names();

} // namespace Zolt::Reference_Center

#endif
