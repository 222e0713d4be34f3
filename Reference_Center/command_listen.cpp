// zolt-center listen: prints the packets that arrive.
#include "Reference_Center/addresses.hpp"
#include "Reference_Center/center.hpp"
#include "Reference_Center/options.hpp"
#include "Reference_Center/packet_text.hpp"

#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"

#include <fmt/format.h>
#include <map>
#include <memory>

namespace Zolt::Reference_Center {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds c_patience{500};

struct listen_options : common_options {
    packet_format format = packet_format::raw;
    std::string group;
    std::string source;
    std::string interface = "0.0.0.0";
    std::uint64_t count = 0;
    double seconds = 0;
    bool once = false;
};

class printing_user : public center_user {
public:
    explicit printing_user(listen_options const& given) : options(given) {}

    bool has_peers() const { return peers != 0; }
    bool is_complete() const { return options.count != 0 && printed >= options.count; }
    bool is_deserted() const { return options.once && peers_left; }
    std::uint64_t count() const { return printed; }

    void on_connected(peer const& who) override {
        log_event("connected " + address_text(who.address));
        ++peers;
    }
    void on_disconnected(peer const& who) override {
        log_event("disconnected " + address_text(who.address));
        --peers;
        peers_left = true;
    }
    void on_packet(arrival const& packet) override {
        if (!is_complete()) {
            write_out(format_packet(packet, options.format));
            ++printed;
        }
    }

private:
    listen_options const& options;
    std::uint64_t printed = 0;
    std::size_t peers = 0;
    bool peers_left = false;
};

void join_group(listen_options const& options) {
    if (options.group.empty()) {
        return;
    }
    std::uint32_t const group = *parse_ip(options.group);
    if (!is_multicast(group) || options.source.empty()) {
        throw failure(exit_code::wrong_usage, "--group is a multicast address such as 232.0.0.1, and needs --source");
    }
    for (std::uint16_t const port : options.ports) {
        Center::INet_Relay::add_membership(group, *parse_ip(options.interface), *parse_ip(options.source), port);
    }
}

int report(listen_options const& options, printing_user const& user, bool interrupted) {
    log_event(fmt::format("printed {} packets", user.count()));
    bool const is_done = options.count == 0 || user.is_complete();
    if (!is_done && !interrupted) {
        throw failure(exit_code::failed, fmt::format("only {} of {} packets arrived", user.count(), options.count));
    }
    if (options.json) {
        write_out_object(json_object{{"event", "stopped"}, {"printed", user.count()}});
    }
    return static_cast<int>(is_done ? exit_code::done : exit_code::interrupted);
}

int run_listen(listen_options options) {
    if (options.ports.empty()) {
        throw failure(exit_code::wrong_usage, "--port is required");
    }
    if (options.json) {
        options.format = packet_format::json;
    }
    stop_signals const signals;
    start_diagnostics(options.level());
    printing_user user(options);
    center_plan plan = options.plan();
    plan.signals = &signals;
    center node(plan, user);
    join_group(options);
    log_event(fmt::format("ready; serving {} over UDP and TCP", fmt::join(options.ports, ", ")));
    auto const end =
        options.seconds > 0 ? steady_clock::now() + to_milliseconds(options.seconds) : steady_clock::time_point::max();
    node.serve_until(end, [&] { return signals.is_requested() || user.is_complete() || user.is_deserted(); });
    // Who sent what was counted has a moment to end its connection in order.
    node.serve_until(steady_clock::now() + c_patience,
                     [&] { return signals.is_requested() || !user.is_complete() || !user.has_peers(); });
    node.stop();
    return report(options, user, signals.is_requested());
}

} // namespace

void add_listen_command(CLI::App& app, action& chosen) {
    CLI::App& command = *app.add_subcommand("listen", "Print the packets that arrive");
    auto const options = std::make_shared<listen_options>();
    add_ports_option(command, *options, "--port", "--listen");
    command.add_option("--format", options->format, "raw: the data alone; quoted, hex, json: one line a packet")
        ->transform(CLI::CheckedTransformer(std::map<std::string, packet_format>{{"raw", packet_format::raw},
                                                                                 {"quoted", packet_format::quoted},
                                                                                 {"hex", packet_format::hex},
                                                                                 {"json", packet_format::json}})
                        .description(""))
        ->type_name("raw|quoted|hex|json")
        ->default_str("raw");
    command.add_option("--count", options->count, "End after that many packets")->type_name("NUMBER");
    command.add_option("--seconds", options->seconds, "End after that time")
        ->check(seconds_check(0.001))
        ->type_name("SECONDS");
    command.add_flag("--once", options->once, "End when the first connection has ended");
    CLI::Option* const source = command.add_option("--source", options->source, "Whose multicast to --group is wanted")
                                    ->check(ip_check())
                                    ->type_name("IP");
    command.add_option("--group", options->group, "Multicast group to join on each port, for one source")
        ->check(ip_check())
        ->type_name("IP")
        ->needs(source);
    command.add_option("--interface", options->interface, "Own address by which the multicast comes in")
        ->check(ip_check())
        ->type_name("IP")
        ->capture_default_str();
    add_center_options(command, *options);
    add_json_option(command, options->json,
                    "As --format json, and one object at the end that tells how many there were");
    command.footer("With --count, fewer packets than that are a failure.\n\n"
                   "  zolt-center listen --port 7000 --once > picture.png\n"
                   "  zolt-center listen --port 7000 --format quoted --group 232.0.0.1 --source 10.0.0.2");
    command.callback([options, &chosen] { chosen = [options] { return run_listen(*options); }; });
}

} // namespace Zolt::Reference_Center
