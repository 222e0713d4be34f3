#include "tests/fault/stage.hpp"

#include "tests/fault/fault.hpp"
#include "tests/support/real_calls.hpp"

#include <algorithm>
#include <chrono>
#include <new>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>

namespace relay_test {
namespace {

constexpr int c_patience = 20000;  ///< milliseconds that a step which must succeed may take
constexpr int c_endless = 100'000; ///< rounds that no test needs

sockaddr_in loopback_address(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = Zolt::c_local_host;
    return address;
}

bool is_readable(int fd) {
    pollfd looked_at{fd, POLLIN, 0};
    return ::poll(&looked_at, 1, 0) == 1;
}

} // namespace

std::uint32_t address_of(char const* dotted) {
    in_addr parsed{};
    EXPECT_EQ(::inet_pton(AF_INET, dotted, &parsed), 1);
    return parsed.s_addr;
}

// --- peers -----------------------------------------------------------------------------------------------------

void peer::put(bytes const& data) const {
    __real_send(socket.get(), data.data(), data.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

std::size_t peer::hear() {
    unsigned char buffer[4096];
    ssize_t got = 0;
    while ((got = __real_recv(socket.get(), buffer, sizeof buffer, MSG_DONTWAIT)) > 0) {
        heard.insert(heard.end(), buffer, buffer + got);
    }
    return heard.size();
}

bool peer::take_connection() {
    if (!is_readable(listener.get())) {
        return false;
    }
    socket = descriptor(__real_accept(listener.get(), nullptr, nullptr));
    return true;
}

void peer::hang_up() const {
    __real_shutdown(socket.get(), SHUT_WR);
}

peer& stage::knock(std::uint16_t at) {
    peer& added = peers.emplace_back();
    added.socket = connect_loopback(at);
    added.address = {Zolt::c_local_host, local_port(added.socket)};
    return added;
}

peer& stage::listening() {
    peer& added = peers.emplace_back();
    added.listener = listen_loopback();
    added.address = {Zolt::c_local_host, local_port(added.listener)};
    return added;
}

peer& stage::accepted_peer() {
    peer& added = knock();
    EXPECT_TRUE(serve_until([] { return EPoll::g_accepted_exchanging.first != nullptr; }, c_patience));
    return added;
}

peer& stage::connecting_peer() {
    peer& added = listening();
    INet_Relay::add_client(added.address.ip, added.address.port);
    EXPECT_TRUE(serve_until([&added] { return added.take_connection(); }, c_patience));
    EXPECT_TRUE(serve_until([&added] { return added.hear() == c_block_size; }, c_patience));
    return added;
}

peer& stage::established_accepted() {
    peer& added = accepted_peer();
    added.put(block());
    EXPECT_TRUE(serve_until([&added] { return is_established(accepted(), added) && added.hear() == c_block_size; },
                            c_patience));
    return added;
}

peer& stage::established_outgoing() {
    peer& added = connecting_peer();
    added.put(block());
    EXPECT_TRUE(serve_until([&added] { return is_established(outgoing(), added); }, c_patience));
    return added;
}

bool stage::is_established(EPoll::connection_map const& registry, peer const& which) {
    return registry.contains(which.address);
}

void stage::throw_datagram(std::uint16_t at, bytes const& datagram) {
    sockaddr_in const to = loopback_address(at);
    __real_sendto(udp_sender.get(), datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr const*>(&to),
                  sizeof to);
}

int stage::hand_over(EPoll::connection_map const& registry, peer const& to, packet_fields fields) {
    bool const is_accepted = &registry == &accepted();
    auto token = make_token(std::move(fields));
    int result = c_out_of_memory;
    call([&] {
        auto const send = is_accepted ? INet_Relay::send_tcp_server : INet_Relay::send_tcp_client;
        result = send(to.address, token, token.get_header_packet());
    });
    if (result != 0) {
        token.free();
    }
    return result;
}

int stage::hand_over_udp(std::uint16_t at, packet_fields fields) {
    fields.dst_port = at;
    auto token = make_token(std::move(fields));
    int result = c_out_of_memory;
    call([&] { result = INet_Relay::send_udp(token, token.get_header_packet()); });
    if (result == c_out_of_memory) {
        token.free();
    }
    return result;
}

// --- the relay -------------------------------------------------------------------------------------------------

stage::stage()
    : wake_up(__real_socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)),
      udp_sender(bind_loopback_udp()), loops{{"tcp_init", &EPoll::epoll_tcp_init, EPoll::epoll_thread_tcp_init_entry},
                                             {"tcp_recv", &EPoll::epoll_tcp_recv, EPoll::epoll_thread_tcp_recv_entry},
                                             {"tcp_send", &EPoll::epoll_tcp_send, EPoll::epoll_thread_tcp_send_entry},
                                             {"udp_recv", &EPoll::epoll_udp_recv, EPoll::epoll_thread_udp_recv_entry},
                                             {"udp_send", &EPoll::epoll_udp_send, EPoll::epoll_thread_udp_send_entry}} {
}

void stage::SetUp() {
    relay_fixture::SetUp();
    on_offer([this](packet_fields const& packet) {
        center.push_back(words_of_offer(packet));
        sequences.push_back(packet.sequence);
        return c_center_took;
    });
    for (event_loop& loop : loops) {
        loop.ended = false;
        loop.held = false;
    }
    // Room for those whom a failed accept leaves waiting.
    set_ini("SERVER_LISTEN_BACKLOG", 64);
    errors.clear();
    center.clear();
    sequences.clear();
    EPoll::g_server_map.clear();
}

void stage::TearDown() {
    shut();
    relay_fixture::TearDown();
}

void stage::initialize_and_start() {
    is_initialized = true;
    INet_Relay::initialize();
    is_started = true;
    INet_Relay::start();
}

void stage::open_port() {
    for (int tries = 0; tries < 10; ++tries) {
        port = unused_port();
        if (INet_Relay::add_server(port) == 0) {
            return;
        }
        take_errors();
    }
    ADD_FAILURE() << "no server port could be opened";
}

void stage::open() {
    initialize_and_start();
    open_port();
}

void stage::shut() {
    system.forget_scripts();
    for (peer& each : peers) {
        if (each.socket.get() != -1) {
            reset_connection(each.socket);
        }
    }
    peers.clear();
    if (std::exchange(is_started, false)) {
        INet_Relay::stop();
    }
    if (std::exchange(is_initialized, false)) {
        finalize();
    }
    EPoll::clear_establish_map(accepted());
    for (auto* const registry : {&EPoll::g_connect_map, &EPoll::g_establish_client_map, &EPoll::g_connect_fail_map}) {
        EPoll::clear_connect_map(*registry);
    }
    EPoll::g_server_map.clear();
    EPoll::g_remote_server_map.clear();
    collect_errors();
    for (event_loop& loop : loops) {
        loop.ended = false;
    }
}

void stage::finalize() {
    // What is still queued when a port is closed stays with the host.
    std::vector<Zolt::struct_token> queued;
    for (auto const& [at, rec] : EPoll::g_udp_map) {
        queued.insert(queued.end(), rec->send_q.begin(), rec->send_q.end());
    }
    INet_Relay::finalize();
    for (Zolt::struct_token& token : queued) {
        token.free();
    }
}

bool stage::call(std::function<void()> const& operation) {
    try {
        run_relay(operation);
        return true;
    } catch (std::bad_alloc const&) {
        return false;
    } catch (std::string const&) {
        return false;
    }
}

void stage::tick_timer() {
    call([] { tick(EPoll::inet_timer); });
}

void stage::let_time_pass() {
    advance_clock(c_past_time_out);
    tick_timer();
}

// --- the event threads -----------------------------------------------------------------------------------------

bool stage::serve_loop(event_loop& loop) {
    if (loop.ended || loop.held || *loop.instance <= 0 || !is_readable(*loop.instance)) {
        return false;
    }
    // What is ready now is served, then the thread is told to stop as stop would tell it.
    epoll_event told{};
    told.events = EPOLLOUT;
    __real_epoll_ctl(*loop.instance, EPOLL_CTL_ADD, wake_up.get(), &told);
    std::size_t const before = errors.size();
    run_relay([&loop] { loop.entry(nullptr); });
    collect_errors();
    __real_epoll_ctl(*loop.instance, EPOLL_CTL_DEL, wake_up.get(), &told);
    loop.ended = std::any_of(errors.begin() + static_cast<std::ptrdiff_t>(before), errors.end(),
                             [&](auto const& line) { return line.text.starts_with(text(loop.name + "_ended_by")); });
    return true;
}

void stage::serve() {
    for (int round = 0;; ++round) {
        ASSERT_LT(round, c_endless) << "the event threads find no end";
        bool any = false;
        for (event_loop& loop : loops) {
            any = serve_loop(loop) || any;
        }
        if (!any) {
            return;
        }
    }
}

bool stage::wait_for_events(int milliseconds) {
    std::vector<pollfd> looked_at;
    for (event_loop const& loop : loops) {
        looked_at.push_back({loop.ended || *loop.instance <= 0 ? -1 : *loop.instance, POLLIN, 0});
    }
    return ::poll(looked_at.data(), looked_at.size(), milliseconds) > 0;
}

bool stage::serve_until(std::function<bool()> const& is_so, int milliseconds) {
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    for (;;) {
        serve();
        if (is_so()) {
            return true;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        wait_for_events(1);
    }
}

void stage::hold_senders(bool held) {
    for (event_loop& loop : loops) {
        loop.held = held && loop.name.ends_with("send");
    }
}

std::vector<std::string> stage::ended_loops() const {
    std::vector<std::string> names;
    for (event_loop const& loop : loops) {
        if (loop.ended) {
            names.push_back(loop.name);
        }
    }
    return names;
}

// --- what was seen ---------------------------------------------------------------------------------------------

void stage::collect_errors() {
    for (error_line& line : take_errors()) {
        errors.push_back(std::move(line));
    }
}

std::vector<std::string> stage::error_words() {
    collect_errors();
    std::vector<std::string> words;
    for (error_line const& line : errors) {
        words.push_back(words_of_error(line));
    }
    return words;
}

namespace {

/// The id of the whole text, or of one with which it begins; the rest is what follows.
std::string id_of(std::string const& whole) {
    for (auto const& [id, known] : all_texts()) {
        if (known == whole) {
            return id;
        }
    }
    return "";
}

/// "NAME_ended_by:CAUSE:ERRNO"
std::string words_of_end(std::string const& line) {
    for (char const* const name : {"tcp_init", "tcp_recv", "tcp_send", "udp_recv", "udp_send"}) {
        std::string const id = std::string(name) + "_ended_by";
        std::size_t const at = line.rfind(text("ended_errno"));
        if (!line.starts_with(text(id)) || at == std::string::npos || !line.ends_with('\n')) {
            continue;
        }
        std::string const cause = id_of(line.substr(text(id).size(), at - text(id).size()));
        std::string const number = line.substr(at + text("ended_errno").size());
        return cause.empty() ? "" : id + ":" + cause + ":" + (number == "0\n" ? "0" : errno_name(std::stoi(number)));
    }
    return "";
}

} // namespace

std::string words_of_error(error_line const& line) {
    if (line.line != 0) {
        return "position";
    }
    if (!line.title.empty()) {
        bool const is_known = line.title == text("alert_title") && line.text.starts_with(text("port_taken_before")) &&
                              line.text.ends_with(text("port_taken_after"));
        return is_known ? "alert" : "unknown: " + line.text;
    }
    if (std::string const id = id_of(line.text); !id.empty()) {
        return id;
    }
    if (std::string const end = words_of_end(line.text); !end.empty()) {
        return end;
    }
    std::string const& refused = text("connect_failed");
    if (line.text.starts_with(refused) && line.text.ends_with('\n')) {
        return "connect_failed:" + errno_name(std::stoi(line.text.substr(refused.size())));
    }
    return "unknown: " + line.text;
}

std::string words_of_offer(packet_fields const& packet) {
    constexpr char const* c_events[] = {"", "connected_to_server", "disconnected_from_server", "connected_from_client",
                                        "disconnected_from_client"};
    if (packet.control && packet.event < std::size(c_events)) {
        return c_events[packet.event];
    }
    if (packet.error == Zolt::c_zolt_err_not_connected_tcp) {
        return "returned:not_connected";
    }
    return packet.error == Zolt::c_zolt_err_disconnected_tcp ? "returned:disconnected" : "packet";
}

std::string joined(std::vector<std::string> const& words, char const* between) {
    std::string all;
    for (std::string const& word : words) {
        all += (all.empty() ? "" : between) + word;
    }
    return all;
}

} // namespace relay_test
