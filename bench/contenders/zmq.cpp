// libzmq: DEALER and ROUTER for round trips, PUSH and PULL for streams, XPUB and SUB for broadcasts; one socket a
// connection at the near end, one for all at the far end.
#include "bench/contender.hpp"
#include "bench/support/packet_bytes.hpp"
#include "bench/support/sockets.hpp"

#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <zmq.h>

#include <poll.h>

namespace relay_bench {
namespace {

constexpr int c_most_sockets = 20000;
constexpr std::size_t c_largest_copied = 1024; ///< larger packets are handed over in place

void must_zmq(bool worked, char const* what) {
    if (!worked) {
        throw failure(std::string(what) + ": " + ::zmq_strerror(::zmq_errno()));
    }
}

/// One part of a message that is received.
class incoming {
public:
    incoming() { ::zmq_msg_init(&part); }
    ~incoming() { ::zmq_msg_close(&part); }
    incoming(incoming const&) = delete;
    incoming& operator=(incoming const&) = delete;

    /// False when none came in time.
    bool receive(void* socket) {
        int const size = ::zmq_msg_recv(&part, socket, 0);
        must_zmq(size >= 0 || ::zmq_errno() == EAGAIN, "zmq_msg_recv");
        return size >= 0;
    }
    std::size_t size() const { return ::zmq_msg_size(&part); }
    unsigned char const* data() { return static_cast<unsigned char const*>(::zmq_msg_data(&part)); }

private:
    zmq_msg_t part;
};

class zmq final : public contender {
public:
    zmq(run_plan const& of, packet_user& to)
        : plan(of), user(to), bytes(make_packet_bytes(of.size)), context(::zmq_ctx_new()) {
        must_zmq(context != nullptr, "zmq_ctx_new");
        ::zmq_ctx_set(context, ZMQ_MAX_SOCKETS, c_most_sockets);
    }

    ~zmq() override {
        for (void* const socket : outgoing) {
            ::zmq_close(socket);
        }
        for (void* const socket : {serving, subscriber}) {
            if (socket != nullptr) {
                ::zmq_close(socket);
            }
        }
        ::zmq_ctx_term(context);
    }

    std::uint16_t listen() override {
        static constexpr std::array<int, 3> c_kinds{ZMQ_ROUTER, ZMQ_PULL, ZMQ_XPUB};
        serving = open(c_kinds[static_cast<std::size_t>(plan.flow)]);
        if (plan.flow == pattern::fan) {
            set(serving, ZMQ_XPUB_VERBOSE, 1);
        } else if (plan.flow == pattern::pair) {
            set(serving, ZMQ_ROUTER_MANDATORY, 1); // waits where it would else throw packets away
        }
        must_zmq(::zmq_bind(serving, "tcp://*:*") == 0, "zmq_bind");
        char endpoint[64]{};
        std::size_t length = sizeof endpoint;
        must_zmq(::zmq_getsockopt(serving, ZMQ_LAST_ENDPOINT, endpoint, &length) == 0, "ZMQ_LAST_ENDPOINT");
        return static_cast<std::uint16_t>(std::stoi(std::strrchr(endpoint, ':') + 1));
    }

    void connect(std::uint16_t port) override {
        std::string const endpoint = loopback_url(connections++, port);
        if (plan.flow == pattern::fan) {
            subscribe(endpoint);
            return;
        }
        void* const socket = open(plan.flow == pattern::pair ? ZMQ_DEALER : ZMQ_PUSH);
        outgoing.push_back(socket);
        set(socket, ZMQ_IMMEDIATE, 1); // writable only once the connection is established
        must_zmq(::zmq_connect(socket, endpoint.c_str()) == 0, "zmq_connect");
        constexpr long c_longest = 10000; // milliseconds
        zmq_pollitem_t ready{socket, 0, ZMQ_POLLOUT, 0};
        must_zmq(::zmq_poll(&ready, 1, c_longest) == 1, "waiting for a connection");
    }

    unsigned int accepted() override { return subscriptions; }

    void send(unsigned int connection) override {
        awaited = connection;
        send_packet(outgoing[connection]);
    }

    void answer(origin to) override {
        must_zmq(::zmq_send(serving, &to, c_identity_size, ZMQ_SNDMORE) >= 0, "zmq_send");
        send_packet(serving);
    }

    void broadcast() override { send_packet(serving); }

    void serve_until(std::function<bool()> const& done) override {
        while (!done()) {
            if (serving != nullptr) {
                plan.flow == pattern::fan ? take_subscription() : take_packet(serving);
            } else if (plan.flow == pattern::stream) {
                ::poll(nullptr, 0, c_look_around); // sockets of this kind receive nothing
            } else {
                take_packet(subscriber != nullptr ? subscriber : outgoing[awaited]);
            }
        }
    }

    char const* delivers_on() const override { return "process's first thread"; }

private:
    static constexpr std::size_t c_identity_size = 5; ///< of a peer that chose none for itself

    static void set(void* socket, int option, int value) {
        must_zmq(::zmq_setsockopt(socket, option, &value, sizeof value) == 0, "zmq_setsockopt");
    }

    void* open(int kind) const {
        void* const socket = ::zmq_socket(context, kind);
        must_zmq(socket != nullptr, "zmq_socket");
        auto const window = static_cast<int>(window_of(plan));
        set(socket, ZMQ_SNDHWM, window);
        set(socket, ZMQ_RCVHWM, window);
        set(socket, ZMQ_RCVTIMEO, c_look_around);
        set(socket, ZMQ_LINGER, 0);
        return socket;
    }

    void subscribe(std::string const& endpoint) {
        if (subscriber == nullptr) {
            subscriber = open(ZMQ_SUB);
            must_zmq(::zmq_setsockopt(subscriber, ZMQ_SUBSCRIBE, "", 0) == 0, "ZMQ_SUBSCRIBE");
        }
        must_zmq(::zmq_connect(subscriber, endpoint.c_str()) == 0, "zmq_connect");
    }

    void send_packet(void* socket) {
        zmq_msg_t message;
        if (bytes.size() <= c_largest_copied) {
            must_zmq(::zmq_msg_init_size(&message, bytes.size()) == 0, "zmq_msg_init_size");
            std::memcpy(::zmq_msg_data(&message), bytes.data(), bytes.size());
        } else {
            int const made = ::zmq_msg_init_data(
                &message, bytes.data(), bytes.size(), [](void*, void*) {}, nullptr);
            must_zmq(made == 0, "zmq_msg_init_data");
        }
        must_zmq(::zmq_msg_send(&message, socket, 0) >= 0, "zmq_msg_send");
    }

    void take_packet(void* socket) {
        incoming part;
        if (!part.receive(socket)) {
            return;
        }
        origin from = 0;
        if (socket == serving && plan.flow == pattern::pair) {
            std::memcpy(&from, part.data(), c_identity_size);
            part.receive(socket);
        }
        if (part.size() != bytes.size() || data_size_of(part.data()) != plan.size) {
            throw failure("a packet of another size");
        }
        user.on_packet(from);
    }

    void take_subscription() {
        incoming part;
        if (part.receive(serving)) {
            ++subscriptions;
        }
    }

    run_plan const plan;
    packet_user& user;
    std::vector<unsigned char> bytes;
    void* const context;
    void* serving = nullptr;
    void* subscriber = nullptr;
    std::vector<void*> outgoing;
    unsigned int connections = 0;
    unsigned int subscriptions = 0;
    unsigned int awaited = 0; ///< the connection that an answer is to come from
};

} // namespace

std::unique_ptr<contender> make_zmq(run_plan const& plan, packet_user& user) {
    return std::make_unique<zmq>(plan, user);
}

} // namespace relay_bench
