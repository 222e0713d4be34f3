// Two relays, each in a process of its own, keep a connection to each other and exchange packets both ways over both,
// while every connection is cut after less than a second.

#include "tests/race/traffic/cutting_proxy.hpp"
#include "tests/race/traffic/node_process.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

namespace {

using namespace traffic;
using namespace std::chrono_literals;

constexpr unsigned c_seed = 20260731;
constexpr std::uint64_t c_fewest_connections = 12; // however fast the packets are through

std::uint64_t packets_each_way() {
    char const* const asked = std::getenv("TRAFFIC_PACKETS");
    return asked != nullptr ? std::strtoull(asked, nullptr, 10) : TRAFFIC_PACKETS;
}

/// What a relay may print when its connections are cut. Everything else is a failure.
constexpr char const* c_expected_lines[] = {
    "recv client 에러",      "recv server 에러",      "recv client init 에러", "recv server init 에러",
    "send client init 에러", "send server init 에러", "connect err:111",
};

class two_relays : public ::testing::Test {
protected:
    void SetUp() override {
        near.ask("connect", to_far);
        far.ask("connect", to_near);
    }

    /// Looks at both until it holds, or for that long.
    bool until(std::chrono::seconds longest, bool (*holds)(node_answer const& one, node_answer const& other)) {
        auto const deadline = std::chrono::steady_clock::now() + longest;
        do {
            ::poll(nullptr, 0, 50);
            of_near = near.ask("report");
            of_far = far.ask("report");
        } while (!holds(of_near, of_far) && std::chrono::steady_clock::now() < deadline);
        return holds(of_near, of_far);
    }

    /// Both nodes' figures, for a failure.
    std::string figures() const {
        std::string text;
        for (node_answer const* const node : {&of_near, &of_far}) {
            for (auto const& [name, value] : node->figures) {
                text += name + " " + std::to_string(value) + ", ";
            }
            text += "\n";
        }
        return text;
    }

    static bool have_arrived(node_answer const& one, node_answer const& other);
    static void check_lines(node_answer const& node);
    static void check_account(node_answer const& sender, node_answer const& receiver);
    static void check_ranges(node_answer const& sender, node_answer const& receiver);
    static void check_stop(node_process& node);

    cutting_proxy proxy{c_seed};
    node_process near{1};
    node_process far{2};
    std::uint16_t const to_far = proxy.lead_to(far.port());
    std::uint16_t const to_near = proxy.lead_to(near.port());
    node_answer of_near{};
    node_answer of_far{};
};

/// All that was handed over to the connections that are open now.
bool two_relays::have_arrived(node_answer const& one, node_answer const& other) {
    auto const has_all_of = [](node_answer const& sender, node_answer const& receiver) {
        for (auto const& [stream, handed] : sender.under_way) {
            auto const got = receiver.received.find(stream);
            auto const is_last = [last = handed.back().second](auto const& range) { return range.second == last; };
            if (got == receiver.received.end() || std::ranges::none_of(got->second, is_last)) {
                return false;
            }
        }
        return sender.figures.at("queued") == 0;
    };
    return has_all_of(one, other) && has_all_of(other, one);
}

void two_relays::check_lines(node_answer const& node) {
    for (auto const& [text, count] : node.printed) {
        EXPECT_NE(std::ranges::find(c_expected_lines, text), std::end(c_expected_lines)) << count << " times: " << text;
    }
    EXPECT_EQ(node.faults, std::vector<std::string>());
}

void two_relays::check_account(node_answer const& sender, node_answer const& receiver) {
    auto const of = [&](char const* name) { return sender.figures.at(name); };
    EXPECT_EQ(of("handed"), of("written") + of("returned") + of("dropped") + of("queued"));
    EXPECT_EQ(of("queued"), 0u);
    EXPECT_EQ(of("returned"), of("came_back")) << "what the relay gave back is what the Center got";
    EXPECT_GT(of("returned"), 0u);
    EXPECT_GT(of("dropped"), 0u);
    EXPECT_LE(receiver.figures.at("delivered") + receiver.figures.at("droppable"), of("written"));
}

/// No packet arrived twice, over whichever connections, and none that came back to the sender.
void two_relays::check_ranges(node_answer const& sender, node_answer const& receiver) {
    for (auto const& [stream, received] : receiver.received) {
        auto all = received;
        auto const returned = sender.returned.find(stream);
        if (returned != sender.returned.end()) {
            all.insert(all.end(), returned->second.begin(), returned->second.end());
        }
        std::ranges::sort(all);
        auto const meet =
            std::ranges::adjacent_find(all, [](auto const& a, auto const& b) { return b.first <= a.second; });
        EXPECT_EQ(meet, all.end()) << "flow " << stream.second << " from " << meet->first << " to " << meet->second;
    }
}

void two_relays::check_stop(node_process& node) {
    auto const left = node.ask("stop").figures;
    EXPECT_EQ(left.at("left_records"), 0u);
    EXPECT_EQ(left.at("left_descriptors"), 0u);
    EXPECT_LT(left.at("stopped_ms"), 10000u); // also on a busy machine
    EXPECT_EQ(node.finish(), 0);
}

TEST_F(two_relays, lose_nothing_but_what_was_under_way_when_a_connection_was_cut) {
    near.ask("send on");
    far.ask("send on");
    EXPECT_TRUE(until(240s, [](node_answer const& one, node_answer const& other) {
        auto const enough = packets_each_way();
        return one.figures.at("delivered") >= enough && other.figures.at("delivered") >= enough &&
               one.figures.at("connections") >= c_fewest_connections;
    }));
    proxy.stop_cutting();
    EXPECT_TRUE(until(20s, [](node_answer const& one, node_answer const& other) {
        return one.figures.at("connected") == 2 && other.figures.at("connected") == 2;
    }));
    near.ask("send off");
    far.ask("send off");
    EXPECT_TRUE(until(20s, have_arrived)) << figures();
    check_lines(of_near);
    check_lines(of_far);
    check_account(of_near, of_far);
    check_account(of_far, of_near);
    check_ranges(of_near, of_far);
    check_ranges(of_far, of_near);
    EXPECT_GE(proxy.count_cut(), 2);
    RecordProperty("connections_cut", proxy.count_cut() + proxy.count_cut_early());

    near.ask("withdraw", to_far);
    far.ask("withdraw", to_near);
    EXPECT_TRUE(until(20s, [](node_answer const& one, node_answer const& other) {
        return one.figures.at("connected") == 0 && other.figures.at("connected") == 0;
    }));
    check_stop(near);
    check_stop(far);
}

} // namespace
