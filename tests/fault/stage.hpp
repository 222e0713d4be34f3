// A whole relay on the test's own thread: real sockets and real epoll instances, the five event threads' entries run in
// turn over what the kernel reports, the timer and the clock in the test's hand, peers made of plain sockets.
#ifndef TESTS_FAULT_STAGE_HPP
#define TESTS_FAULT_STAGE_HPP

#include "tests/support/loopback.hpp"
#include "tests/support/relay_fixture.hpp"

#include <deque>
#include <functional>
#include <string>
#include <vector>

namespace relay_test {

using tcp_record = EPoll::struct_epoll_overlapped_tcp;

inline constexpr std::size_t c_block_size = 1024;
inline constexpr unsigned long c_past_time_out = 8001; ///< lemon_clock ticks

/// The registries of established connections.
inline EPoll::connection_map& accepted() {
    return EPoll::g_establish_server_map;
}
inline EPoll::connection_map& outgoing() {
    return EPoll::g_establish_client_map;
}

/// A dotted address in network order.
std::uint32_t address_of(char const* dotted);

/// The far end of a connection.
struct peer {
    descriptor listener{}; ///< of a peer that the relay connects to, until it is closed
    descriptor socket{};
    Zolt::struct_node_addr address{}; ///< under which the relay knows it
    bytes heard{};                    ///< what it has read so far, the block included

    /// Writes without waiting; what finds no room, or nobody, is lost.
    void put(bytes const& data) const;
    /// Reads what has come. The count of bytes heard so far.
    std::size_t hear();
    /// Takes the relay's connection when there is one.
    bool take_connection();
    /// Lets the relay read the end of the stream.
    void hang_up() const;
};

/// One of the five event threads.
struct event_loop {
    std::string name;
    int* instance;
    void* (*entry)(Tesk::OS::class_thread*);
    bool ended = false; ///< by a line of its own, for good
    bool held = false;  ///< by the test, for a while
};

class stage : public relay_fixture {
public:
    stage();
    void SetUp() override;
    void TearDown() override;
    using relay_fixture::engine;
    using relay_fixture::system;

    // --- the relay

    void initialize_and_start();
    /// With one server port, TCP and UDP.
    void open();
    void open_port();
    /// What is left of: peers reset, stop, finalize, registries cleared. Faults have to be gone.
    void shut();
    /// Runs an operation that the relay's host calls. False when it threw: std::bad_alloc, or a text (initialize).
    bool call(std::function<void()> const& operation);
    /// Everything that the relay does passes here.
    virtual void run_relay(std::function<void()> const& part) { part(); }
    void tick_timer();
    /// Lets a connection's time-out pass, then ticks.
    void let_time_pass();

    // --- the event threads

    /// Serves what the kernel reports, round after round, until there is nothing more.
    void serve();
    /// The same until it is so, also waiting for the kernel for as long.
    bool serve_until(std::function<bool()> const& is_so, int milliseconds);
    std::vector<std::string> ended_loops() const;
    /// The two send threads do not get to run.
    void hold_senders(bool held);
    /// Waits until some instance has something to report; false after that many milliseconds.
    bool wait_for_events(int milliseconds);

    // --- peers

    peer& knock(std::uint16_t at);
    peer& knock() { return knock(port); }
    peer& listening();
    /// Set up as far as the name says, served. The relay must be able to.
    peer& accepted_peer();
    peer& connecting_peer();
    peer& established_accepted();
    peer& established_outgoing();
    static bytes block() { return bytes(c_block_size, 0); }
    static bool is_established(EPoll::connection_map const& registry, peer const& which);
    void throw_datagram(std::uint16_t at, bytes const& datagram);
    /// Hands a packet over; frees it when it was not taken. The operation's result, or c_out_of_memory.
    int hand_over(EPoll::connection_map const& registry, peer const& to, packet_fields fields);
    static constexpr int c_out_of_memory = -2;
    int hand_over_udp(std::uint16_t at, packet_fields fields);

    // --- what was seen

    /// Error lines so far, and what the Center was told, in the words of words_of_error and words_of_offer.
    std::vector<std::string> error_words();
    std::vector<error_line> errors;
    std::vector<std::string> center;
    std::vector<std::uint32_t> sequences; ///< of what the Center was told

    std::deque<peer> peers;
    std::uint16_t port = 0;
    bool is_initialized = false; ///< finalize is due
    bool is_started = false;     ///< stop is due

private:
    void finalize();
    bool serve_loop(event_loop& loop);
    void collect_errors();

    descriptor wake_up; ///< never connected: writable and hung up at once
    descriptor udp_sender;
    std::vector<event_loop> loops;
};

/// "recv_client_failed", or for joined texts "tcp_recv_ended_by:recv_client_init_ended:ENOMEM", "connect_failed:EACCES".
/// A line that the ledger of texts does not explain shows as "unknown: ...".
std::string words_of_error(error_line const& line);
/// "connected_from_client", "packet", "returned:not_connected", ...
std::string words_of_offer(packet_fields const& packet);
std::string joined(std::vector<std::string> const& words, char const* between = " ");

} // namespace relay_test

#endif
