// zolt-center bench: load, and how long the answers take.
#include "Reference_Center/addresses.hpp"
#include "Reference_Center/bench_far_center.hpp"
#include "Reference_Center/bench_report.hpp"
#include "Reference_Center/bench_stream.hpp"
#include "Reference_Center/bench_trips.hpp"
#include "Reference_Center/error_description.hpp"
#include "Reference_Center/latency_plot.hpp"
#include "Reference_Center/options.hpp"
#include "Reference_Center/port_holder.hpp"
#include "Reference_Center/private_networks.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <memory>
#include <unistd.h>

namespace Zolt::Reference_Center {
namespace {

constexpr std::array<cable_end, 2> c_bench_ends{cable_end{"near", "10.77.0.1"}, cable_end{"far", "10.77.0.2"}};
constexpr std::uint16_t c_first_port = 7000; ///< in networks of its own
constexpr std::size_t c_most_peers = 1000;
constexpr std::uint32_t c_largest_load_packet = 64U << 20;
constexpr std::uint32_t c_largest_datagram_data = 65507 - Reference_Host::c_header_size;
constexpr int c_port_attempts = 5;

struct bench_options : common_options {
    bench_kind kind = bench_kind::tcp;
    std::vector<std::string> destinations;
    std::size_t peers = 1;
    std::uint32_t size = 64;
    std::uint64_t window = 0;
    double rate = 0;
    double duration = 5;
    double warm_up = 0.5;
    double timeout = 2;
    double wait = 5;
    bool calls = false;
    bool one_way = false;
    std::string plot;
};

bench_time to_nanoseconds(double seconds) {
    return static_cast<bench_time>(seconds * 1e9);
}

/// Packets that one peer may have queued, so that no queue grows without limit and none runs empty.
std::uint64_t one_way_window(bench_plan const& plan) {
    constexpr std::uint64_t c_packets = 16384;
    constexpr std::uint64_t c_bytes = 32U << 20;
    std::uint64_t const packets = std::min(c_packets, c_bytes / (Reference_Host::c_header_size + plan.size));
    return std::clamp<std::uint64_t>(packets / plan.peers, 2, 1024);
}

bench_plan make_plan(bench_options const& options) {
    bench_plan plan;
    plan.kind = options.kind;
    plan.peers = options.destinations.empty() ? options.peers : options.destinations.size();
    plan.size = options.size;
    plan.rate = options.rate;
    plan.calls = options.calls;
    plan.one_way = options.one_way;
    plan.warm_up = to_nanoseconds(options.warm_up);
    plan.duration = to_nanoseconds(options.duration);
    plan.patience = to_nanoseconds(options.timeout);
    plan.window = options.window != 0 ? options.window : plan.one_way ? one_way_window(plan) : 1;
    for (std::string const& text : options.destinations) {
        struct_node_addr const destination = *parse_address(text);
        if (std::find(plan.destinations.begin(), plan.destinations.end(), destination) != plan.destinations.end()) {
            throw failure(exit_code::wrong_usage,
                          fmt::format("--to {}: given twice, and there is one connection to a destination", text));
        }
        plan.destinations.push_back(destination);
    }
    return plan;
}

/// Opened before the load begins, so that nobody waits for a picture that cannot be written.
class plot_file {
public:
    explicit plot_file(std::string const& wanted) : name(wanted) {
        if (name.empty()) {
            return;
        }
        fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
        check(fd != -1);
    }
    ~plot_file() {
        if (fd != -1) {
            ::close(fd);
        }
    }
    plot_file(plot_file const&) = delete;
    plot_file& operator=(plot_file const&) = delete;

    void write(std::string const& text) const {
        if (fd != -1) {
            check(::ftruncate(fd, 0) == 0 &&
                  ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()));
        }
    }

private:
    void check(bool done) const {
        if (!done) {
            throw failure(exit_code::failed, fmt::format("cannot write {}: {}", name, describe_error(errno)));
        }
    }

    std::string const name;
    int fd = -1;
};

/// One run of the command.
class bench_run {
public:
    bench_run(bench_options const& given, private_networks const* own_networks, stop_signals const& watched)
        : options(given), networks(own_networks), signals(watched), plot(given.plot), plan(make_plan(given)) {}

    int run() {
        set_up();
        bench_result result;
        if (plan.one_way) {
            measure<bench_stream>(result);
        } else {
            measure<bench_trips>(result);
        }
        tear_down(result);
        return report(result);
    }

private:
    template <class Load>
    void measure(bench_result& result) {
        Load load(plan, *session);
        bench_time const begins = bench_now() + plan.warm_up;
        bench_progress progress(!options.quiet, begins, begins + plan.duration);
        load.run(progress, begins, begins + plan.duration);
        load.write(result);
        result.interrupted = session->is_interrupted();
        result.trouble = session->why_ended();
        session->rest();
    }

    bool has_own_center() const {
        return options.kind == bench_kind::broadcast ? options.ports.empty() : options.destinations.empty();
    }

    // --- both ends ---

    void set_up() {
        if (plan.kind == bench_kind::broadcast) {
            set_up_broadcast();
        } else if (has_own_center()) {
            networks != nullptr ? start_far_in_network() : start_far_on_loopback();
        }
        if (session == nullptr) {
            start_session(ports_of_datagrams());
        }
        if (far != nullptr) {
            session->use_far(*far);
        }
        session->connect(to_milliseconds(options.wait));
    }

    /// Does it with a port that is free, and with another one when somebody was quicker.
    template <class Action>
    static void with_free_port(Action action) {
        for (int attempt = 1;; ++attempt) {
            try {
                action(find_free_port());
                return;
            } catch (failure const& reason) {
                if (reason.code() != exit_code::port_unavailable || attempt == c_port_attempts) {
                    throw;
                }
            }
        }
    }

    void start_session(std::vector<std::uint16_t> const& ports) {
        center_plan node = options.plan();
        node.ports = ports;
        node.signals = &signals;
        session = std::make_unique<bench_session>(plan, node, signals);
    }

    void start_far(std::vector<std::string> arguments, int network) {
        if (!options.configuration.empty()) {
            arguments.insert(arguments.end(), {"--config", options.configuration});
        }
        far = std::make_unique<far_center>(arguments, network, signals);
    }

    /// The relay keeps one connection to a destination: each peer is another address of the loopback interface.
    static struct_node_addr loopback_address(std::size_t number, std::uint16_t port) {
        constexpr std::uint32_t c_first = 0x7F000002;
        return {htonl(c_first + static_cast<std::uint32_t>(number)), port};
    }

    void start_far_on_loopback() {
        with_free_port([&](std::uint16_t port) {
            start_far({"--listen", std::to_string(port)}, -1);
            for (std::size_t i = 0; i < plan.peers; ++i) {
                plan.destinations.push_back(loopback_address(i, port));
            }
        });
    }

    /// Each peer has another port, and so a socket of its own.
    void start_far_in_network() {
        std::vector<std::string> arguments;
        for (std::size_t i = 0; i < plan.peers; ++i) {
            auto const port = static_cast<std::uint16_t>(c_first_port + i);
            arguments.insert(arguments.end(), {"--listen", std::to_string(port)});
            plan.destinations.push_back({*parse_ip(c_bench_ends[1].address), port});
        }
        start_far(std::move(arguments), networks->network(1));
    }

    /// Datagrams go out by the port that they are sent to.
    std::vector<std::uint16_t> ports_of_datagrams() const {
        std::vector<std::uint16_t> ports;
        for (struct_node_addr const destination : plan.destinations) {
            if (plan.kind == bench_kind::udp &&
                std::find(ports.begin(), ports.end(), destination.port) == ports.end()) {
                ports.push_back(destination.port);
            }
        }
        return ports;
    }

    void set_up_broadcast() {
        if (!has_own_center()) {
            start_session(options.ports);
            log_event(fmt::format("serving {} and waiting for peers, {} in all", options.ports.front(), plan.peers));
            return;
        }
        std::vector<std::string> arguments;
        with_free_port([&](std::uint16_t port) {
            start_session({port});
            for (std::size_t i = 0; i < plan.peers; ++i) {
                arguments.insert(arguments.end(), {"--connect", address_text(loopback_address(i, port))});
            }
        });
        start_far(std::move(arguments), -1);
    }

    void tear_down(bench_result& result) {
        result.handed_over = session->count_handed_over();
        session->stop();
        if (far != nullptr) {
            result.far_arrived = far->stop();
        }
    }

    // --- what came of it ---

    int report(bench_result const& result) {
        auto const fault = find_fault(plan, result);
        if (options.json) {
            write_out_object(bench_json(plan, result));
        } else {
            write_out(bench_text(plan, result));
        }
        if (!plan.one_way) {
            plot.write(draw_latencies(*result.latencies(), bench_title(plan)));
        }
        if (fault && !options.json) {
            report_failure(*fault, false);
        }
        return static_cast<int>(fault ? fault->code() : exit_code::done);
    }

    bench_options const& options;
    private_networks const* const networks;
    stop_signals const& signals;
    plot_file const plot;
    bench_plan plan;
    std::unique_ptr<far_center> far;
    std::unique_ptr<bench_session> session;
};

std::unique_ptr<private_networks> make_networks(bench_options const& options) {
    if (options.kind != bench_kind::udp || !options.destinations.empty()) {
        return nullptr;
    }
    if (std::string const why_not = why_no_private_networks(c_bench_ends); !why_not.empty()) {
        throw failure(exit_code::skipped,
                      "two nodes on one machine cannot share a UDP port, and two networks are not to be had: " +
                          why_not);
    }
    return std::make_unique<private_networks>(c_bench_ends);
}

int run_bench(bench_options const& options) {
    auto const networks = make_networks(options);
    stop_signals const signals;
    start_diagnostics(options.level());
    return bench_run(options, networks.get(), signals).run();
}

// --- the command line ----------------------------------------------------------------------------------------------

constexpr char const* c_help =
    "A closed loop (--window) sends the next packet when an answer has come; an open loop (--rate) sends by the "
    "clock.\n"
    "While a closed loop waits for a slow answer it does not send the packets that would have been slow too, so its\n"
    "percentiles leave these out; an open loop counts each latency from the moment at which the packet was meant to\n"
    "leave, and leaves nothing out.\n";

void add_load_options(CLI::App& command, bench_options& options, std::uint32_t largest) {
    command.add_option("--size", options.size, "Data of a packet")
        ->transform(size_value())
        ->check(CLI::Range(0U, largest).description(""))
        ->type_name("BYTES")
        ->capture_default_str();
    CLI::Option* const window =
        command.add_option("--window", options.window, "Closed loop: packets under way to each peer; 1 unless given")
            ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{65536}).description(""))
            ->type_name("NUMBER");
    command
        .add_option("--rate", options.rate,
                    options.kind == bench_kind::broadcast ? "Open loop: broadcasts a second"
                                                          : "Open loop: packets a second, to all peers in turn")
        ->check(CLI::Range(0.01, 1e7).description(""))
        ->type_name("PER_SECOND")
        ->excludes(window);
    command.add_option("--duration", options.duration, "How long to measure")
        ->check(seconds_check(0.01))
        ->type_name("SECONDS")
        ->capture_default_str();
    command.add_option("--warm-up", options.warm_up, "How long to send before")
        ->check(seconds_check(0))
        ->type_name("SECONDS")
        ->capture_default_str();
    command.add_option("--timeout", options.timeout, "How long a datagram's answer, and at the end any, is waited for")
        ->check(seconds_check(0.01))
        ->type_name("SECONDS")
        ->capture_default_str();
    command.add_option("--plot", options.plot, "Draw the latencies into that SVG file")->type_name("FILE");
}

CLI::Option* add_peers_option(CLI::App& command, bench_options& options, char const* text) {
    return command.add_option("--peers", options.peers, text)
        ->check(CLI::Range(std::size_t{1}, c_most_peers).description(""))
        ->type_name("NUMBER")
        ->capture_default_str();
}

void add_wait_option(CLI::App& command, bench_options& options) {
    command.add_option("--wait", options.wait, "How long to wait for the connections")
        ->check(seconds_check(0))
        ->type_name("SECONDS")
        ->capture_default_str();
}

void add_destination_option(CLI::App& command, bench_options& options, char const* text) {
    command.add_option("--to", options.destinations, text)
        ->check(address_check())
        ->type_name("IP:PORT")
        ->excludes(add_peers_option(command, options, "Without --to: how many, at the Center of its own"));
}

/// One kind of load, with what all kinds have.
CLI::App& add_load(CLI::App& bench, char const* name, char const* text, std::shared_ptr<bench_options> const& options,
                   action& chosen) {
    CLI::App& command = *bench.add_subcommand(name, text);
    add_load_options(command, *options,
                     options->kind == bench_kind::udp ? c_largest_datagram_data : c_largest_load_packet);
    command.callback([options, &chosen] { chosen = [options] { return run_bench(*options); }; });
    return command;
}

void finish_load(CLI::App& command, bench_options& options, std::string const& examples) {
    add_center_options(command, options);
    add_json_option(command, options.json, "Print the figures as one JSON object");
    command.footer(c_help + examples);
}

std::shared_ptr<bench_options> options_for(bench_kind kind) {
    auto options = std::make_shared<bench_options>();
    options->kind = kind;
    return options;
}

void add_tcp_load(CLI::App& bench, action& chosen) {
    auto const options = options_for(bench_kind::tcp);
    CLI::App& command = add_load(bench, "tcp", "Over connections that this node opens", options, chosen);
    add_destination_option(command, *options,
                           "A peer, may be given more than once; without it a Center of its own is started");
    add_wait_option(command, *options);
    CLI::Option* const calls = command.add_flag("--calls", options->calls,
                                                "Send calls, which any Center acknowledges, also one without --echo");
    command
        .add_flag("--one-way", options->one_way, "Send as fast as the peers take it; they say how much they received")
        ->excludes(calls)
        ->excludes(command.get_option("--rate"))
        ->excludes(command.get_option("--plot"));
    finish_load(command, *options,
                "\n  zolt-center bench tcp --peers 4 --size 1K\n"
                "  zolt-center bench tcp --to 10.0.0.2:7000 --rate 2000 --duration 10 --plot latency.svg\n"
                "  zolt-center bench tcp --one-way --size 64K");
}

void add_udp_load(CLI::App& bench, action& chosen) {
    auto const options = options_for(bench_kind::udp);
    CLI::App& command = add_load(bench, "udp", "With datagrams", options, chosen);
    add_destination_option(command, *options,
                           "A peer, may be given more than once; this node takes the same port. Without it a Center of "
                           "its own is started in a network of its own");
    finish_load(command, *options,
                "\n  zolt-center bench udp --size 1000 --rate 5000\n"
                "  zolt-center bench udp --to 10.0.0.2:7000 --window 16");
}

void add_broadcast_load(CLI::App& bench, action& chosen) {
    auto const options = options_for(bench_kind::broadcast);
    CLI::App& command = add_load(bench, "broadcast", "To all peers that are connected to this node", options, chosen);
    add_peers_option(command, *options, "How many peers");
    command
        .add_option("--listen", options->ports,
                    "Serve that port until so many peers have connected; without it a Center of its own is started")
        ->check(port_check())
        ->expected(1)
        ->type_name("PORT");
    add_wait_option(command, *options);
    finish_load(command, *options,
                "\n  zolt-center bench broadcast --peers 100 --size 0\n"
                "  zolt-center bench broadcast --listen 7000 --peers 3   # and: run --connect HERE:7000 --echo");
}

} // namespace

void add_bench_command(CLI::App& app, action& chosen) {
    CLI::App& bench = *app.add_subcommand("bench", "Put load on peers and measure how long their answers take");
    bench.require_subcommand(1);
    add_tcp_load(bench, chosen);
    add_udp_load(bench, chosen);
    add_broadcast_load(bench, chosen);
    bench.footer("\"zolt-center bench KIND --help\" tells more about one kind of load.");
}

} // namespace Zolt::Reference_Center
