#include "bench/contender.hpp"

#include <algorithm>

namespace relay_bench {

std::vector<contender_row> const& contenders() {
    static std::vector<contender_row> const c_rows{
        {"raw", answering::receive, make_raw},    {"skeleton", answering::receive, make_skeleton},
        {"relay", answering::center, make_relay},
#ifdef BENCH_WITH_ZMQ
        {"zmq", answering::center, make_zmq},
#else
        {"zmq", answering::center, nullptr},
#endif
#ifdef BENCH_WITH_NNG
        {"nng", answering::center, make_nng},
#else
        {"nng", answering::center, nullptr},
#endif
    };
    return c_rows;
}

contender_row const& find_contender(std::string const& name) {
    auto const row =
        std::ranges::find_if(contenders(), [&](contender_row const& candidate) { return candidate.name == name; });
    if (row == contenders().end()) {
        throw failure("there is no contender " + name);
    }
    if (row->make == nullptr) {
        throw unsupported("was not built");
    }
    return *row;
}

} // namespace relay_bench
