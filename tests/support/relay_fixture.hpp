// The fixture of every unit test of the relay, and the way into the harness.
//
// What a test file looks like
//
//     #include "tests/support/relay_fixture.hpp"
//     namespace {
//     using namespace relay_test;
//     class delivery : public relay_fixture {};
//
//     TEST_F(delivery, a_busy_center_is_asked_again_after_a_hundredth_of_a_second) {
//         script_center({c_center_busy, c_center_took});
//         auto token = make_token({.dst_port = 7000, .data = {1, 2, 3}});
//         EXPECT_EQ(EPoll::send_center(token, token.get_header_packet()), 0);
//         EXPECT_EQ(journal_lines(about::center | about::pause),
//                   (lines{"send_zolt_center(token#1)", "rtsleep(0.01)", "send_zolt_center(token#1)"}));
//         EXPECT_EQ(take_offers().back().data, (bytes{1, 2, 3}));
//     }
//     } // namespace
//
// What holds at the end of every test, without a word in it: each error line and alert was expected, nothing is left in
// the ledger of packet parts, descriptors, threads and records are as before, no lock is held, no lock was taken in
// the wrong order, no part was used after it was freed. complaints() gives the same list earlier.
//
//     expect_error("udp bind 에러");                 one print_error, in order; text("udp_bind_failed") reads the ledger
//     expect_position(c_file_public);                one print_error(file, line)
//     expect_alert("...");                           one alert
//     errors_in_any_order();                         threads race
//     allow_left(token, "queued at finalize");       the part may stay
//     strict_traces(); expect_trace('t', "tcp received");   traces too
//
// Records. Made by hand; names appear in lines ("rec", "rec.send_lock"). keep: the fixture destroys it; else the relay.
//
//     auto* rec = make_tcp(c_kind_established_server, fd, "rec");   keep(rec);
//     auto* udp = make_udp(fd, "udp");
//
// System calls. `system` writes down and answers; everything else goes to the kernel. See system_calls.hpp.
//
//     system.fail("epoll_create1", 4, EMFILE);       the fourth from now on
//     system.deliver("recv", 1, block);              pretend that these bytes came
//     system.cap("send", 1, 10);                     a partial write
//     system.events(EPoll::epoll_tcp_recv, {{EPOLLIN, rec}, {EPOLLHUP, rec}});   then the thread is told to stop
//     EPoll::epoll_thread_tcp_recv_entry(nullptr);   runs the loop over them on this thread
//     EXPECT_EQ(system.calls("send")[0].data, expected);
//
// Engine calls. `engine` counts, answers or throws instead of a function of another source. See engine_calls.hpp.
//
//     engine.answer("recv_server", 0);
//     engine.on("recv_udp", [](void*) -> int { throw 7; });
//     EXPECT_EQ(engine.records("recv_server"), (std::vector<void const*>{rec}));
//
// The host: clocks (set_clock), ini values (set_ini), the timer by hand (tick(EPoll::inet_timer)), threads that really
// run (start_threads(true)), the Center (script_center, on_offer), packets (make_token, packet_bytes, set_header_size,
// script_alloc_data, script_timeouts), errno left behind by host operations (spoil_errno). See scripted_host.hpp.
//
// One sequence over all of them: journal_lines(about::steps) without queries, locks, clocks, traces and the safety
// additions (FD_CLOEXEC, SO_SNDTIMEO); choose others by a sum of about::... Descriptors and records show by name.
// Stress tests begin with record(false): then nothing is written down, checked for order or answered, parts are only
// counted, and the thread sanitizer sees the relay's own ordering. Waiting: wait_for_lines("EPoll::recv_udp", 2).
#ifndef TESTS_SUPPORT_RELAY_FIXTURE_HPP
#define TESTS_SUPPORT_RELAY_FIXTURE_HPP

#include "Center/INet_Relay/EPoll/epoll.hpp"
#include "Center/INet_Relay/EPoll/epoll_tcp_method.hpp"
#include "Center/INet_Relay/EPoll/epoll_tcp_method_client.hpp"
#include "Center/INet_Relay/EPoll/epoll_tcp_method_server.hpp"
#include "Center/INet_Relay/EPoll/epoll_thread.hpp"
#include "Center/INet_Relay/EPoll/epoll_udp_method.hpp"
#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"
#include "tests/support/balance.hpp"
#include "tests/support/engine_calls.hpp"
#include "tests/support/journal.hpp"
#include "tests/support/locks.hpp"
#include "tests/support/packets.hpp"
#include "tests/support/scripted_host.hpp"
#include "tests/support/system_calls.hpp"
#include "tests/support/texts.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace relay_test {

namespace INet_Relay = Zolt::Center::INet_Relay;
namespace EPoll = Zolt::Center::INet_Relay::EPoll;

class relay_fixture : public ::testing::Test {
public:
    relay_fixture();
    ~relay_fixture() override;

protected:
    void SetUp() override;
    void TearDown() override;

    void expect_error(std::string text);
    void expect_position(std::string const& file);
    void expect_alert(std::string message);
    void errors_in_any_order();
    /// From now on each trace must be expected, in order.
    void strict_traces();
    void expect_trace(char letter, std::string const& format);

    /// A record with an accepted or outgoing connection's fields, named in lines. Owner: the relay, unless kept.
    EPoll::struct_epoll_overlapped_tcp* make_tcp(int kind, int fd, std::string const& name);
    EPoll::struct_epoll_overlapped_ex* make_udp(int fd, std::string const& name);
    EPoll::struct_epoll_overlapped* make_listening(int fd, std::string const& name);
    /// The fixture destroys the record before it counts; its descriptor stays the test's.
    void keep(EPoll::struct_epoll_overlapped_tcp* rec);
    void keep(EPoll::struct_epoll_overlapped_ex* rec);
    void keep(EPoll::struct_epoll_overlapped* rec);
    /// What is wrong so far: failures that the harness noticed, error lines and traces against the expectations, ledger,
    /// descriptors, threads, records, locks. Consumes what it reports.
    std::vector<std::string> complaints();
    /// The same as one text, a line each; empty when all is well.
    std::string all_complaints();

    system_calls system;
    engine_calls engine;

private:
    void destroy_kept();
    void check_errors(std::vector<std::string>& found);
    void check_traces(std::vector<std::string>& found);

    balance balance_before;
    lines expected_errors;
    lines expected_traces;
    bool is_any_order = false;
    bool is_strict = false;
    std::vector<EPoll::struct_epoll_overlapped_tcp*> kept_tcp;
    std::vector<EPoll::struct_epoll_overlapped_ex*> kept_udp;
    std::vector<EPoll::struct_epoll_overlapped*> kept_listening;
};

/// Names the relay's global objects and functions in lines.
void name_relay_globals();
/// Names a record and its locks.
void name_record(EPoll::struct_epoll_overlapped_tcp* rec, std::string const& name);
void name_record(EPoll::struct_epoll_overlapped_ex* rec, std::string const& name);
/// The relay's globals as they are after loading: registries and lists empty, descriptors 0, no heartbeat. Records are
/// not destroyed, descriptors not closed.
void reset_relay_globals();

} // namespace relay_test

#endif
