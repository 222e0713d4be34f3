// What the tests of the reference host share.
#ifndef TESTS_UNIT_REFERENCE_HOST_FIXTURES_HPP
#define TESTS_UNIT_REFERENCE_HOST_FIXTURES_HPP

#include "Host/zolt_packet.hpp"
#include "Reference_Host/inbox.hpp"
#include "Reference_Host/ledger.hpp"
#include "Reference_Host/packet_building.hpp"
#include "Reference_Host/packet_limits.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace reference_host_test {

using namespace Zolt;
using namespace Zolt::Reference_Host;

inline constexpr double c_never = std::numeric_limits<double>::max();
inline constexpr std::chrono::seconds c_patience{20};

inline std::vector<unsigned char> bytes_of(std::string_view text) {
    return {text.begin(), text.end()};
}

/// Gives the processor away until the condition holds. False when it never did.
template <class Condition>
bool comes_true(Condition condition) {
    auto const deadline = std::chrono::steady_clock::now() + c_patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

/// Threads that run work(0), work(1), ... and are joined by join or, at the latest, when the object ends.
class thread_group {
public:
    template <class Work>
    thread_group(unsigned int count, Work work) {
        threads.reserve(count);
        for (unsigned int number = 0; number < count; ++number) {
            threads.emplace_back(work, number);
        }
    }
    ~thread_group() { join(); }
    thread_group(thread_group const&) = delete;
    thread_group& operator=(thread_group const&) = delete;

    void join() {
        for (std::thread& thread : threads) {
            thread.join();
        }
        threads.clear();
    }

private:
    std::vector<std::thread> threads;
};

/// For programs linked with the ledger build: nothing may be left, and nothing reported but what the test expects.
class accounted_test : public ::testing::Test {
protected:
    void TearDown() override {
        release_offered();
        EXPECT_EQ(list_live_parts(), std::vector<std::string>());
        EXPECT_EQ(take_ledger_reports(), std::vector<std::string>());
    }

    /// A packet of that kind with that data, from 10.0.0.1:7001 id 1 to 10.0.0.2:7002 id 2.
    static struct_token make(packet_kind kind, std::string_view data = {}) {
        packet_plan plan;
        plan.kind = kind;
        plan.source = c_near_end;
        plan.destination = c_far_end;
        return make_packet(plan, bytes_of(data));
    }

    static constexpr packet_end c_near_end{0x0100000A, 7001, 1};
    static constexpr packet_end c_far_end{0x0200000A, 7002, 2};
};

/// The text of a token's data.
inline std::string text_of(struct_token token) {
    auto const data = get_data_span(token);
    return {data.begin(), data.end()};
}

/// A file that exists while the object lives.
class scratch_file {
public:
    explicit scratch_file(std::string_view content) {
        int const fd = ::mkstemp(name);
        if (fd != -1) {
            ::close(fd);
        }
        std::ofstream(name, std::ios::binary) << content;
    }
    ~scratch_file() { ::unlink(name); }
    scratch_file(scratch_file const&) = delete;
    scratch_file& operator=(scratch_file const&) = delete;

    char const* path() const { return name; }

private:
    char name[32] = "/tmp/reference-host-XXXXXX";
};

} // namespace reference_host_test

#endif
