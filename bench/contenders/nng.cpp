// nng: PAIR for round trips, PUSH and PULL for streams, PUB and SUB for broadcasts; one socket a connection at the near
// end, one for all at the far end.
#include "bench/contender.hpp"
#include "bench/support/packet_bytes.hpp"
#include "bench/support/sockets.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <nng/nng.h>
#include <nng/protocol/pair1/pair.h>
#include <nng/protocol/pipeline0/pull.h>
#include <nng/protocol/pipeline0/push.h>
#include <nng/protocol/pubsub0/pub.h>
#include <nng/protocol/pubsub0/sub.h>

#include <poll.h>

namespace relay_bench {
namespace {

void must_nng(int error, char const* what) {
    if (error != 0) {
        throw failure(std::string(what) + ": " + ::nng_strerror(error));
    }
}

using message = std::unique_ptr<nng_msg, decltype([](nng_msg* gone) { ::nng_msg_free(gone); })>;
using opener = int (*)(nng_socket*);

/// By pattern: what serves, and what connects.
constexpr std::array<opener, 3> c_serving{::nng_pair1_open_poly, ::nng_pull0_open, ::nng_pub0_open};
constexpr std::array<opener, 3> c_connecting{::nng_pair1_open, ::nng_push0_open, ::nng_sub0_open};

class nng final : public contender {
public:
    nng(run_plan const& of, packet_user& to) : plan(of), user(to), bytes(make_packet_bytes(of.size)) {}

    ~nng() override {
        for (nng_socket const socket : sockets) {
            ::nng_close(socket);
        }
    }

    std::uint16_t listen() override {
        serves = true;
        nng_socket const socket = open(c_serving);
        must_nng(::nng_pipe_notify(
                     socket, NNG_PIPE_EV_ADD_POST,
                     [](nng_pipe, nng_pipe_ev, void* end) { static_cast<nng*>(end)->peers.fetch_add(1); }, this),
                 "nng_pipe_notify");
        nng_listener listener{};
        must_nng(::nng_listen(socket, "tcp://0.0.0.0:0", &listener, 0), "nng_listen");
        int port = 0;
        must_nng(::nng_listener_get_int(listener, NNG_OPT_TCP_BOUND_PORT, &port), NNG_OPT_TCP_BOUND_PORT);
        return static_cast<std::uint16_t>(port);
    }

    void connect(std::uint16_t port) override {
        // Of broadcasts one socket hears all.
        nng_socket const socket = plan.flow == pattern::fan && !sockets.empty() ? sockets.front() : open(c_connecting);
        if (plan.flow == pattern::fan) {
            must_nng(::nng_socket_set(socket, NNG_OPT_SUB_SUBSCRIBE, "", 0), NNG_OPT_SUB_SUBSCRIBE);
        }
        std::string const url = loopback_url(connections++, port);
        must_nng(::nng_dial(socket, url.c_str(), nullptr, 0), "nng_dial");
    }

    unsigned int accepted() override { return peers.load(); }

    void send(unsigned int connection) override {
        awaited = connection;
        send_packet(sockets[connection], 0);
    }
    void answer(origin to) override { send_packet(sockets.front(), to); }
    void broadcast() override { send_packet(sockets.front(), 0); }

    void serve_until(std::function<bool()> const& done) override {
        bool const receives = plan.flow == pattern::pair || (plan.flow == pattern::stream) == serves;
        while (!done()) {
            if (receives) {
                take_packet(sockets[awaited]);
            } else {
                ::poll(nullptr, 0, c_look_around);
            }
        }
    }

    char const* delivers_on() const override { return "process's first thread"; }

private:
    nng_socket open(std::array<opener, 3> const& kinds) {
        nng_socket socket = NNG_SOCKET_INITIALIZER;
        must_nng(kinds[static_cast<std::size_t>(plan.flow)](&socket), "opening a socket");
        sockets.push_back(socket);
        constexpr unsigned int c_largest_buffer = 8192;
        unsigned int const wanted = plan.flow == pattern::fan ? plan.connections : window_of(plan);
        for (char const* const option : {NNG_OPT_SENDBUF, NNG_OPT_RECVBUF}) {
            int const error =
                ::nng_socket_set_int(socket, option, static_cast<int>(std::min(wanted, c_largest_buffer)));
            // Kinds that only send, or only receive, do not know the other buffer.
            must_nng(error == NNG_ENOTSUP ? 0 : error, option);
        }
        must_nng(::nng_socket_set_size(socket, NNG_OPT_RECVMAXSZ, 0), NNG_OPT_RECVMAXSZ);
        int const error = ::nng_socket_set_ms(socket, NNG_OPT_RECVTIMEO, c_look_around);
        must_nng(error == NNG_ENOTSUP ? 0 : error, NNG_OPT_RECVTIMEO);
        return socket;
    }

    /// To the peer of that pipe, or to whom the socket leads when it is 0.
    void send_packet(nng_socket socket, origin to) {
        nng_msg* made = nullptr;
        must_nng(::nng_msg_alloc(&made, bytes.size()), "nng_msg_alloc");
        message packet(made);
        std::copy(bytes.begin(), bytes.end(), static_cast<unsigned char*>(::nng_msg_body(made)));
        if (to != 0) {
            ::nng_msg_set_pipe(made, {static_cast<std::uint32_t>(to)});
        }
        must_nng(::nng_sendmsg(socket, made, 0), "nng_sendmsg");
        static_cast<void>(packet.release()); // it is the socket's now
    }

    void take_packet(nng_socket socket) {
        nng_msg* taken = nullptr;
        int const error = ::nng_recvmsg(socket, &taken, 0);
        if (error == NNG_ETIMEDOUT) {
            return;
        }
        must_nng(error, "nng_recvmsg");
        message const packet(taken);
        if (::nng_msg_len(taken) != bytes.size() ||
            data_size_of(static_cast<unsigned char const*>(::nng_msg_body(taken))) != plan.size) {
            throw failure("a packet of another size");
        }
        user.on_packet(static_cast<origin>(::nng_pipe_id(::nng_msg_get_pipe(taken))));
    }

    run_plan const plan;
    packet_user& user;
    std::vector<unsigned char> const bytes;
    std::vector<nng_socket> sockets;
    bool serves = false;
    unsigned int connections = 0;
    unsigned int awaited = 0; ///< the connection that an answer is to come from
    std::atomic<unsigned int> peers{0};
};

} // namespace

std::unique_ptr<contender> make_nng(run_plan const& plan, packet_user& user) {
    return std::make_unique<nng>(plan, user);
}

} // namespace relay_bench
