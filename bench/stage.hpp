// A run on its two processes: the far end does what the near end asks for, the near end measures.
#ifndef BENCH_STAGE_HPP
#define BENCH_STAGE_HPP

#include "bench/contender.hpp"
#include "bench/plan.hpp"
#include "bench/support/figures.hpp"
#include "bench/support/processes.hpp"

#include <cstdint>
#include <memory>

namespace relay_bench {

inline constexpr double c_patience = 60.0; ///< seconds for whatever takes no time to speak of

class stage {
public:
    /// Starts the far end. The user gets what arrives at the near end.
    stage(run_plan const& plan, packet_user& user);
    ~stage();
    stage(stage const&) = delete;
    stage& operator=(stage const&) = delete;

    contender& end() { return *near_end; }
    arrival_counter& arrivals() { return shared.arrivals; }
    pid_t far_id() const { return far.id(); }

    /// The far end serves a port from now on; the port.
    std::uint16_t have_far_listen();
    /// So many connections from the near end to the far one.
    void connect(std::uint16_t port, unsigned int connections);
    /// So many connections from the far end to the near one.
    void have_far_connect(unsigned int connections);
    /// Both ends send and take datagrams from now on; each in the network that enter_networks gave it.
    void open_datagrams();

    /// Both ends tick from that moment on, as a relay's two ends do that were started together; see contender::set_ticking.
    void set_ticking(std::uint64_t from);

    process_usage measure_near() const { return measure_usage(near_end->ticking_thread()); }
    process_usage measure_far() { return ask(message::measure, 0).usage; }

private:
    void request(message::what kind, std::uint64_t value);
    message ask(message::what kind, std::uint64_t value, double seconds = c_patience);

    shared_state& shared;
    far_process far;
    std::unique_ptr<contender> near_end;
};

/// Time and processor time of what is measured.
class interval {
public:
    explicit interval(pid_t other) : far(other) {}
    /// Both may be called on any thread; the moment that counts as the beginning, or the end.
    std::uint64_t begin();
    void finish();
    double seconds() const { return static_cast<double>(ended - began) * 1e-9; }
    /// Writes the figures that every subject has.
    void write(figures& to, std::uint64_t packets) const;

private:
    pid_t const far;
    std::uint64_t began = 0;
    std::uint64_t ended = 0;
    double near_used = 0;
    double far_used = 0;
};

} // namespace relay_bench

#endif
