// The relay on the reference host, both as shared libraries, driven as a Center drives them: what arrives is offered
// by send_zolt_center on the relay's threads, waits in the reference host's inbox, and is taken out by the process's first
// thread, which may call the relay.
#include "bench/contender.hpp"
#include "bench/support/processes.hpp"
#include "bench/support/send_window.hpp"
#include "bench/support/sockets.hpp"

#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"
#include "Host/zolt_global.hpp"
#include "Reference_Host/inbox.hpp"
#include "Reference_Host/packet_building.hpp"
#include "Reference_Host/packet_limits.hpp"
#include "Reference_Host/packet_reading.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <span>
#include <vector>

#include <poll.h>

namespace relay_bench {
namespace {

namespace host = Zolt::Reference_Host;
namespace relay = Zolt::Center::INet_Relay;
using Zolt::struct_node_addr;
using Zolt::struct_packet;
using Zolt::struct_token;

constexpr std::chrono::milliseconds c_longest_wait{c_look_around};
constexpr std::size_t c_batch = 64;
constexpr std::size_t c_spare_connections = 64; ///< those of a warm-up

class relay_end;
/// The end whose packets are delivered by the relay's own threads, which no Center may ask for; null: the inbox.
std::atomic<relay_end*> g_direct{nullptr};
/// The end that is told when a packet has left its queue.
relay_end* g_sender = nullptr;

struct_node_addr address_of(origin from) {
    return {static_cast<std::uint32_t>(from), static_cast<std::uint16_t>(from >> 32)};
}

class relay_end final : public contender {
public:
    relay_end(run_plan const& plan, packet_user& of)
        : user(of), size(plan.size), window(window_of(plan)), answer_on(plan.answer),
          windows(plan.connections + c_spare_connections) {
        peers.reserve(windows.size());
        g_sender = this;
        host::set_release_observer([](std::uint64_t cookie, struct_packet const&) { g_sender->released(cookie); });
        if (answer_on == answering::receive) {
            g_direct.store(this);
        }
        relay::initialize();
    }

    ~relay_end() override {
        rest();
        relay::finalize();
        relay::clear_leftovers();
        host::set_release_observer(nullptr);
        g_direct.store(nullptr);
    }

    void rest() override {
        if (runs) {
            host::get_center_inbox().stop();
            relay::stop();
            runs = false;
        }
    }

    std::uint16_t listen() override {
        std::uint16_t const port = find_unused_port();
        serve_port(port);
        return port;
    }

    void connect(std::uint16_t port) override {
        start();
        struct_node_addr const peer{loopback_address(static_cast<unsigned int>(peers.size())), port};
        peers.push_back(peer);
        relay::add_client(peer.ip, peer.port);
        auto const is_connected = [&] { return connected.load(std::memory_order_acquire) == peers.size(); };
        if (answer_on == answering::center) {
            serve_until(is_connected);
        } else if (!is_connected()) {
            connected.wait(static_cast<unsigned int>(peers.size()) - 1, std::memory_order_acquire);
        }
    }

    unsigned int accepted() override { return count_accepted.load(std::memory_order_acquire); }

    void open_datagrams(datagram_path const& path) override {
        sends_datagrams = true;
        peers.push_back({path.remote_ip, path.port});
        serve_port(path.port);
    }

    void send(unsigned int connection) override {
        windows[connection].enter(window);
        struct_token token = make(peers[connection]);
        struct_packet* const header = token.get_header_packet();
        host::set_cookie(*header, connection + 1);
        int const result =
            sends_datagrams ? relay::send_udp(token, header) : relay::send_tcp_client(peers[connection], token, header);
        check_sent(result);
    }

    void answer(origin to) override {
        // A datagram tells the port that its sender wrote into it, which is none.
        struct_node_addr const peer = sends_datagrams ? peers.front() : address_of(to);
        struct_token token = make(peer);
        struct_packet* const header = token.get_header_packet();
        check_sent(sends_datagrams ? relay::send_udp(token, header) : relay::send_tcp_server(peer, token, header));
    }

    void broadcast() override {
        struct_token token = make({});
        relay::send_tcp_broadcast(token, token.get_header_packet());
        token.free();
    }

    void serve_until(std::function<bool()> const& done) override {
        start();
        std::array<struct_token, c_batch> tokens;
        while (!done()) {
            if (lost.load(std::memory_order_acquire)) {
                throw failure("a connection of the relay was lost");
            }
            if (answer_on == answering::receive) {
                ::poll(nullptr, 0, c_look_around);
                continue;
            }
            std::size_t const count = host::get_center_inbox().take(tokens, c_longest_wait);
            for (struct_token& token : std::span(tokens).first(count)) {
                take(token);
                token.free();
            }
        }
    }

    char const* delivers_on() const override {
        return answer_on == answering::receive ? "receive thread, which no Center may do" : "Center's thread";
    }

    int ticking_thread() const override { return timer_thread; }

    /// One packet for the user, or a notice for this end. Thread: the one that delivers.
    void take(struct_token& token) {
        struct_packet const& header = *token.get_header_packet();
        if (host::get_arrival_clock(header) == 0) {
            note(host::get_event(header));
            return;
        }
        if (token.get_header_packet()->get_data_size() != size) {
            throw failure("a packet of another size");
        }
        host::packet_end const source = host::get_source(header);
        user.on_packet(origin{source.port} << 32 | source.ip);
    }

private:
    void start() {
        if (!runs) {
            host::get_center_inbox().resume();
            relay::start();
            timer_thread = newest_thread();
            runs = true;
        }
    }

    void serve_port(std::uint16_t port) {
        if (relay::add_server(port) != 0) {
            throw failure("the relay cannot serve a port");
        }
        start();
    }

    void note(host::connection_event event) {
        switch (event) {
        case host::connection_event::connected_to_server:
            connected.fetch_add(1, std::memory_order_release);
            connected.notify_one();
            return;
        case host::connection_event::connected_from_client:
            count_accepted.fetch_add(1, std::memory_order_release);
            return;
        default:
            lost.store(true, std::memory_order_release);
        }
    }

    struct_token make(struct_node_addr const& to) const {
        host::packet_plan packet;
        packet.destination = {to.ip, to.port, 0};
        struct_token token = host::make_packet(packet, size);
        touch(token);
        return token;
    }

    /// Writes a data block that is new to this end; memory that nobody has written to would be read without being there.
    static void touch(struct_token& token) {
        constexpr unsigned char c_touched = 0xA5;
        std::span<unsigned char> const data = host::get_data_span(token);
        if (!data.empty() && (data.front() != c_touched || data.back() != c_touched)) {
            std::ranges::fill(data, c_touched);
        }
    }

    static void check_sent(int result) {
        if (result != 0) {
            throw failure("the relay has no such connection");
        }
    }

    /// A packet of send has left its queue, or was given up.
    void released(std::uint64_t cookie) { windows[cookie - 1].leave(); }

    packet_user& user;
    std::uint32_t const size;
    std::uint32_t const window;
    answering const answer_on;
    bool runs = false;
    int timer_thread = 0;
    bool sends_datagrams = false;
    std::vector<struct_node_addr> peers;
    std::vector<send_window> windows; ///< one for each of peers, and room for more: other threads are in it
    std::atomic<unsigned int> connected{0};
    std::atomic<unsigned int> count_accepted{0};
    std::atomic<bool> lost{false};
};

/// Takes a packet on the relay's thread. It stays readable until that thread's next one.
int deliver_directly(relay_end& end, struct_token& token) {
    thread_local struct_token t_taken;
    t_taken.free();
    t_taken = token;
    end.take(token);
    return host::c_offer_taken;
}

} // namespace

std::unique_ptr<contender> make_relay(run_plan const& plan, packet_user& user) {
    return std::make_unique<relay_end>(plan, user);
}

} // namespace relay_bench

namespace Zolt::Common::Global {

/// In the place of the reference host's, to which it hands on unless the run asks for delivery by the receive thread.
int send_zolt_center(struct_token& token) {
    relay_bench::relay_end* const direct = relay_bench::g_direct.load(std::memory_order_relaxed);
    return direct != nullptr ? relay_bench::deliver_directly(*direct, token)
                             : Reference_Host::get_center_inbox().offer(token);
}

} // namespace Zolt::Common::Global
