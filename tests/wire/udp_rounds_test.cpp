// From initialize to finalize a thousand times, against the host that accounts for every packet part.
#include "tests/wire/udp_node.hpp"

#include "Reference_Host/ledger.hpp"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

using namespace wire;

namespace host = Zolt::Reference_Host;

std::vector<std::string> entries(char const* folder) {
    std::vector<std::string> names;
    for (auto const& entry : std::filesystem::directory_iterator(folder)) {
        names.push_back(entry.path().filename());
    }
    return names;
}

/// A thread that was joined stands in the kernel's list for a moment longer.
std::size_t threads_once_down_to(std::size_t expected) {
    auto const deadline = std::chrono::steady_clock::now() + c_patience;
    std::size_t count = entries("/proc/self/task").size();
    while (count > expected && std::chrono::steady_clock::now() < deadline) {
        count = entries("/proc/self/task").size();
    }
    return count;
}

void run_round(udp_node& node, std::uint64_t number) {
    ASSERT_TRUE(node.start());
    bytes const data{static_cast<unsigned char>(number)};
    node.send(ip("127.0.0.1"), number, data);
    auto const came = node.next();
    ASSERT_TRUE(came) << "round " << number;
    EXPECT_EQ(came->sequence, number);
    EXPECT_EQ(came->data, data);
    node.stop();
}

TEST(udp_rounds, a_thousand_rounds_leave_no_descriptor_no_thread_and_no_packet_part) {
    udp_node node;
    run_round(node, 1);
    std::vector<std::string> const descriptors = entries("/proc/self/fd");
    std::size_t const threads = entries("/proc/self/task").size();
    for (std::uint64_t number = 2; number <= 1000 && !HasFatalFailure(); ++number) {
        run_round(node, number);
        ASSERT_EQ(entries("/proc/self/fd"), descriptors) << "round " << number;
        ASSERT_EQ(host::list_live_parts(), std::vector<std::string>()) << "round " << number;
    }
    EXPECT_EQ(threads_once_down_to(threads), threads);
    EXPECT_EQ(host::take_ledger_reports(), std::vector<std::string>());
    EXPECT_EQ(node.lines(0), std::vector<std::string>());
}

} // namespace
