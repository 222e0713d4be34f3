// This end of a load: the Center, the connections to the peers, and what passes over them.
#ifndef REFERENCE_CENTER_BENCH_SESSION_HPP
#define REFERENCE_CENTER_BENCH_SESSION_HPP

#include "Reference_Center/bench_far_center.hpp"
#include "Reference_Center/bench_plan.hpp"
#include "Reference_Center/bench_progress.hpp"
#include "Reference_Center/center.hpp"

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Zolt::Reference_Center {

/// A load looks at the clock and at its peers at least that often.
inline constexpr std::chrono::nanoseconds c_longest_serve{20'000'000};

/// Told of what comes back, in the Center's thread. Numbers: as they were given to send.
class bench_load {
public:
    virtual ~bench_load() = default;
    virtual void on_answer(std::size_t from, std::uint64_t number) = 0;
    /// A packet that came back as an error.
    virtual void on_returned(std::size_t from, std::uint64_t number) = 0;
};

class bench_session final : public center_user {
public:
    /// Throws failure.
    bench_session(bench_plan const& plan, center_plan const& node_plan, stop_signals const& signals);

    /// The Center of its own, once there is one; it is looked after from then on.
    void use_far(far_center& own) { far = &own; }
    void use(bench_load& wanted, bench_progress& shown);

    /// Opens the connections, or waits for them, until all stand. Throws failure.
    void connect(std::chrono::milliseconds longest);
    /// False when a signal came, or a connection ended: the load ends then.
    bool may_go_on() const { return !signals.is_requested() && trouble.empty(); }
    bool is_interrupted() const { return signals.is_requested(); }
    std::string const& why_ended() const { return trouble; }
    std::string name_of(std::size_t number) const;
    bool has_ended(std::size_t number) const { return peers[number].has_ended; }

    /// False when there is no connection.
    bool send(std::size_t to, std::uint64_t number, Reference_Host::packet_kind kind, std::uint16_t flags);
    void broadcast(std::uint64_t number);
    /// Gives the load what arrives, for at most that long; then looks after the rest when it is time by that clock.
    void serve(bench_time now, std::chrono::nanoseconds longest);
    /// Packets that the relay took.
    std::uint64_t count_handed_over() const { return handed_over; }
    /// What comes from now on is nobody's.
    void rest() { load = nullptr, progress = nullptr; }
    void stop();

    void on_connected(peer const& who) override;
    void on_disconnected(peer const& who) override;
    void on_packet(arrival const& packet) override;
    void on_returned(struct_packet const& header) override;

private:
    struct bench_peer {
        peer who;
        bool is_connected = false;
        bool has_ended = false;
    };

    bench_peer* find(peer const& who);
    struct_token make(struct_node_addr to, std::size_t code, std::uint64_t number, Reference_Host::packet_kind kind,
                      std::uint16_t flags) const;
    std::size_t index_of(struct_packet const& header, struct_node_addr from) const;
    void look_after(bench_time now);
    void note_end(bench_peer& one);

    bench_plan const& plan;
    stop_signals const& signals;
    std::vector<bench_peer> peers;
    std::map<peer, std::size_t> numbers;
    std::size_t connected = 0;
    std::uint64_t handed_over = 0;
    std::string trouble;
    bench_load* load = nullptr;
    bench_progress* progress = nullptr;
    far_center* far = nullptr;
    bench_time look_due = 0;
    center node; ///< last: it calls the rest from its first moment on
};

} // namespace Zolt::Reference_Center

#endif
