#include "Reference_Center/latency_windows.hpp"

#include <algorithm>
#include <bit>
#include <cmath>
#include <numeric>

namespace Zolt::Reference_Center {

std::size_t latency_windows::step_of(std::uint64_t microseconds) {
    std::uint64_t const time = std::min(microseconds, (std::uint64_t{1} << c_largest_power) - 1);
    auto const bits = static_cast<unsigned int>(std::bit_width(time));
    // The shortest times have a step each; above them the leading bits of a time are its step.
    unsigned int const shift = bits > c_step_bits + 1 ? bits - c_step_bits - 1 : 0;
    return (std::size_t{shift} << c_step_bits) + (time >> shift);
}

double latency_windows::middle_of(std::size_t step) {
    constexpr std::size_t c_steps_of_a_power = std::size_t{1} << c_step_bits;
    std::size_t const shift = step < 2 * c_steps_of_a_power ? 0 : step / c_steps_of_a_power - 1;
    std::size_t const leading = step - shift * c_steps_of_a_power;
    double const width = std::ldexp(1.0, static_cast<int>(shift));
    return static_cast<double>(leading) * width + (width - 1) / 2;
}

void latency_windows::add(std::uint64_t microseconds) {
    window& here = windows[current.load(std::memory_order_relaxed)];
    here.counts[step_of(microseconds)].fetch_add(1, std::memory_order_relaxed);
    std::uint64_t longest = here.max.load(std::memory_order_relaxed);
    while (microseconds > longest &&
           !here.max.compare_exchange_weak(longest, microseconds, std::memory_order_relaxed)) {
    }
}

void latency_windows::turn() {
    unsigned int const next = 1 - current.load(std::memory_order_relaxed);
    for (auto& count : windows[next].counts) {
        count.store(0, std::memory_order_relaxed);
    }
    windows[next].max.store(0, std::memory_order_relaxed);
    current.store(next, std::memory_order_relaxed);
}

latency_summary latency_windows::summarize() const {
    std::array<std::uint64_t, c_steps> counts{};
    latency_summary summary;
    std::uint64_t longest = 0;
    for (window const& one : windows) {
        std::transform(
            counts.begin(), counts.end(), one.counts.begin(), counts.begin(),
            [](std::uint64_t sum, auto const& count) { return sum + count.load(std::memory_order_relaxed); });
        longest = std::max(longest, one.max.load(std::memory_order_relaxed));
    }
    summary.count = std::accumulate(counts.begin(), counts.end(), std::uint64_t{0});
    summary.max = static_cast<double>(longest);
    auto const find = [&](std::uint64_t percent) {
        std::uint64_t const rank = std::max<std::uint64_t>((summary.count * percent + 99) / 100, 1);
        std::uint64_t seen = 0;
        std::size_t step = 0;
        while (step + 1 < c_steps && (seen += counts[step]) < rank) {
            ++step;
        }
        return std::min(middle_of(step), summary.max);
    };
    if (summary.count != 0) {
        summary.p50 = find(50);
        summary.p90 = find(90);
        summary.p99 = find(99);
    }
    return summary;
}

} // namespace Zolt::Reference_Center
