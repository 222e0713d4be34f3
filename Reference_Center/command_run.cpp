// zolt-center run: a Center in the foreground.
#include "Reference_Center/addresses.hpp"
#include "Reference_Center/admin_site.hpp"
#include "Reference_Center/center.hpp"
#include "Reference_Center/configuration.hpp"
#include "Reference_Center/configuration_check.hpp"
#include "Reference_Center/link_message.hpp"
#include "Reference_Center/node_report_json.hpp"
#include "Reference_Center/options.hpp"
#include "Reference_Center/output.hpp"

#include <fmt/format.h>
#include <memory>
#include <unistd.h>

namespace Zolt::Reference_Center {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

struct run_options : common_options {
    std::vector<std::string> destinations;
    std::string admin;
    std::string capture;
    std::uint64_t capture_limit = 64U << 20;
    bool echo = false;
    double seconds = 0;
    std::optional<std::uint64_t> max_queue;
    std::optional<double> drain;
};

/// Says who comes and goes; sends back what arrives when it shall.
class running_user : public center_user {
public:
    explicit running_user(run_options const& given) : options(given) {}

    void use(center& made) { own = &made; }
    std::uint64_t count_returned() const { return returned; }

    void on_connected(peer const& who) override { tell("connected", who); }
    void on_disconnected(peer const& who) override { tell("disconnected", who); }
    void on_returned(struct_packet const&) override { ++returned; }

    void on_packet(arrival const& packet) override {
        if (options.echo && get_message(packet.header) != link_message::echo && is_plain(packet.header)) {
            send_back(packet);
        }
    }

private:
    /// Acknowledgements and errors end with who gets them.
    static bool is_plain(struct_packet const& header) {
        auto const kind = Reference_Host::get_kind(header);
        return kind == Reference_Host::packet_kind::data || kind == Reference_Host::packet_kind::command_udp ||
               kind == Reference_Host::packet_kind::information_udp;
    }

    void tell(char const* what, peer const& who) const {
        if (options.json) {
            write_out_object(
                json_object{{"event", what}, {"peer", address_text(who.address)}, {"over", way_text(who.via)}});
        } else {
            log_event(fmt::format("{} {} ({})", what, address_text(who.address), way_text(who.via)));
        }
    }

    /// Over UDP the answer goes to the port that the datagram came in by, as the relay's datagrams always do.
    void send_back(arrival const& packet) {
        Reference_Host::packet_plan plan;
        plan.kind = Reference_Host::get_kind(packet.header);
        plan.source = Reference_Host::get_destination(packet.header);
        plan.destination = Reference_Host::get_source(packet.header);
        if (packet.from.via == way::udp) {
            plan.destination.port = plan.source.port;
        }
        plan.flags = to_flags(link_message::echo);
        plan.code = Reference_Host::get_code(packet.header);
        plan.sequence = Reference_Host::get_sequence(packet.header);
        struct_token answer = Reference_Host::make_packet(plan);
        // The data goes back as it came: a copy would cost more than all the rest of a large packet.
        answer.set_data(packet.token);
        answer.get_header_packet()->set_data_size(packet.header.get_data_size());
        own->send(packet.from, answer);
    }

    run_options const& options;
    center* own = nullptr;
    std::uint64_t returned = 0;
};

void tell_ready(run_options const& options, std::string const& admin) {
    if (options.json) {
        write_out_object(json_object{{"event", "ready"},
                                     {"pid", ::getpid()},
                                     {"listen", options.ports},
                                     {"connect", options.destinations},
                                     {"admin", admin.empty() ? json_object(nullptr) : json_object(admin)}});
        return;
    }
    std::string line = "ready";
    if (!options.ports.empty()) {
        line += fmt::format("; serving {} over UDP and TCP", fmt::join(options.ports, ", "));
    }
    if (!options.destinations.empty()) {
        line += fmt::format("; connecting to {}", fmt::join(options.destinations, ", "));
    }
    if (!admin.empty()) {
        line += fmt::format("; admin at http://{}/", admin);
    }
    write_out_line(line);
}

void tell_sum(run_options const& options, center const& node) {
    traffic_counts const arrived = node.arrived();
    hand_over_counts const counts = count_hand_overs();
    if (options.json) {
        write_out_object(json_object{{"event", "stopped"},
                                     {"arrived", arrived.packets},
                                     {"arrived_bytes", arrived.bytes},
                                     {"packets", hand_over_json(counts)},
                                     {"closed", close_counts_json(node.account().count_closed())}});
    } else {
        write_out_line(fmt::format("stopped; arrived {} packets with {} bytes; {}", arrived.packets, arrived.bytes,
                                   hand_over_text(counts)));
    }
    if (!counts.balances()) {
        throw failure(exit_code::check_failed, "the packets handed over do not balance");
    }
}

/// What "config check" says of the file that the relay reads.
void warn_of_configuration(std::string const& path) {
    configuration_text const text = read_configuration_text(path);
    if (!text.is_present) {
        return;
    }
    for (finding const& what : check_configuration(text.bytes, read_backlog_cap())) {
        log_warning(fmt::format("{}:{}: {} {}: {}; {}", text.file, what.line, severity_text(what.weight), what.code,
                                what.reason, what.advice));
    }
}

/// How long what is queued gets to leave: half of the stop's time when nothing else was said.
milliseconds drain_time(run_options const& options, center_plan const& plan) {
    return options.drain ? to_milliseconds(*options.drain) : plan.stop_timeout / 2;
}

void drain(center& node, milliseconds longest) {
    node.serve_until(steady_clock::now() + longest, [] {
        wake_when_queue_is_below(0, 0);
        return count_hand_overs().queued == 0;
    });
}

int run_center(run_options const& options) {
    if (options.ports.empty() && options.destinations.empty()) {
        throw failure(exit_code::wrong_usage, "run: give at least one --listen or --connect");
    }
    service_manager const manager; // before there are threads: it changes the environment
    stop_signals const signals;
    start_diagnostics(options.level());
    running_user user(options);
    center_plan plan = options.plan();
    plan.signals = &signals;
    plan.capture = options.capture;
    plan.capture_limit = options.capture_limit;
    plan.max_queue_bytes = options.max_queue;
    plan.manager = &manager;
    center node(plan, user);
    user.use(node);
    warn_of_configuration(options.configuration);
    auto const admin = open_admin(options.admin, node.account(), options.configuration);
    for (std::string const& destination : options.destinations) {
        node.connect(*parse_address(destination));
    }
    tell_ready(options, admin_text(admin.get()));
    manager.tell_ready();
    auto const end =
        options.seconds > 0 ? steady_clock::now() + to_milliseconds(options.seconds) : steady_clock::time_point::max();
    node.serve_until(end, [&] { return signals.is_requested(); });
    log_event("stopping");
    manager.tell_stopping();
    drain(node, drain_time(options, plan));
    node.stop();
    tell_sum(options, node);
    return static_cast<int>(exit_code::done);
}

void add_queue_options(CLI::App& command, run_options& options) {
    command
        .add_option(
            "--max-queue", options.max_queue,
            "Most bytes that may wait for one peer, and of all datagrams; packets beyond are refused, and counted")
        ->transform(size_value())
        ->type_name("BYTES");
    command
        .add_option("--drain", options.drain,
                    "How long what waits may take to leave before the stop; half of --stop-timeout")
        ->check(seconds_check(0))
        ->type_name("SECONDS");
}

} // namespace

void add_run_command(CLI::App& app, action& chosen) {
    CLI::App& command = *app.add_subcommand("run", "Run a Center in the foreground until SIGINT or SIGTERM");
    auto const options = std::make_shared<run_options>();
    add_ports_option(command, *options, "--listen", "--port");
    command
        .add_option("--connect", options->destinations,
                    "Keep a connection to a destination open; may be given more than once")
        ->check(address_check())
        ->type_name("IP:PORT");
    command.add_flag("--echo", options->echo, "Send packets back to where they came from");
    command.add_option("--seconds", options->seconds, "Stop after that time")
        ->check(seconds_check(0.001))
        ->type_name("SECONDS");
    CLI::Option* const capture =
        command
            .add_option("--pcap", options->capture,
                        "Write the packets that are sent and received into a capture file, as Wireshark reads it")
            ->type_name("FILE");
    command
        .add_option("--pcap-limit", options->capture_limit,
                    "Largest size of that file; it ends there, and the Center goes on")
        ->transform(size_value())
        ->needs(capture)
        ->type_name("BYTES")
        ->default_str("64M");
    add_queue_options(command, *options);
    add_admin_option(command, options->admin);
    add_center_options(command, *options);
    add_json_option(command, options->json, "Print events and the sum as one JSON object a line");
    command.footer(
        "Prints one line when it is ready and one with the sum of all packets at the end; what happens in between "
        "goes\n"
        "to standard error. Calls from connected peers are acknowledged. A second signal cuts the stop short.\n\n"
        "  zolt-center run --listen 7000\n"
        "  zolt-center run --listen 7000 --connect 10.0.0.2:7000 --echo");
    command.callback([options, &chosen] { chosen = [options] { return run_center(*options); }; });
}

} // namespace Zolt::Reference_Center
