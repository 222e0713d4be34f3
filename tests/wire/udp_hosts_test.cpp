// Source-specific multicast between two nodes, each in a network of its own. The far node runs in a second process and
// does what the tests ask it to.
#include "tests/wire/network_namespaces.hpp"
#include "tests/wire/udp_node.hpp"

#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <optional>
#include <utility>

#include <sys/wait.h>

namespace {

using namespace wire;

namespace relay = Zolt::Center::INet_Relay;

char const* const c_near = "10.83.0.1";
char const* const c_far = "10.83.0.2";
char const* const c_far_stranger = "10.83.0.3"; ///< a second source behind the same cable
char const* const c_group = "232.83.0.1";

/// What the far process is asked to send, and how.
struct request {
    enum way : int { start_node, unicast, inform, inform_as_stranger } how;
    std::uint16_t port;
    std::uint64_t sequence;
};

/// Answers requests until the near process is gone. True when each could be done.
bool serve_far_end(message_pipe const& near_end) {
    udp_node node;
    bare_socket const stranger(ip(c_far_stranger));
    bool is_fine = stranger.choose_interface(ip(c_far_stranger));
    request asked{};
    while (near_end.read(asked)) {
        switch (asked.how) {
        case request::start_node:
            is_fine = node.start(asked.port) && is_fine;
            break;
        case request::unicast:
            node.send(ip(c_near), asked.sequence);
            break;
        case request::inform:
            node.inform(ip(c_group), ip(c_far), asked.sequence);
            break;
        case request::inform_as_stranger:
            is_fine = stranger.send(ip(c_group), asked.port, datagram(asked.sequence)) && is_fine;
            break;
        }
        near_end.write(is_fine);
    }
    return is_fine;
}

std::optional<message_pipe> g_far_end; ///< while the tests run

class udp_hosts : public testing::Test {
protected:
    static void SetUpTestSuite() {
        node = std::make_unique<udp_node>();
        ASSERT_TRUE(node->start());
        ask_far_end(request::start_node, 0);
    }

    static void TearDownTestSuite() { node.reset(); }

    void TearDown() override { EXPECT_EQ(node->lines(0), std::vector<std::string>()); }

    static void ask_far_end(request::way how, std::uint64_t sequence) {
        bool is_fine = false;
        ASSERT_TRUE(g_far_end->write(request{how, node->port(), sequence}));
        ASSERT_TRUE(g_far_end->read(is_fine));
        ASSERT_TRUE(is_fine);
    }

    static void join(char const* source) { relay::add_membership(ip(c_group), ip(c_near), ip(source), node->port()); }
    static void leave(char const* source) { relay::drop_membership(ip(c_group), ip(c_near), ip(source), node->port()); }

    static inline std::unique_ptr<udp_node> node;
};

TEST_F(udp_hosts, a_packet_reaches_the_node_of_the_other_network) {
    ask_far_end(request::unicast, 1);
    auto const came = node->next();
    ASSERT_TRUE(came);
    EXPECT_EQ(came->sequence, 1U);
    EXPECT_EQ(came->source_ip, ip(c_far));
}

TEST_F(udp_hosts, without_a_membership_a_group_is_not_heard) {
    ask_far_end(request::inform, 1);
    ask_far_end(request::unicast, 2);
    EXPECT_EQ(node->next_sequence(), 2U);
}

TEST_F(udp_hosts, only_the_source_that_was_joined_is_heard) {
    join(c_far);
    ask_far_end(request::inform_as_stranger, 1);
    ask_far_end(request::inform, 2);
    auto const came = node->next();
    ASSERT_TRUE(came);
    EXPECT_EQ(came->sequence, 2U);
    EXPECT_EQ(came->source_ip, ip(c_far));
    leave(c_far);
}

TEST_F(udp_hosts, each_source_is_joined_and_left_by_itself) {
    join(c_far);
    join(c_far_stranger);
    ask_far_end(request::inform_as_stranger, 1);
    EXPECT_EQ(node->next_sequence(), 1U);
    ask_far_end(request::inform, 2);
    EXPECT_EQ(node->next_sequence(), 2U);
    leave(c_far);
    ask_far_end(request::inform, 3);
    ask_far_end(request::inform_as_stranger, 4);
    EXPECT_EQ(node->next_sequence(), 4U);
    leave(c_far_stranger);
}

TEST_F(udp_hosts, a_group_that_was_left_is_silent) {
    join(c_far);
    leave(c_far);
    ask_far_end(request::inform, 1);
    ask_far_end(request::unicast, 2);
    EXPECT_EQ(node->next_sequence(), 2U);
}

/// The tests' verdict; the far process learns from the end of the pipe that it may go.
int run_near_end(message_pipe far_end) {
    g_far_end.emplace(std::move(far_end));
    int const verdict = RUN_ALL_TESTS();
    g_far_end.reset();
    return verdict;
}

bool ended_well(pid_t process) {
    int status = 0;
    bool const is_well = ::waitpid(process, &status, 0) == process && status == 0;
    if (!is_well) {
        std::fprintf(stderr, "the far process ended with status %d\n", status);
    }
    return is_well;
}

} // namespace

int main(int count, char** arguments) {
    testing::InitGoogleTest(&count, arguments);
    split_result split = split_between_networks({c_near}, {c_far, c_far_stranger});
    if (split.where == side::nowhere) {
        std::fprintf(stderr, "skipped: two networks cannot be had here: %s\n", split.reason.c_str());
        return 77;
    }
    if (split.where == side::far_end) {
        return serve_far_end(split.other) ? 0 : 1;
    }
    int const failed = run_near_end(std::move(split.other));
    return ended_well(split.child) && failed == 0 ? 0 : 1;
}
