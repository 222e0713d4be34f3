// A node that writes its history: history_node SENDER BOOT PORT [IP:PORT...]
//
// Serves the port, keeps a connection to each destination open, and hands numbered packets to every connection.
// Standard output: one JSON object a line, first {"event":"ready"}. Standard input, a line each:
//
//   send MILLISECONDS    a packet for each connection that often from now on; 0: none, {"event":"handed"} tells for
//                        each open connection how many packets of its flow there were, and {"event":"idle"} that all
//                        have ended: calls with their acknowledgement
//   jump MILLISECONDS    the relay's clock goes on from that much later
//   stop                 stop and finalize; {"event":"sum"}, then the end
//
// The end of its input ends it at once. Result: 0; 1 when the port could not be opened.

#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"
#include "Host/tesk_os.hpp"
#include "Reference_Host/inbox.hpp"
#include "Reference_Host/ini_file.hpp"
#include "Reference_Host/output_sink.hpp"
#include "Reference_Host/packet_building.hpp"
#include "Reference_Host/packet_limits.hpp"
#include "Reference_Host/packet_reading.hpp"
#include "tests/hosts/listening_backlog.hpp"
#include "tests/hosts/stamped_data.hpp"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <poll.h>
#include <unistd.h>

namespace {

constinit std::atomic<unsigned long> g_clock_lead{0}; ///< milliseconds

} // namespace

/// In place of the host's: the one that the relay finds first.
unsigned long Tesk::OS::lemon_clock() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<unsigned long>(now.tv_sec) * 1000 + static_cast<unsigned long>(now.tv_nsec) / 1000000 +
           g_clock_lead.load(std::memory_order_relaxed);
}

namespace {

using namespace hosts;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Zolt::struct_node_addr;
using Zolt::struct_packet;
using Zolt::struct_token;

namespace relay = Zolt::Center::INet_Relay;
namespace host = Zolt::Reference_Host;

constexpr std::size_t c_batch = 64;
constexpr std::uint32_t c_calls_among = 16;    ///< one packet in so many is a call
constexpr std::uint32_t c_droppable_among = 8; ///< so many packets are followed by one that may be dropped
constexpr unsigned c_flow_shift = 32;          ///< in the sequence: flow, then number
constexpr milliseconds c_look_around{20};
constexpr milliseconds c_patience{2000};

std::uint64_t wall_clock() {
    auto const since = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(std::chrono::duration_cast<milliseconds>(since).count());
}

/// One object on one line of standard output, past its buffer; fields are written as JSON already.
void write_event(char const* event, std::string const& fields = {}) {
    std::string const line = "{\"t\":" + std::to_string(wall_clock()) + ",\"event\":\"" + event + "\"" + fields + "}\n";
    if (::write(STDOUT_FILENO, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        std::_Exit(1);
    }
}

template <class number>
std::string field(char const* name, number value) {
    return std::string(",\"") + name + "\":" + std::to_string(value);
}

std::string text_field(char const* name, std::string_view text) {
    std::string line = std::string(",\"") + name + "\":\"";
    for (char const letter : text) {
        if (letter == '"' || letter == '\\') {
            line += '\\';
        }
        line += static_cast<unsigned char>(letter) < ' ' ? ' ' : letter;
    }
    return line + '"';
}

std::string text_of(struct_node_addr address) {
    std::array<char, INET_ADDRSTRLEN> text{};
    ::inet_ntop(AF_INET, &address.ip, text.data(), text.size());
    return text.data() + std::string(":") + std::to_string(address.port);
}

/// How the packets handed to the relay ended. A packet's cookie is 1.
struct hand_over_ends {
    std::atomic<std::uint64_t> written{0};
    std::atomic<std::uint64_t> returned{0};
    std::atomic<std::uint64_t> dropped{0};
};

constinit hand_over_ends g_ends;
constinit thread_local bool t_hands_over = false;

/// A packet that ends inside its hand-over was dropped there.
void note_end(std::uint64_t, struct_packet const& packet) {
    bool const is_returned = host::get_error(packet) != Zolt::c_zolt_err_none;
    auto& figure = t_hands_over ? g_ends.dropped : is_returned ? g_ends.returned : g_ends.written;
    figure.fetch_add(1, std::memory_order_relaxed);
}

void write_printed(host::output_line const& line, void*) {
    if (line.kind != host::line_kind::position) {
        write_event("printed", text_field("text", line.text));
    }
}

bool is_droppable(host::packet_kind kind) {
    return kind == host::packet_kind::command_udp || kind == host::packet_kind::information_udp;
}

struct flow_state {
    bool is_outgoing;
    std::uint32_t flow;
    std::uint32_t next = 0;
    std::uint32_t next_droppable = 0;
};

class node {
public:
    node(std::uint32_t sender_number, std::uint32_t boot_number) : sender(sender_number), boot(boot_number) {}

    bool open(std::uint16_t port, std::vector<std::string> const& destinations);
    void serve();

private:
    void obey_input();
    void obey(std::string const& line);
    std::int64_t queued() const;
    void tell_flows() const;
    void stop();
    void take_all(milliseconds longest);
    void take(struct_token& token);
    void take_notice(struct_packet const& notice);
    static void take_returned(struct_packet const& packet);
    void take_packet(struct_node_addr peer, host::packet_kind kind, struct_token& token);
    void feed();
    void hand_over(struct_node_addr peer, flow_state& flow, bool may_be_dropped);
    void acknowledge(struct_packet const& call);
    bool give(struct_node_addr peer, bool is_outgoing, struct_token token);

    std::uint32_t const sender;
    std::uint32_t const boot;
    std::map<struct_node_addr, flow_state> flows; ///< by the peer of the open connection
    std::uint32_t flow_count = 0;
    std::uint16_t served = 0;
    std::uint64_t handed = 0;
    std::uint64_t refused = 0;
    milliseconds interval{0};
    steady_clock::time_point due{};
    steady_clock::time_point look_due{};
    std::string input;
    bool is_ebbing = false; ///< nothing is handed over any more, and something is still queued
    bool is_over = false;
};

bool node::open(std::uint16_t port, std::vector<std::string> const& destinations) {
    host::redirect_ini_files("/dev/null"); // every key has its default
    host::set_output_target(write_printed, nullptr);
    host::set_release_observer(note_end);
    relay::initialize();
    if (relay::add_server(port) != 0) {
        return false;
    }
    served = port;
    relay::start();
    write_event("ready", field("pid", ::getpid()));
    for (std::string const& destination : destinations) {
        std::size_t const colon = destination.find(':');
        in_addr ip{};
        ::inet_pton(AF_INET, destination.substr(0, colon).c_str(), &ip);
        relay::add_client(ip.s_addr, static_cast<std::uint16_t>(std::stoul(destination.substr(colon + 1))));
    }
    return true;
}

void node::serve() {
    for (obey_input(); !is_over; obey_input()) {
        take_all(c_look_around);
        auto const now = steady_clock::now();
        if (interval.count() != 0 && now >= due) {
            due = now + interval;
            feed();
        }
        if (now >= look_due) {
            look_due = now + 10 * c_look_around;
            knock_for_waiting(served);
        }
        if (is_ebbing && queued() == 0) {
            is_ebbing = false;
            write_event("idle");
        }
    }
}

void node::obey_input() {
    pollfd ready{STDIN_FILENO, POLLIN, 0};
    if (::poll(&ready, 1, 0) != 1) {
        return;
    }
    std::array<char, 256> piece{};
    ssize_t const got = ::read(STDIN_FILENO, piece.data(), piece.size());
    if (got <= 0) {
        std::_Exit(0);
    }
    input.append(piece.data(), static_cast<std::size_t>(got));
    for (std::size_t end = input.find('\n'); end != std::string::npos; end = input.find('\n')) {
        obey(input.substr(0, end));
        input.erase(0, end + 1);
    }
}

void node::obey(std::string const& line) {
    std::istringstream words(line);
    std::string command;
    unsigned long value = 0;
    words >> command >> value;
    if (command == "send") {
        interval = milliseconds(value);
        is_ebbing = value == 0;
        if (is_ebbing) {
            tell_flows();
        }
    } else if (command == "jump") {
        g_clock_lead += value;
    } else {
        stop();
    }
}

std::int64_t node::queued() const {
    return static_cast<std::int64_t>(handed - g_ends.written - g_ends.returned - g_ends.dropped);
}

void node::tell_flows() const {
    for (auto const& [peer, flow] : flows) {
        write_event("handed", field("flow", flow.flow) + field("count", flow.next));
    }
}

void node::stop() {
    is_over = true;
    relay::stop();
    relay::finalize();
    host::set_release_observer(nullptr); // what is freed from here on has not ended by itself
    take_all(milliseconds(0));
    host::drain_output(c_patience);
    write_event("sum", field("handed_over", handed) + field("written", g_ends.written.load()) +
                           field("returned", g_ends.returned.load()) + field("dropped", g_ends.dropped.load()) +
                           field("queued", queued()) + field("refused", refused));
}

void node::take_all(milliseconds longest) {
    std::array<struct_token, c_batch> tokens;
    std::size_t count = host::get_center_inbox().take(tokens, longest);
    while (count != 0) {
        for (struct_token& token : std::span(tokens).first(count)) {
            take(token);
            token.free();
        }
        count = host::get_center_inbox().take(tokens, milliseconds(0));
    }
}

void node::take(struct_token& token) {
    struct_packet const& packet = *token.get_header_packet();
    host::packet_kind const kind = host::get_kind(packet);
    if (kind == host::packet_kind::control) {
        take_notice(packet);
    } else if (kind == host::packet_kind::error) {
        take_returned(packet);
    } else if (kind != host::packet_kind::call_return_ack) {
        host::packet_end const source = host::get_source(packet);
        take_packet({source.ip, source.port}, kind, token);
    }
}

void node::take_notice(struct_packet const& notice) {
    using enum host::connection_event;
    host::connection_event const event = host::get_event(notice);
    host::packet_end const source = host::get_source(notice);
    struct_node_addr const peer{source.ip, source.port};
    bool const is_outgoing = event == connected_to_server || event == disconnected_from_server;
    std::string const fields = text_field("peer", text_of(peer)) + text_field("way", is_outgoing ? "out" : "in");
    if (event == connected_to_server || event == connected_from_client) {
        std::uint32_t const flow = flow_count++;
        flows.insert_or_assign(peer, flow_state{is_outgoing, flow});
        write_event("connected", fields + field("flow", flow));
    } else {
        flows.erase(peer);
        write_event("disconnected", fields);
    }
}

void node::take_returned(struct_packet const& packet) {
    std::uint64_t const sequence = host::get_sequence(packet);
    host::packet_kind const kind = host::get_returned_kind(packet);
    write_event("returned", field("flow", sequence >> c_flow_shift) +
                                field("number", static_cast<std::uint32_t>(sequence)) +
                                field("droppable", int{is_droppable(kind)}) +
                                field("call", int{kind == host::packet_kind::call_return}));
}

void node::take_packet(struct_node_addr peer, host::packet_kind kind, struct_token& token) {
    std::string const fields = text_field("peer", text_of(peer)) + field("droppable", int{is_droppable(kind)});
    std::optional<data_stamp> const stamp = read_stamp(host::get_data_span(token));
    if (!stamp) {
        write_event("broken", fields);
        return;
    }
    write_event("packet", fields + field("sender", stamp->sender) + field("boot", stamp->boot) +
                              field("flow", stamp->flow) + field("number", stamp->number) + field("made", stamp->made));
    auto const flow = flows.find(peer);
    bool const is_accepted = flow != flows.end() && !flow->second.is_outgoing;
    if (kind == host::packet_kind::call_return && is_accepted && !is_over) {
        acknowledge(*token.get_header_packet());
    }
}

void node::feed() {
    for (auto& [peer, flow] : flows) {
        hand_over(peer, flow, false);
        if (flow.next % c_droppable_among == 0) {
            hand_over(peer, flow, true);
        }
    }
}

void node::hand_over(struct_node_addr peer, flow_state& flow, bool may_be_dropped) {
    std::uint32_t& next = may_be_dropped ? flow.next_droppable : flow.next;
    host::packet_plan plan;
    if (may_be_dropped) {
        plan.kind = flow.is_outgoing ? host::packet_kind::command_udp : host::packet_kind::information_udp;
    } else {
        plan.kind = next % c_calls_among == 2 ? host::packet_kind::call_return : host::packet_kind::data;
    }
    plan.sequence = std::uint64_t{flow.flow} << c_flow_shift | next;
    struct_token token = host::make_packet(plan, size_of_data(next));
    write_stamp({wall_clock(), sender, boot, flow.flow, next}, host::get_data_span(token));
    host::set_cookie(*token.get_header_packet(), 1);
    if (give(peer, flow.is_outgoing, token)) {
        ++handed;
        ++next;
    } else {
        ++refused;
    }
}

void node::acknowledge(struct_packet const& call) {
    host::packet_plan plan;
    plan.kind = host::packet_kind::call_return_ack;
    plan.sequence = host::get_sequence(call);
    host::packet_end const source = host::get_source(call);
    give({source.ip, source.port}, false, host::make_packet(plan));
}

/// True when the relay took the packet; else it is freed.
bool node::give(struct_node_addr peer, bool is_outgoing, struct_token token) {
    t_hands_over = true;
    auto const operation = is_outgoing ? relay::send_tcp_client : relay::send_tcp_server;
    bool const is_taken = operation(peer, token, token.get_header_packet()) == 0;
    t_hands_over = false;
    if (!is_taken) {
        host::set_cookie(*token.get_header_packet(), 0);
        token.free();
    }
    return is_taken;
}

} // namespace

int main(int count, char** arguments) {
    std::vector<std::string> const words(arguments + 1, arguments + count);
    node one(static_cast<std::uint32_t>(std::stoul(words.at(0))), static_cast<std::uint32_t>(std::stoul(words.at(1))));
    if (!one.open(static_cast<std::uint16_t>(std::stoul(words.at(2))), {words.begin() + 3, words.end()})) {
        return 1;
    }
    one.serve();
    // The connections that stand when the relay is finalised are left to its host; they end with the process.
    std::_Exit(0);
}
