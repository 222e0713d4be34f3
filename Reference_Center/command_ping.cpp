// zolt-center ping: how long a call takes until it is acknowledged.
#include "Reference_Center/addresses.hpp"
#include "Reference_Center/call_probe.hpp"
#include "Reference_Center/center.hpp"
#include "Reference_Center/options.hpp"
#include "Reference_Center/output.hpp"
#include "Reference_Center/round_trips.hpp"

#include <fmt/format.h>
#include <memory>
#include <optional>

namespace Zolt::Reference_Center {
namespace {

using std::chrono::steady_clock;

struct ping_options : common_options {
    std::string destination;
    std::uint64_t count = 10;
    std::uint32_t size = 0;
    double interval = 0.1;
    double timeout = 1;
    double wait = 5;
    bool signal = false;
};

class pinging_user : public center_user {
public:
    std::optional<peer> connection;
    call_probe* probe = nullptr;
    bool is_gone = false;

    void on_connected(peer const& who) override { connection = connection ? connection : who; }
    void on_disconnected(peer const& who) override { is_gone = is_gone || who == connection; }
    void on_packet(arrival const& packet) override {
        if (probe != nullptr) {
            probe->look_at(packet);
        }
    }
};

class pinger {
public:
    pinger(ping_options const& given, stop_signals const& watched)
        : options(given), signals(watched), node(plan(), user) {}

    int run() {
        wait_for_connection();
        call_probe probe(node, *user.connection,
                         options.signal ? Reference_Host::packet_kind::signal_return
                                        : Reference_Host::packet_kind::call_return,
                         options.size);
        user.probe = &probe;
        while (sent < options.count && may_go_on()) {
            ping(probe);
            serve_until(steady_clock::now() + to_milliseconds(options.interval), [] { return false; });
        }
        node.stop();
        return report();
    }

private:
    center_plan plan() const {
        center_plan wanted = options.plan();
        wanted.signals = &signals;
        return wanted;
    }

    bool may_go_on() const { return !signals.is_requested() && !user.is_gone; }

    /// True when it came true in time.
    bool serve_until(steady_clock::time_point deadline, std::function<bool()> const& condition) {
        node.serve_until(deadline, [&] { return !may_go_on() || condition(); });
        return condition();
    }

    void wait_for_connection() {
        if (!options.destination.empty()) {
            node.connect(*parse_address(options.destination));
        }
        if (serve_until(steady_clock::now() + to_milliseconds(options.wait),
                        [this] { return user.connection.has_value(); })) {
            return;
        }
        throw failure(signals.is_requested() ? exit_code::interrupted : exit_code::unreachable,
                      options.destination.empty()
                          ? fmt::format("nobody connected within {} seconds", options.wait)
                          : fmt::format("no connection to {} within {} seconds", options.destination, options.wait));
    }

    void ping(call_probe& probe) {
        ++sent;
        auto const deadline = steady_clock::now() + to_milliseconds(options.timeout);
        if (probe.start()) {
            serve_until(deadline, [&] { return probe.time().has_value() || probe.came_back(); });
        }
        auto const time = probe.time();
        if (time) {
            times.push_back(*time);
        }
        if (!options.json && !options.quiet) {
            tell(time);
        }
    }

    void tell(std::optional<std::uint64_t> time) const {
        std::string const to = address_text(user.connection->address);
        write_out_line(time ? fmt::format("{} call {}: {:.3f} ms", to, sent, static_cast<double>(*time) / 1000)
                            : fmt::format("{} call {}: not acknowledged within {} seconds", to, sent, options.timeout));
    }

    int report() const {
        trip_figures const figures = sum_up(times);
        if (options.json) {
            json_object object{{"peer", address_text(user.connection->address)},
                               {"over", way_text(user.connection->via)},
                               {"calls", sent}};
            object.update(trips_json(figures));
            write_out_object(object);
        } else {
            write_out_line(fmt::format("{} calls, {} acknowledged; {}", sent, figures.count, trips_text(figures)));
        }
        if (signals.is_requested()) {
            return static_cast<int>(exit_code::interrupted);
        }
        if (figures.count != options.count) {
            throw failure(exit_code::failed,
                          fmt::format("{} of {} calls were not acknowledged{}", options.count - figures.count,
                                      options.count, user.is_gone ? "; the connection ended" : ""));
        }
        return static_cast<int>(exit_code::done);
    }

    ping_options const& options;
    stop_signals const& signals;
    pinging_user user;
    center node;
    std::uint64_t sent = 0;
    std::vector<std::uint64_t> times;
};

int run_ping(ping_options const& options) {
    if (options.destination.empty() == options.ports.empty()) {
        throw failure(exit_code::wrong_usage, "ping: give either --to or --port");
    }
    stop_signals const signals;
    start_diagnostics(options.level());
    return pinger(options, signals).run();
}

} // namespace

void add_ping_command(CLI::App& app, action& chosen) {
    CLI::App& command = *app.add_subcommand("ping", "Measure how long calls take until they are acknowledged");
    auto const options = std::make_shared<ping_options>();
    command.add_option("--to", options->destination, "Connect to that peer; its Center acknowledges")
        ->check(address_check())
        ->type_name("IP:PORT");
    command.add_option("--port", options->ports, "Serve that port and wait for a peer; its relay acknowledges")
        ->check(port_check())
        ->expected(1)
        ->type_name("PORT");
    command.add_option("--count", options->count, "How many calls")
        ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1000000}).description(""))
        ->type_name("NUMBER")
        ->capture_default_str();
    command.add_option("--interval", options->interval, "Pause between two calls")
        ->check(seconds_check(0))
        ->type_name("SECONDS")
        ->capture_default_str();
    command.add_option("--timeout", options->timeout, "How long one call may take")
        ->check(seconds_check(0.001))
        ->type_name("SECONDS")
        ->capture_default_str();
    command.add_option("--size", options->size, "Data of a call")
        ->check(CLI::Range(std::uint32_t{0}, std::uint32_t{16U << 20}).description(""))
        ->type_name("BYTES")
        ->capture_default_str();
    command.add_option("--wait", options->wait, "How long to wait for the connection")
        ->check(seconds_check(0))
        ->type_name("SECONDS")
        ->capture_default_str();
    command.add_flag("--signal", options->signal, "Send signals instead of calls");
    add_center_options(command, *options);
    add_json_option(command, options->json, "Print the figures as one JSON object");
    command.footer("Every call that is not acknowledged in time is a failure.\n\n"
                   "  zolt-center ping --to 10.0.0.2:7000 --count 1000 --interval 0");
    command.callback([options, &chosen] { chosen = [options] { return run_ping(*options); }; });
}

} // namespace Zolt::Reference_Center
