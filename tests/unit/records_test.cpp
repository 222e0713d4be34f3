// Records: what they hold, what becomes of a queue that is emptied, and the two ways in which a record is destroyed.
#include "tests/support/loopback.hpp"
#include "tests/support/real_calls.hpp"
#include "tests/support/relay_fixture.hpp"

#include <algorithm>
#include <cstring>
#include <memory>
#include <set>
#include <thread>
#include <type_traits>

#include <fcntl.h>

namespace {

using namespace relay_test;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

using listening_record = EPoll::struct_epoll_overlapped;
using udp_record = EPoll::struct_epoll_overlapped_ex;
using tcp_record = EPoll::struct_epoll_overlapped_tcp;

constexpr std::uint32_t c_not_connected = 0x40000001;
constexpr std::size_t c_block_size = 1024;

lines operator+(lines left, lines const& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

/// The relay's instances are open; records have sockets that only the relay closes.
class records : public relay_fixture {
protected:
    void SetUp() override {
        relay_fixture::SetUp();
        std::pair<int*, char const*> const stored[] = {{&EPoll::epoll_tcp_init, "tcp_init"},
                                                       {&EPoll::epoll_tcp_recv, "tcp_recv"},
                                                       {&EPoll::epoll_tcp_send, "tcp_send"},
                                                       {&EPoll::epoll_udp_recv, "udp_recv"},
                                                       {&EPoll::epoll_udp_send, "udp_send"}};
        for (auto const& [instance, name] : stored) {
            instances.emplace_back(__real_epoll_create1(EPOLL_CLOEXEC));
            *instance = instances.back().get();
            name_descriptor(*instance, name);
        }
    }
    void TearDown() override {
        instances.clear();
        relay_fixture::TearDown();
    }

    tcp_record* make_record(int kind, std::string const& name = "rec") {
        int const fd = new_socket(name + ".fd");
        return make_tcp(kind, fd, name);
    }

    static int new_socket(std::string const& name) {
        int const fd = __real_socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        name_descriptor(fd, name);
        return fd;
    }

    /// A packet with data, named in lines.
    static Zolt::struct_token packet(std::string const& name, packet_fields fields = {.data = {1, 2}}) {
        auto token = make_token(std::move(fields));
        name_object(token.get_header_packet(), name);
        return token;
    }

    /// The lines of calls with these names, in the order in which they were made.
    static lines calls_of(std::set<std::string> const& names) {
        lines chosen;
        for (journal_entry const& entry : journal_entries()) {
            if (names.contains(entry.name)) {
                chosen.push_back(entry.text);
            }
        }
        return chosen;
    }

    /// The records that registrations and their changes named.
    std::vector<void const*> registered() const {
        std::vector<void const*> pointers;
        for (system_call const& call : system.calls("epoll_ctl")) {
            if (call.arguments.at(1) != EPOLL_CTL_DEL) {
                pointers.push_back(call.pointer);
            }
        }
        return pointers;
    }

    std::vector<descriptor> instances;
};

// --- what a record holds -------------------------------------------------------------------------------------------

template <class record, class... field>
std::vector<std::ptrdiff_t> offsets(record const& rec, field const&... fields) {
    auto const* const start = reinterpret_cast<char const*>(&rec);
    return {reinterpret_cast<char const*>(&fields) - start...};
}

TEST(record, starts_with_descriptor_and_kind) {
    listening_record const rec;
    EXPECT_EQ(offsets(rec, rec.fd, rec.kind), (std::vector<std::ptrdiff_t>{0, 4}));
}

TEST(record, fields_stand_in_one_order_each_kind_of_record_after_the_one_it_extends) {
    tcp_record const rec;
    auto const all =
        offsets(rec, rec.fd, rec.kind, rec.local_ip, rec.local_port, rec.recv_token, rec.send_q, rec.send_lock,
                rec.sending, rec.recv_clock, rec.recv_ptr, rec.recv_remain, rec.send_clock, rec.send_ptr,
                rec.send_remain, rec.remote_ip, rec.remote_port, rec.gate_port, rec.server_init_header,
                rec.client_init_header, rec.sending_header, rec.close_requested, rec.ack_q, rec.ack_lock);
    EXPECT_TRUE(std::ranges::is_sorted(all, std::less_equal())) << "an offset that is not above the one before";
    static_assert(std::is_base_of_v<listening_record, udp_record> && std::is_base_of_v<udp_record, tcp_record>);
    udp_record const udp;
    EXPECT_EQ(offsets(udp, udp.recv_token, udp.send_remain), offsets(rec, rec.recv_token, rec.send_remain));
}

TEST(record, fields_have_their_types) {
    static_assert(std::is_same_v<decltype(tcp_record::fd), int> && std::is_same_v<decltype(tcp_record::kind), int>);
    static_assert(std::is_same_v<decltype(tcp_record::local_ip), std::uint32_t>);
    static_assert(std::is_same_v<decltype(tcp_record::remote_ip), std::uint32_t>);
    static_assert(std::is_same_v<decltype(tcp_record::local_port), std::uint16_t>);
    static_assert(std::is_same_v<decltype(tcp_record::remote_port), std::uint16_t>);
    static_assert(std::is_same_v<decltype(tcp_record::gate_port), std::uint16_t>);
    static_assert(std::is_same_v<decltype(tcp_record::recv_token), Zolt::struct_token>);
    static_assert(std::is_same_v<decltype(tcp_record::send_q), std::deque<Zolt::struct_token>>);
    static_assert(std::is_same_v<decltype(tcp_record::ack_q), std::deque<Zolt::struct_token>>);
    static_assert(std::is_same_v<decltype(tcp_record::send_lock), Tesk::OS::class_thread_lock>);
    static_assert(std::is_same_v<decltype(tcp_record::ack_lock), Tesk::OS::class_thread_lock>);
    static_assert(std::is_same_v<decltype(tcp_record::recv_clock), std::uint64_t>);
    static_assert(std::is_same_v<decltype(tcp_record::send_clock), std::uint64_t>);
    static_assert(std::is_same_v<decltype(tcp_record::recv_ptr), unsigned char*>);
    static_assert(std::is_same_v<decltype(tcp_record::send_ptr), unsigned char*>);
    static_assert(std::is_same_v<decltype(tcp_record::sending), bool>);
    static_assert(std::is_same_v<decltype(tcp_record::sending_header), bool>);
    static_assert(std::is_same_v<decltype(tcp_record::close_requested), bool>);
    EXPECT_EQ(sizeof(tcp_record::server_init_header), c_block_size);
    EXPECT_EQ(sizeof(tcp_record::client_init_header), c_block_size);
}

TEST(record, kinds_are_counted_from_0_to_5) {
    EXPECT_THAT(
        (std::vector<int>{EPoll::c_kind_udp, EPoll::c_kind_listen, EPoll::c_kind_accepted, EPoll::c_kind_connecting,
                          EPoll::c_kind_established_server, EPoll::c_kind_established_client}),
        ElementsAre(0, 1, 2, 3, 4, 5));
}

TEST(record, is_destroyed_without_a_virtual_destructor) {
    EXPECT_FALSE(std::is_polymorphic_v<udp_record>);
    EXPECT_FALSE(std::is_polymorphic_v<tcp_record>);
    EXPECT_FALSE(std::is_trivially_destructible_v<udp_record>);
}

bool is_default_block(Zolt::struct_tcp_header const& block) {
    Zolt::struct_tcp_header const fresh;
    return std::memcmp(&block, &fresh, sizeof fresh) == 0;
}

void expect_fresh(udp_record const& rec) {
    EXPECT_FALSE(has_header_part(rec.recv_token));
    EXPECT_TRUE(rec.send_q.empty());
    EXPECT_FALSE(rec.sending);
    EXPECT_EQ(rec.recv_clock, 0u);
    EXPECT_EQ(rec.recv_ptr, nullptr);
    EXPECT_EQ(rec.recv_remain, 0u);
    EXPECT_EQ(rec.send_clock, 0u);
    EXPECT_EQ(rec.send_ptr, nullptr);
    EXPECT_EQ(rec.send_remain, 0u);
}

TEST_F(records, begin_with_nothing_queued_nothing_under_way_and_nothing_counted) {
    udp_record const udp;
    expect_fresh(udp);
    tcp_record const tcp;
    expect_fresh(tcp);
    EXPECT_TRUE(tcp.ack_q.empty());
    EXPECT_FALSE(tcp.sending_header);
    EXPECT_FALSE(tcp.close_requested);
    EXPECT_TRUE(is_default_block(tcp.server_init_header));
    EXPECT_TRUE(is_default_block(tcp.client_init_header));
}

TEST_F(records, begin_without_an_owner_that_has_given_them_up) {
    tcp_record const rec;
    EXPECT_FALSE(rec.send_armed);
    EXPECT_FALSE(rec.doomed);
    EXPECT_FALSE(rec.shadowed);
    EXPECT_EQ(rec.phase, EPoll::outgoing_phase::none);
    EXPECT_EQ(rec.listed.back, nullptr);
    EXPECT_EQ(rec.ending.back, nullptr);
}

TEST_F(records, make_their_locks_of_kind_0) {
    auto const locks_of = [](auto make) {
        clear_journal();
        make();
        return journal_count("class_thread_lock");
    };
    EXPECT_EQ(locks_of([] { udp_record const rec; }), 1u);
    EXPECT_EQ(locks_of([] { tcp_record const rec; }), 2u);
    EXPECT_THAT(journal_lines(about::object), Each(::testing::Not(::testing::HasSubstr("with a kind that is not 0"))));
}

TEST_F(records, of_udp_flush_nothing_when_they_are_destroyed) {
    udp_record* const rec = make_udp(-1, "udp");
    auto queued = packet("queued");
    rec->send_q.push_back(queued);
    clear_journal();
    delete rec;
    EXPECT_EQ(journal_lines(about::packet | about::center | about::system | about::lock), lines{});
    EXPECT_EQ(calls_of({"~class_thread_lock"}), (lines{"udp.send_lock.~class_thread_lock()"}));
    EXPECT_EQ(header_references(queued), 1);
    queued.free();
}

// --- which operation gives a record its kind, and that events lead back to the record ---------------------------

TEST_F(records, of_a_udp_port_are_of_kind_0_and_found_from_their_events) {
    std::uint16_t const port = unused_port();
    ASSERT_EQ(EPoll::udp_initialize(port), 0);
    udp_record* const rec = EPoll::g_udp_map.at(port);
    EXPECT_EQ(rec->kind, 0);
    EXPECT_EQ(registered(), std::vector<void const*>(2, rec));
    EPoll::udp_finalize();
}

TEST_F(records, of_a_listening_socket_are_of_kind_1_and_found_from_their_events) {
    std::uint16_t const port = unused_port();
    ASSERT_EQ(EPoll::request_listen(port), 0);
    ASSERT_THAT(registered(), SizeIs(1));
    auto const* const rec = static_cast<listening_record*>(system.calls("epoll_ctl").at(0).pointer);
    EXPECT_EQ(rec->kind, 1);
    EXPECT_EQ(rec->fd, EPoll::g_server_map.at(port));
    real::close(rec->fd);
    EPoll::free_listening_records();
}

TEST_F(records, of_an_accepted_connection_are_of_kind_2_and_found_from_their_events) {
    listening_record* const listening = make_listening(-1, "listening");
    keep(listening);
    system.answer("accept", 1, new_socket("rec.fd"));
    ASSERT_EQ(EPoll::accept(listening), 0);
    tcp_record* const rec = EPoll::g_accepted_exchanging.first;
    ASSERT_NE(rec, nullptr);
    EXPECT_EQ(rec->kind, 2);
    EXPECT_EQ(registered(), std::vector<void const*>{rec});
    EPoll::delete_overlapped(rec);
}

TEST_F(records, of_a_destination_are_of_kind_3_and_found_from_their_events) {
    system.answer("connect", 1, 0);
    INet_Relay::add_client(Zolt::c_local_host, 9000);
    tcp_record* const rec = EPoll::g_connect_map.at({Zolt::c_local_host, 9000});
    EXPECT_EQ(rec->kind, 3);
    EXPECT_EQ(registered(), std::vector<void const*>{rec});
    EPoll::delete_overlapped(rec);
}

TEST_F(records, become_kind_4_once_the_accepting_sides_block_is_sent) {
    tcp_record* const rec = make_record(EPoll::c_kind_accepted);
    rec->send_remain = c_block_size;
    for (std::size_t const sent : {c_block_size - 1, std::size_t{1}}) {
        EXPECT_EQ(rec->kind, 2);
        system.answer("send", 1, static_cast<long>(sent));
        system.answer("epoll_ctl", 1, 0);
        EPoll::send_server_init(rec);
    }
    EXPECT_EQ(rec->kind, 4);
    EXPECT_EQ(registered(), std::vector<void const*>(2, rec));
    EPoll::delete_overlapped(rec);
}

TEST_F(records, become_kind_5_once_the_servers_block_has_arrived) {
    tcp_record* const rec = make_record(EPoll::c_kind_connecting);
    rec->recv_remain = c_block_size;
    for (std::size_t const received : {c_block_size - 1, std::size_t{1}}) {
        EXPECT_EQ(rec->kind, 3);
        system.deliver("recv", 1, bytes(received));
        system.answer("epoll_ctl", 1, 0);
        EPoll::recv_client_init(rec);
    }
    EXPECT_EQ(rec->kind, 5);
    EXPECT_EQ(registered(), std::vector<void const*>(2, rec));
    EPoll::delete_overlapped(rec);
}

TEST_F(records, made_for_a_reconnect_are_of_kind_3_without_a_socket) {
    tcp_record* const rec = make_record(EPoll::c_kind_established_client);
    EPoll::close_client(rec);
    tcp_record* const fresh = EPoll::g_connect_fail_map.at({Zolt::c_local_host, 9000});
    expect_fresh(*fresh);
    EXPECT_EQ(fresh->kind, 3);
    EXPECT_EQ(fresh->fd, -1);
    EXPECT_EQ(fresh->local_ip, 0u);
    EXPECT_EQ(fresh->local_port, 0);
    EXPECT_EQ(fresh->gate_port, 0);
    EPoll::delete_overlapped(fresh);
}

TEST_F(records, whose_exchange_failed_are_used_again_with_the_address_that_they_had) {
    tcp_record* const rec = make_record(EPoll::c_kind_connecting);
    rec->local_port = unused_port();
    EPoll::failed_connect_init(rec);
    EXPECT_EQ(EPoll::g_connect_fail_map.at({Zolt::c_local_host, 9000}), rec);
    system.answer("connect", 1, 0);
    EPoll::timer_reconnect_client();
    EXPECT_EQ(EPoll::g_connect_map.at({Zolt::c_local_host, 9000}), rec);
    EXPECT_TRUE(EPoll::g_connect_fail_map.empty());
    system_call const bound = system.calls("bind").at(0);
    EXPECT_EQ(bound.ip, Zolt::c_local_host);
    EXPECT_EQ(bound.port, rec->local_port);
    EPoll::delete_overlapped(rec);
}

// --- emptying a queue ----------------------------------------------------------------------------------------------

class purging : public records {
protected:
    void SetUp() override {
        records::SetUp();
        rec = make_tcp(EPoll::c_kind_established_server, -1, "rec");
        keep(rec);
    }

    void queue(std::vector<Zolt::struct_token> const& tokens) {
        rec->send_q.assign(tokens.begin(), tokens.end());
        clear_journal();
    }

    static constexpr unsigned steps = about::packet | about::lock | about::trace | about::center;

    /// What happens while the lock is held, with the lines of the lock around it.
    static lines locked(lines const& inside = {}) {
        return lines{"rec.send_lock.lock(reference, depth 1)"} + inside + lines{"rec.send_lock.unlock(guard, depth 0)"};
    }

    tcp_record* rec = nullptr;
};

TEST_F(purging, an_empty_queue_does_nothing_but_look) {
    EPoll::clear_send_q(rec);
    EXPECT_EQ(journal_lines(steps), locked());
}

TEST_F(purging, pops_a_close_marker_without_a_word) {
    queue({Zolt::struct_token()});
    EPoll::clear_send_q(rec);
    EXPECT_TRUE(rec->send_q.empty());
    EXPECT_EQ(journal_lines(steps), locked());
}

TEST_F(purging, returns_a_packet_as_an_error_and_frees_what_was_queued) {
    queue({packet("queued")});
    EPoll::clear_send_q(rec);
    EXPECT_TRUE(rec->send_q.empty());
    EXPECT_EQ(journal_lines(steps),
              locked({"queued.free_data()", "queued.backward_error_switch(0x40000001)", "token#2.alloc_header_force()",
                      "header#2.operator=(queued)", "zolt_debug_not_send(t, token#2, \"" + text("tcp_received") + "\")",
                      "send_zolt_center(token#2)", "header#2.update_packet_time_and_return_timeout()",
                      "queued.free_header()"}));
}

TEST_F(purging, drops_a_packet_for_which_no_error_is_due) {
    queue({packet("queued")});
    script_error_replies({false});
    EPoll::clear_send_q(rec);
    EXPECT_EQ(journal_lines(steps),
              locked({"queued.free_data()", "queued.backward_error_switch(0x40000001)", "queued.free_header()"}));
}

TEST_F(purging, returns_a_copy_of_the_header_that_names_the_error) {
    queue({packet("queued", {.src_ip = 1, .src_port = 2, .dst_ip = 3, .dst_port = 4, .sequence = 9, .data = {5}})});
    EPoll::clear_send_q(rec);
    auto const offers = take_offers();
    ASSERT_THAT(offers, SizeIs(1));
    packet_fields const& reply = offers[0].packet;
    EXPECT_EQ(reply.error, c_not_connected);
    EXPECT_EQ(reply.sequence, 9u);
    EXPECT_EQ(reply.src_ip, 3u);
    EXPECT_EQ(reply.dst_port, 2);
    EXPECT_THAT(reply.data, IsEmpty());
}

TEST_F(purging, offers_under_the_send_lock) {
    queue({packet("queued")});
    EPoll::clear_send_q(rec);
    EXPECT_THAT(take_offers(), ElementsAre(Field(&center_offer::locks, ElementsAre("rec.send_lock"))));
}

TEST_F(purging, empties_the_whole_queue_from_the_front) {
    queue({packet("first", {.sequence = 1}), Zolt::struct_token(), packet("second", {.heartbeat = true}),
           packet("third", {.sequence = 3})});
    EPoll::clear_send_q(rec);
    EXPECT_TRUE(rec->send_q.empty());
    EXPECT_EQ(calls_of({"free_header"}), (lines{"first.free_header()", "second.free_header()", "third.free_header()"}));
    lines sequences;
    for (center_offer const& offer : take_offers()) {
        sequences.push_back(std::to_string(offer.packet.sequence));
    }
    EXPECT_EQ(sequences, (lines{"1", "3"}));
}

TEST_F(purging, drops_one_reference_of_the_shared_heartbeat) {
    auto heartbeat = packet("heartbeat", {.heartbeat = true});
    heartbeat.ref_header();
    queue({heartbeat});
    EPoll::clear_send_q(rec);
    EXPECT_EQ(header_references(heartbeat), 1);
    EXPECT_EQ(fields_of(heartbeat).error, 0u);
    heartbeat.free();
}

TEST_F(purging, goes_on_when_the_center_refuses_a_reply) {
    queue({packet("first"), packet("second")});
    script_center({c_center_refused, c_center_took});
    EPoll::clear_send_q(rec);
    EXPECT_THAT(take_offers(), SizeIs(2));
    EXPECT_TRUE(rec->send_q.empty());
}

TEST_F(purging, takes_the_lock_again_when_the_caller_has_it) {
    Tesk::OS::class_locker const guard(rec->send_lock, nullptr);
    EPoll::clear_send_q(rec);
    EXPECT_THAT(journal_lines(about::lock), Contains("rec.send_lock.lock(reference, depth 2)"));
}

// --- an error event while sending ----------------------------------------------------------------------------------

class error_event_while_sending : public purging {};

TEST_F(error_event_while_sending, ends_the_sending_and_leaves_the_queue) {
    auto queued = packet("queued");
    queue({queued});
    rec->sending = true;
    rec->send_armed = true;
    EXPECT_EQ(EPoll::failed_send(rec), 0);
    EXPECT_FALSE(rec->sending);
    EXPECT_FALSE(rec->send_armed);
    EXPECT_THAT(rec->send_q, SizeIs(1));
    EXPECT_EQ(journal_lines(steps | about::system), locked());
    queued.free();
}

TEST_F(error_event_while_sending, changes_the_flag_only_under_the_lock) {
    record(false);
    std::thread other([this] { EPoll::failed_send(rec); });
    for (int round = 0; round < 100; ++round) {
        Tesk::OS::class_locker const guard(rec->send_lock, nullptr);
        rec->sending = !rec->sending;
    }
    other.join();
    EPoll::failed_send(rec);
    EXPECT_FALSE(rec->sending);
}

TEST_F(records, given_up_by_the_receive_thread_are_destroyed_by_an_error_event_while_sending) {
    tcp_record* const rec = make_record(EPoll::c_kind_established_server);
    rec->send_q.push_back(packet("queued"));
    rec->doomed = true;
    EXPECT_EQ(EPoll::failed_send(rec), 0);
    EXPECT_THAT(take_offers(), SizeIs(1));
    EXPECT_EQ(calls_of({"close", "~class_thread_lock"}),
              (lines{"close(rec.fd)", "rec.ack_lock.~class_thread_lock()", "rec.send_lock.~class_thread_lock()"}));
}

// --- destruction at run time ---------------------------------------------------------------------------------------

lines deregistered(std::string const& name) {
    lines steps;
    for (char const* const instance : {"tcp_init", "tcp_recv", "tcp_send"}) {
        steps.push_back(std::string("epoll_ctl(") + instance + ", DEL, " + name + ".fd, " + mask_text(0xC0000004) +
                        ", " + name + ")");
    }
    return steps;
}

TEST_F(records, are_destroyed_in_these_steps) {
    tcp_record* const rec = make_record(EPoll::c_kind_established_server);
    rec->recv_token = packet("received");
    rec->send_q.push_back(packet("queued", {.heartbeat = true}));
    rec->ack_q.push_back(packet("waiting", {.call = true}));
    clear_journal();
    EXPECT_EQ(EPoll::delete_overlapped(rec), 0);
    EXPECT_EQ(calls_of({"zolt_debug_not_send", "free", "free_data", "free_header", "epoll_ctl", "close",
                        "send_zolt_center", "thread_yield", "~class_thread_lock"}),
              (lines{"zolt_debug_not_send(E, no token, \"" + text("deleted") + "\")", "received.free()",
                     "queued.free_data()", "queued.free_header()"} +
               deregistered("rec") +
               lines{"close(rec.fd)", "waiting.free_header()", "rec.ack_lock.~class_thread_lock()",
                     "rec.send_lock.~class_thread_lock()"}));
}

TEST_F(records, are_emptied_and_closed_under_the_send_lock_that_the_purge_takes_again) {
    tcp_record* const rec = make_record(EPoll::c_kind_established_server);
    EPoll::delete_overlapped(rec);
    EXPECT_EQ(calls_of({"lock", "unlock", "epoll_ctl", "close", "~class_thread_lock"}),
              (lines{"g_establish_server_map_lock.lock(pointer, depth 1)",
                     "g_establish_server_map_lock.unlock(guard, depth 0)", "rec.send_lock.lock(reference, depth 1)",
                     "rec.send_lock.lock(reference, depth 2)", "rec.send_lock.unlock(guard, depth 1)"} +
               deregistered("rec") +
               lines{"close(rec.fd)", "rec.send_lock.unlock(guard, depth 0)", "rec.ack_lock.lock(reference, depth 1)",
                     "rec.ack_lock.unlock(guard, depth 0)", "rec.ack_lock.~class_thread_lock()",
                     "rec.send_lock.~class_thread_lock()"}));
}

class deletion_trace : public records, public ::testing::WithParamInterface<std::pair<int, char const*>> {};

TEST_P(deletion_trace, names_the_side_and_the_peer_and_passes_nothing_else) {
    auto const [kind, word] = GetParam();
    tcp_record* const rec = make_record(kind);
    rec->remote_ip = 0x04030201;
    EPoll::delete_overlapped(rec);
    auto const traces = take_traces();
    ASSERT_THAT(traces, SizeIs(1));
    EXPECT_EQ(traces[0].letter, 'E');
    EXPECT_FALSE(traces[0].has_header);
    EXPECT_EQ(traces[0].file, text("file_method"));
    EXPECT_EQ(traces[0].line, 120);
    EXPECT_EQ(traces[0].text, text("deleted"));
    EXPECT_EQ(traces[0].arguments, (std::vector<trace_argument>{text(word), std::string("1.2.3.4")}));
}

INSTANTIATE_TEST_SUITE_P(kinds, deletion_trace,
                         ::testing::Values(std::pair{2, "deleted_server"}, std::pair{3, "deleted_client"},
                                           std::pair{4, "deleted_server"}, std::pair{5, "deleted_client"}));

TEST_F(records, without_a_socket_are_destroyed_without_a_system_call) {
    EPoll::delete_overlapped(make_tcp(EPoll::c_kind_connecting, -1, "rec"));
    EXPECT_EQ(journal_lines(about::system), lines{});
}

TEST_F(records, are_destroyed_whatever_the_kernel_answers) {
    system.fail_always("epoll_ctl", EBADF);
    system.fail_always("close", EIO);
    EXPECT_EQ(EPoll::delete_overlapped(make_record(EPoll::c_kind_established_client)), 0);
    EXPECT_THAT(journal_lines(about::error), IsEmpty());
}

TEST_F(records, tell_nobody_of_what_still_waits_for_an_acknowledgement) {
    auto sent = packet("sent", {.call = true, .data = {1}});
    tcp_record* const rec = make_record(EPoll::c_kind_established_server);
    EPoll::wait_ack(rec, sent, sent.get_header_packet());
    EPoll::delete_overlapped(rec);
    EXPECT_THAT(take_offers(), IsEmpty());
    EXPECT_EQ(header_references(sent), 1);
    EXPECT_EQ(data_references(sent), 1);
    EXPECT_EQ(fields_of(sent).error, 0u);
    sent.free();
}

TEST_F(records, take_the_ack_lock_only_around_what_waits) {
    tcp_record* const rec = make_record(EPoll::c_kind_established_server);
    rec->ack_q.push_back(packet("waiting", {.call = true}));
    EPoll::delete_overlapped(rec);
    auto const held = journal_entries(about::packet | about::center | about::system | about::trace);
    for (journal_entry const& entry : held) {
        bool const is_of_queue = entry.text == "waiting.free_header()";
        EXPECT_EQ(std::ranges::count(entry.locks, "rec.ack_lock"), is_of_queue ? 1 : 0) << entry.text;
    }
}

TEST_F(records, lose_their_socket_once) {
    tcp_record* const rec = make_record(EPoll::c_kind_connecting);
    keep(rec);
    EPoll::close_descriptor(rec);
    EXPECT_EQ(rec->fd, -1);
    EPoll::close_descriptor(rec);
    EXPECT_EQ(journal_lines(about::system), deregistered("rec") + lines{"close(rec.fd)"});
}

// --- a write in flight ---------------------------------------------------------------------------------------------

struct end_of_write {
    char const* sentence;
    void (*finish)(tcp_record*);
};

class write_in_flight : public records, public ::testing::WithParamInterface<end_of_write> {
protected:
    tcp_record* make_sending() {
        tcp_record* const rec = make_record(EPoll::c_kind_established_client);
        rec->sending = true;
        rec->send_ptr = &byte;
        return rec;
    }

    unsigned char byte = 0;
};

TEST_P(write_in_flight, is_awaited_with_the_lock_let_go_until) {
    tcp_record* const rec = make_sending();
    int yields = 0;
    on_thread_yield([&] {
        EXPECT_EQ(held_lock_count(), 0);
        if (++yields == 3) {
            GetParam().finish(rec);
        }
    });
    EPoll::delete_overlapped(rec);
    lines const round{"rec.send_lock.release(unlocker, depth 0)", "thread_yield()",
                      "rec.send_lock.retake(unlocker, depth 1)"};
    EXPECT_EQ(calls_of({"release", "retake", "thread_yield"}), round + round + round);
    EXPECT_EQ(journal_count("rtsleep"), 0u);
}

TEST_P(write_in_flight, may_be_ended_by_the_thread_that_needs_the_lock_for_it_until) {
    tcp_record* const rec = make_sending();
    on_thread_yield([&] {
        std::thread([&] {
            Tesk::OS::class_locker const guard(rec->send_lock, nullptr);
            GetParam().finish(rec);
        }).join();
    });
    EXPECT_EQ(EPoll::delete_overlapped(rec), 0);
    EXPECT_EQ(journal_count("thread_yield"), 1u);
    EXPECT_EQ(journal_count("close"), 1u);
}

TEST_P(write_in_flight, is_over_when_it_never_was_or) {
    tcp_record* const rec = make_sending();
    GetParam().finish(rec);
    EPoll::delete_overlapped(rec);
    EXPECT_EQ(journal_count("thread_yield"), 0u);
}

INSTANTIATE_TEST_SUITE_P(until, write_in_flight,
                         ::testing::Values(end_of_write{"sending_drops", [](tcp_record* rec) { rec->sending = false; }},
                                           end_of_write{"the_cursor_empties",
                                                        [](tcp_record* rec) { rec->send_ptr = nullptr; }}),
                         [](auto const& row) { return std::string(row.param.sentence); });

// --- destruction after the threads have stopped ----------------------------------------------------------------------

struct clearing {
    char const* name;
    int (*clear)(EPoll::connection_map&);
};

void PrintTo(clearing const& shown, std::ostream* out) {
    *out << shown.name;
}

class clearing_a_registry : public records, public ::testing::WithParamInterface<clearing> {
protected:
    int clear() { return GetParam().clear(registry); }

    void file(tcp_record* rec) {
        registry[peer_of(rec)] = rec;
        clear_journal();
    }

    EPoll::connection_map registry;
};

TEST_P(clearing_a_registry, of_nothing_returns_0) {
    EXPECT_EQ(clear(), 0);
    EXPECT_EQ(journal_lines(), lines{});
}

TEST_P(clearing_a_registry, destroys_each_record_smallest_key_first) {
    for (auto const& [ip, port] : {std::pair{9u, 2}, std::pair{1u, 3}, std::pair{0xF0000000u, 1}, std::pair{3u, 2}}) {
        tcp_record* const rec = make_record(EPoll::c_kind_established_client, hex(ip) + "/" + std::to_string(port));
        rec->remote_ip = ip;
        rec->remote_port = static_cast<std::uint16_t>(port);
        file(rec);
    }
    EXPECT_EQ(clear(), 0);
    EXPECT_TRUE(registry.empty());
    EXPECT_EQ(calls_of({"close"}),
              (lines{"close(0xf0000000/1.fd)", "close(0x3/2.fd)", "close(0x9/2.fd)", "close(0x1/3.fd)"}));
}

TEST_P(clearing_a_registry, takes_no_registry_lock) {
    file(make_record(EPoll::c_kind_established_client));
    clear();
    EXPECT_THAT(journal_lines(about::lock), Each(StartsWith("rec.")));
}

TEST_P(clearing_a_registry, purges_traces_closes_and_destroys_in_this_order) {
    tcp_record* const rec = make_record(EPoll::c_kind_established_server);
    rec->recv_token = packet("received");
    rec->send_q.push_back(packet("queued"));
    rec->ack_q.push_back(packet("waiting", {.call = true}));
    file(rec);
    clear();
    EXPECT_EQ(calls_of({"backward_error_switch", "send_zolt_center", "set_control_type", "close", "free", "free_header",
                        "~class_thread_lock"}),
              (lines{"queued.backward_error_switch(0x40000001)", "send_zolt_center(token#4)", "queued.free_header()",
                     "received.set_control_type()", "close(rec.fd)", "received.free()", "waiting.free_header()",
                     "rec.ack_lock.~class_thread_lock()", "rec.send_lock.~class_thread_lock()"}));
}

TEST_P(clearing_a_registry, traces_nothing_for_a_record_that_receives_nothing) {
    file(make_record(EPoll::c_kind_established_server));
    clear();
    EXPECT_THAT(take_traces(), IsEmpty());
    EXPECT_EQ(journal_count("close"), 1u);
}

TEST_P(clearing_a_registry, only_destroys_a_record_without_a_socket) {
    tcp_record* const rec = make_tcp(EPoll::c_kind_connecting, -1, "rec");
    auto received = packet("received");
    auto queued = packet("queued");
    rec->recv_token = received;
    rec->send_q.push_back(queued);
    file(rec);
    clear();
    EXPECT_EQ(journal_lines(about::packet | about::center | about::system | about::trace), lines{});
    EXPECT_EQ(calls_of({"~class_thread_lock"}),
              (lines{"rec.ack_lock.~class_thread_lock()", "rec.send_lock.~class_thread_lock()"}));
    received.free();
    queued.free();
}

TEST_P(clearing_a_registry, frees_what_waits_for_an_acknowledgement_without_notice) {
    for (int const fd : {-1, new_socket("rec.fd")}) {
        tcp_record* const rec = make_tcp(EPoll::c_kind_established_server, fd, "rec");
        rec->ack_q.push_back(packet("waiting", {.call = true}));
        file(rec);
        clear();
        EXPECT_EQ(calls_of({"free_header"}), (lines{"waiting.free_header()"})) << fd;
    }
    EXPECT_THAT(take_offers(), IsEmpty());
}

TEST_P(clearing_a_registry, takes_the_socket_out_of_the_instances_that_are_still_open) {
    file(make_record(EPoll::c_kind_established_server));
    clear();
    EXPECT_EQ(journal_lines(about::system), deregistered("rec") + lines{"close(rec.fd)"});
}

INSTANTIATE_TEST_SUITE_P(by, clearing_a_registry,
                         ::testing::Values(clearing{"clear_establish_map", EPoll::clear_establish_map},
                                           clearing{"clear_connect_map", EPoll::clear_connect_map}),
                         [](auto const& row) { return std::string(row.param.name); });

class cleared_record : public records, public ::testing::WithParamInterface<int> {};

TEST_P(cleared_record, turns_what_it_receives_into_a_notice_that_is_traced_and_not_sent) {
    tcp_record* const rec = make_record(GetParam());
    rec->local_ip = 0x0A00000A;
    rec->gate_port = 7001;
    rec->remote_ip = 0x0B00000B;
    rec->recv_token = packet("received", {});
    set_cpu_clock(777);
    clear_journal();
    EPoll::connection_map registry{{peer_of(rec), rec}};
    EPoll::clear_establish_map(registry);
    bool const is_client = GetParam() == EPoll::c_kind_established_client;
    std::string const ids[] = {is_client ? "0)" : "65535)", is_client ? "65535)" : "0)"};
    EXPECT_EQ(
        journal_lines(about::packet | about::center | about::trace),
        (lines{"received.initialize_packet(0xa00000a, 777, DBL_MAX)", "received.set_source(0xb00000b, 9000, " + ids[0],
               "received.set_destination(" + hex(Zolt::c_local_host) + ", 7001, " + ids[1],
               "received.initialize_header(0, 0, 0, 0, 0x0)",
               std::string("received.set_tcp_disconnected_from_") + (is_client ? "server()" : "client()"),
               "received.set_control_type()", calls_of({"zolt_debug_not_send"}).at(0), "received.free()"}));
    auto const traces = take_traces();
    ASSERT_THAT(traces, SizeIs(1));
    EXPECT_EQ(traces[0].letter, 'C');
    EXPECT_EQ(traces[0].token, "received");
    EXPECT_EQ(traces[0].file, text("file_method"));
    EXPECT_EQ(traces[0].line, 114);
}

INSTANTIATE_TEST_SUITE_P(kinds, cleared_record, ::testing::Values(2, 3, 4, 5));

} // namespace
