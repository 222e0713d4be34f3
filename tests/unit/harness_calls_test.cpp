// The harness itself: interposed system calls and engine calls.
#include "Host/tesk_utility.hpp"
#include "tests/support/loopback.hpp"
#include "tests/support/relay_fixture.hpp"

#include <cerrno>

#include <fcntl.h>
#include <netinet/in.h>

namespace {

using namespace relay_test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class harness_calls : public relay_fixture {};

// --- system calls ----------------------------------------------------------------------------------------------

TEST_F(harness_calls, calls_are_written_with_names_and_results) {
    int const fd = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    int const on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    ::close(fd);
    EXPECT_EQ(journal_lines(), (lines{"socket(AF_INET, SOCK_STREAM, IPPROTO_TCP)",
                                      "setsockopt(socket#1, SOL_SOCKET, SO_REUSEADDR, 01000000)", "close(socket#1)"}));
    EXPECT_EQ(journal_lines(about::close_on_exec), (lines{"fcntl(socket#1, F_SETFD, FD_CLOEXEC)"}));
    EXPECT_EQ(system.calls("socket").at(0).result, fd);
    EXPECT_EQ(system.calls("close").at(0).descriptor, fd);
    EXPECT_EQ(journal_entries(about::system).at(0).result, std::to_string(fd));
    EXPECT_EQ(journal_entries(about::system).at(0).thread, "main");
}

TEST_F(harness_calls, the_nth_call_fails_and_the_others_do_not) {
    system.fail("epoll_create1", 2, EMFILE);
    int const first = ::epoll_create1(0);
    errno = 0;
    EXPECT_EQ(::epoll_create1(0), -1);
    EXPECT_EQ(errno, EMFILE);
    int const third = ::epoll_create1(0);
    EXPECT_NE(first, -1);
    EXPECT_NE(third, -1);
    EXPECT_EQ(system.calls("epoll_create1").at(1).error, EMFILE);
    ::close(first);
    ::close(third);
}

TEST_F(harness_calls, a_call_can_fail_for_good) {
    system.fail_always("socket", ENFILE);
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(::socket(AF_INET, SOCK_STREAM, 0), -1);
    }
    system.forget_scripts();
    descriptor const works(::socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_NE(works.get(), -1);
}

TEST_F(harness_calls, an_answered_call_does_nothing_and_leaves_errno_alone) {
    system.answer("socket", 1, 12345);
    errno = EDOM;
    EXPECT_EQ(::socket(AF_INET, SOCK_STREAM, 0), 12345);
    EXPECT_EQ(errno, EDOM);
}

TEST_F(harness_calls, a_failing_close_still_closes) {
    int const fd = ::socket(AF_INET, SOCK_STREAM, 0);
    system.fail("close", 1, EIO);
    EXPECT_EQ(::close(fd), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(all_complaints(), "");
}

TEST_F(harness_calls, bytes_can_be_cut_and_made_up) {
    auto const [near_end, far_end] = connected_pair();
    system.cap("send", 1, 3);
    EXPECT_EQ(::send(near_end.get(), "abcdef", 6, 0), 3);
    EXPECT_EQ(read_bytes(far_end, 3), (bytes{'a', 'b', 'c'}));
    unsigned char room[4] = {};
    system.deliver("recv", 1, {7, 8, 9, 10, 11});
    EXPECT_EQ(::recv(near_end.get(), room, sizeof room, 0), 4);
    EXPECT_EQ(room[3], 10);
    EXPECT_EQ(system.calls("recv").at(0).data, (bytes{7, 8, 9, 10}));
    sockaddr_in from{};
    socklen_t length = sizeof from;
    system.deliver("recvfrom", 1, {1}, Zolt::c_local_host, 4242);
    EXPECT_EQ(::recvfrom(near_end.get(), room, sizeof room, MSG_PEEK, reinterpret_cast<sockaddr*>(&from), &length), 1);
    EXPECT_EQ(from.sin_addr.s_addr, Zolt::c_local_host);
    EXPECT_EQ(ntohs(from.sin_port), 4242);
}

TEST_F(harness_calls, scripted_events_come_in_order_and_end_with_a_stop) {
    int record = 0;
    name_descriptor(77, "instance");
    system.events(77, {{EPOLLIN, &record}, {EPOLLHUP, &record}});
    epoll_event event{};
    std::vector<std::pair<unsigned, void*>> seen;
    for (int round = 0; round < 4; ++round) {
        EXPECT_EQ(::epoll_wait(77, &event, 1, -1), 1);
        seen.emplace_back(std::uint32_t{event.events}, static_cast<void*>(event.data.ptr));
    }
    EXPECT_EQ(seen, (std::vector<std::pair<unsigned, void*>>{
                        {EPOLLIN, &record}, {EPOLLHUP, &record}, {0, nullptr}, {0, nullptr}}));
    EXPECT_EQ(journal_lines().at(0), "epoll_wait(instance, 1, -1)");
}

TEST_F(harness_calls, a_hook_runs_inside_the_call) {
    int seen = 0;
    system.on("close", [&](system_call const& call) { seen = call.descriptor; });
    int const fd = ::epoll_create1(0);
    ::close(fd);
    EXPECT_EQ(seen, fd);
}

TEST_F(harness_calls, only_one_recorder_may_live) {
    { system_calls const second; }
    EXPECT_EQ(all_complaints(), "two system_calls objects at once");
    { engine_calls const second; }
    EXPECT_EQ(all_complaints(), "two engine_calls objects at once");
}

TEST_F(harness_calls, masks_are_shown_in_words) {
    EXPECT_EQ(mask_text(0xC0000005), "EPOLLIN|EPOLLOUT|EPOLLONESHOT|EPOLLET");
    EXPECT_EQ(mask_text(0x4), "EPOLLOUT");
    EXPECT_EQ(mask_text(0), "0");
    EXPECT_EQ(mask_text(0x100001), "EPOLLIN|0x100000");
}

// --- engine calls ----------------------------------------------------------------------------------------------

TEST_F(harness_calls, an_engine_call_is_counted_and_answered) {
    auto* const rec = make_tcp(EPoll::c_kind_established_server, -1, "rec");
    keep(rec);
    engine.answer("failed_send", 5);
    EXPECT_EQ(EPoll::failed_send(rec), 5);
    EXPECT_EQ(engine.records("failed_send"), (std::vector<void const*>{rec}));
    engine.on("failed_send", nullptr);
    EXPECT_EQ(EPoll::failed_send(rec), 0);
    EXPECT_EQ(engine.count("failed_send"), 2u);
    EXPECT_EQ(journal_lines(), (lines{"EPoll::failed_send(rec)", "EPoll::failed_send(rec)"}));
}

TEST_F(harness_calls, an_engine_call_can_throw) {
    engine.on("udp_finalize", [](void*) -> int { throw std::string("gone"); });
    EXPECT_THROW(EPoll::udp_finalize(), std::string);
}

TEST_F(harness_calls, the_nth_engine_call_is_answered_and_the_others_run) {
    engine.answer_nth("udp_finalize", 2, 9);
    EXPECT_EQ(EPoll::udp_finalize(), 0);
    EXPECT_EQ(EPoll::udp_finalize(), 9);
    EXPECT_EQ(EPoll::udp_finalize(), 0);
}

TEST_F(harness_calls, an_engine_call_that_is_not_interposed_is_reported) {
    engine.answer("no_such_call", 0);
    EXPECT_EQ(all_complaints(), "no engine call is interposed under the name no_such_call");
}

TEST_F(harness_calls, one_sequence_holds_all_kinds_of_lines) {
    engine.answer("recv_udp", 0);
    auto* const udp = make_udp(-1, "udp");
    keep(udp);
    Tesk::OS::rtsleep(0.01);
    ::close(-1);
    EPoll::recv_udp(udp);
    Tesk::Utility::print_error("line\n");
    EXPECT_EQ(journal_lines(),
              (lines{"rtsleep(0.01)", "close(-1)", "EPoll::recv_udp(udp)", "print_error(\"line\\n\")"}));
    expect_error("line\n");
}

} // namespace
