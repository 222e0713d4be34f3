// What one run of the bench is to do: the command line, and what follows from it.
#ifndef BENCH_PLAN_HPP
#define BENCH_PLAN_HPP

#include "Reference_Host/packet_layout.hpp"

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace relay_bench {

inline constexpr std::uint32_t c_header_size = Zolt::Reference_Host::c_header_size;

/// Something went wrong: the run has no figures.
struct failure : std::runtime_error {
    using runtime_error::runtime_error;
};

/// Not to be had here; no fault of what is measured.
struct unsupported : failure {
    using failure::failure;
};

/// Which processors the two ends may use.
enum class placement { one, two, free };

/// The thread that takes what arrives and answers: the one that received it, or one that it was handed to.
enum class answering { receive, center };

/// How packets flow; libzmq and nng have a kind of socket for each.
enum class pattern { pair, stream, fan };

struct run_plan {
    std::string contender;
    std::string subject;
    std::uint32_t size = 64; ///< bytes of data in a packet
    unsigned int connections = 1;
    double seconds = 1.0;
    std::uint64_t count = 0; ///< packets to measure; 0: as many as fit into the seconds
    double warm_up = 0.2;    ///< seconds
    placement cores = placement::free;
    answering answer = answering::receive;
    pattern flow = pattern::pair;
    bool echo = false;      ///< the far end answers each packet
    bool tells = false;     ///< the far end wakes the near one when all that it waits for has arrived
    bool datagrams = false; ///< each end has a network of its own
};

/// Packets that a sender may have queued on one connection.
inline std::uint32_t window_of(run_plan const& plan) {
    constexpr std::uint64_t c_most_packets = 16384;
    constexpr std::uint64_t c_most_bytes = 32U << 20;
    std::uint64_t const packets = std::min(c_most_packets, c_most_bytes / (c_header_size + plan.size));
    return static_cast<std::uint32_t>(std::clamp<std::uint64_t>(packets / plan.connections, 2, 1024));
}

} // namespace relay_bench

#endif
