// zolt-center manual: what the manual pages are made of, so that they cannot say anything else than the program does.
#include "Reference_Center/configuration_keys.hpp"
#include "Reference_Center/options.hpp"
#include "Reference_Center/output.hpp"

namespace Zolt::Reference_Center {
namespace {

json_object option_json(CLI::Option const& option) {
    json_object names = json_object::array();
    for (std::string const& name : option.get_snames()) {
        names.push_back("-" + name);
    }
    for (std::string const& name : option.get_lnames()) {
        names.push_back("--" + name);
    }
    bool const takes_value = option.get_items_expected_max() > 0;
    std::string const value = option.nonpositional() ? option.get_type_name() : option.get_name(true);
    return {{"names", names},
            {"value", takes_value ? value : ""},
            {"default", option.get_default_str()},
            {"required", option.get_required()},
            {"help", option.get_description()}};
}

json_object command_json(CLI::App const& app, std::string const& path) {
    json_object options = json_object::array();
    for (CLI::Option const* const option : app.get_options()) {
        if (!option->get_group().empty()) {
            options.push_back(option_json(*option));
        }
    }
    json_object commands = json_object::array();
    for (CLI::App const* const command : app.get_subcommands([](CLI::App const*) { return true; })) {
        if (!command->get_group().empty()) {
            commands.push_back(command_json(*command, path + " " + command->get_name()));
        }
    }
    return {{"path", path},
            {"help", app.get_description()},
            {"footer", app.get_footer()},
            {"options", options},
            {"commands", commands}};
}

json_object keys_json() {
    json_object keys = json_object::array();
    for (configuration_key const& key : configuration_keys()) {
        keys.push_back(json_object{{"name", key.name},
                                   {"kind", key.kind == key_kind::on_off ? "switch" : "number"},
                                   {"default", key.fallback},
                                   {"effect", key.effect},
                                   {"effect_off", key.effect_off}});
    }
    return keys;
}

int run_manual(CLI::App const& app) {
    write_out_object(json_object{
        {"version", ZOLT_CENTER_VERSION}, {"program", command_json(app, app.get_name())}, {"keys", keys_json()}});
    return static_cast<int>(exit_code::done);
}

} // namespace

void add_manual_command(CLI::App& app, action& chosen) {
    // Without a group it is left out of the help.
    CLI::App& command = *app.add_subcommand("manual", "Print what the manual pages are made of")->group("");
    command.callback([&app, &chosen] { chosen = [&app] { return run_manual(app); }; });
}

} // namespace Zolt::Reference_Center
