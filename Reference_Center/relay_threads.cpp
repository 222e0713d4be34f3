#include "Reference_Center/relay_threads.hpp"

#include "Reference_Host/relay_observer.hpp"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>

namespace Zolt::Reference_Center {
namespace {

using std::chrono::steady_clock;

struct relay_thread {
    char const* name;
    unsigned int place; ///< in the order of starting
};

constexpr relay_thread c_threads[] = {{"tcp_init", 2}, {"tcp_recv", 3}, {"tcp_send", 4},
                                      {"udp_recv", 0}, {"udp_send", 1}, {"timer", 5}};

std::set<std::string> read_thread_names() {
    std::set<std::string> names;
    std::error_code error;
    for (auto const& task : std::filesystem::directory_iterator("/proc/self/task", error)) {
        std::ifstream file(task.path() / "comm");
        std::string name;
        if (std::getline(file, name)) {
            names.insert(name);
        }
    }
    return names;
}

} // namespace

relay_threads::relay_threads() : first(Reference_Host::count_thread_names() + 1) {}

std::vector<thread_report> relay_threads::look() const {
    std::set<std::string> const names = read_thread_names();
    std::vector<thread_report> reports;
    for (auto const& [name, place] : c_threads) {
        // Where the system lists no threads, nothing speaks against one.
        reports.push_back({name, names.empty() || names.contains("relay-" + std::to_string(first + place))});
    }
    return reports;
}

void relay_threads::wait_for_all() const {
    auto const deadline = steady_clock::now() + std::chrono::seconds(1);
    auto const all_run = [this] {
        auto const reports = look();
        return std::all_of(reports.begin(), reports.end(), [](auto const& report) { return report.running; });
    };
    while (!all_run() && steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

} // namespace Zolt::Reference_Center
