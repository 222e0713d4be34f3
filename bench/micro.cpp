// inet_relay_micro: single costs inside the relay and the reference host, by Google Benchmark.
#include "bench/plan.hpp"
#include "bench/support/clock.hpp"
#include "bench/support/sockets.hpp"
#include "bench/support/stubbed_kernel.hpp"

#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"
#include "Host/tesk_os.hpp"
#include "Host/zolt_global.hpp"
#include "Reference_Host/inbox.hpp"
#include "Reference_Host/packet_building.hpp"
#include "Reference_Host/packet_reading.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <deque>
#include <span>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include <sys/socket.h>
#include <unistd.h>

namespace relay_bench {
namespace {

namespace host = Zolt::Reference_Host;
namespace relay = Zolt::Center::INet_Relay;
using Zolt::struct_node_addr;
using Zolt::struct_token;

constexpr std::uint32_t c_size = 64;
constexpr unsigned int c_batch = 256; ///< packets between two stops of the clock

// --- peers -----------------------------------------------------------------------------------------------------

/// Answers the relay's exchange on every connection, and is silent from then on.
class silent_peers {
public:
    silent_peers() : listener(listen_anywhere()), port(local_port(listener)), taker([this] { serve(); }) {}
    ~silent_peers() {
        ::shutdown(listener, SHUT_RDWR);
        taker.join();
        for (int const fd : taken) {
            ::close(fd);
        }
        ::close(listener);
    }
    silent_peers(silent_peers const&) = delete;
    silent_peers& operator=(silent_peers const&) = delete;

    std::uint16_t get_port() const { return port; }

private:
    void serve() {
        for (int fd = ::accept(listener, nullptr, nullptr); fd != -1; fd = ::accept(listener, nullptr, nullptr)) {
            taken.push_back(fd);
            std::array<unsigned char, sizeof(Zolt::struct_tcp_header)> block;
            std::size_t got = 0;
            while (got < block.size()) {
                ssize_t const count = ::recv(fd, block.data() + got, block.size() - got, MSG_WAITALL);
                must(count > 0, "recv");
                got += static_cast<std::size_t>(count);
            }
            must(::send(fd, block.data(), block.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(block.size()), "send");
        }
    }

    int const listener;
    std::uint16_t const port;
    std::vector<int> taken;
    std::thread taker;
};

/// The relay of this process, without threads, and its connections.
class idle_relay {
public:
    idle_relay() {
        relay::initialize();
        relay::start();
    }
    ~idle_relay() {
        relay::finalize();
        relay::clear_leftovers();
        take_all();
    }
    idle_relay(idle_relay const&) = delete;
    idle_relay& operator=(idle_relay const&) = delete;

    /// Connections until there are that many.
    void connect(std::size_t wanted) {
        while (count < wanted) {
            struct_node_addr const peer = address(count++);
            relay::add_client(peer.ip, peer.port);
            wait_for_notice();
        }
    }

    struct_node_addr address(std::size_t number) const {
        return {loopback_address(static_cast<unsigned int>(number)), peers.get_port()};
    }

    /// Frees what waits for the Center; how many those were.
    static std::size_t take_all() {
        std::array<struct_token, c_batch> tokens;
        std::size_t const taken = host::get_center_inbox().take(tokens, std::chrono::milliseconds(0));
        for (struct_token& token : std::span(tokens).first(taken)) {
            token.free();
        }
        return taken;
    }

private:
    static void wait_for_notice() {
        constexpr std::uint64_t c_patience_ns = 10'000'000'000;
        std::uint64_t const deadline = now_nanoseconds() + c_patience_ns;
        while (take_all() == 0) {
            stubbed::run(stubbed::entry::tcp_init);
            stubbed::run(stubbed::entry::tcp_send);
            stubbed::run(stubbed::entry::tcp_recv);
            if (now_nanoseconds() > deadline) {
                throw failure("a connection is not established in time");
            }
        }
    }

    silent_peers peers;
    std::size_t count = 0;
};

idle_relay& the_relay() {
    static idle_relay one;
    one.connect(1);
    return one;
}

struct_token make(struct_node_addr const& to) {
    host::packet_plan plan;
    plan.destination = {to.ip, to.port, 0};
    return host::make_packet(plan, c_size);
}

// --- the host's operations -------------------------------------------------------------------------------------

void token(benchmark::State& state) {
    for (auto _ : state) {
        struct_token packet = make({});
        std::ranges::fill(host::get_data_span(packet), static_cast<unsigned char>(0xA5));
        benchmark::DoNotOptimize(packet.get_data());
        packet.free();
    }
}
BENCHMARK(token);

void trace_off(benchmark::State& state) {
    struct_token const none;
    for (auto _ : state) {
        benchmark::DoNotOptimize(Zolt::Common::Global::zolt_debug_not_send('E', none, "Center/x", 1, "%d of %d", 1, 2));
    }
}
BENCHMARK(trace_off);

void lock(benchmark::State& state) {
    Tesk::OS::class_thread_lock one(0);
    for (auto _ : state) {
        Tesk::OS::class_locker const guard(one, nullptr);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(lock);

void queue(benchmark::State& state) {
    std::deque<struct_token> packets;
    for (auto _ : state) {
        packets.push_back({});
        benchmark::DoNotOptimize(packets.front());
        packets.pop_front();
    }
}
BENCHMARK(queue);

void inbox(benchmark::State& state) {
    host::get_center_inbox().resume();
    for (auto _ : state) {
        struct_token packet = make({});
        host::get_center_inbox().offer(packet);
        benchmark::DoNotOptimize(idle_relay::take_all());
    }
}
BENCHMARK(inbox);

// --- the relay's paths, the kernel's part left out -------------------------------------------------------------

/// From the Center's call to the end of the last write: both the calling thread's part and the send thread's.
void send_path(benchmark::State& state) {
    struct_node_addr const peer = the_relay().address(0);
    std::array<struct_token, c_batch> packets;
    while (state.KeepRunningBatch(c_batch)) {
        state.PauseTiming();
        for (struct_token& packet : packets) {
            packet = make(peer);
        }
        stubbed::leave_kernel();
        state.ResumeTiming();
        for (struct_token& packet : packets) {
            relay::send_tcp_client(peer, packet, packet.get_header_packet());
        }
        std::uint64_t const writes = stubbed::run_writes();
        state.PauseTiming();
        stubbed::return_to_kernel();
        if (writes != 2 * c_batch) {
            state.SkipWithError("packets were not written");
        }
        state.ResumeTiming();
    }
}
BENCHMARK(send_path);

/// From the event to the Center's inbox: the receive thread's part.
void receive_path(benchmark::State& state) {
    the_relay();
    while (state.KeepRunningBatch(c_batch)) {
        state.PauseTiming();
        stubbed::leave_kernel();
        state.ResumeTiming();
        stubbed::run_reads(c_batch, c_size);
        state.PauseTiming();
        stubbed::return_to_kernel();
        if (idle_relay::take_all() != c_batch) {
            state.SkipWithError("packets were lost");
        }
        state.ResumeTiming();
    }
}
BENCHMARK(receive_path);

/// The look-up of a peer among so many, under the registry's lock.
void registry(benchmark::State& state) {
    auto const size = static_cast<std::size_t>(state.range(0));
    the_relay().connect(size);
    std::size_t number = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(relay::get_gate_port_of_local(the_relay().address(number)));
        number = number + 1 == size ? 0 : number + 1;
    }
}
BENCHMARK(registry)->Arg(1)->Arg(1000)->Arg(8000);

} // namespace
} // namespace relay_bench

int main(int count, char** arguments) {
    relay_bench::allow_many_descriptors();
    // Before anything is measured: locks cost less while a process has one thread.
    relay_bench::the_relay();
    benchmark::Initialize(&count, arguments);
    if (benchmark::ReportUnrecognizedArguments(count, arguments)) {
        return 2;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
