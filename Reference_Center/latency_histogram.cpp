#include "Reference_Center/latency_histogram.hpp"

#include <algorithm>
#include <cmath>

namespace Zolt::Reference_Center {

void latency_histogram::add(std::uint64_t value) {
    ++counts[buckets::bucket_of(value)];
    ++total;
    smallest = std::min(smallest, value);
    largest = std::max(largest, value);
}

void latency_histogram::merge(latency_histogram const& other) {
    for (std::size_t i = 0; i < counts.size(); ++i) {
        counts[i] += other.counts[i];
    }
    total += other.total;
    smallest = std::min(smallest, other.smallest);
    largest = std::max(largest, other.largest);
}

std::uint64_t latency_histogram::at_share(double share) const {
    if (std::ceil(share * static_cast<double>(total)) >= static_cast<double>(total)) {
        return largest;
    }
    return std::clamp(buckets::value_at(counts, total, share), smallest, largest);
}

} // namespace Zolt::Reference_Center
