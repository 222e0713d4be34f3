#include "bench/subjects/subjects.hpp"

namespace relay_bench {

std::vector<subject_row> const& subjects() {
    static std::vector<subject_row> const c_rows{
        {"roundtrip", "one packet under way, answered by the far end", run_roundtrip},
        {"oneway", "packets as fast as they may be sent", run_oneway},
        {"fanout", "one packet to every peer, again and again", run_fanout},
        {"setup", "connections, one after the other", run_setup},
        {"memory", "bytes of a connection at rest, and what traffic leaves behind", run_memory},
        {"idle", "many connections at rest", run_idle},
        {"udp", "datagrams between two networks", run_udp},
    };
    return c_rows;
}

} // namespace relay_bench
