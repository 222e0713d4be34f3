// What every sweep does: a script from beginning to end with a fault in it, and what holds afterwards.
#ifndef TESTS_FAULT_SWEEP_HPP
#define TESTS_FAULT_SWEEP_HPP

#include "tests/fault/probes.hpp"
#include "tests/fault/scripts.hpp"
#include "tests/support/allocations.hpp"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace relay_test {

class sweep : public probing_stage, public ::testing::WithParamInterface<script> {
protected:
    void run_relay(std::function<void()> const& part) override {
        relay_section const inside;
        part();
    }

    /// The script from beginning to end, and what holds afterwards.
    void run(std::function<void()> const& arm, std::function<void()> const& disarm) {
        if (GetParam().what != script::kind::lifecycle) {
            open();
        }
        arm();
        GetParam().run(*this);
        disarm();
        serve();
        ended = ended_loops();
        told = joined(center);
        check_records();
        check_new_connections();
        shut();
        check_lines();
        ++runs;
    }

    /// Draws the balance of one run and begins the next.
    void start_over(bool recorded = true) {
        TearDown();
        SetUp();
        record(recorded);
        port = 0;
        system.clear();
    }

    void report(char const* what) {
        RecordProperty("runs", runs);
        std::printf("%s, %s: %d runs\n", GetParam().name, what, runs);
    }

    int runs = 0;
    std::vector<std::string> ended; ///< event threads of the last run
    std::string told;               ///< to the Center, in the last run

private:
    /// Each record stands where somebody finds it: in a registry, or among those that are about to go.
    void check_records() const {
        std::string const records = words_of_connections();
        EXPECT_EQ(records.find("unfiled"), std::string::npos) << records;
    }

    /// As long as the TCP threads live, whatever came over the others.
    void check_new_connections() {
        bool const is_whole = std::ranges::none_of(ended, [](auto const& name) { return name.starts_with("tcp"); });
        if (is_whole && GetParam().what == script::kind::traffic) {
            std::string const working = probe("accepted outgoing");
            EXPECT_TRUE(working.starts_with("accepted outgoing")) << working;
        }
    }

    void check_lines() {
        for (std::string const& words : error_words()) {
            EXPECT_FALSE(words.starts_with("unknown")) << words;
        }
    }
};

/// All but those that are too long to fail each call, or each part that the host makes.
inline std::vector<script> short_scripts() {
    std::vector<script> scripts = all_scripts();
    std::erase_if(scripts, [](script const& each) { return each.what == script::kind::queues; });
    return scripts;
}

inline std::string name_of(::testing::TestParamInfo<script> const& each) {
    return each.param.name;
}

} // namespace relay_test

#endif
