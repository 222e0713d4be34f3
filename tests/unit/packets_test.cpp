// Tokens and packets of the reference host: what each operation does to parts, counts and bytes.
#include "tests/unit/reference_host_fixtures.hpp"

#include "Host/tesk_os.hpp"
#include "Reference_Host/packet_storage.hpp"
#include "tests/support/allocations.hpp"

#include <array>
#include <cstring>
#include <functional>
#include <malloc.h>
#include <map>
#include <type_traits>

namespace reference_host_test {
namespace {

static_assert(std::is_trivially_copyable_v<struct_token> && std::is_trivially_destructible_v<struct_token>);
static_assert(std::is_same_v<decltype(struct_node_addr::ip), std::uint32_t>);
static_assert(std::is_same_v<decltype(struct_node_addr::port), std::uint16_t>);
static_assert(c_zolt_err_none == 0 && c_zolt_err_not_connected_tcp == 0x40000001 &&
              c_zolt_err_disconnected_tcp == 0x4000000E);
static_assert(c_broadcast_proxy_id == 0xFFFF && c_broadcast_stub_id == 0);

TEST(node_address, orders_by_port_then_address_both_unsigned) {
    std::vector<struct_node_addr> const ascending{{0xFFFFFFFF, 1}, {0, 2},      {5, 2},     {0x7FFFFFFF, 2},
                                                  {0x80000000, 2}, {0, 0x7FFF}, {0, 0x8000}};
    for (std::size_t i = 0; i < ascending.size(); ++i) {
        for (std::size_t j = 0; j < ascending.size(); ++j) {
            EXPECT_EQ(ascending[i] < ascending[j], i < j) << i << ' ' << j;
        }
    }
}

TEST(node_address, equal_addresses_are_one_map_entry) {
    std::map<struct_node_addr, int> registry;
    registry.insert({{1, 2}, 10});
    EXPECT_FALSE(registry.insert({{1, 2}, 20}).second);
    EXPECT_EQ(registry.size(), 1U);
}

TEST(node_address, local_host_is_7f_00_00_01_as_it_lies) {
    std::array<unsigned char, 4> bytes{};
    std::memcpy(bytes.data(), &c_local_host, bytes.size());
    EXPECT_EQ(bytes, (std::array<unsigned char, 4>{0x7F, 0, 0, 1}));
}

class token : public accounted_test {};

TEST_F(token, starts_with_neither_part_and_every_operation_is_harmless_on_it) {
    struct_token empty;
    struct_token other;
    empty.ref_header();
    empty.set_header(other);
    empty.set_data(other);
    empty.free_header();
    empty.free_data();
    empty.reset_data();
    empty.free();
    EXPECT_FALSE(empty.has_header());
    EXPECT_FALSE(empty.has_data());
    EXPECT_EQ(empty.get_header_packet(), nullptr);
    EXPECT_EQ(empty.get_data_packet(), nullptr);
    EXPECT_EQ(empty.get_data(), nullptr);
    EXPECT_EQ(count_live_parts(), ledger_counts{});
}

TEST_F(token, a_fresh_header_is_empty_and_of_the_right_version) {
    struct_token one;
    one.alloc_header_force();
    ASSERT_TRUE(one.has_header());
    EXPECT_FALSE(one.has_data());
    EXPECT_TRUE(one.get_header_packet()->is_right_version());
    EXPECT_EQ(one.get_header_packet()->get_data_size(), 0U);
    EXPECT_EQ(get_kind(*one.get_header_packet()), packet_kind::data);
    EXPECT_EQ(count_live_parts(), (ledger_counts{1, 1, 0}));
    one.free();
}

TEST_F(token, a_forced_header_replaces_the_one_before) {
    struct_token one = make(packet_kind::call_return, "data");
    one.alloc_header_force();
    EXPECT_EQ(get_kind(*one.get_header_packet()), packet_kind::data);
    EXPECT_TRUE(one.has_data());
    EXPECT_EQ(count_live_parts(), (ledger_counts{1, 1, 1}));
    one.free();
}

TEST_F(token, a_forced_header_leaves_the_shared_one_to_the_other_copies) {
    struct_token first = make(packet_kind::heartbeat);
    first.ref_header();
    struct_token second = first;
    second.alloc_header_force();
    EXPECT_TRUE(first.get_header_packet()->is_heartbeat());
    EXPECT_FALSE(second.get_header_packet()->is_heartbeat());
    EXPECT_EQ(count_references(first), (token_counts{1, 1, 0}));
    first.free();
    second.free();
}

TEST_F(token, copying_a_handle_counts_nothing) {
    struct_token one = make(packet_kind::data, "data");
    struct_token const copy = one;
    EXPECT_EQ(count_references(copy), (token_counts{1, 1, 1}));
    EXPECT_EQ(count_live_parts(), (ledger_counts{1, 1, 1}));
    one.free();
}

TEST_F(token, each_sharing_operation_adds_one_reference_and_each_free_drops_one) {
    struct_token one = make(packet_kind::call_return, "data");
    one.ref_header();
    struct_token copy = one;
    EXPECT_EQ(count_references(one), (token_counts{2, 1, 1}));
    struct_token header_too;
    header_too.set_header(one);
    EXPECT_EQ(count_references(one), (token_counts{2, 2, 1}));
    struct_token data_too;
    data_too.set_data(one);
    EXPECT_EQ(count_references(one), (token_counts{2, 2, 2}));
    EXPECT_EQ(count_live_parts(), (ledger_counts{3, 1, 1}));

    header_too.free_header();
    EXPECT_EQ(count_references(one), (token_counts{2, 1, 2}));
    data_too.free_data();
    EXPECT_EQ(count_references(one), (token_counts{2, 1, 1}));
    copy.free();
    EXPECT_EQ(count_references(one), (token_counts{1, 1, 0}));
    EXPECT_EQ(count_live_parts(), (ledger_counts{1, 1, 0}));
    one.free();
}

TEST_F(token, sharing_replaces_the_part_that_was_there_and_sharing_with_itself_changes_nothing) {
    struct_token one = make(packet_kind::call_return, "one");
    struct_token other = make(packet_kind::data, "other");
    other.set_header(one);
    other.set_data(one);
    EXPECT_TRUE(other.get_header_packet()->is_call_return());
    EXPECT_EQ(text_of(other), "one");
    one.set_header(one);
    one.set_data(one);
    EXPECT_EQ(count_references(one), (token_counts{1, 2, 2}));
    one.free();
    other.free();
}

TEST_F(token, sharing_an_absent_part_changes_nothing) {
    struct_token one = make(packet_kind::data, "one");
    struct_token header_only = make(packet_kind::data);
    one.set_data(header_only);
    one.set_header(struct_token());
    EXPECT_EQ(text_of(one), "one");
    one.free();
    header_only.free();
}

TEST_F(token, a_copy_that_freed_its_header_has_none_while_the_others_keep_theirs) {
    struct_token heartbeat = make(packet_kind::heartbeat);
    struct_token queued = heartbeat;
    queued.ref_header();
    queued.free_header();
    EXPECT_FALSE(queued.has_header());
    EXPECT_TRUE(heartbeat.has_header());
    heartbeat.free();
}

TEST_F(token, freeing_part_by_part_ends_the_node_with_the_last_part) {
    for (bool const header_first : {true, false}) {
        struct_token one = make(packet_kind::data, "data");
        header_first ? one.free_header() : one.free_data();
        EXPECT_NE(one.has_header(), header_first);
        EXPECT_EQ(one.has_data(), header_first);
        header_first ? one.free_data() : one.free_header();
        EXPECT_EQ(count_live_parts(), ledger_counts{});
        one.free();
    }
}

TEST_F(token, reset_forgets_without_dropping) {
    struct_token one = make(packet_kind::data, "data");
    struct_token kept = one;
    one.reset();
    EXPECT_FALSE(one.has_header());
    EXPECT_FALSE(one.has_data());
    EXPECT_EQ(count_references(kept), (token_counts{1, 1, 1}));
    kept.free();
}

TEST_F(token, reset_data_forgets_the_data_part_only) {
    struct_token one = make(packet_kind::data, "data");
    struct_token keeper;
    keeper.set_data(one);
    one.reset_data();
    EXPECT_TRUE(one.has_header());
    EXPECT_FALSE(one.has_data());
    EXPECT_EQ(count_references(keeper).data_nodes, 2U);
    node_of(keeper)->data->nodes.store(1); // drops the reference that was forgotten
    keeper.free();
    one.free();
}

TEST_F(token, reset_data_of_a_token_with_data_only_ends_its_node) {
    struct_token source = make(packet_kind::data, "data");
    struct_token one;
    one.set_data(source);
    one.reset_data();
    EXPECT_EQ(count_live_parts().nodes, 1U);
    node_of(source)->data->nodes.store(1);
    source.free();
}

TEST_F(token, a_freed_handle_has_neither_part) {
    struct_token one = make(packet_kind::data, "data");
    one.free();
    EXPECT_FALSE(one.has_header());
    EXPECT_FALSE(one.has_data());
}

TEST_F(token, data_has_its_size_and_may_be_empty) {
    struct_token one;
    ASSERT_EQ(one.alloc_data(0), 0);
    EXPECT_TRUE(one.has_data());
    ASSERT_EQ(one.alloc_data(100), 0);
    std::memset(one.get_data(), 1, 100);
    EXPECT_EQ(one.get_data_packet()->get_data_size(), 100U);
    EXPECT_EQ(count_live_parts(), (ledger_counts{1, 0, 1}));
    one.free();
}

TEST_F(token, header_and_data_of_a_data_part_are_one_block) {
    struct_token one = make(packet_kind::data, "datagram");
    *one.get_data_packet() = *one.get_header_packet();
    unsigned char* const first = one.get_data_packet()->get_header();
    EXPECT_EQ(first + one.get_data_packet()->get_header_size(), one.get_data());
    EXPECT_EQ(std::memcmp(first, one.get_header_packet()->get_header(), c_header_size), 0);
    EXPECT_EQ(one.get_data_packet()->get_packet_size(), c_header_size + 8);
    one.free();
}

TEST_F(token, data_above_the_limit_is_refused_by_bad_alloc_and_the_token_keeps_what_it_had) {
    std::uint32_t const before = get_max_data_size();
    set_max_data_size(1000);
    struct_token one = make(packet_kind::data, "kept");
    EXPECT_THROW(static_cast<void>(one.alloc_data(1001)), std::bad_alloc);
    EXPECT_EQ(text_of(one), "kept");
    EXPECT_EQ(one.alloc_data(1000), 0);
    set_max_data_size(before);
    one.free();
}

class pin_token : public token {};

// Deliberate: only a refusal by result makes the relay take such a datagram out of its socket.
TEST_F(pin_token, data_that_no_datagram_carries_is_refused_by_result_while_a_datagram_arrives) {
    struct_token one = make(packet_kind::data);
    one.get_header_packet()->determine_arrival_clock(1);
    one.get_header_packet()->set_mct_ip(c_local_host);
    EXPECT_NE(one.alloc_data(65436), 0);
    EXPECT_NE(one.alloc_data(0xFFFFFFFF), 0);
    EXPECT_FALSE(one.has_data());
    EXPECT_EQ(one.alloc_data(65435), 0);
    one.free();
}

TEST_F(token, the_shared_heartbeat_is_freed_once_for_each_copy_from_several_threads) {
    constexpr int c_threads = 4;
    constexpr int c_rounds = 500;
    struct_token heartbeat = make(packet_kind::heartbeat);
    thread_group(c_threads, [heartbeat](unsigned int) {
        for (int round = 0; round < c_rounds; ++round) {
            struct_token queued = heartbeat;
            queued.ref_header();
            EXPECT_TRUE(queued.get_header_packet()->is_heartbeat());
            EXPECT_FALSE(queued.get_header_packet()->backward_error_switch(1));
            queued.free_data();
            round % 2 == 0 ? queued.free() : queued.free_header();
        }
    }).join();
    EXPECT_EQ(count_references(heartbeat), (token_counts{1, 1, 0}));
    heartbeat.free();
}

TEST_F(token, queued_heartbeats_outlive_the_first_handle) {
    struct_token heartbeat = make(packet_kind::heartbeat);
    struct_token queued = heartbeat;
    heartbeat.ref_header();
    heartbeat.free();
    EXPECT_TRUE(queued.get_header_packet()->is_heartbeat());
    queued.free();
}

TEST_F(token, the_entry_that_waits_for_an_acknowledgement_never_touches_data_being_written) {
    struct_token sending = make(packet_kind::call_return, "being written");
    struct_token waiting;
    waiting.set_header(sending);
    waiting.free_data();
    waiting.free();
    EXPECT_EQ(text_of(sending), "being written");
    sending.free();
}

/// An array given to the header part with set_data, as after a failed alloc_data.
class attached_array : public accounted_test {
protected:
    void SetUp() override {
        sender = make(packet_kind::data);
        auto* const array = new unsigned char[5]{'a', 'r', 'r', 'a', 'y'};
        sender.get_header_packet()->set_data_size(5);
        sender.get_header_packet()->set_data(array);
    }

    struct_token sender;
};

TEST_F(attached_array, counts_as_data_and_is_released_with_the_token) {
    EXPECT_TRUE(sender.has_data());
    EXPECT_EQ(text_of(sender), "array");
    sender.free();
}

TEST_F(attached_array, is_released_with_the_data) {
    sender.free_data();
    EXPECT_FALSE(sender.has_data());
    EXPECT_TRUE(sender.has_header());
    sender.free_data();
    sender.free();
}

TEST_F(attached_array, stays_as_long_as_another_token_shares_the_header) {
    struct_token waiting;
    waiting.set_header(sender);
    waiting.free_data();
    waiting.free();
    EXPECT_EQ(text_of(sender), "array");
    sender.free();
}

TEST_F(attached_array, moves_into_a_data_part_when_it_must_stand_behind_a_header) {
    struct_packet* const packet = sender.get_data_packet();
    ASSERT_NE(packet, nullptr);
    EXPECT_EQ(packet->get_header() + c_header_size, sender.get_data());
    EXPECT_EQ(text_of(sender), "array");
    EXPECT_EQ(count_references(sender).data_nodes, 1U);
    EXPECT_EQ(storage_of(sender.get_header_packet()).attached, nullptr) << "not kept twice";
    sender.free();
}

TEST_F(attached_array, is_shared_like_any_data) {
    struct_token other;
    other.set_data(sender);
    sender.free();
    EXPECT_EQ(std::memcmp(other.get_data(), "array", 5), 0);
    other.free();
}

TEST_F(attached_array, is_replaced_by_the_next_and_forgotten_by_reset_data) {
    auto* const next = new unsigned char[5]{};
    sender.get_header_packet()->set_data(next);
    sender.get_header_packet()->set_data(next);
    EXPECT_EQ(sender.get_data(), next);
    sender.reset_data();
    EXPECT_FALSE(sender.has_data());
    delete[] next;
    sender.free();
}

TEST_F(attached_array, never_outlives_its_token_on_any_way) {
    constexpr unsigned int c_size = 1U << 16;
    constexpr int c_rounds = 200;
    using way = void (*)(struct_token&);
    constexpr way c_ways[] = {
        [](struct_token&) {},
        [](struct_token& one) { one.free_data(); },
        [](struct_token& one) { static_cast<void>(one.get_data_packet()); },
        [](struct_token& one) { one.get_header_packet()->set_data(new unsigned char[c_size]); },
        [](struct_token& one) { one.get_header_packet()->set_data(nullptr); },
    };
    auto const bytes_in_use = [] {
        release_kept_memory();
        struct mallinfo2 const heap = ::mallinfo2();
        return heap.uordblks + heap.hblkhd;
    };
    std::size_t const before = bytes_in_use();
    for (way const go : c_ways) {
        for (int round = 0; round < c_rounds; ++round) {
            struct_token one = make(packet_kind::data);
            one.get_header_packet()->set_data_size(c_size);
            one.get_header_packet()->set_data(new unsigned char[c_size]{});
            go(one);
            one.free();
        }
        EXPECT_LT(bytes_in_use(), before + std::size_t{c_rounds} * c_size / 2) << "way " << &go - c_ways;
    }
    sender.free();
}

/// Runs an operation with its first, second, ... allocation failing until it needs no more. The number of failures.
int count_failures(std::function<void()> const& operation) {
    for (int nth = 1;; ++nth) {
        relay_test::fail_allocation(nth);
        try {
            operation();
            relay_test::fail_allocation(0);
            return nth - 1;
        } catch (std::bad_alloc const&) {
            relay_test::fail_allocation(0);
        }
    }
}

TEST_F(token, no_failed_allocation_leaves_a_part_behind) {
    count_live_parts();
    EXPECT_GE(count_failures([] {
                  struct_token one;
                  one.alloc_header_force();
                  one.free();
              }),
              2);
    EXPECT_GE(count_failures([] { make(packet_kind::data, "data").free(); }), 3);
    struct_token source = make(packet_kind::data, "data");
    EXPECT_GE(count_failures([&] {
                  struct_token other;
                  other.set_header(source);
                  other.free();
              }),
              1);
    EXPECT_GE(count_failures([&] {
                  struct_token other;
                  other.set_data(source);
                  other.free();
              }),
              1);
    EXPECT_EQ(count_references(source), (token_counts{1, 1, 1}));
    source.free();
    EXPECT_EQ(count_live_parts(), ledger_counts{});
}

TEST_F(token, data_without_memory_is_refused_by_result) {
    struct_token one = make(packet_kind::data);
    relay_test::fail_allocation(1);
    EXPECT_NE(one.alloc_data(10), 0);
    struct_token empty;
    relay_test::fail_allocation(1);
    EXPECT_NE(empty.alloc_data(10), 0);
    relay_test::fail_allocation(0);
    EXPECT_FALSE(one.has_data());
    EXPECT_FALSE(empty.has_data());
    one.free();
}

class packet : public accounted_test {
protected:
    void TearDown() override {
        one.free();
        accounted_test::TearDown();
    }

    struct_packet& with_kind(packet_kind kind) {
        one.free();
        one = make(kind, "data");
        return *one.get_header_packet();
    }

    struct_token one;
};

TEST_F(packet, predicates_tell_the_kinds_apart) {
    using predicate = bool (struct_packet::*)();
    struct kind_row {
        packet_kind kind;
        predicate is_kind;
    };
    constexpr kind_row c_rows[] = {
        {packet_kind::heartbeat, &struct_packet::is_heartbeat},
        {packet_kind::call_return, &struct_packet::is_call_return},
        {packet_kind::signal_return, &struct_packet::is_signal_return},
        {packet_kind::call_return_ack, &struct_packet::is_call_return_ack},
        {packet_kind::signal_return_ack, &struct_packet::is_signal_return_ack},
        {packet_kind::command_udp, &struct_packet::is_command_udp},
        {packet_kind::information_udp, &struct_packet::is_information_udp},
    };
    for (unsigned int number = 0; number < c_packet_kinds.size(); ++number) {
        auto const kind = static_cast<packet_kind>(number);
        struct_packet& header = with_kind(kind);
        EXPECT_EQ(is_control(header), kind == packet_kind::control);
        for (kind_row const& row : c_rows) {
            EXPECT_EQ((header.*row.is_kind)(), row.kind == kind) << name_of(kind);
        }
    }
}

TEST_F(packet, sizes_add_up) {
    struct_packet& header = with_kind(packet_kind::data);
    EXPECT_EQ(header.get_header_size(), c_header_size);
    EXPECT_EQ(header.get_data_size(), 4U);
    EXPECT_EQ(header.get_packet_size(), c_header_size + 4);
    header.set_data_size(1000);
    EXPECT_EQ(header.get_packet_size(), c_header_size + 1000);
}

TEST_F(packet, another_version_is_told) {
    struct_packet& header = with_kind(packet_kind::data);
    for (unsigned int const byte : {0U, 3U, 4U, 5U, 6U, 7U}) {
        header.get_header()[byte] ^= 1U;
        EXPECT_FALSE(header.is_right_version()) << byte;
        header.get_header()[byte] ^= 1U;
        EXPECT_TRUE(header.is_right_version());
    }
}

TEST_F(packet, initialize_header_takes_sequence_flags_kind_code_and_error) {
    struct_packet& header = with_kind(packet_kind::data);
    header.initialize_header(11, 12, 7, 13, 14);
    EXPECT_EQ(get_sequence(header), 11U);
    EXPECT_EQ(get_flags(header), 12U);
    EXPECT_TRUE(header.is_command_udp());
    EXPECT_EQ(get_code(header), 13U);
    EXPECT_EQ(get_error(header), 14U);
}

TEST_F(packet, initialize_header_forgets_what_the_packet_told_before) {
    struct_packet& header = with_kind(packet_kind::data);
    header.set_tcp_connected_to_server();
    header.initialize_header(0, 0, 0, 0, c_zolt_err_none);
    header.set_control_type();
    EXPECT_EQ(get_event(header), connection_event::none);
}

TEST_F(packet, initialize_packet_starts_anew) {
    struct_packet& header = with_kind(packet_kind::command_udp);
    header.determine_arrival_clock(5);
    header.set_mct_ip(6);
    header.initialize_packet(c_local_host, 7, 2.5);
    EXPECT_EQ(get_kind(header), packet_kind::data);
    EXPECT_EQ(get_local_ip(header), c_local_host);
    EXPECT_EQ(get_creation_clock(header), 7U);
    EXPECT_EQ(get_timeout(header), 2500000U);
    EXPECT_EQ(get_source(header), packet_end{});
    EXPECT_EQ(get_destination(header), packet_end{});
    EXPECT_EQ(get_arrival_clock(header), 0U);
    EXPECT_EQ(header.get_mct_ip(), 0U);
    EXPECT_EQ(header.get_data_size(), 0U);
}

TEST_F(packet, the_four_notices) {
    using setter = void (struct_packet::*)();
    constexpr std::pair<setter, connection_event> c_rows[] = {
        {&struct_packet::set_tcp_connected_to_server, connection_event::connected_to_server},
        {&struct_packet::set_tcp_disconnected_from_server, connection_event::disconnected_from_server},
        {&struct_packet::set_tcp_connected_from_client, connection_event::connected_from_client},
        {&struct_packet::set_tcp_disconnected_from_client, connection_event::disconnected_from_client},
    };
    for (auto const& [set, event] : c_rows) {
        for (bool const control_first : {true, false}) {
            struct_packet& header = with_kind(packet_kind::data);
            EXPECT_EQ(get_event(header), connection_event::none);
            if (control_first) {
                header.set_control_type();
            }
            (header.*set)();
            if (!control_first) {
                header.set_control_type();
            }
            EXPECT_TRUE(is_control(header));
            EXPECT_EQ(get_event(header), event);
        }
    }
}

TEST_F(packet, what_was_stamped_before_a_receive_survives_it) {
    struct_token peer = make(packet_kind::data, "data");
    struct_packet& header = with_kind(packet_kind::data);
    header.initialize_packet(c_local_host, 0, c_never);
    header.set_source(0x0505050A, 5000, 0);
    header.set_destination(c_local_host, 6000, 0);
    std::memcpy(header.get_header(), peer.get_header_packet()->get_header(), c_header_size);
    EXPECT_EQ(get_source(header), (packet_end{0x0505050A, 5000, c_near_end.id}));
    EXPECT_EQ(get_destination(header), (packet_end{c_local_host, 6000, c_far_end.id}));
    EXPECT_EQ(get_source_as_sent(header), c_near_end);
    EXPECT_EQ(get_destination_as_sent(header), c_far_end);
    EXPECT_EQ(header.get_dst_ip(), c_local_host);
    EXPECT_EQ(header.get_dst_port(), 6000U);
    EXPECT_EQ(header.get_did(), c_far_end.id);
    peer.free();
}

TEST_F(packet, an_address_that_was_stamped_with_0_is_the_one_that_travelled) {
    struct_token peer = make(packet_kind::data);
    struct_packet& header = with_kind(packet_kind::data);
    header.set_source(0, 0, 0);
    header.set_destination(0, 0, 0);
    std::memcpy(header.get_header(), peer.get_header_packet()->get_header(), c_header_size);
    EXPECT_EQ(get_source(header), c_near_end);
    EXPECT_EQ(get_destination(header), c_far_end);
    header.set_src_ip(0x0909090A);
    EXPECT_EQ(get_source(header), (packet_end{0x0909090A, c_near_end.port, c_near_end.id}));
    peer.free();
}

TEST_F(packet, setters_write_what_travels_too) {
    struct_packet& header = with_kind(packet_kind::data);
    header.set_source(0x0A0B0C0D, 0x1234, 0x5678);
    header.set_destination(0x01020304, 0x4321, 0x8765);
    EXPECT_EQ(get_source_as_sent(header), (packet_end{0x0A0B0C0D, 0x1234, 0x5678}));
    EXPECT_EQ(get_destination_as_sent(header), (packet_end{0x01020304, 0x4321, 0x8765}));
    header.set_src_port(0x1111);
    EXPECT_EQ(get_source_as_sent(header).port, 0x1111);
}

TEST_F(packet, assignment_copies_what_travels_and_what_does_not_but_neither_data_nor_cookie) {
    struct_packet& from = with_kind(packet_kind::signal_return);
    from.set_mct_ip(3);
    from.determine_arrival_clock(4);
    from.set_data(new unsigned char[1]);
    set_cookie(from, 9);
    struct_token copy = make(packet_kind::data);
    struct_packet& to = *copy.get_header_packet();
    to = from;
    EXPECT_EQ(std::memcmp(to.get_header(), from.get_header(), c_header_size), 0);
    EXPECT_EQ(to.get_mct_ip(), 3U);
    EXPECT_EQ(get_arrival_clock(to), 4U);
    EXPECT_EQ(get_cookie(to), 0U);
    EXPECT_FALSE(copy.has_data());
    copy.free();
}

TEST_F(packet, a_call_becomes_its_acknowledgement) {
    struct_packet& call = with_kind(packet_kind::call_return);
    struct_token answer = make(packet_kind::data);
    struct_packet& ack = *answer.get_header_packet();
    ack = call;
    ack.set_swap_address(&call);
    ack.set_swap_acktype();
    EXPECT_TRUE(ack.is_call_return_ack());
    EXPECT_EQ(get_source(ack), c_far_end);
    EXPECT_EQ(get_destination(ack), c_near_end);
    EXPECT_EQ(get_source(call), c_near_end);
    answer.free();
}

TEST_F(packet, only_calls_and_signals_have_an_acknowledgement) {
    for (unsigned int number = 0; number < c_packet_kinds.size(); ++number) {
        auto const kind = static_cast<packet_kind>(number);
        struct_packet& header = with_kind(kind);
        header.set_swap_acktype();
        packet_kind const expected = kind == packet_kind::call_return     ? packet_kind::call_return_ack
                                     : kind == packet_kind::signal_return ? packet_kind::signal_return_ack
                                                                          : kind;
        EXPECT_EQ(get_kind(header), expected) << name_of(kind);
    }
}

TEST_F(packet, an_undeliverable_packet_comes_back_as_an_error) {
    for (packet_kind const kind : {packet_kind::data, packet_kind::call_return, packet_kind::signal_return,
                                   packet_kind::command_udp, packet_kind::information_udp}) {
        struct_packet& header = with_kind(kind);
        ASSERT_TRUE(header.backward_error_switch(c_zolt_err_not_connected_tcp)) << name_of(kind);
        EXPECT_EQ(get_kind(header), packet_kind::error);
        EXPECT_EQ(get_returned_kind(header), kind);
        EXPECT_EQ(get_error(header), c_zolt_err_not_connected_tcp);
        EXPECT_EQ(header.get_data_size(), 0U);
        EXPECT_EQ(get_source(header), c_far_end);
        EXPECT_EQ(get_destination(header), c_near_end);
        EXPECT_FALSE(header.backward_error_switch(1)) << "an error does not come back again";
    }
}

TEST_F(packet, a_packet_for_which_no_reply_is_due_stays_untouched) {
    auto const expect_untouched = [](struct_packet& header) {
        std::vector<unsigned char> const before(header.get_header(), header.get_header() + c_header_size);
        EXPECT_FALSE(header.backward_error_switch(c_zolt_err_not_connected_tcp)) << name_of(get_kind(header));
        EXPECT_EQ(std::memcmp(header.get_header(), before.data(), c_header_size), 0);
    };
    for (packet_kind const kind : {packet_kind::heartbeat, packet_kind::control, packet_kind::call_return_ack,
                                   packet_kind::signal_return_ack, packet_kind::error}) {
        expect_untouched(with_kind(kind));
    }
    struct_packet& failed = with_kind(packet_kind::data);
    failed.initialize_header(0, 0, 0, 0, c_zolt_err_disconnected_tcp);
    expect_untouched(failed);
}

TEST_F(packet, time_runs_from_creation_and_the_time_out_passes) {
    struct_packet& header = with_kind(packet_kind::data);
    unsigned long const now = Tesk::OS::lemon_cpu_clock();
    header.initialize_packet(0, now - 3000000, 2.0);
    EXPECT_TRUE(header.update_packet_time_and_return_timeout());
    EXPECT_GE(get_elapsed(header), 3000000U);
    header.initialize_packet(0, now - 3000000, 1000.0);
    EXPECT_FALSE(header.update_packet_time_and_return_timeout());
    std::uint64_t const once = get_elapsed(header);
    EXPECT_FALSE(header.update_packet_time_and_return_timeout());
    EXPECT_GE(get_elapsed(header), once);
    EXPECT_LT(get_elapsed(header), once + 3000000) << "no time is counted twice";
}

TEST_F(packet, time_of_an_arrived_packet_goes_on_from_what_it_had_taken) {
    struct_token peer = make(packet_kind::data);
    peer.get_header_packet()->initialize_packet(0, Tesk::OS::lemon_cpu_clock() - 5000000, 100.0);
    peer.get_header_packet()->update_packet_time_and_return_timeout();
    struct_packet& header = with_kind(packet_kind::data);
    header.initialize_packet(0, 0, c_never);
    std::memcpy(header.get_header(), peer.get_header_packet()->get_header(), c_header_size);
    unsigned long const arrival = Tesk::OS::lemon_cpu_clock() - 1000000;
    header.determine_arrival_clock(arrival);
    EXPECT_EQ(get_arrival_clock(header), arrival);
    EXPECT_FALSE(header.update_packet_time_and_return_timeout());
    EXPECT_GE(get_elapsed(header), 6000000U);
    EXPECT_LT(get_elapsed(header), 6000000U + 60000000U);
    peer.free();
}

TEST_F(packet, time_outs_at_the_edges) {
    struct edge_row {
        double seconds;
        std::uint64_t travels;
        bool passes;
    };
    constexpr edge_row c_rows[] = {
        {c_never, c_timeout_never, false},
        {std::numeric_limits<double>::infinity(), c_timeout_never, false},
        {1e13, c_timeout_never, false},
        {0.0, 0, true},
        {-1.0, 0, true},
        {std::numeric_limits<double>::quiet_NaN(), 0, true},
        {0.000001, 1, false},
    };
    for (edge_row const& row : c_rows) {
        struct_packet& header = with_kind(packet_kind::data);
        header.initialize_packet(0, 0, row.seconds);
        EXPECT_EQ(get_timeout(header), row.travels) << row.seconds;
        EXPECT_EQ(header.update_packet_time_and_return_timeout(), row.passes) << row.seconds;
        set_timeout(header, row.seconds);
        EXPECT_EQ(get_timeout(header), row.travels) << row.seconds;
    }
}

TEST_F(packet, without_a_creation_clock_no_time_is_counted) {
    struct_packet& header = with_kind(packet_kind::data);
    header.initialize_packet(0, 0, c_never);
    EXPECT_FALSE(header.update_packet_time_and_return_timeout());
    EXPECT_EQ(get_elapsed(header), 0U);
}

TEST_F(packet, a_plan_becomes_a_packet) {
    packet_plan plan;
    plan.kind = packet_kind::information_udp;
    plan.source = c_near_end;
    plan.destination = c_far_end;
    plan.flags = c_flag_multicast;
    plan.code = 70000;
    plan.sequence = std::uint64_t{1} << 40;
    plan.timeout = 1.5;
    plan.multicast_interface = c_local_host;
    one = make_packet(plan, bytes_of("data"));
    struct_packet& header = *one.get_header_packet();
    EXPECT_TRUE(header.is_right_version());
    EXPECT_TRUE(header.is_information_udp());
    EXPECT_EQ(get_source(header), c_near_end);
    EXPECT_EQ(get_destination(header), c_far_end);
    EXPECT_EQ(get_flags(header), c_flag_multicast);
    EXPECT_EQ(get_code(header), 70000U);
    EXPECT_EQ(get_sequence(header), std::uint64_t{1} << 40);
    EXPECT_EQ(get_timeout(header), 1500000U);
    EXPECT_EQ(header.get_mct_ip(), c_local_host);
    EXPECT_NE(get_creation_clock(header), 0U);
    EXPECT_EQ(text_of(one), "data");
}

TEST_F(packet, a_packet_that_is_too_large_leaves_nothing_behind) {
    std::uint32_t const before = get_max_data_size();
    set_max_data_size(3);
    EXPECT_THROW(make(packet_kind::data, "four"), std::bad_alloc);
    set_max_data_size(before);
}

TEST_F(packet, the_data_span_is_never_longer_than_the_data_part) {
    struct_packet& header = with_kind(packet_kind::data);
    header.set_data_size(1000000);
    EXPECT_EQ(get_data_span(one).size(), 4U);
    header.set_data_size(2);
    EXPECT_EQ(get_data_span(one).size(), 2U);
}

struct released {
    static inline std::vector<std::pair<std::uint64_t, std::uint32_t>> seen;
    static void note(std::uint64_t cookie, struct_packet const& gone) { seen.emplace_back(cookie, get_error(gone)); }
};

TEST_F(packet, the_release_observer_hears_once_of_each_cookie) {
    released::seen.clear();
    set_release_observer(&released::note);
    struct_packet& header = with_kind(packet_kind::call_return);
    set_cookie(header, 5);
    struct_token waiting;
    waiting.set_header(one);
    one.free();
    EXPECT_TRUE(released::seen.empty());
    waiting.get_header_packet()->backward_error_switch(c_zolt_err_disconnected_tcp);
    waiting.free();
    with_kind(packet_kind::data);
    one.free();
    set_release_observer(nullptr);
    EXPECT_EQ(released::seen, (decltype(released::seen){{5, c_zolt_err_disconnected_tcp}}));
}

TEST(opening_block, holds_two_ports_and_zeros) {
    struct_tcp_header block;
    unsigned char bytes[1024];
    std::memcpy(bytes, &block, sizeof bytes);
    EXPECT_TRUE(std::all_of(std::begin(bytes), std::end(bytes), [](unsigned char byte) { return byte == 0; }));
    block.set_port_of_sender(0x1234);
    block.set_port_of_receiver(0xABCD);
    EXPECT_EQ(block.get_port_of_receiver(), 0xABCD);
    std::memcpy(bytes, &block, sizeof bytes);
    EXPECT_EQ((std::vector<unsigned char>(bytes, bytes + 4)), (std::vector<unsigned char>{0x12, 0x34, 0xAB, 0xCD}));
    EXPECT_TRUE(std::all_of(bytes + 4, std::end(bytes), [](unsigned char byte) { return byte == 0; }));
}

} // namespace
} // namespace reference_host_test
