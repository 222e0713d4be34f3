// The same scripts with each allocation failing in turn: what the relay takes from operator new, and the header and data
// parts that it asks of its host.
#include "tests/fault/sweep.hpp"

namespace {

using namespace relay_test;

class allocations : public sweep {
protected:
    /// Fails the n-th for every n until a run makes fewer than that, which then does what its name says.
    void fail_each(char const* what, bool recorded, std::function<void(long)> const& fail_nth,
                   std::function<bool()> const& was_met) {
        for (long nth = 1;; ++nth) {
            SCOPED_TRACE(std::string(what) + " " + std::to_string(nth));
            start_over(recorded);
            bool met = false;
            run([&] { fail_nth(nth); },
                [&] {
                    met = was_met();
                    fail_nth(0);
                });
            EXPECT_EQ(joined(ended), "");
            if (!met) {
                EXPECT_EQ(told, GetParam().told);
                --runs;
                return start_over();
            }
        }
    }

    /// A script of answers whose n-th fails.
    static std::vector<allocation> nth_of(long nth, allocation failing) {
        std::vector<allocation> answers(static_cast<std::size_t>(nth), allocation::works);
        if (nth != 0) {
            answers.back() = failing;
        }
        return answers;
    }
};

class memory : public allocations {};
class host_memory : public allocations {};

TEST_P(memory, operator_new) {
    long before = 0;
    long wanted = 0;
    fail_each(
        "operator new", false,
        [&](long nth) {
            fail_relay_allocation(nth);
            before = count_relay_allocations();
            wanted = nth;
        },
        [&] { return count_relay_allocations() >= before + wanted; });
    report("each operator new");
}

TEST_P(host_memory, headers) {
    long wanted = 0;
    fail_each(
        "alloc_header_force", true,
        [&](long nth) {
            script_alloc_headers(nth_of(nth, allocation::throws));
            wanted = nth;
            clear_journal();
        },
        [&] { return journal_count("alloc_header_force") >= static_cast<std::size_t>(wanted); });
    report("each alloc_header_force");
}

TEST_P(host_memory, data_parts) {
    long wanted = 0;
    for (auto const failing : {allocation::refused, allocation::throws}) {
        fail_each(
            failing == allocation::refused ? "alloc_data refused" : "alloc_data throws", true,
            [&](long nth) {
                script_alloc_data(nth_of(nth, failing));
                wanted = nth;
                clear_journal();
            },
            [&] { return journal_count("alloc_data") >= static_cast<std::size_t>(wanted); });
    }
    report("each alloc_data");
}

INSTANTIATE_TEST_SUITE_P(sweep, memory, ::testing::ValuesIn(all_scripts()), name_of);
INSTANTIATE_TEST_SUITE_P(sweep, host_memory, ::testing::ValuesIn(short_scripts()), name_of);

} // namespace
