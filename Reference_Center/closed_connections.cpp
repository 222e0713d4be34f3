#include "Reference_Center/closed_connections.hpp"

#include <algorithm>
#include <chrono>
#include <utility>

namespace Zolt::Reference_Center {
namespace {

bool was_established(closed_report const& report) {
    return report.lasted_s != 0;
}

/// The ports of nodes that connect are never the same twice.
bool is_same_end(peer const& a, peer const& b) {
    return a.via == way::accepted ? b.via == a.via && a.address.ip == b.address.ip : a == b;
}

} // namespace

std::int64_t unix_ms_now() {
    auto const since = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(since).count();
}

void closed_connections::add(closed_report report) {
    report.closed_unix_ms = unix_ms_now();
    std::lock_guard const hold(lock);
    ++counts[static_cast<std::size_t>(report.reason)];
    auto const last = std::find_if(entries.begin(), entries.end(),
                                   [&](closed_report const& entry) { return is_same_end(entry.who, report.who); });
    if (last != entries.end() && !was_established(*last) && !was_established(report) && last->reason == report.reason) {
        report.times += last->times;
        entries.erase(last);
    }
    entries.push_front(std::move(report));
    if (entries.size() > c_most) {
        entries.pop_back();
    }
}

std::vector<closed_report> closed_connections::take() const {
    std::lock_guard const hold(lock);
    return {entries.begin(), entries.end()};
}

close_counts closed_connections::count() const {
    std::lock_guard const hold(lock);
    return counts;
}

} // namespace Zolt::Reference_Center
