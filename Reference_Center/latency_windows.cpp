#include "Reference_Center/latency_windows.hpp"

#include <algorithm>
#include <numeric>

namespace Zolt::Reference_Center {

void latency_windows::add(std::uint64_t microseconds) {
    window& here = windows[current.load(std::memory_order_relaxed)];
    here.counts[buckets::bucket_of(microseconds)].fetch_add(1, std::memory_order_relaxed);
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
    buckets::counts counts{};
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
    auto const find = [&](double share) {
        return static_cast<double>(std::min(buckets::value_at(counts, summary.count, share), longest));
    };
    if (summary.count != 0) {
        summary.p50 = find(0.5);
        summary.p90 = find(0.9);
        summary.p99 = find(0.99);
    }
    return summary;
}

} // namespace Zolt::Reference_Center
