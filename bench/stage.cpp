#include "bench/stage.hpp"

#include "bench/support/clock.hpp"
#include "bench/support/networks.hpp"

#include <arpa/inet.h>
#include <unistd.h>

namespace relay_bench {
namespace {

/// Counts what arrives at the far end, and answers it where the run asks for that.
class far_user final : public packet_user {
public:
    far_user(run_plan const& of, arrival_counter& counter) : plan(of), arrivals(counter) {}

    void on_packet(origin from) override {
        if (plan.echo) {
            end->answer(from);
        } else if (plan.tells) {
            arrivals.add_and_tell();
        } else {
            arrivals.add();
        }
    }

    contender* end = nullptr;

private:
    run_plan const& plan;
    arrival_counter& arrivals;
};

constexpr std::uint16_t c_datagram_port = 20000; // in networks that belong to this run alone
datagram_path make_path(std::size_t own) {
    return {::inet_addr(c_addresses[own]), ::inet_addr(c_addresses[1 - own]), c_datagram_port};
}

/// Does what the near end asks for. False after the last request.
bool obey(message const& request, contender& end, channel& link) {
    message answer;
    switch (request.kind) {
    case message::serve:
        answer.value = end.listen();
        break;
    case message::connect:
        for (std::uint64_t left = request.value >> 16; left != 0; --left) {
            end.connect(static_cast<std::uint16_t>(request.value));
        }
        break;
    case message::datagrams:
        set_up_far_cable();
        end.open_datagrams(make_path(1));
        break;
    case message::ticks:
        end.set_ticking(request.value);
        break;
    case message::measure:
        answer.usage = measure_usage(end.ticking_thread());
        break;
    default:
        end.rest();
        link.send(answer);
        return false;
    }
    link.send(answer);
    return true;
}

void run_far_end(run_plan const& plan, shared_state& shared, channel& link) {
    if (plan.datagrams) {
        enter_network();
    }
    bind_to_cores(plan.cores, true);
    far_user user(plan, shared.arrivals);
    std::unique_ptr<contender> const end = find_contender(plan.contender).make(plan, user);
    user.end = end.get();
    link.send({});
    std::uint64_t handled = 0;
    while (obey(link.receive(c_patience), *end, link)) {
        ++handled;
        end->serve_until([&] { return shared.requests.load(std::memory_order_acquire) != handled; });
    }
    // The connections stay until the near end is at rest too; then this process is ended.
    for (;;) {
        ::pause();
    }
}

} // namespace

namespace {

shared_state& prepare(run_plan const& plan) {
    if (plan.datagrams) {
        enter_network();
    }
    return shared_state::make();
}

} // namespace

stage::stage(run_plan const& plan, packet_user& user)
    : shared(prepare(plan)), far([&](channel& link) { run_far_end(plan, shared, link); }) {
    far.link().receive(c_patience); // it is in its network by now
    bind_to_cores(plan.cores, false);
    near_end = find_contender(plan.contender).make(plan, user);
}

stage::~stage() {
    try {
        ask(message::stop, 0);
        near_end->rest();
    } catch (failure const&) {
        // Both are ended all the same.
    }
    // The far end closes its connections first: ports of the near end would stay taken for a minute otherwise, and
    // opening the next connections takes the longer the fewer ports are free.
    far.finish();
    near_end.reset();
}

void stage::request(message::what kind, std::uint64_t value) {
    message what;
    what.kind = kind;
    what.value = value;
    // Counted first: whoever sees the count waits for the message, and nobody takes a message that was not counted.
    shared.requests.fetch_add(1, std::memory_order_release);
    far.link().send(what);
}

message stage::ask(message::what kind, std::uint64_t value, double seconds) {
    request(kind, value);
    return far.link().receive(seconds);
}

std::uint16_t stage::have_far_listen() {
    return static_cast<std::uint16_t>(ask(message::serve, 0).value);
}

void stage::connect(std::uint16_t port, unsigned int connections) {
    for (unsigned int i = 0; i < connections; ++i) {
        near_end->connect(port);
    }
}

void stage::have_far_connect(unsigned int connections) {
    std::uint16_t const port = near_end->listen();
    request(message::connect, std::uint64_t{connections} << 16 | port);
    std::uint64_t const deadline = now_nanoseconds() + static_cast<std::uint64_t>(c_patience * 1e9);
    near_end->serve_until([&] { return near_end->accepted() >= connections || now_nanoseconds() > deadline; });
    far.link().receive(c_patience);
}

void stage::open_datagrams() {
    lay_cable(far.id());
    near_end->open_datagrams(make_path(0));
    ask(message::datagrams, 0);
}

void stage::set_ticking(std::uint64_t from) {
    ask(message::ticks, from);
    near_end->set_ticking(from);
}

std::uint64_t interval::begin() {
    near_used = -processor_seconds(::getpid());
    far_used = -processor_seconds(far);
    began = now_nanoseconds();
    return began;
}

void interval::finish() {
    ended = now_nanoseconds();
    near_used += processor_seconds(::getpid());
    far_used += processor_seconds(far);
}

void interval::write(figures& to, std::uint64_t packets) const {
    auto const count = static_cast<double>(packets);
    to["packets"] = packets;
    to["seconds"] = seconds();
    to["rate"] = count / seconds();
    to["ns_per_packet"] = seconds() * 1e9 / count;
    to["cpu_near_seconds"] = near_used;
    to["cpu_far_seconds"] = far_used;
}

} // namespace relay_bench
