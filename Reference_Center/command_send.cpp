// zolt-center send: standard input, or a file, as packets to a peer.
#include "Reference_Center/addresses.hpp"
#include "Reference_Center/center.hpp"
#include "Reference_Center/error_description.hpp"
#include "Reference_Center/options.hpp"
#include "Reference_Center/output.hpp"
#include "Reference_Center/port_holder.hpp"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <memory>
#include <optional>
#include <poll.h>
#include <unistd.h>

namespace Zolt::Reference_Center {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::size_t c_tcp_packet = 65536;
constexpr std::size_t c_udp_packet = 1400;
constexpr std::size_t c_largest_datagram = 65507;
constexpr std::size_t c_largest_tcp_packet = 256U << 20;
constexpr std::uint64_t c_queue_bytes = 8U << 20;
constexpr std::uint64_t c_queue_packets = 16384;
constexpr milliseconds c_no_wait{0};

struct send_options : common_options {
    std::string destination;
    std::string file = "-";
    std::string interface;
    bool tcp = false;
    bool udp = false;
    bool lines = false;
    std::uint16_t port = 0;
    std::size_t size = 0;
    std::uint64_t rate = 16U << 20;
    double wait = 5;
};

/// Cuts a descriptor's bytes into packets.
class packet_source {
public:
    packet_source(std::string const& file, std::size_t packet_size, bool at_lines)
        : fd(file == "-" ? STDIN_FILENO : ::open(file.c_str(), O_RDONLY | O_CLOEXEC)), size(packet_size),
          by_lines(at_lines) {
        if (fd == -1) {
            throw failure(exit_code::failed, fmt::format("cannot read {}: {}", file, describe_error(errno)));
        }
    }
    ~packet_source() { ::close(fd); }
    packet_source(packet_source const&) = delete;
    packet_source& operator=(packet_source const&) = delete;

    bool is_at_end() const { return ended && waiting.empty(); }

    /// The next packet's data, or nothing when the input has none within that time. Throws failure.
    std::optional<std::string> next(milliseconds longest) {
        if (auto packet = cut()) {
            return packet;
        }
        pollfd readable{fd, POLLIN, 0};
        if (ended || ::poll(&readable, 1, static_cast<int>(longest.count())) != 1) {
            return std::nullopt;
        }
        read_more();
        return cut();
    }

private:
    std::optional<std::string> cut() {
        std::size_t const line_end = by_lines ? waiting.find('\n') : std::string::npos;
        std::size_t const most = line_end == std::string::npos ? size : std::min(size, line_end + 1);
        if (waiting.empty() || (waiting.size() < most && !ended)) {
            return std::nullopt;
        }
        std::string packet = waiting.substr(0, most);
        waiting.erase(0, most);
        return packet;
    }

    void read_more() {
        std::size_t const before = waiting.size();
        waiting.resize(before + std::max(size, c_tcp_packet));
        ssize_t const got = ::read(fd, waiting.data() + before, waiting.size() - before);
        waiting.resize(before + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        if (got < 0 && errno != EINTR && errno != EAGAIN) {
            throw failure(exit_code::failed, fmt::format("cannot read the input: {}", describe_error(errno)));
        }
        ended = got == 0;
    }

    int const fd;
    std::size_t const size;
    bool const by_lines;
    bool ended = false;
    std::string waiting;
};

/// Lets bytes through at a steady rate; what was not used is saved for a short while only.
class pace {
public:
    explicit pace(std::uint64_t bytes_per_second) : rate(bytes_per_second) {}

    bool is_open() const { return rate == 0 || steady_clock::now() + c_saved >= free_at; }
    void take(std::size_t bytes) {
        if (rate == 0) {
            return;
        }
        auto const cost = std::chrono::duration<double>(static_cast<double>(bytes) / static_cast<double>(rate));
        free_at = std::max(free_at, steady_clock::now()) + std::chrono::duration_cast<steady_clock::duration>(cost);
    }

private:
    static constexpr milliseconds c_saved{2};
    std::uint64_t rate;
    steady_clock::time_point free_at{};
};

class sending_user : public center_user {
public:
    explicit sending_user(peer destination) : to(destination) {}

    /// Also true when it has ended since.
    bool was_connected() const { return state != link_state::none; }
    bool is_gone() const { return state == link_state::gone; }

    void on_connected(peer const& who) override { change("connected", who, link_state::up); }
    void on_disconnected(peer const& who) override { change("disconnected", who, link_state::gone); }

private:
    enum class link_state { none, up, gone };

    void change(char const* what, peer const& who, link_state next) {
        log_event(fmt::format("{} {}", what, address_text(who.address)));
        // A connection that comes back is another one.
        state = who == to && state != link_state::gone ? next : state;
    }

    peer const to;
    link_state state = link_state::none;
};

/// One run of the command.
class transfer {
public:
    transfer(send_options const& given, stop_signals const& watched)
        : options(given), signals(watched), to{*parse_address(given.destination), given.udp ? way::udp : way::outgoing},
          user(to), source(given.file, packet_size(), given.lines), node(plan(), user),
          limit(given.udp ? given.rate : 0) {}

    int run() {
        if (!options.udp) {
            connect();
        }
        send_all();
        finish();
        node.stop();
        return report();
    }

private:
    std::size_t packet_size() const {
        return options.size != 0 ? options.size : options.udp ? c_udp_packet : c_tcp_packet;
    }

    center_plan plan() const {
        center_plan wanted = options.plan();
        if (options.udp) {
            wanted.ports = {to.address.port};
        }
        wanted.signals = &signals;
        return wanted;
    }

    void connect() {
        node.connect(to.address);
        node.serve_until(steady_clock::now() + to_milliseconds(options.wait),
                         [this] { return user.was_connected() || signals.is_requested(); });
        if (!user.was_connected()) {
            throw failure(signals.is_requested() ? exit_code::interrupted : exit_code::unreachable,
                          fmt::format("no connection to {} within {} seconds", options.destination, options.wait));
        }
    }

    bool may_go_on() const { return !signals.is_requested() && !user.is_gone(); }

    void send_all() {
        while (may_go_on() && !source.is_at_end()) {
            hand_over_counts const counts = count_hand_overs();
            if (counts.queued_bytes > c_queue_bytes || counts.queued > c_queue_packets) {
                wake_when_queue_is_below(c_queue_bytes / 2, c_queue_packets / 2);
                node.serve(c_look_around);
                continue;
            }
            node.serve(limit.is_open() ? c_no_wait : milliseconds(1));
            if (limit.is_open()) {
                send_next();
            }
        }
        complete = source.is_at_end();
    }

    void send_next() {
        auto const data = source.next(c_look_around);
        if (!data) {
            return;
        }
        Reference_Host::packet_plan packet;
        packet.destination = {to.address.ip, to.address.port, 0};
        packet.sequence = sent;
        if (is_multicast(to.address.ip)) {
            packet.flags = Reference_Host::c_flag_multicast;
        }
        if (!options.interface.empty()) {
            packet.kind = Reference_Host::packet_kind::information_udp;
            packet.multicast_interface = *parse_ip(options.interface);
        }
        auto const* const bytes = reinterpret_cast<unsigned char const*>(data->data());
        node.send(to, Reference_Host::make_packet(packet, std::span(bytes, data->size())));
        limit.take(data->size());
        ++sent;
        sent_bytes += data->size();
    }

    /// Everything queued leaves; then the peer closes its end, so that nothing on the way is lost.
    void finish() {
        node.serve_until(steady_clock::time_point::max(), [this] {
            wake_when_queue_is_below(0, 0);
            return !may_go_on() || count_hand_overs().queued == 0;
        });
        if (options.udp || user.is_gone()) {
            return;
        }
        ended_in_order = true;
        node.withdraw(to.address);
        node.serve_until(steady_clock::now() + to_milliseconds(options.wait), [this] { return user.is_gone(); });
    }

    int report() const {
        hand_over_counts const counts = count_hand_overs();
        log_event(fmt::format("sent {} packets with {} bytes; {}", sent, sent_bytes, hand_over_text(counts)));
        if (options.json) {
            write_out_object(
                json_object{{"packets", sent}, {"bytes", sent_bytes}, {"outcomes", hand_over_json(counts)}});
        }
        if (signals.is_requested()) {
            return static_cast<int>(exit_code::interrupted);
        }
        if (counts.written != sent) {
            throw failure(exit_code::failed, fmt::format("only {} of {} packets left", counts.written, sent));
        }
        if (!complete || (!options.udp && !ended_in_order)) {
            throw failure(exit_code::failed, "the peer ended the connection; what it got of the input is not known");
        }
        return static_cast<int>(exit_code::done);
    }

    send_options const& options;
    stop_signals const& signals;
    peer const to;
    sending_user user;
    packet_source source;
    center node;
    pace limit;
    bool complete = false;
    bool ended_in_order = false; ///< by this node, with everything written
    std::uint64_t sent = 0;
    std::uint64_t sent_bytes = 0;
};

void check_datagrams(send_options const& options, std::uint16_t port) {
    if (options.port != 0 && options.port != port) {
        throw failure(
            exit_code::wrong_usage,
            fmt::format("--port {}: a datagram goes out by the port number it is sent to, {}", options.port, port));
    }
    port_trouble const trouble = try_port(port);
    if (trouble.error != 0 && options.wait_port == 0) {
        throw failure(exit_code::port_unavailable,
                      describe(port, trouble) + "; over UDP both nodes use the same port number, each on a machine or "
                                                "network namespace of its own");
    }
}

void check(send_options const& options) {
    std::size_t const most = options.udp ? c_largest_datagram - Reference_Host::c_header_size : c_largest_tcp_packet;
    if (options.size > most) {
        throw failure(exit_code::wrong_usage, fmt::format("--size: a packet carries at most {} bytes here", most));
    }
    if (options.udp) {
        check_datagrams(options, parse_address(options.destination)->port);
    } else if (options.port != 0 || !options.interface.empty()) {
        throw failure(exit_code::wrong_usage, "--port and --interface are for --udp");
    }
}

int run_send(send_options const& options) {
    check(options);
    stop_signals const signals;
    start_diagnostics(options.level());
    return transfer(options, signals).run();
}

} // namespace

void add_send_command(CLI::App& app, action& chosen) {
    CLI::App& command = *app.add_subcommand("send", "Send standard input, or a file, as packets to a peer");
    auto const options = std::make_shared<send_options>();
    command.add_option("--to", options->destination, "The peer; with --udp also a broadcast or multicast address")
        ->required()
        ->check(address_check())
        ->type_name("IP:PORT");
    command.add_option("FILE", options->file, "What to send; - for standard input")->capture_default_str();
    CLI::Option* const tcp = command.add_flag("--tcp", options->tcp, "Over a connection, as without --udp");
    command.add_flag("--udp", options->udp, "As datagrams, which may be lost")->excludes(tcp);
    command.add_option("--size", options->size, "Data of a packet; 65536 over TCP and 1400 over UDP unless given")
        ->transform(size_value())
        ->check(CLI::Range(std::size_t{1}, c_largest_tcp_packet).description(""))
        ->type_name("BYTES");
    command.add_flag("--lines", options->lines, "Each line, with its end of line, is a packet; longer ones are cut");
    command.add_option("--port", options->port, "Own port of --udp; it can only be the port that is sent to")
        ->check(port_check())
        ->type_name("PORT");
    command.add_option("--interface", options->interface, "Own address by which multicast leaves, with --udp")
        ->check(ip_check())
        ->type_name("IP");
    command.add_option("--rate", options->rate, "Most bytes a second over UDP; 0 for no limit")
        ->transform(size_value())
        ->type_name("BYTES")
        ->default_str("16M");
    command.add_option("--wait", options->wait, "How long to wait for the connection, and for its end")
        ->check(seconds_check(0))
        ->type_name("SECONDS")
        ->capture_default_str();
    add_center_options(command, *options);
    add_json_option(command, options->json, "Print the sum as one JSON object");
    command.footer("Over TCP it ends when the peer has everything. Over UDP nobody says what arrived.\n\n"
                   "  zolt-center send --to 10.0.0.2:7000 picture.png\n"
                   "  date | zolt-center send --to 10.0.0.255:7000 --udp --lines");
    command.callback([options, &chosen] { chosen = [options] { return run_send(*options); }; });
}

} // namespace Zolt::Reference_Center
