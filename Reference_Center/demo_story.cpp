#include "Reference_Center/demo_story.hpp"

#include "Reference_Center/addresses.hpp"
#include "Reference_Center/demo_traffic.hpp"
#include "Reference_Center/moments.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <fmt/format.h>

namespace Zolt::Reference_Center {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr milliseconds c_soon{10000};
constexpr milliseconds c_transfer{20000};
constexpr milliseconds c_settle{500};
/// A silent peer is given up after 8000 ticks of a millisecond, at the next tick of the timer. What it said last lies up
/// to a second before it was frozen.
constexpr double c_silence_least = 7;
constexpr double c_silence_most = 12;
constexpr milliseconds c_silence_wait{14000};
/// A destination that was not withdrawn would be tried again at each tick of the timer, once a second.
constexpr milliseconds c_retry_would_show{3000};

constexpr char c_group[] = "232.77.0.1";
constexpr std::uint64_t c_broadcast_count = 200;
constexpr std::uint64_t c_datagram_count = 2000;
constexpr std::uint64_t c_multicast_count = 100;
constexpr std::uint64_t c_call_count = 500;
constexpr std::size_t c_hash_piece = 1U << 20;

/// Streams by what they show.
enum stream_number : std::uint32_t {
    c_stream_broadcast = 1,
    c_stream_datagrams,
    c_stream_broadcast_datagrams,
    c_stream_multicast,
    c_stream_left,
    c_stream_marker,
};

std::string distinct_pointer(std::uint32_t stream) {
    return fmt::format("/streams/{}/distinct", stream);
}

double rate(std::uint64_t bytes, double time) {
    return static_cast<double>(bytes) / (1 << 20) / std::max(time, 0.001);
}

} // namespace

demo_story::demo_story(story_plan const& wanted, demo_stage& played_on, demo_view& shown)
    : plan(wanted), stage(played_on), view(shown) {}

void demo_story::play() {
    run("start", &demo_story::start);
    if (plan.plays_tcp) {
        run("connect", &demo_story::connect);
        run("broadcast over TCP", &demo_story::broadcast_to_peers);
        run("freeze", &demo_story::freeze);
    }
    if (plan.plays_udp) {
        run("file over UDP", &demo_story::file_over_udp);
        run("datagrams", &demo_story::datagrams);
        run("broadcast over UDP", &demo_story::broadcast_datagrams);
        run("multicast", &demo_story::multicast_datagrams);
        run("leave multicast", &demo_story::leave_group);
    }
    if (plan.plays_tcp) {
        run("file over TCP", &demo_story::file_over_tcp);
        run("calls", &demo_story::call_beta);
        run("calls backwards", &demo_story::call_from_beta);
        run("kill", &demo_story::kill);
        run("withdraw", &demo_story::withdraw);
        run("silence", &demo_story::silence);
        run("thaw", &demo_story::thaw);
        run("stays withdrawn", &demo_story::stays_withdrawn);
    }
    run("stop", &demo_story::stop);
}

void demo_story::run(char const* name, step what) {
    auto const begin = steady_clock::now();
    verdict const seen = (this->*what)();
    step_result result{name, seen.passed, seconds_since(begin), seen.text, seen.figures};
    view.print(fmt::format("{} {:6.2f} s  {}: {}", result.passed ? "ok  " : "FAIL", result.seconds, name, result.text));
    steps.push_back(std::move(result));
}

// --- nodes and connections -------------------------------------------------------------------------------------

stage_node& demo_story::add_node(char const* name, int network, bool keeps_file, std::string const& port) {
    node_start start{name, plan.node_arguments, network, keeps_file ? plan.file : -1};
    if (!port.empty()) {
        start.arguments.insert(start.arguments.end(), {"--listen", port});
    }
    return stage.add(start);
}

demo_story::verdict demo_story::start() {
    alpha = &add_node("alpha", plan.networks[0], true, std::to_string(plan.alpha.port));
    beta = &add_node("beta", plan.networks[1], false, std::to_string(plan.beta.port));
    if (plan.plays_tcp) {
        gamma = &add_node("gamma", plan.networks[1], false, "");
        delta = &add_node("delta", plan.networks[1], false, "");
    }
    bool const ready = stage.wait(
        c_soon, [&] { return alpha->ready && beta->ready && (gamma == nullptr || (gamma->ready && delta->ready)); });
    return {ready, fmt::format("alpha serves {}, beta {}", address_text(plan.alpha), address_text(plan.beta))};
}

/// The address by which alpha knows the new connection; empty when there is none.
std::string demo_story::connect_to_alpha(stage_node& node) {
    std::size_t const before = alpha->count_accepted();
    node.command({{"do", "connect"}, {"to", address_text(plan.alpha)}});
    bool const connected =
        stage.wait(c_soon, [&] { return alpha->count_accepted() == before + 1 && node.count_links("outgoing") == 1; });
    return connected ? alpha->newest_accepted() : "";
}

demo_story::verdict demo_story::connect() {
    std::string const beta_link = connect_to_alpha(*beta);
    gamma_link = connect_to_alpha(*gamma);
    delta_link = connect_to_alpha(*delta);
    alpha->command({{"do", "connect"}, {"to", address_text(plan.beta)}});
    bool const connected =
        stage.wait(c_soon, [&] { return alpha->count_links("outgoing") == 1 && beta->count_links("accepted") == 1; });
    return {connected && !beta_link.empty() && !gamma_link.empty() && !delta_link.empty(),
            "alpha and beta both ways, gamma and delta to alpha"};
}

demo_story::verdict demo_story::broadcast_to_peers() {
    stage.perform(*alpha,
                  {{"do", "stream"},
                   {"to_all_accepted", true},
                   {"stream", c_stream_broadcast},
                   {"count", c_broadcast_count},
                   {"size", 512},
                   {"interval_us", 200}},
                  c_soon);
    std::string const arrived = distinct_pointer(c_stream_broadcast);
    auto const least = [&] {
        return std::min(
            {beta->figure(arrived.c_str()), gamma->figure(arrived.c_str()), delta->figure(arrived.c_str())});
    };
    bool const complete = stage.wait(c_soon, [&] { return least() == c_broadcast_count; });
    return {complete,
            fmt::format("{} packets to three peers, each got at least {}", c_broadcast_count, least()),
            {{"sent", c_broadcast_count}, {"least_arrived", least()}}};
}

demo_story::verdict demo_story::freeze() {
    delta->process->signal(SIGSTOP);
    delta->condition = "frozen";
    frozen_at = steady_clock::now();
    return {true, "delta is stopped; alpha will notice when it has heard nothing for 8 seconds"};
}

// --- UDP -------------------------------------------------------------------------------------------------------

std::string demo_story::checksum(std::uint64_t size) {
    sha256 sum;
    for (std::uint64_t offset = 0; offset < size;) {
        auto const piece = read_piece(plan.file, offset, std::min<std::uint64_t>(c_hash_piece, size - offset));
        if (piece.empty()) {
            return "";
        }
        sum.add(piece);
        offset += piece.size();
    }
    return sum.finish();
}

demo_story::verdict demo_story::compare_file(stage_node& receiver, char const* where, std::uint64_t size,
                                             std::string const& told, json_object figures) {
    std::string const sent = checksum(size);
    std::string const arrived = receiver.text((std::string(where) + "/sha256").c_str());
    bool const equal = !sent.empty() && sent == arrived;
    figures["bytes"] = size;
    figures["sha256_sent"] = sent;
    figures["sha256_arrived"] = arrived;
    return {equal,
            fmt::format("{}; {}", told,
                        equal             ? "SHA-256 " + sent.substr(0, 16) + "... on both ends"
                        : arrived.empty() ? "it did not arrive whole"
                                          : "the checksums differ"),
            std::move(figures)};
}

demo_story::verdict demo_story::file_over_udp() {
    stage.perform(*beta,
                  {{"do", "expect_file"},
                   {"from", address_text(plan.alpha)},
                   {"bytes", plan.udp_bytes},
                   {"drop", plan.drop_percent}},
                  c_soon);
    auto const begin = steady_clock::now();
    stage.perform(*alpha,
                  {{"do", "send_file"},
                   {"over", "udp"},
                   {"to", address_text(plan.beta)},
                   {"descriptor", plan.file},
                   {"bytes", plan.udp_bytes}},
                  c_transfer);
    double const time = seconds_since(begin);
    stage.wait(c_soon, [&] { return !beta->text("/datagram_file/sha256").empty(); });
    // One more look, after the last datagrams have been counted.
    std::uint64_t const sent = alpha->done.is_null() ? 0 : alpha->done.at("datagrams").get<std::uint64_t>();
    std::uint64_t const chunks = alpha->done.is_null() ? 0 : alpha->done.at("chunks").get<std::uint64_t>();
    stage.wait(c_settle, [&] { return beta->figure("/datagram_file/datagrams") == sent; });
    std::uint64_t const arrived = beta->figure("/datagram_file/datagrams");
    std::uint64_t const dropped = beta->figure("/datagram_file/thrown_away");
    std::string const told =
        fmt::format("{:.1f} MiB in {:.2f} s ({:.0f} MiB/s), {} datagrams for {} chunks, {} lost{}, {} sent again",
                    rate(plan.udp_bytes, 1), time, rate(plan.udp_bytes, time), sent, chunks, sent - arrived,
                    plan.drop_percent != 0 ? fmt::format(", {} thrown away on purpose", dropped) : "", sent - chunks);
    return compare_file(*beta, "/datagram_file", plan.udp_bytes, told,
                        {{"datagrams", sent},
                         {"lost", sent - arrived},
                         {"thrown_away", dropped},
                         {"sent_again", sent - chunks},
                         {"seconds", time}});
}

json_object demo_story::udp_stream(char const* to, std::uint32_t stream, std::uint64_t count, std::uint32_t size,
                                   json_object const& more) const {
    json_object task{{"do", "stream"},    {"over", "udp"},  {"to", fmt::format("{}:{}", to, plan.beta.port)},
                     {"stream", stream},  {"count", count}, {"size", size},
                     {"interval_us", 200}};
    task.update(more);
    return task;
}

demo_story::verdict demo_story::stream_over_udp(char const* to, std::uint32_t stream, std::uint64_t count,
                                                std::uint32_t size, json_object const& more) {
    stage.perform(*alpha, udp_stream(to, stream, count, size, more), c_transfer);
    std::string const pointer = distinct_pointer(stream);
    auto const count_arrived = [&] { return beta->figure(pointer.c_str()); };
    // Datagrams may be lost, on a busy machine also here; more than half would be no accident.
    bool const enough = stage.wait(c_soon, [&] { return count_arrived() * 2 >= count; });
    stage.wait(c_settle, [&] { return count_arrived() == count; });
    std::uint64_t const arrived = count_arrived();
    return {enough,
            fmt::format("{} of {} with {} bytes arrived at {}, {} lost", arrived, count, size, to, count - arrived),
            {{"sent", count}, {"arrived", arrived}, {"lost", count - arrived}}};
}

demo_story::verdict demo_story::datagrams() {
    return stream_over_udp(ip_text(plan.beta.ip).c_str(), c_stream_datagrams, c_datagram_count, 64,
                           json_object::object());
}

demo_story::verdict demo_story::broadcast_datagrams() {
    std::string const everybody = ip_text(plan.beta.ip | htonl(0xFF));
    return stream_over_udp(everybody.c_str(), c_stream_broadcast_datagrams, c_multicast_count, 128,
                           json_object::object());
}

json_object demo_story::membership(char const* what) const {
    return {{"do", what},
            {"group", c_group},
            {"interface", ip_text(plan.beta.ip)},
            {"source", ip_text(plan.alpha.ip)},
            {"port", plan.beta.port}};
}

demo_story::verdict demo_story::multicast_datagrams() {
    stage.perform(*beta, membership("join"), c_soon);
    return stream_over_udp(c_group, c_stream_multicast, c_multicast_count, 128,
                           {{"interface", ip_text(plan.alpha.ip)}});
}

/// A datagram to beta alone follows those to the group: once it has arrived, they would have, too.
demo_story::verdict demo_story::leave_group() {
    stage.perform(*beta, membership("leave"), c_soon);
    stage.perform(*alpha,
                  udp_stream(c_group, c_stream_left, c_multicast_count, 128, {{"interface", ip_text(plan.alpha.ip)}}),
                  c_transfer);
    verdict const marker =
        stream_over_udp(ip_text(plan.beta.ip).c_str(), c_stream_marker, 1, 64, json_object::object());
    std::uint64_t const arrived = beta->figure(distinct_pointer(c_stream_left).c_str());
    return {marker.passed && arrived == 0,
            fmt::format("{} of {} arrived after beta left the group", arrived, c_multicast_count),
            {{"sent", c_multicast_count}, {"arrived", arrived}}};
}

// --- TCP -------------------------------------------------------------------------------------------------------

demo_story::verdict demo_story::file_over_tcp() {
    stage.perform(*beta, {{"do", "expect_file"}, {"bytes", plan.tcp_bytes}}, c_soon);
    auto const begin = steady_clock::now();
    stage.perform(*alpha,
                  {{"do", "send_file"},
                   {"over", "outgoing"},
                   {"to", address_text(plan.beta)},
                   {"descriptor", plan.file},
                   {"bytes", plan.tcp_bytes}},
                  c_transfer);
    stage.wait(c_transfer, [&] { return !beta->text("/file/sha256").empty(); });
    double const time = seconds_since(begin);
    return compare_file(
        *beta, "/file", plan.tcp_bytes,
        fmt::format("{:.1f} MiB in {:.2f} s ({:.0f} MiB/s)", rate(plan.tcp_bytes, 1), time, rate(plan.tcp_bytes, time)),
        {{"seconds", time}});
}

demo_story::verdict demo_story::call_over(stage_node& caller, struct_node_addr to, char const* over,
                                          std::string const& who) {
    stage.perform(caller,
                  {{"do", "call"}, {"over", over}, {"to", address_text(to)}, {"count", c_call_count}, {"size", 64}},
                  c_transfer);
    if (caller.done.is_null()) {
        return {false, "the calls were not all acknowledged"};
    }
    auto const acknowledged = caller.done.at("acknowledged").get<std::uint64_t>();
    return {acknowledged == c_call_count,
            fmt::format("{} of {} acknowledged by {}; min {:.3f} ms, median {:.3f} ms, p99 {:.3f} ms", acknowledged,
                        c_call_count, who, caller.done.at("min_ms").get<double>(),
                        caller.done.at("median_ms").get<double>(), caller.done.at("p99_ms").get<double>()),
            caller.done};
}

demo_story::verdict demo_story::call_beta() {
    return call_over(*alpha, plan.beta, "outgoing", "beta's Center");
}

demo_story::verdict demo_story::call_from_beta() {
    return call_over(*beta, plan.alpha, "accepted", "alpha's relay");
}

demo_story::verdict demo_story::kill() {
    gamma->kill();
    auto const begin = steady_clock::now();
    bool const noticed = stage.wait(c_soon, [&] { return alpha->end_of(gamma_link).has_value(); });
    double const notice_time = seconds_since(begin);
    gamma->begin();
    bool const back = stage.wait(c_soon, [&] { return gamma->ready; }) && !connect_to_alpha(*gamma).empty();
    double const time = seconds_since(begin);
    return {
        noticed && back,
        fmt::format("gamma was killed, alpha noticed after {:.3f} s; started again, it was connected after {:.3f} s",
                    notice_time, time),
        {{"noticed_seconds", notice_time}, {"connected_seconds", time}}};
}

demo_story::verdict demo_story::withdraw() {
    withdrawn_at = steady_clock::now();
    alpha->command({{"do", "withdraw"}, {"to", address_text(plan.beta)}});
    bool const gone =
        stage.wait(c_soon, [&] { return alpha->count_links("outgoing") == 0 && beta->count_links("accepted") == 0; });
    return {gone, "alpha withdrew its destination beta; both ends were told that the connection ended"};
}

demo_story::verdict demo_story::silence() {
    bool const noticed = stage.wait(c_silence_wait, [&] { return alpha->end_of(delta_link).has_value(); });
    double const time = noticed ? std::chrono::duration<double>(*alpha->end_of(delta_link) - frozen_at).count()
                                : seconds_since(frozen_at);
    return {noticed && time >= c_silence_least && time <= c_silence_most,
            fmt::format("{} {:.1f} s after delta was frozen",
                        noticed ? "alpha gave the connection up" : "alpha still had the connection", time),
            {{"seconds_after_freeze", time}}};
}

demo_story::verdict demo_story::thaw() {
    std::size_t const before = alpha->count_accepted();
    delta->condition = "running";
    delta->process->signal(SIGCONT);
    auto const begin = steady_clock::now();
    // Delta hears first that its connection has ended, then opens a new one at a tick of its timer.
    bool const back = stage.wait(
        c_soon, [&] { return alpha->count_accepted() == before + 1 && delta->count_links("outgoing") == 1; });
    return {back,
            fmt::format("delta runs again and was connected again after {:.1f} s", seconds_since(begin)),
            {{"seconds", seconds_since(begin)}}};
}

demo_story::verdict demo_story::stays_withdrawn() {
    auto const left = c_retry_would_show - std::chrono::ceil<milliseconds>(steady_clock::now() - withdrawn_at);
    stage.wait(std::max(left, milliseconds(0)), [] { return false; });
    bool const gone = alpha->count_links("outgoing") == 0;
    return {gone, gone ? "alpha has not connected to beta again" : "alpha is connected to beta again"};
}

demo_story::verdict demo_story::stop() {
    std::vector<stage_node*> nodes{alpha, beta};
    if (gamma != nullptr) {
        nodes.insert(nodes.end(), {gamma, delta});
    }
    for (stage_node* const node : nodes) {
        node->command({{"do", "stop"}});
    }
    stage.wait(c_transfer, [&] {
        return std::all_of(nodes.begin(), nodes.end(), [](stage_node const* node) { return node->ended; });
    });
    verdict sum{true, "", json_object::object()};
    std::uint64_t handed_over = 0;
    std::string wrong;
    for (stage_node* const node : nodes) {
        if (!node->has_stopped_well()) {
            wrong += fmt::format("; {} did not stop as it should: {}", node->start.name, node->last_word());
            continue;
        }
        sum.figures[node->start.name] = node->stopped.at("packets");
        handed_over += node->stopped.at("packets").at("handed_over").get<std::uint64_t>();
    }
    sum.passed = wrong.empty();
    sum.text = fmt::format("{} packets handed over, each with its outcome{}", handed_over, wrong);
    return sum;
}

} // namespace Zolt::Reference_Center
