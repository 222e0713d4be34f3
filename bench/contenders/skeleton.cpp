// The limit: the relay's calls in the relay's order, without tokens, traces and registries.
#include "bench/contender.hpp"
#include "bench/contenders/skeleton_engine.hpp"
#include "bench/support/sockets.hpp"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include <poll.h>

namespace relay_bench {
namespace {

using skeleton::record;

/// From the receive thread to the process's first one: as little as a hand-over between threads can be.
class hand_over {
public:
    void put(record& from) {
        bool wakes = false;
        {
            std::lock_guard<std::mutex> const guard(lock);
            waiting.push_back(&from);
            wakes = sleeps;
        }
        if (wakes) {
            arrived.notify_one();
        }
    }

    /// Everything that waits, after waiting for it for as long as c_look_around.
    std::vector<record*> const& take() {
        taken.clear();
        std::unique_lock<std::mutex> hold(lock);
        sleeps = true;
        arrived.wait_for(hold, std::chrono::milliseconds(c_look_around), [&] { return !waiting.empty(); });
        sleeps = false;
        taken.swap(waiting);
        return taken;
    }

private:
    std::mutex lock;
    std::condition_variable arrived;
    bool sleeps = false;
    std::vector<record*> waiting;
    std::vector<record*> taken;
};

class skeleton_end final : public contender {
public:
    skeleton_end(run_plan const& plan, packet_user& of)
        : user(of), answer_on(plan.answer), connections(plan.connections),
          threads(plan, [this](record& from) { deliver(from); }) {}

    std::uint16_t listen() override {
        std::uint16_t const port = find_unused_port();
        threads.listen(port);
        return port;
    }

    void connect(std::uint16_t port) override {
        auto const number = static_cast<unsigned int>(outgoing.size());
        outgoing.push_back(&threads.connect(loopback_address(number), port));
    }

    unsigned int accepted() override { return threads.accepted(); }
    void open_datagrams(datagram_path const& path) override { outgoing.push_back(&threads.open_datagrams(path)); }

    void send(unsigned int connection) override { threads.send(*outgoing[connection]); }
    void answer(origin to) override { threads.send(*reinterpret_cast<record*>(to)); }
    void broadcast() override { threads.broadcast(); }

    void serve_until(std::function<bool()> const& done) override {
        while (!done()) {
            threads.check();
            if (answer_on == answering::receive) {
                ::poll(nullptr, 0, c_look_around);
            } else {
                for (record* const from : queue.take()) {
                    user.on_packet(reinterpret_cast<origin>(from));
                }
            }
        }
    }

    char const* delivers_on() const override {
        return answer_on == answering::receive ? "receive thread" : "process's first thread";
    }

    void set_ticking(std::uint64_t from) override {
        serve_until([this] { return threads.established() >= connections; }); // this end may be the later one
        threads.set_ticking(from);
        serve_until([this] { return threads.has_ticked(); });
    }

    int ticking_thread() const override { return threads.ticking_thread(); }
    void rest() override { threads.rest(); }

private:
    void deliver(record& from) {
        if (answer_on == answering::receive) {
            user.on_packet(reinterpret_cast<origin>(&from));
        } else {
            queue.put(from);
        }
    }

    packet_user& user;
    answering const answer_on;
    unsigned int const connections;
    hand_over queue;
    std::vector<record*> outgoing;
    skeleton::engine threads; ///< last: its threads use the others
};

} // namespace

std::unique_ptr<contender> make_skeleton(run_plan const& plan, packet_user& user) {
    return std::make_unique<skeleton_end>(plan, user);
}

} // namespace relay_bench
