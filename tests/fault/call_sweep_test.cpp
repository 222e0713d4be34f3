// Scripts of everyday traffic in which each system call fails in turn, once and from then on, with each result that its
// rows of the matrix name. Whatever happens, nothing is left behind, every line is a known one, new connections work, and
// only those event threads end whose rules say so.
#include "tests/fault/fault.hpp"
#include "tests/fault/matrix_table.hpp"
#include "tests/fault/sweep.hpp"

#include <map>
#include <optional>
#include <set>

namespace {

using namespace relay_test;

/// The results that the matrix names for each call, whatever narrows it down there.
std::map<std::string, std::set<std::string>> const& results_by_call() {
    static auto const all = [] {
        std::map<std::string, std::set<std::string>> results;
        for (matrix_cell const& cell : the_matrix()) {
            results[cell.wanted.call.substr(0, cell.wanted.call.find(' '))].insert(cell.wanted.result);
        }
        return results;
    }();
    return all;
}

class calls : public sweep {
protected:
    /// How often each call is made when nothing fails.
    std::map<std::string, int> count_calls() {
        std::map<std::string, int> counts;
        run(
            [&] {
                for (auto const& [name, results] : results_by_call()) {
                    system.on(name, [&counts](system_call const& made) { ++counts[made.name]; });
                }
            },
            [this] { system.forget_scripts(); });
        EXPECT_EQ(told, GetParam().told);
        EXPECT_EQ(joined(ended), "");
        runs = 0;
        start_over();
        return counts;
    }

    /// A thread ends when waiting fails, and the receive thread when an exchange cannot be armed.
    void check_threads(fault const& wanted) {
        for (std::string const& name : ended) {
            bool const may_end = wanted.call == "epoll_wait" || (wanted.call == "epoll_ctl" && name == "tcp_recv");
            EXPECT_TRUE(may_end) << name << " ended";
        }
    }

    void fail(fault const& wanted) {
        SCOPED_TRACE(wanted.call + " " + std::to_string(wanted.position) + " " + wanted.result);
        std::optional<injection> injected;
        int hits = 0;
        run([&] { injected.emplace(system, wanted); },
            [&] {
                hits = injected->hits();
                injected.reset();
            });
        EXPECT_GT(hits, 0) << "the call was never made";
        check_threads(wanted);
        start_over();
    }

    void fail_each(bool persistent) {
        for (auto const& [name, count] : count_calls()) {
            for (int nth = 1; nth <= count; nth += FAULT_STRIDE) {
                for (std::string const& result : results_by_call().at(name)) {
                    fail({name, nth, result, persistent});
                }
            }
        }
        report(persistent ? "each call persistently" : "each call once");
        EXPECT_GT(runs, 0);
    }
};

TEST_P(calls, once) {
    fail_each(false);
}

TEST_P(calls, persistent) {
    fail_each(true);
}

INSTANTIATE_TEST_SUITE_P(sweep, calls, ::testing::ValuesIn(short_scripts()), name_of);

} // namespace
