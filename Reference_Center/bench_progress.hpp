// One line on a terminal that says how far a load is; nothing anywhere else.
#ifndef REFERENCE_CENTER_BENCH_PROGRESS_HPP
#define REFERENCE_CENTER_BENCH_PROGRESS_HPP

#include "Reference_Center/bench_flights.hpp"

#include <cstdint>
#include <string>

namespace Zolt::Reference_Center {

class bench_progress {
public:
    /// Begins and ends: when the measuring does.
    bench_progress(bool wanted, bench_time begins, bench_time ends);
    ~bench_progress();
    bench_progress(bench_progress const&) = delete;
    bench_progress& operator=(bench_progress const&) = delete;

    /// One more packet was answered.
    void count() { ++answered; }
    void show(bench_time now);

private:
    std::string text_at(bench_time now) const;

    bool const is_shown;
    bench_time const begin;
    bench_time const end;
    std::uint64_t answered = 0;
    bool is_drawn = false;
};

} // namespace Zolt::Reference_Center

#endif
