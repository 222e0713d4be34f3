// System calls and allocations per packet of nodes as they ship, while packets stream from one to the other.
//
// The sequence is fixed: for each piece, header or data, one wait, one read or write, one arming. While the queue never
// runs empty the send thread arms for every piece; when it runs empty for each packet, the caller arms for the header
// and the send thread for the data. The sum is the same: 3 for a header only, 6 with data, on either side. A datagram
// is written in one step, 3 calls, and read in two, 4 calls: a look at its header, then all of it.
//
// Each row is a stream of its own process or two. A datagram goes to the same port of its destination, so there one node
// sends to itself; its threads tell the two sides apart.
#include "tests/counts/call_counter.hpp"
#include "tests/race/traffic/node_process.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <list>
#include <map>
#include <ostream>
#include <string>

#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using traffic::node_process;

constexpr int c_packets = 4000;
/// For what happens once a second, and for what the first and the last packet share with nobody.
constexpr double c_tolerance = 0.02;
constexpr double c_memory_tolerance = 0.002;

// What stands above the fixed sequence today. Each is to become 0; none may grow.

/// The caller arms while it holds the record's lock; the send thread, awake at once on the caller's core, gives the core
/// back until the lock is free.
constexpr double c_yields_for_each_arming = 1;
/// A thread that loses the core inside a lock keeps it: who wants the lock gives the core back to it.
constexpr double c_yields_in_a_stream = 0.2;
/// When the kernel gives the core to somebody else first, the lock is slept for: two calls, none on a quiet machine and
/// a quarter of a packet's locks beside a process that wants the whole core. One call more for each packet is seen.
constexpr double c_futex_in_a_stream = 0.5;
/// A Center that sleeps until a packet comes, and the receive thread that wakes it: one call each.
constexpr double c_futex_of_a_sleeper = 2;
/// The send queue takes a block for 64 packets and gives it back when they are through.
constexpr double c_memory_of_the_queue = 1.0 / 64;

// --- rows ------------------------------------------------------------------------------------------------------

struct stream_row {
    char const* name;
    bool is_datagrams;
    int size;
    int window; ///< packets handed over and not yet taken
    char const* center;

    int pieces() const { return size == 0 || is_datagrams ? 1 : 2; }
    friend void PrintTo(stream_row const& row, std::ostream* out) { *out << row.name; }
};

constexpr stream_row c_rows[] = {
    {"header_only", false, 0, 256, "looking"},
    {"bytes_64", false, 64, 256, "looking"},
    {"kibibyte", false, 1024, 32, "looking"}, // more may be written in parts, each with a sequence of its own
    {"header_only_singly", false, 0, 1, "looking"},
    {"bytes_64_singly", false, 64, 1, "looking"},
    {"kibibyte_singly", false, 1024, 1, "looking"},
    {"datagram_header_only", true, 0, 32, "looking"},
    {"datagram_64", true, 64, 32, "looking"},
    {"datagram_kibibyte", true, 1024, 32, "looking"},
    {"datagram_64_singly", true, 64, 1, "looking"},
    {"bytes_64_sleeping", false, 64, 256, "sleeping"},
    {"bytes_64_singly_sleeping", false, 64, 1, "sleeping"},
};

// --- measuring -------------------------------------------------------------------------------------------------

/// Counts per packet, by thread and kind.
class per_packet {
public:
    void add(node_process& node) {
        for (auto const& [name, count] : node.ask("count").figures) {
            counts[name] += static_cast<double>(count) / c_packets;
        }
    }
    /// The count of one kind on one thread; it is then not in what is left.
    double take(std::string const& name) {
        auto const entry = counts.extract(name);
        return entry.empty() ? 0 : entry.mapped();
    }
    /// The same for all threads.
    double take_kind(std::string const& kind) {
        double sum = 0;
        std::string const end = "." + kind;
        for (auto entry = counts.begin(); entry != counts.end();) {
            bool const is_of_kind = entry->first.ends_with(end);
            sum += is_of_kind ? entry->second : 0;
            entry = is_of_kind ? counts.erase(entry) : std::next(entry);
        }
        return sum;
    }
    double sum() const {
        double all = 0;
        for (auto const& [name, count] : counts) {
            all += count;
        }
        return all;
    }
    friend void PrintTo(per_packet const& shown, std::ostream* out) {
        for (auto const& [name, count] : shown.counts) {
            *out << "\n  " << name << " " << count;
        }
    }

private:
    std::map<std::string, double> counts;
};

/// Memory that the nodes inherit.
class shared_memory {
public:
    shared_memory() : fd(::memfd_create("counts", 0)) { EXPECT_EQ(::ftruncate(fd, ::getpagesize()), 0); }
    ~shared_memory() { ::close(fd); }
    shared_memory(shared_memory const&) = delete;
    shared_memory& operator=(shared_memory const&) = delete;
    std::string command() const { return "share " + std::to_string(fd); }

private:
    int const fd;
};

class stream : public testing::TestWithParam<stream_row> {
protected:
    void SetUp() override { measure(); }

    /// With nodes of its own each time.
    void measure() {
        nodes.clear();
        node_process& receiver = start_node();
        std::string kind = "udp ";
        if (!row.is_datagrams) {
            start_node().ask("connect", receiver.port());
            kind = "tcp " + std::to_string(receiver.port()) + " ";
        }
        std::string const command =
            kind + std::to_string(row.size) + " " + std::to_string(c_packets) + " " + std::to_string(row.window);
        nodes.back().ask(command);
        for (node_process& node : nodes) {
            node.ask("mark");
        }
        nodes.back().ask(command);
        counted = {};
        for (node_process& node : nodes) {
            counted.add(node);
        }
        EXPECT_EQ(counted.take("printed.lines"), 0);
    }

    /// Takes the fixed sequence out of what was counted.
    void take_sequence() {
        std::string const protocol = row.is_datagrams ? "udp_" : "tcp_";
        std::string const reader = protocol + "recv.";
        std::string const writer = protocol + "send.";
        int const pieces = row.pieces();
        EXPECT_NEAR(counted.take(reader + "epoll_wait"), pieces, c_tolerance);
        EXPECT_NEAR(counted.take(reader + "recv"), row.is_datagrams ? 2 : pieces, c_tolerance);
        EXPECT_NEAR(counted.take(reader + "epoll_ctl"), pieces, c_tolerance);
        EXPECT_NEAR(counted.take(writer + "epoll_wait"), pieces, c_tolerance);
        EXPECT_NEAR(counted.take(writer + "send"), pieces, c_tolerance);
        armed_by_caller = counted.take("caller.epoll_ctl");
        EXPECT_NEAR(armed_by_caller + counted.take(writer + "epoll_ctl"), pieces, c_tolerance);
        if (row.window == 1) {
            EXPECT_NEAR(armed_by_caller, 1, c_tolerance);
        }
    }

    stream_row const row = GetParam();
    per_packet counted;
    double armed_by_caller = 0;

private:
    node_process& start_node() {
        node_process& node = nodes.emplace_back(std::uint16_t{0});
        node.ask(shared.command());
        node.ask(std::string("center ") + row.center);
        node.ask("stock " + std::to_string(row.size));
        return node;
    }

    shared_memory shared;
    std::list<node_process> nodes;
};

// --- what a packet costs ---------------------------------------------------------------------------------------

TEST_P(stream, makes_its_fixed_calls_and_no_others) {
    take_sequence();
    for (char const* const known_elsewhere : {"futex", "sched_yield", "memory"}) {
        counted.take_kind(known_elsewhere);
    }
    EXPECT_LE(counted.sum(), c_tolerance) << testing::PrintToString(counted);
}

/// All threads of all nodes on one core. On two, a lock is found taken as often as the machine makes it: from no futex
/// call a packet to one, in streams of the same program. On one core there are only those that the program itself makes.
class stream_on_one_core : public stream {
protected:
    void SetUp() override {
        ::cpu_set_t one{};
        ASSERT_EQ(::sched_getaffinity(0, sizeof before, &before), 0);
        for (int core = 0; core < CPU_SETSIZE && CPU_COUNT(&one) == 0; ++core) {
            if (CPU_ISSET(core, &before)) {
                CPU_SET(core, &one);
            }
        }
        ASSERT_EQ(::sched_setaffinity(0, sizeof one, &one), 0);
        stream::SetUp();
    }
    void TearDown() override { EXPECT_EQ(::sched_setaffinity(0, sizeof before, &before), 0); }

private:
    ::cpu_set_t before{};
};

// Other load adds to these, and nothing takes away: the best of some rounds.
TEST_P(stream_on_one_core, waits_for_other_threads_no_more_than_known) {
    constexpr int c_rounds = 5;
    double const most_futex = c_futex_in_a_stream + (row.center == std::string("sleeping") ? c_futex_of_a_sleeper : 0);
    double most_yields = 0;
    double yields = 0;
    double futex = 0;
    for (int round = 0; round < c_rounds && (round == 0 || yields > most_yields || futex > most_futex); ++round) {
        if (round != 0) {
            measure();
        }
        take_sequence();
        most_yields = c_yields_for_each_arming * armed_by_caller + c_yields_in_a_stream;
        yields = counted.take_kind("sched_yield");
        futex = counted.take_kind("futex");
        std::cout << "per packet: sched_yield " << yields << ", futex " << futex << "\n";
    }
    EXPECT_LE(yields, most_yields);
    EXPECT_LE(futex, most_futex);
}

TEST_P(stream, takes_no_memory) {
    per_packet const all = counted;
    double const by_caller = counted.take("caller.memory");
    EXPECT_LE(by_caller, c_memory_of_the_queue + c_memory_tolerance);
    EXPECT_LE(counted.take_kind("memory"), c_memory_tolerance) << testing::PrintToString(all);
}

INSTANTIATE_TEST_SUITE_P(counts, stream, testing::ValuesIn(c_rows), [](auto const& each) { return each.param.name; });
INSTANTIATE_TEST_SUITE_P(counts, stream_on_one_core, testing::ValuesIn(c_rows),
                         [](auto const& each) { return each.param.name; });

/// True when a process can count its calls here. It cannot stop to: a child tries.
bool can_count() {
    ::pid_t const child = ::fork();
    if (child == 0) {
        std::_Exit(counts::count_calls() ? 0 : 1);
    }
    int status = 0;
    return child != -1 && ::waitpid(child, &status, 0) == child && status == 0;
}

} // namespace

int main(int count, char** arguments) {
    testing::InitGoogleTest(&count, arguments);
    if (!can_count()) {
        std::puts("skipped: no seccomp filter that traps calls can be set here");
        return GTEST_FLAG_GET(list_tests) ? RUN_ALL_TESTS() : 77;
    }
    return RUN_ALL_TESTS();
}
