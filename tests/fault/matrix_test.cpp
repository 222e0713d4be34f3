// Every system call of every operation, each failing in every way that it can, once and from then on: what is printed,
// returned, ended, kept and told is what matrix.txt states.
#include "tests/fault/matrix_scenarios.hpp"
#include "tests/fault/matrix_table.hpp"

#include <algorithm>
#include <cstdio>
#include <map>
#include <sstream>
#include <stdexcept>

namespace {

using namespace relay_test;

constexpr int c_settle = 500; ///< milliseconds that the stated outcome may take to show

char const* const c_instance_names[] = {"tcp_init", "tcp_recv", "tcp_send", "udp_recv", "udp_send"};

std::string words_of_instances() {
    std::vector<std::string> open;
    int const* const instances[] = {&EPoll::epoll_tcp_init, &EPoll::epoll_tcp_recv, &EPoll::epoll_tcp_send,
                                    &EPoll::epoll_udp_recv, &EPoll::epoll_udp_send};
    for (std::size_t at = 0; at < std::size(instances); ++at) {
        if (*instances[at] > 0) {
            open.emplace_back(c_instance_names[at]);
        }
    }
    return open.empty() ? "none" : joined(open);
}

class matrix : public matrix_stage {
protected:
    void run_group(std::string const& group, bool persistent) {
        int runs = 0;
        for (matrix_cell const& cell : the_matrix()) {
            if (cell.group == group) {
                run(cell, persistent);
                ++runs;
            }
        }
        RecordProperty("runs", runs);
        std::printf("%s, %s: %d runs\n", group.c_str(), persistent ? "persistently" : "once", runs);
        EXPECT_GT(runs, 0);
    }

    /// Runs one cell and compares.
    void run(matrix_cell const& cell, bool persistent) {
        SCOPED_TRACE("matrix.txt:" + std::to_string(cell.line) + ": " + cell.scenario + ", " + cell.wanted.call + " " +
                     std::to_string(cell.wanted.position) + " " + cell.wanted.result +
                     (persistent ? ", persistent" : ", once"));
        outcome const& stated = persistent ? cell.persistent : cell.once;
        matrix_scenario const& scenario = scenario_named(cell.scenario);
        int const failures_before = failures();
        scenario.prepare(*this);
        if (failures() != failures_before) {
            return start_over();
        }
        EXPECT_EQ(words(error_words()), "none") << "before the fault";
        fault wanted = cell.wanted;
        wanted.persistent = persistent;
        outcome seen = act(scenario, wanted, stated);
        if (scenario.probes_elsewhere) {
            shut();
            open();
        }
        seen.probe = probe(stated.probe);
        EXPECT_EQ(seen, stated);
        start_over();
    }

    /// Draws the balance of one run and begins the next.
    void start_over() {
        TearDown();
        SetUp();
        port = 0;
        returned = "-";
    }

private:
    static int failures() {
        return ::testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
    }

    static std::string words(std::vector<std::string> const& all) { return all.empty() ? "none" : joined(all); }

    outcome act(matrix_scenario const& scenario, fault const& wanted, outcome const& stated) {
        std::size_t const told = center.size();
        std::size_t handled = 0;
        std::string const handler = scenario.handler;
        injection const fails(system, wanted, [&] { handled = handler.empty() ? 0 : engine.results(handler).size(); });
        system.clear();
        had_outgoing = EPoll::g_outgoing.first != nullptr;
        locks_before = count_locks().made;
        scenario.act(*this);
        outcome seen;
        auto const look = [&] {
            seen = {words(error_words()),
                    result_of(handler, handled),
                    words(ended_or_told()),
                    records(scenario),
                    words({center.begin() + static_cast<std::ptrdiff_t>(told), center.end()}),
                    stated.probe};
            allow_any_errno(seen.errors, stated.errors);
            return seen == stated;
        };
        serve_until(look, c_settle);
        EXPECT_GT(fails.hits(), 0) << "the call was never made";
        return seen;
    }

    std::string result_of(std::string const& handler, std::size_t number) const {
        if (handler.empty()) {
            return returned;
        }
        auto const results = engine.results(handler);
        if (number == 0 || number > results.size() || !results[number - 1]) {
            return "-";
        }
        int const result = *results[number - 1];
        return result > 0 ? errno_name(result) : std::to_string(result);
    }

    /// Where the errno of a thread's last line is nobody's promise.
    static void allow_any_errno(std::string& seen, std::string const& stated) {
        std::string const fixed = stated.substr(0, stated.size() - 1);
        if (stated.ends_with(":*") && seen.starts_with(fixed) && seen.find(' ', fixed.size()) == std::string::npos) {
            seen = stated;
        }
    }

    /// Threads that ended on their own, or were told to by stop.
    std::vector<std::string> ended_or_told() const {
        auto ended = ended_loops();
        for (system_call const& made : system.calls("epoll_ctl")) {
            if (made.pointer != nullptr || made.arguments[1] != EPOLL_CTL_ADD || made.result != 0) {
                continue;
            }
            for (char const* const name : c_instance_names) {
                if (is_call(std::string("epoll_ctl ") + name, made)) {
                    ended.push_back(std::string("told:") + name);
                }
            }
        }
        return ended;
    }

    std::string records(matrix_scenario const& scenario) const {
        switch (scenario.records) {
        case matrix_scenario::tells::instances:
            return words_of_instances();
        case matrix_scenario::tells::udp_ports:
            return EPoll::g_udp_map.empty() ? "none" : "udp";
        case matrix_scenario::tells::connections:
            break;
        }
        std::string const connections = words_of_connections();
        bool const is_fresh = had_outgoing && count_locks().made > locks_before;
        return is_fresh && connections == "outgoing waiting" ? "outgoing rebooked" : connections;
    }

    bool had_outgoing = false;
    long locks_before = 0;
};

class cells : public matrix, public ::testing::WithParamInterface<std::string> {};

std::vector<std::string> groups() {
    std::vector<std::string> names;
    for (matrix_cell const& cell : the_matrix()) {
        if (std::find(names.begin(), names.end(), cell.group) == names.end()) {
            names.push_back(cell.group);
        }
    }
    return names;
}

TEST_P(cells, once) {
    run_group(GetParam(), false);
}

TEST_P(cells, persistent) {
    run_group(GetParam(), true);
}

// --- the table itself ------------------------------------------------------------------------------------------

TEST(matrix_table, has_351_cells_and_none_twice) {
    std::map<std::string, int> const stated{{"initialize", 15},
                                            {"stop", 14},
                                            {"finalize", 12},
                                            {"udp_open_close", 15},
                                            {"multicast", 7},
                                            {"listen", 11},
                                            {"accept", 13},
                                            {"accepted_init_receive", 13},
                                            {"accepted_init_send", 10},
                                            {"framed_receive", 46},
                                            {"acknowledgement", 3},
                                            {"hand_over", 18},
                                            {"send", 48},
                                            {"connect", 20},
                                            {"connect_completion", 8},
                                            {"outgoing_init_send", 13},
                                            {"outgoing_init_receive", 13},
                                            {"timer", 8},
                                            {"destruction", 6},
                                            {"loops", 25},
                                            {"udp_receive", 16},
                                            {"udp_send", 17}};
    std::map<std::string, int> counted;
    std::map<std::string, int> lines;
    for (matrix_cell const& cell : the_matrix()) {
        ++counted[cell.group];
        ++lines[cell.scenario + "|" + cell.wanted.call + "|" + std::to_string(cell.wanted.position) + "|" +
                cell.wanted.result];
    }
    EXPECT_EQ(counted, stated);
    EXPECT_EQ(the_matrix().size(), 351u);
    EXPECT_EQ(lines.size(), the_matrix().size());
}

TEST(matrix_table, tells_apart_what_happens_once_and_what_goes_on) {
    std::istringstream in("# a comment\n\n"
                          "g | s | epoll_ctl ADD | 2 | ENOMEM | a b / c | 0 | none | none / x | none | udp\n");
    auto const cells = parse_matrix(in);
    ASSERT_EQ(cells.size(), 1u);
    EXPECT_EQ(cells[0].line, 3);
    EXPECT_EQ(cells[0].wanted.call, "epoll_ctl ADD");
    EXPECT_EQ(cells[0].wanted.position, 2);
    EXPECT_EQ(cells[0].once, (outcome{"a b", "0", "none", "none", "none", "udp"}));
    EXPECT_EQ(cells[0].persistent, (outcome{"c", "0", "none", "x", "none", "udp"}));
}

TEST(matrix_table, refuses_a_line_with_a_column_too_few) {
    std::istringstream in("g | s | recv | 1 | 0 | none | 0 | none | none | none\n");
    EXPECT_THROW(parse_matrix(in), std::runtime_error);
}

INSTANTIATE_TEST_SUITE_P(matrix, cells, ::testing::ValuesIn(groups()), [](auto const& each) { return each.param; });

} // namespace
