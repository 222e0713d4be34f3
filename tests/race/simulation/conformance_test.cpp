// The simulated kernel does what the real one does: each script plays on both, and both lists are the same.

#include "tests/race/simulation/conformance_world.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

using namespace conformance;

std::vector<script> all_scripts() {
    std::vector<script> all;
    for (auto const some : {event_scripts(), stream_scripts(), other_scripts()}) {
        all.insert(all.end(), some.begin(), some.end());
    }
    return all;
}

void print(char const* title, std::vector<std::string> const& lines) {
    std::printf("%s\n", title);
    for (std::string const& line : lines) {
        std::printf("  %s\n", line.c_str());
    }
}

class kernel_conformance : public ::testing::TestWithParam<script> {};

TEST_P(kernel_conformance, both_kernels_do_the_same) {
    record const real = play_for_real(GetParam());
    record const simulated = play_simulated(GetParam());
    print("real kernel", real.lines);
    print("simulated kernel", simulated.lines);
    EXPECT_EQ(real.lines, simulated.lines);
    EXPECT_EQ(real.faults, 0) << "the real kernel did not do what the script waits for";
    EXPECT_EQ(simulated.faults, 0) << "the simulated kernel did not do what the script waits for";
    EXPECT_FALSE(real.lines.empty());
    if (!GetParam().known.empty()) {
        EXPECT_EQ(real.lines, GetParam().known);
    }
}

INSTANTIATE_TEST_SUITE_P(scripts, kernel_conformance, ::testing::ValuesIn(all_scripts()),
                         [](auto const& tested) { return std::string(tested.param.name); });

} // namespace
