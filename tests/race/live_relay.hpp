// A whole relay at work inside the test: real threads, real sockets, the clock and the timer in the test's hand, and
// peers made of plain sockets.
#ifndef TESTS_RACE_LIVE_RELAY_HPP
#define TESTS_RACE_LIVE_RELAY_HPP

#include "tests/support/loopback.hpp"
#include "tests/support/relay_fixture.hpp"

#include <atomic>
#include <chrono>
#include <functional>

namespace relay_test {

using tcp_record = EPoll::struct_epoll_overlapped_tcp;

inline constexpr std::size_t c_init_block = 1024;
inline constexpr unsigned long c_past_time_out = 8001; ///< lemon_clock ticks

enum class side { accepted, outgoing };

/// True as soon as the condition holds; false when it does not within half a minute.
bool eventually(std::function<bool()> const& holds);

/// What the Center has heard since the last reset.
struct heard {
    std::atomic<int> connected{0};
    std::atomic<int> disconnected{0};
    std::atomic<int> unsent{0};     ///< packets that came back because there was no connection
    std::atomic<int> unanswered{0}; ///< calls that came back because their connection ended
    std::atomic<int> delivered{0};  ///< packets of the peer

    void forget();
    int note(packet_fields const& packet);
};

/// One connection between the relay and a peer in the test's hand.
struct connection {
    side which = side::accepted;
    descriptor listener{}; ///< outgoing: the peer's, until it is closed
    descriptor peer{};
    Zolt::struct_node_addr address{}; ///< under which the relay knows the peer
};

class live_relay : public relay_fixture {
protected:
    void SetUp() override;
    void TearDown() override;
    /// False for a stress test: nothing is written down, so that the relay's own ordering is all there is.
    virtual bool is_recorded() const { return true; }

    /// A peer whose receive buffer is small; the exchange is begun and not ended.
    connection begin(side which);
    /// The rest of the exchange; true when the relay counts the connection among the established ones.
    bool finish(connection& made);
    /// Runs with the record of an established connection under its registry's lock; false when there is none.
    bool with_record(connection const& made, std::function<void(tcp_record*)> const& look);
    /// The same for one whose exchange is not finished.
    bool with_exchanging(connection const& made, std::function<void(tcp_record*)> const& look);
    bool hand_over(connection const& made, packet_fields fields);
    /// Moves the clock past the time-out and runs the timer's jobs.
    void let_time_pass();
    /// No record is left in any registry or list, no part in the ledger beyond those of the heartbeat.
    bool is_gone();

    std::uint16_t port = 0;
    heard center{};

private:
    ledger_counts resting{};
    long resting_locks = 0;
};

} // namespace relay_test

#endif
