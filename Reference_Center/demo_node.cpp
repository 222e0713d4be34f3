#include "Reference_Center/demo_node.hpp"

#include "Reference_Center/addresses.hpp"
#include "Reference_Center/demo_traffic.hpp"
#include "Reference_Center/demo_transfer.hpp"
#include "Reference_Center/link_message.hpp"
#include "Reference_Center/node_report_json.hpp"

#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"

#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <poll.h>
#include <unistd.h>

namespace Zolt::Reference_Center {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds c_round{5};
constexpr milliseconds c_state_every{100};

void tell_stage(json_object const& object) {
    write_out_object(object);
}

struct_node_addr address_of(json_object const& command, char const* key) {
    return parse_address(command.at(key).get<std::string>()).value();
}

std::uint32_t ip_of(json_object const& command, char const* key) {
    return parse_ip(command.at(key).get<std::string>()).value();
}

json_object counts_of(traffic_counts const& counts) {
    return {counts.packets, counts.bytes};
}

/// Complete lines of standard input, without waiting for them.
class command_input {
public:
    bool is_at_end() const { return ended; }

    std::optional<std::string> next() {
        std::size_t end = waiting.find('\n');
        pollfd readable{STDIN_FILENO, POLLIN, 0};
        while (end == std::string::npos && !ended && ::poll(&readable, 1, 0) == 1) {
            std::array<char, 4096> bytes;
            ssize_t const got = ::read(STDIN_FILENO, bytes.data(), bytes.size());
            ended = got <= 0;
            waiting.append(bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
            end = waiting.find('\n');
        }
        if (end == std::string::npos) {
            return std::nullopt;
        }
        std::string line = waiting.substr(0, end);
        waiting.erase(0, end + 1);
        return line;
    }

private:
    std::string waiting;
    bool ended = false;
};

class demo_node : public center_user {
public:
    explicit demo_node(center_plan const& plan) : node(plan, *this) {}

    int run() {
        tell_stage({{"event", "ready"}});
        while (!stops && !input.is_at_end()) {
            node.serve(c_round);
            while (auto const line = input.next()) {
                obey(json_object::parse(*line));
            }
            advance();
        }
        node.stop();
        tell_stage({{"event", "stopped"},
                    {"packets", hand_over_json(count_hand_overs())},
                    {"closed", close_counts_json(node.account().count_closed())}});
        return static_cast<int>(exit_code::done);
    }

    void on_connected(peer const& who) override { tell_peer("connected", who); }
    void on_disconnected(peer const& who) override { tell_peer("disconnected", who); }

    void on_packet(arrival const& packet) override {
        link_message const message = get_message(packet.header);
        if (message == link_message::counted) {
            streams[Reference_Host::get_code(packet.header)].add(Reference_Host::get_sequence(packet.header));
        } else if (message == link_message::chunk && packet.from.via == way::udp && datagram_file) {
            datagram_file->add(packet);
        } else if (message == link_message::chunk && file) {
            file->add(packet);
        }
        if (task) {
            task->on_packet(packet);
        }
    }

private:
    static void tell_peer(char const* what, peer const& who) {
        tell_stage({{"event", what}, {"peer", address_text(who.address)}, {"over", way_text(who.via)}});
    }

    void obey(json_object const& command) {
        static std::map<std::string, void (demo_node::*)(json_object const&)> const c_commands{
            {"connect", &demo_node::connect},     {"withdraw", &demo_node::withdraw},       {"join", &demo_node::join},
            {"leave", &demo_node::leave},         {"stream", &demo_node::send_stream},      {"call", &demo_node::call},
            {"send_file", &demo_node::send_file}, {"expect_file", &demo_node::expect_file}, {"stop", &demo_node::stop}};
        (this->*c_commands.at(command.at("do").get<std::string>()))(command);
    }

    void connect(json_object const& command) { node.connect(address_of(command, "to")); }
    void withdraw(json_object const& command) { node.withdraw(address_of(command, "to")); }
    void stop(json_object const&) { stops = true; }

    void join(json_object const& command) {
        Center::INet_Relay::add_membership(ip_of(command, "group"), ip_of(command, "interface"),
                                           ip_of(command, "source"), command.at("port").get<std::uint16_t>());
        tell_stage({{"event", "done"}});
    }

    void leave(json_object const& command) {
        Center::INet_Relay::drop_membership(ip_of(command, "group"), ip_of(command, "interface"),
                                            ip_of(command, "source"), command.at("port").get<std::uint16_t>());
        tell_stage({{"event", "done"}});
    }

    /// "over" names the way; of the peers that connected to this node, the first one is meant.
    peer peer_of(json_object const& command) const {
        std::string const over = command.at("over").get<std::string>();
        if (over == way_text(way::accepted)) {
            for (auto const& [who, gate_port] : node.peers()) {
                if (who.via == way::accepted) {
                    return who;
                }
            }
        }
        return {address_of(command, "to"), over == way_text(way::udp) ? way::udp : way::outgoing};
    }

    void send_stream(json_object const& command) {
        stream_plan plan;
        plan.to_all_accepted = command.value("to_all_accepted", false);
        plan.to = plan.to_all_accepted ? peer{} : peer_of(command);
        plan.stream = command.at("stream").get<std::uint32_t>();
        plan.count = command.at("count").get<std::uint64_t>();
        plan.size = command.at("size").get<std::uint32_t>();
        plan.interval = std::chrono::microseconds(command.value("interval_us", 0));
        if (command.contains("interface")) {
            plan.kind = Reference_Host::packet_kind::information_udp;
            plan.multicast_interface = ip_of(command, "interface");
        }
        task = std::make_unique<stream_task>(node, plan);
    }

    void call(json_object const& command) {
        task = std::make_unique<call_task>(node, peer_of(command), command.at("count").get<std::uint64_t>(),
                                           command.at("size").get<std::uint32_t>());
    }

    void send_file(json_object const& command) {
        peer const to = peer_of(command);
        int const descriptor = command.at("descriptor").get<int>();
        auto const size = command.at("bytes").get<std::uint64_t>();
        if (to.via == way::udp) {
            task = std::make_unique<datagram_file_task>(node, to.address, descriptor, size);
        } else {
            task = std::make_unique<file_task>(node, to, descriptor, size);
        }
    }

    void expect_file(json_object const& command) {
        auto const size = command.at("bytes").get<std::uint64_t>();
        if (command.contains("from")) {
            datagram_file.emplace(node, address_of(command, "from"), size, command.at("drop").get<unsigned int>());
        } else {
            file.emplace(size);
        }
        tell_stage({{"event", "done"}}); // what arrives before this would not be counted
    }

    void advance() {
        if (datagram_file) {
            datagram_file->advance();
        }
        if (task) {
            task->advance();
        }
        if (task && task->is_finished()) {
            json_object done{{"event", "done"}};
            done.update(task->figures());
            task = nullptr;
            tell_stage(done);
        }
        auto const now = steady_clock::now();
        if (now >= state_due) {
            state_due = now + c_state_every;
            tell_state();
        }
    }

    void tell_state() {
        json_object state{{"event", "state"},
                          {"links", node.peers().size()},
                          {"udp_in", counts_of(node.account().arrived_over_udp())},
                          {"udp_out", counts_of(node.account().handed_over_udp())},
                          {"tcp_in", counts_of(node.account().arrived_over_tcp())},
                          {"tcp_out", counts_of(node.account().handed_over_tcp())},
                          {"queued", count_hand_overs().queued}};
        for (auto const& [number, count] : streams) {
            state["streams"][std::to_string(number)] = {{"distinct", count.distinct()}, {"arrived", count.arrived()}};
        }
        if (file) {
            state["file"] = file->figures();
        }
        if (datagram_file) {
            state["datagram_file"] = datagram_file->figures();
        }
        tell_stage(state);
    }

    center node;
    command_input input;
    bool stops = false;
    std::map<std::uint32_t, stream_count> streams;
    std::optional<file_arrival> file;
    std::optional<datagram_file_arrival> datagram_file;
    std::unique_ptr<node_task> task;
    steady_clock::time_point state_due{};
};

} // namespace

int run_demo_node(center_plan const& plan) {
    return demo_node(plan).run();
}

} // namespace Zolt::Reference_Center
