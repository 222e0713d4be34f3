// The harness itself: that it sees what it must see, and fails when it should.
#include "Host/tesk_inet.hpp"
#include "Host/tesk_utility.hpp"
#include "Host/zolt_global.hpp"
#include "tests/support/allocations.hpp"
#include "tests/support/loopback.hpp"
#include "tests/support/relay_fixture.hpp"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <netinet/in.h>

namespace {

using namespace relay_test;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class harness : public relay_fixture {};

Zolt::struct_token copy_of(Zolt::struct_token const& token) {
    return token;
}

// --- ledger ----------------------------------------------------------------------------------------------------

TEST_F(harness, a_part_that_is_left_is_reported_with_its_creator) {
    auto token = make_token({.data = {1, 2}});
    EXPECT_THAT(complaints(), UnorderedElementsAre(HasSubstr("header#1 made by make_token on main"),
                                                   HasSubstr("data#1 made by make_token on main"),
                                                   HasSubstr("token#1 made by make_token on main")));
    token.free();
    EXPECT_EQ(all_complaints(), "");
}

TEST_F(harness, a_part_that_may_stay_is_not_reported) {
    auto token = make_token({.data = {1}});
    allow_left(token, "stays for this test");
    EXPECT_EQ(all_complaints(), "");
    token.free();
}

TEST_F(harness, a_permission_needs_a_reason_and_a_live_token) {
    auto token = make_token({});
    allow_left(token, "");
    token.free();
    allow_left(Zolt::struct_token(), "no such token");
    EXPECT_EQ(take_failures().size(), 2u);
}

TEST_F(harness, a_second_free_is_reported) {
    auto token = make_token({});
    auto copy = copy_of(token);
    token.free();
    copy.free();
    EXPECT_EQ(all_complaints(), "token#1 (make_token on main) used after free by free");
}

TEST_F(harness, a_header_used_after_free_is_reported) {
    auto token = make_token({});
    Zolt::struct_packet* const packet = token.get_header_packet();
    token.free();
    packet->set_data_size(4);
    EXPECT_THAT(all_complaints(), HasSubstr("header#1 (make_token on main) used after free by set_data_size"));
    std::memset(packet->get_header(), 0xDD, header_size()); // the poison again, so that nothing counts as written
    take_failures();
}

#ifndef __SANITIZE_ADDRESS__
TEST_F(harness, a_header_written_after_free_is_reported) {
    auto token = make_token({});
    unsigned char* const first = token.get_header_packet()->get_header();
    token.free();
    *first = 1;
    reset_packets();
    EXPECT_EQ(all_complaints(), "header or data #1 written after free");
}
#endif

TEST_F(harness, garbage_passed_as_a_token_is_reported) {
    Zolt::struct_token token;
    std::uintptr_t const garbage = 0x1000;
    std::memcpy(static_cast<void*>(&token), &garbage, sizeof garbage);
    token.free();
    EXPECT_EQ(all_complaints(), "unknown token passed to free");
}

TEST_F(harness, a_shared_header_lives_until_its_last_reference_goes) {
    auto heartbeat = make_token({.heartbeat = true});
    auto queued = copy_of(heartbeat);
    heartbeat.ref_header();
    EXPECT_EQ(header_references(heartbeat), 2);
    queued.free();
    EXPECT_EQ(header_references(heartbeat), 1);
    EXPECT_TRUE(heartbeat.has_header());
    heartbeat.free();
    EXPECT_EQ(all_complaints(), "");
}

TEST_F(harness, header_and_data_are_counted_apart) {
    auto sent = make_token({.call = true, .data = {1, 2, 3}});
    Zolt::struct_token waiting;
    waiting.set_header(sent);
    Zolt::struct_token copy;
    copy.alloc_header_force();
    copy.set_data(sent);
    EXPECT_EQ(header_references(sent), 2);
    EXPECT_EQ(data_references(sent), 2);
    waiting.free_data();
    EXPECT_EQ(data_references(sent), 2);
    sent.free();
    EXPECT_TRUE(waiting.has_header());
    EXPECT_EQ(copy.get_data()[2], 3);
    waiting.free_header();
    copy.free();
    EXPECT_EQ(all_complaints(), "");
}

TEST_F(harness, reset_forgets_without_dropping) {
    auto token = make_token({.data = {1}});
    auto copy = copy_of(token);
    token.reset();
    EXPECT_FALSE(token.has_header());
    EXPECT_EQ(header_references(copy), 1);
    copy.free();
}

TEST_F(harness, an_attached_array_is_data_and_is_released_with_it) {
    auto token = make_token({});
    token.get_header_packet()->set_data(new unsigned char[4]);
    EXPECT_TRUE(token.has_data());
    EXPECT_EQ(count_ledger().data_parts, 1);
    token.free_data();
    EXPECT_FALSE(token.has_data());
    EXPECT_EQ(count_ledger().data_parts, 0);
    token.free();
}

TEST_F(harness, alloc_data_fails_when_told_to) {
    auto token = make_token({});
    script_alloc_data({allocation::refused, allocation::throws, allocation::works});
    EXPECT_NE(token.alloc_data(8), 0);
    EXPECT_THROW(token.alloc_data(8), std::bad_alloc);
    EXPECT_EQ(token.alloc_data(8), 0);
    token.free();
}

class harness_header : public harness, public ::testing::WithParamInterface<unsigned> {};

TEST_P(harness_header, has_the_chosen_size_everywhere) {
    set_header_size(GetParam());
    packet_fields const fields{.call = true, .src_ip = 1, .dst_port = 7000, .sequence = 9, .data = {5, 6}};
    auto token = make_token(fields);
    EXPECT_EQ(token.get_header_packet()->get_header_size(), GetParam());
    EXPECT_EQ(token.get_header_packet()->get_packet_size(), GetParam() + 2);
    EXPECT_EQ(packet_bytes(fields).size(), GetParam() + 2);
    packet_fields const read = read_packet(packet_bytes(fields));
    EXPECT_TRUE(read.call);
    EXPECT_EQ(read.dst_port, 7000);
    EXPECT_EQ(read.data, (bytes{5, 6}));
    *token.get_data_packet() = *token.get_header_packet();
    EXPECT_EQ(std::memcmp(token.get_data_packet()->get_header(), packet_bytes(fields).data(), GetParam() + 2), 0);
    token.free();
}

INSTANTIATE_TEST_SUITE_P(sizes, harness_header, ::testing::Values(48u, 64u, 200u));

// --- locks -----------------------------------------------------------------------------------------------------

TEST_F(harness, the_stated_order_of_locks_is_accepted) {
    auto* const rec = make_tcp(EPoll::c_kind_established_client, -1, "rec");
    keep(rec);
    {
        Tesk::OS::class_locker const registry(&EPoll::g_client_lock, nullptr);
        Tesk::OS::class_locker const again(&EPoll::g_client_lock, nullptr);
        Tesk::OS::class_locker const send(rec->send_lock, nullptr);
        Tesk::OS::class_locker const ack(rec->ack_lock, nullptr);
        EXPECT_THAT(held_locks(), ElementsAre("g_client_lock", "rec.send_lock", "rec.ack_lock"));
    }
    EXPECT_EQ(journal_lines(about::lock),
              (lines{"g_client_lock.lock(pointer, depth 1)", "g_client_lock.lock(pointer, depth 2)",
                     "rec.send_lock.lock(reference, depth 1)", "rec.ack_lock.lock(reference, depth 1)",
                     "rec.ack_lock.unlock(guard, depth 0)", "rec.send_lock.unlock(guard, depth 0)",
                     "g_client_lock.unlock(guard, depth 1)", "g_client_lock.unlock(guard, depth 0)"}));
    EXPECT_EQ(all_complaints(), "");
}

TEST_F(harness, each_inversion_of_the_order_is_reported) {
    auto* const a = make_tcp(EPoll::c_kind_established_client, -1, "a");
    auto* const b = make_tcp(EPoll::c_kind_established_server, -1, "b");
    keep(a);
    keep(b);
    std::pair<Tesk::OS::class_lock*, Tesk::OS::class_lock*> const inversions[] = {
        {&a->send_lock, &EPoll::g_client_lock},
        {&a->ack_lock, &a->send_lock},
        {&a->ack_lock, &EPoll::g_establish_server_map_lock},
        {&EPoll::g_client_lock, &EPoll::g_establish_server_map_lock},
        {&a->send_lock, &b->send_lock},
    };
    for (auto const& [outer, inner] : inversions) {
        {
            Tesk::OS::class_locker const first(outer, nullptr);
            Tesk::OS::class_locker const second(inner, nullptr);
        }
        EXPECT_EQ(all_complaints(),
                  "lock order: " + known_object_name(inner) + " taken while holding " + known_object_name(outer));
    }
}

TEST_F(harness, an_unlocker_lets_go_and_takes_again) {
    auto* const rec = make_tcp(EPoll::c_kind_established_client, -1, "rec");
    keep(rec);
    {
        Tesk::OS::class_locker const send(rec->send_lock, nullptr);
        Tesk::OS::class_unlocker const open(&rec->send_lock);
        EXPECT_EQ(held_lock_count(), 0);
        std::thread([&] { Tesk::OS::class_locker const other(rec->send_lock, nullptr); }).join();
    }
    EXPECT_THAT(journal_lines(about::lock), Contains("rec.send_lock.retake(unlocker, depth 1)"));
    EXPECT_EQ(all_complaints(), "");
}

TEST_F(harness, the_second_argument_of_a_guard_must_be_null) {
    unsigned char something = 0;
    { Tesk::OS::class_locker const guard(&EPoll::g_client_lock, &something); }
    EXPECT_EQ(all_complaints(), "class_locker: the second argument is not null");
}

TEST_F(harness, a_lock_is_made_with_zero) {
    { Tesk::OS::class_thread_lock const lock(3); }
    EXPECT_EQ(all_complaints(), "class_thread_lock made with 3");
}

TEST_F(harness, a_lock_that_is_still_held_is_reported) {
    auto guard = std::make_unique<Tesk::OS::class_locker>(&EPoll::g_client_lock, nullptr);
    EXPECT_EQ(all_complaints(), "held locks: 0 before, 1 after");
    guard.reset();
}

TEST_F(harness, a_record_that_is_left_is_reported) {
    std::unique_ptr<EPoll::struct_epoll_overlapped_tcp> const tcp(make_tcp(4, -1, "tcp"));
    std::unique_ptr<EPoll::struct_epoll_overlapped_ex> const udp(make_udp(-1, "udp"));
    EXPECT_EQ(all_complaints(), "locks of records: 2 before, 5 after");
}

// --- error lines, alerts and traces ----------------------------------------------------------------------------

TEST_F(harness, an_unexpected_error_line_is_reported) {
    Tesk::Utility::print_error("trouble");
    EXPECT_EQ(all_complaints(), "unexpected error line: \"trouble\"");
    Tesk::Utility::print_error("some_file", 12);
    EXPECT_EQ(all_complaints(), "unexpected error line: \"some_file:LINE\"");
    Tesk::Utility::alert("fire", "Zolt Error");
    EXPECT_EQ(all_complaints(), "unexpected error line: \"Zolt Error: fire\"");
}

TEST_F(harness, a_missing_error_line_is_reported) {
    expect_error("trouble");
    EXPECT_EQ(all_complaints(), "expected error line is missing here: \"trouble\"");
}

TEST_F(harness, error_lines_are_compared_in_order_and_byte_for_byte) {
    expect_error("a");
    expect_error("b");
    Tesk::Utility::print_error("b");
    Tesk::Utility::print_error("a");
    EXPECT_EQ(complaints().size(), 4u);
    expect_error("a\n");
    Tesk::Utility::print_error("a");
    EXPECT_EQ(complaints().size(), 2u);
}

TEST_F(harness, the_order_of_error_lines_can_be_left_open) {
    errors_in_any_order();
    expect_error("a");
    expect_position("file");
    expect_alert("c");
    Tesk::Utility::alert("c", "Zolt Error");
    Tesk::Utility::print_error("file", 3);
    Tesk::Utility::print_error("a");
    EXPECT_EQ(all_complaints(), "");
}

TEST_F(harness, traces_are_kept_with_their_raw_arguments) {
    static char const format[] = "%d clk - header complated  - data size is %d. %08X.";
    Zolt::Common::Global::zolt_debug_not_send('E', Zolt::struct_token(), "Center/some/file", 17, format, -3, 40,
                                              0xABCDu);
    auto const trace = take_traces().at(0);
    EXPECT_EQ(trace.letter, 'E');
    EXPECT_FALSE(trace.has_header);
    EXPECT_EQ(trace.file, "Center/some/file");
    EXPECT_EQ(trace.line, 17);
    EXPECT_EQ(trace.format, format);
    EXPECT_EQ(trace.arguments, (std::vector<trace_argument>{-3L, 40L, 0xABCDul}));
}

TEST_F(harness, the_delete_trace_is_read_with_two_texts_only) {
    Zolt::Common::Global::zolt_debug_not_send('E', Zolt::struct_token(), "f", 1, text("deleted").c_str(), "client",
                                              Tesk::INet::str_from_ip(Zolt::c_local_host));
    EXPECT_EQ(take_traces().at(0).arguments,
              (std::vector<trace_argument>{std::string("client"), std::string("127.0.0.1")}));
}

TEST_F(harness, strict_traces_must_be_expected) {
    strict_traces();
    expect_trace('t', "one");
    Zolt::Common::Global::zolt_debug_not_send('T', Zolt::struct_token(), "f", 1, "one");
    EXPECT_THAT(complaints(), ElementsAre("expected trace is missing here: \"t one\"", "unexpected trace: \"T one\""));
}

// --- the Center, clocks, configuration, threads ----------------------------------------------------------------

TEST_F(harness, the_center_answers_as_scripted_and_keeps_what_it_took) {
    script_center({c_center_busy, c_center_refused, 5});
    auto token = make_token({.sequence = 3, .data = {9, 8}});
    for (int const answer : {c_center_busy, c_center_refused, 5, c_center_took}) {
        EXPECT_EQ(Zolt::Common::Global::send_zolt_center(token), answer);
    }
    auto const offers = take_offers();
    ASSERT_EQ(offers.size(), 4u);
    EXPECT_EQ(offers[3].data, (bytes{9, 8}));
    EXPECT_EQ(offers[3].packet.sequence, 3u);
    EXPECT_EQ(offers[3].header.size(), header_size());
    token.free();
    EXPECT_EQ(fields_of(token = copy_of(Zolt::struct_token())).data.size(), 0u);
    EXPECT_EQ(all_complaints(), "fields_of: the token has no header");
}

TEST_F(harness, a_packet_that_the_center_took_may_be_given_up_once) {
    auto token = make_token({});
    auto second = copy_of(token);
    auto third = copy_of(token);
    Zolt::Common::Global::send_zolt_center(token);
    second.free();
    EXPECT_EQ(take_failures().size(), 0u);
    third.free();
    EXPECT_EQ(all_complaints(), "token#1, taken by the Center, freed again by free");
}

TEST_F(harness, an_offer_under_a_registry_lock_is_reported) {
    auto token = make_token({});
    Tesk::OS::class_locker const guard(&EPoll::g_client_lock, nullptr);
    Zolt::Common::Global::send_zolt_center(token);
    EXPECT_THAT(take_failures(), ElementsAre("send_zolt_center called under a registry lock or an ack_lock"));
}

TEST_F(harness, clocks_stand_until_they_are_set) {
    unsigned long const start = Tesk::OS::lemon_clock();
    EXPECT_EQ(Tesk::OS::lemon_clock(), start);
    advance_clock(8001);
    EXPECT_EQ(Tesk::OS::lemon_clock(), start + 8001);
    set_cpu_clock(5);
    EXPECT_EQ(Tesk::OS::lemon_cpu_clock(), 5u);
}

TEST_F(harness, ini_values_are_lower_case_in_one_buffer) {
    set_ini("A", "No");
    char const* const first = Tesk::Utility::get_lwr_string_from_ini_file("f", "s", "A", "yes");
    EXPECT_STREQ(first, "no");
    Tesk::Utility::get_lwr_string_from_ini_file("f", "s", "B", "yes");
    EXPECT_STREQ(first, "yes");
    EXPECT_EQ(Tesk::Utility::get_integer_from_ini_file("f", "s", "C", 5), 5);
    set_ini("C", -7);
    EXPECT_EQ(Tesk::Utility::get_integer_from_ini_file("f", "s", "C", 5), -7);
}

TEST_F(harness, host_operations_keep_errno_or_spoil_it) {
    errno = EDOM;
    Tesk::Utility::print_error("x");
    Tesk::INet::str_from_ip(1);
    EXPECT_EQ(errno, EDOM);
    spoil_errno(ERANGE);
    Tesk::Utility::print_error("x");
    EXPECT_EQ(errno, ERANGE);
    take_errors();
}

void* count_entry(Tesk::OS::class_thread* thread) {
    Tesk::OS::thread_yield();
    return thread;
}

TEST_F(harness, a_thread_runs_only_when_told_to) {
    Tesk::OS::class_thread thread;
    EXPECT_EQ(thread.eproc_create(count_entry, nullptr), 0);
    EXPECT_EQ(thread.proc_wait_exit(nullptr), 0);
    EXPECT_EQ(journal_count("thread_yield"), 0u);
    start_threads(true);
    void* result = nullptr;
    thread.eproc_create(count_entry, nullptr);
    EXPECT_TRUE(wait_for_lines("thread_yield", 1));
    thread.proc_wait_exit(&result);
    EXPECT_EQ(result, &thread);
    EXPECT_EQ(returned_threads(), 1);
    script_create_results({11});
    EXPECT_EQ(thread.eproc_create(count_entry, nullptr), 11);
    EXPECT_FALSE(is_running(thread));
}

int g_ticks = 0;
void count_tick(Tesk::OS::class_timer*) {
    ++g_ticks;
}

TEST_F(harness, the_timer_ticks_by_hand_while_it_runs) {
    g_ticks = 0;
    Tesk::OS::class_timer timer;
    tick(timer);
    EXPECT_THAT(take_failures(), ElementsAre("tick of a timer that is not running"));
    timer.eproc_create(1.0, count_tick, nullptr);
    tick(timer);
    EXPECT_EQ(g_ticks, 1);
    timer.proc_destroy();
    EXPECT_FALSE(is_running(timer));
}

// --- balance, waiting, memory, texts ---------------------------------------------------------------------------

TEST_F(harness, an_open_descriptor_is_reported_with_its_kind) {
    int const instance = ::epoll_create1(0);
    EXPECT_EQ(all_complaints(), "descriptor " + std::to_string(instance) + " (eventpoll) is still open");
    EXPECT_EQ(count_descriptors(take_balance(), "eventpoll"), 1);
    ::close(instance);
}

TEST_F(harness, a_descriptor_that_is_gone_or_another_is_reported) {
    balance const before{{{40, "socket"}, {41, "socket"}}, 1, 2, {}, 0};
    balance const after{{{41, "eventpoll"}}, 2, 2, {}, 0};
    EXPECT_THAT(differences(before, after),
                ElementsAre("descriptor 40 (socket) was closed", "descriptor 41 was a socket and is a eventpoll",
                            "threads: 1 before, 2 after"));
}

TEST_F(harness, a_wait_ends_at_its_limit) {
    EXPECT_FALSE(wait_for_lines("nothing", 1, std::chrono::milliseconds(5)));
}

TEST_F(harness, without_recording_nothing_is_written_and_parts_still_balance) {
    record(false);
    auto* const rec = make_tcp(EPoll::c_kind_established_server, -1, "rec");
    keep(rec);
    auto heartbeat = make_token({.heartbeat = true});
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 2; ++thread) {
        heartbeat.ref_header();
        threads.emplace_back([rec, heartbeat]() mutable {
            for (int round = 0; round < 1000; ++round) {
                auto token = make_token({.data = {1, 2, 3}});
                Tesk::OS::class_locker const guard(rec->send_lock, nullptr);
                Zolt::Common::Global::send_zolt_center(token);
            }
            heartbeat.free();
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_THAT(journal_lines(about::all & ~about::object), IsEmpty());
    EXPECT_EQ(count_ledger().headers, 1);
    EXPECT_THAT(complaints(), Contains(HasSubstr("packet parts are left: 1 headers")));
    heartbeat.free();
}

TEST_F(harness, memory_is_counted_and_fails_when_told_to) {
    long const so_far = count_allocations();
    ::operator delete(::operator new(4));
    ::operator delete[](::operator new[](4));
    EXPECT_EQ(count_allocations(), so_far + 2);
    void* second = nullptr;
    fail_allocation(2);
    ::operator delete(::operator new(4));
    EXPECT_THROW(second = ::operator new(4), std::bad_alloc);
    EXPECT_EQ(second, nullptr);
    fail_allocation(0);
}

TEST_F(harness, the_text_ledger_is_read_strictly) {
    EXPECT_EQ(parse_texts("# c\n\na\tone\\n\nb\ttwo\\s\nc\tback\\\\slash\n"),
              (std::map<std::string, std::string>{{"a", "one\n"}, {"b", "two "}, {"c", "back\\slash"}}));
    for (char const* const wrong : {"no tab\n", "a\tx\na\ty\n", "a\t\n", "\tx\n", "a\t\\q\n"}) {
        EXPECT_THROW(parse_texts(wrong), std::runtime_error) << wrong;
    }
    EXPECT_THROW(text("no such id"), std::runtime_error);
}

// True when the bytes hold the text with its end; or, where the compiler builds a short text out of immediate values,
// each of its words of eight bytes (what is left at the end then counts for little; the tests of each text hold it too).
bool holds_text(std::string const& library, std::string const& wanted) {
    if (library.find(wanted + '\0') != std::string::npos) {
        return true;
    }
    for (std::size_t at = 0; at < wanted.size(); at += 8) {
        if (library.find(wanted.substr(at, 8)) == std::string::npos) {
            return false;
        }
    }
    return wanted.size() <= 32;
}

TEST_F(harness, every_text_of_the_ledger_is_in_the_built_relay) {
    std::ifstream in(RELAY_LIBRARY, std::ios::binary);
    std::string const library{std::istreambuf_iterator<char>(in), {}};
    ASSERT_GT(library.size(), 1000u);
    for (auto const& [id, wanted] : all_texts()) {
        EXPECT_TRUE(holds_text(library, wanted)) << id << ": " << wanted;
    }
    EXPECT_FALSE(holds_text(library, "a text that no relay ever prints, longer than any short one"));
    EXPECT_FALSE(holds_text(library, "epoll-create failed"));
}

} // namespace
