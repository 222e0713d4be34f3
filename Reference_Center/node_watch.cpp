#include "Reference_Center/node_watch.hpp"

#include "Reference_Center/socket_facts.hpp"

#include <algorithm>
#include <poll.h>
#include <sys/socket.h>
#include <utility>

namespace Zolt::Reference_Center {
namespace {

using std::chrono::steady_clock;

/// How long the relay is left to itself after connections began to wait, or a knock: at first, and when they wait on.
constexpr std::chrono::microseconds c_shortest_pause{200};
constexpr std::chrono::microseconds c_longest_pause{100'000};

::timespec to_timespec(std::chrono::nanoseconds time) {
    auto const seconds = std::chrono::floor<std::chrono::seconds>(time);
    return {static_cast<time_t>(seconds.count()), static_cast<long>((time - seconds).count())};
}

} // namespace

node_watch::node_watch(std::vector<listening_socket> watched, std::chrono::milliseconds each,
                       std::function<void()> does)
    : sockets(std::move(watched)), knocks(sockets.size()), period(each), job(std::move(does)),
      thread([this] { run(); }) {}

node_watch::~node_watch() {
    stop();
}

void node_watch::stop() {
    if (!stopped.exchange(true)) {
        end.signal();
        thread.join();
    }
}

void node_watch::run() {
    auto next = steady_clock::now() + period;
    std::chrono::microseconds pause = c_shortest_pause;
    std::uint64_t waited = 0;
    for (;;) {
        auto const now = steady_clock::now();
        if (now >= next) {
            job();
            next = std::max(next + period, now);
        }
        if (sleep(std::max(next - steady_clock::now(), duration::zero()), true) || sleep(pause, false)) {
            return;
        }
        std::uint64_t const waits = knock();
        pause = waits == 0 || waits < waited ? c_shortest_pause : std::min(2 * pause, c_longest_pause);
        waited = waits;
    }
}

bool node_watch::sleep(duration longest, bool looks_at_sockets) {
    std::vector<::pollfd> waited{{end.number(), POLLIN, 0}};
    if (looks_at_sockets) {
        for (listening_socket const& socket : sockets) {
            waited.push_back({socket.descriptor, POLLIN, 0});
        }
    }
    ::timespec const time = to_timespec(longest);
    ::ppoll(waited.data(), waited.size(), &time, nullptr);
    return waited.front().revents != 0;
}

std::uint64_t node_watch::knock() {
    std::uint64_t waiting = 0;
    for (std::size_t i = 0; i < sockets.size(); ++i) {
        auto const info = read_tcp_info(sockets[i].descriptor);
        if (info && info->tcpi_unacked != 0) {
            waiting += info->tcpi_unacked;
            ::shutdown(sockets[i].descriptor, SHUT_WR);
            knocks[i].fetch_add(1, std::memory_order_relaxed);
        }
    }
    return waiting;
}

std::vector<listener_report> node_watch::look() const {
    std::vector<listener_report> reports;
    for (std::size_t i = 0; i < sockets.size(); ++i) {
        listener_report& report = reports.emplace_back();
        report.port = sockets[i].port;
        report.knocks = knocks[i].load(std::memory_order_relaxed);
        auto const info = stopped.load() ? std::nullopt : read_tcp_info(sockets[i].descriptor);
        report.backlog = info ? info->tcpi_unacked : 0;
        report.backlog_limit = info ? info->tcpi_sacked : 0;
    }
    return reports;
}

} // namespace Zolt::Reference_Center
