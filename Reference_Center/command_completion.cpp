// zolt-center completion: scripts that make a shell complete this program's command line.
#include "Reference_Center/completion.hpp"
#include "Reference_Center/options.hpp"
#include "Reference_Center/output.hpp"

#include <map>
#include <memory>

namespace Zolt::Reference_Center {
namespace {

using script_maker = std::string (*)(completed_command const&);

int run_completion(CLI::App const& app, script_maker make) {
    write_out(make(describe_commands(app)));
    return static_cast<int>(exit_code::done);
}

} // namespace

void add_completion_command(CLI::App& app, action& chosen) {
    CLI::App& command =
        *app.add_subcommand("completion", "Print a script by which a shell completes this program's words");
    auto const shell = std::make_shared<std::string>();
    static std::map<std::string, script_maker> const makers{
        {"bash", bash_script}, {"zsh", zsh_script}, {"fish", fish_script}};
    command.add_option("bash|zsh|fish", *shell, "Which shell")
        ->required()
        ->check(CLI::IsMember(makers).description(""));
    command.footer("  source <(zolt-center completion bash)");
    command.callback(
        [&app, shell, &chosen] { chosen = [&app, shell] { return run_completion(app, makers.at(*shell)); }; });
}

} // namespace Zolt::Reference_Center
