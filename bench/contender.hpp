// What is measured: one end of a contender's connections, in a process of its own.
//
// All packets of a run have the same size. Unless it says otherwise an operation belongs to the thread that made the end;
// what goes wrong is thrown as a failure.
#ifndef BENCH_CONTENDER_HPP
#define BENCH_CONTENDER_HPP

#include "bench/plan.hpp"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace relay_bench {

/// Names a peer as the contender knows it, for an answer.
using origin = std::uint64_t;

/// Told of what arrives; on the thread that delivers_on() names, one packet at a time.
class packet_user {
public:
    virtual ~packet_user() = default;
    virtual void on_packet(origin from) = 0;
};

/// Where datagrams go from and to; the same port at both ends. IPv4 in network byte order.
struct datagram_path {
    std::uint32_t local_ip;
    std::uint32_t remote_ip;
    std::uint16_t port;
};

class contender {
public:
    virtual ~contender() = default;

    /// Serves a port from now on, at every address of the loopback; the port.
    virtual std::uint16_t listen() = 0;
    /// Opens one more connection, to an address of the loopback of its own, and returns when it is established.
    virtual void connect(std::uint16_t port) = 0;
    /// How many peers have connected to this end so far.
    virtual unsigned int accepted() = 0;
    /// Sends and takes datagrams from now on, as connection 0.
    virtual void open_datagrams(datagram_path const&) { throw unsupported("has no datagrams"); }

    /// Sends one packet over a connection that this end opened; waits while the connection's window is full.
    /// Thread: the one that made the end, or the one that delivers.
    virtual void send(unsigned int connection) = 0;
    /// Sends one packet to where one came from. Thread: the one that delivers.
    virtual void answer(origin to) = 0;
    /// Sends one packet to each peer that connected to this end.
    virtual void broadcast() = 0;

    /// Has packets given to the user until done() is true, which is asked at least every c_look_around.
    virtual void serve_until(std::function<bool()> const& done) = 0;
    virtual char const* delivers_on() const = 0;
    /// Does at once, and then once a period from that moment on, what a relay does for connections at rest; 0: no longer.
    /// Whoever does that anyway does nothing here. All connections are open, and nothing is sent in between.
    virtual void set_ticking(std::uint64_t) {}
    /// The thread that works at regular times; 0: there is none. The kernel's number.
    virtual int ticking_thread() const { return 0; }
    /// Ends what runs in the background; connections stay open until the end is destroyed.
    virtual void rest() {}
};

inline constexpr int c_look_around = 20;     // milliseconds
inline constexpr double c_tick_period = 1.0; // seconds

struct contender_row {
    std::string name;
    answering answer; ///< unless the command line says otherwise
    /// Null: not built.
    std::unique_ptr<contender> (*make)(run_plan const& plan, packet_user& user);
};

std::vector<contender_row> const& contenders();
/// The row of that name. Throws unsupported when there is none that was built.
contender_row const& find_contender(std::string const& name);

std::unique_ptr<contender> make_raw(run_plan const& plan, packet_user& user);
std::unique_ptr<contender> make_skeleton(run_plan const& plan, packet_user& user);
std::unique_ptr<contender> make_relay(run_plan const& plan, packet_user& user);
std::unique_ptr<contender> make_zmq(run_plan const& plan, packet_user& user);
std::unique_ptr<contender> make_nng(run_plan const& plan, packet_user& user);

} // namespace relay_bench

#endif
