// The fixture that the stream tests share: each side of TCP as a row of facts, and established connections whose other
// end is in the test's hand.
#ifndef TESTS_UNIT_STREAM_FIXTURE_HPP
#define TESTS_UNIT_STREAM_FIXTURE_HPP

#include "tests/support/loopback.hpp"
#include "tests/support/real_calls.hpp"
#include "tests/support/relay_fixture.hpp"

#include <algorithm>
#include <cstdint>
#include <list>
#include <ostream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <sys/epoll.h>

namespace relay_test {

using tcp_record = EPoll::struct_epoll_overlapped_tcp;

inline constexpr std::uint32_t c_read_mask = 0x40000001;  ///< EPOLLIN, one shot, level-triggered
inline constexpr std::uint32_t c_write_mask = 0xC0000004; ///< EPOLLOUT, one shot, edge-triggered

/// What is expected of the accepting and of the outgoing side where they differ. Texts by their ids.
struct stream_side {
    std::string name;
    int kind;
    EPoll::connection_map* registry;
    EPoll::connection_map* other_registry;
    std::string registry_lock;

    int (*request_header)(tcp_record*);
    int (*request_data)(tcp_record*);
    int (*read)(tcp_record*);
    std::string header_arming_failed;
    std::string data_arming_failed;
    std::string read_failed;
    std::string heartbeat_received;
    std::string receive_lock;  ///< the one record lock that the receive path takes
    unsigned char ended_event; ///< of the notice that the connection has ended

    int (*hand_over)(Zolt::struct_node_addr, Zolt::struct_token&, Zolt::struct_packet*);
    int (*write)(tcp_record*);
    std::string handed_over;
    int hand_over_line;
    std::string sending_file;
    int sending_line;
    bool packet_fields::*dropped_while_busy;
    bool packet_fields::*queued_while_busy;
    bool keeps_calls; ///< until they are acknowledged
    bool refuses_when_closing;
    bool marker_deletes;

    friend void PrintTo(stream_side const& side, std::ostream* out) { *out << side.name; }
};

inline stream_side accepting_side() {
    return {.name = "accepting",
            .kind = 4,
            .registry = &EPoll::g_establish_server_map,
            .other_registry = &EPoll::g_establish_client_map,
            .registry_lock = "g_establish_server_map_lock",
            .request_header = EPoll::request_recv_server_header,
            .request_data = EPoll::request_recv_server_data,
            .read = EPoll::recv_server,
            .header_arming_failed = "arm_server_header_failed",
            .data_arming_failed = "arm_server_data_failed",
            .read_failed = "recv_server_failed",
            .heartbeat_received = "heartbeat_from_client",
            .receive_lock = "rec.ack_lock",
            .ended_event = 4,
            .hand_over = INet_Relay::send_tcp_server,
            .write = EPoll::send_server,
            .handed_over = "handed_over_server",
            .hand_over_line = 470,
            .sending_file = "file_server",
            .sending_line = 757,
            .dropped_while_busy = &packet_fields::information_udp,
            .queued_while_busy = &packet_fields::command_udp,
            .keeps_calls = true,
            .refuses_when_closing = false,
            .marker_deletes = true};
}

inline stream_side outgoing_side() {
    return {.name = "outgoing",
            .kind = 5,
            .registry = &EPoll::g_establish_client_map,
            .other_registry = &EPoll::g_establish_server_map,
            .registry_lock = "g_client_lock",
            .request_header = EPoll::request_recv_client_header,
            .request_data = EPoll::request_recv_client_data,
            .read = EPoll::recv_client,
            .header_arming_failed = "arm_client_header_failed",
            .data_arming_failed = "arm_client_data_failed",
            .read_failed = "recv_client_failed",
            .heartbeat_received = "heartbeat_from_server",
            .receive_lock = "rec.send_lock",
            .ended_event = 2,
            .hand_over = INet_Relay::send_tcp_client,
            .write = EPoll::send_client,
            .handed_over = "handed_over_client",
            .hand_over_line = 386,
            .sending_file = "file_client",
            .sending_line = 795,
            .dropped_while_busy = &packet_fields::command_udp,
            .queued_while_busy = &packet_fields::information_udp,
            .keeps_calls = false,
            .refuses_when_closing = true,
            .marker_deletes = false};
}

inline auto each_side() {
    return ::testing::Values(accepting_side(), outgoing_side());
}

/// The name of a table's row, or of a side with a row, for the tests made from it.
template <class row>
std::string name_of_row(::testing::TestParamInfo<row> const& row_info) {
    return row_info.param.name;
}
template <class row>
std::string name_of_both(::testing::TestParamInfo<std::tuple<stream_side, row>> const& row_info) {
    return std::get<0>(row_info.param).name + "_" + std::get<1>(row_info.param).name;
}

/// One sequence out of several.
inline lines joined(std::vector<lines> const& parts) {
    lines all;
    for (lines const& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

/// A packet of one kind.
inline packet_fields packet_of(bool packet_fields::*kind, bytes data = {}) {
    packet_fields fields;
    fields.*kind = true;
    fields.data = std::move(data);
    return fields;
}

/// Packets as they stand on the wire, back to back.
inline bytes stream_of(std::vector<packet_fields> const& packets) {
    bytes stream;
    for (packet_fields const& packet : packets) {
        bytes const wire = packet_bytes(packet);
        stream.insert(stream.end(), wire.begin(), wire.end());
    }
    return stream;
}

/// One established connection and its peer.
struct stream_connection {
    tcp_record* rec = nullptr;
    descriptor peer;
    void const* lock = nullptr;

    /// The relay has destroyed the record.
    bool is_gone() const { return known_object_name(lock).empty(); }
};

class stream_fixture : public relay_fixture {
protected:
    static constexpr std::uint32_t c_local_ip = 0x0A00000A;
    static constexpr std::uint32_t c_remote_ip = 0x0B00000B;
    static constexpr std::uint16_t c_remote_port = 9000;
    static constexpr std::uint16_t c_gate_port = 7001;

    explicit stream_fixture(stream_side facts) : side(std::move(facts)) {}

    void SetUp() override {
        relay_fixture::SetUp();
        recv_instance = make_instance("tcp_recv", EPoll::epoll_tcp_recv);
        send_instance = make_instance("tcp_send", EPoll::epoll_tcp_send);
        connection = &connect("rec", {c_remote_ip, c_remote_port}, c_gate_port);
        rec = connection->rec;
        name_object(&rec->recv_token, "received");
        start_over();
    }

    void TearDown() override {
        system.forget_scripts();
        engine.forget_scripts();
        for (stream_connection& each : connections) {
            if (!each.is_gone()) {
                discard(each.rec);
            }
        }
        for (auto const& [destination, booked] : EPoll::g_connect_fail_map) {
            delete booked;
        }
        connections.clear();
        recv_instance.close();
        send_instance.close();
        relay_fixture::TearDown();
    }

    /// One more established connection, filed in the side's registry and known to both instances.
    stream_connection& connect(std::string const& name, Zolt::struct_node_addr from, std::uint16_t gate_port) {
        auto [near_end, far_end] = connected_pair();
        stream_connection& made = connections.emplace_back();
        made.peer = std::move(far_end);
        made.rec = make_tcp(side.kind, near_end.release(), name);
        made.lock = &made.rec->send_lock;
        made.rec->local_ip = c_local_ip;
        made.rec->remote_ip = from.ip;
        made.rec->remote_port = from.port;
        made.rec->gate_port = gate_port;
        side.registry->emplace(from, made.rec);
        if (side.kind == EPoll::c_kind_established_client) {
            made.rec->phase = EPoll::outgoing_phase::established;
            EPoll::g_outgoing.link(made.rec);
        }
        name_descriptor(made.rec->fd, name + ".fd");
        for (int const instance : {EPoll::epoll_tcp_recv, EPoll::epoll_tcp_send}) {
            epoll_event event{};
            event.data.ptr = static_cast<EPoll::struct_epoll_overlapped*>(made.rec);
            EXPECT_EQ(__real_epoll_ctl(instance, EPOLL_CTL_ADD, made.rec->fd, &event), 0);
        }
        return made;
    }

    void start_over() {
        clear_journal();
        system.clear();
        take_traces();
    }

    /// Journal lines of those kinds; of locks only which one and whether it was taken or given back.
    static lines story(unsigned kinds) {
        lines told;
        for (journal_entry const& entry : journal_entries(kinds)) {
            bool const is_lock = (entry.about & about::lock) != 0;
            told.push_back(is_lock ? entry.text.substr(0, entry.text.find('(')) : entry.text);
        }
        return told;
    }

    static std::string armed_for_reading(std::string const& name = "rec") {
        return armed("tcp_recv", c_read_mask, name);
    }
    static std::string armed_for_writing(std::string const& name = "rec") {
        return armed("tcp_send", c_write_mask, name);
    }

    /// The line of a trace.
    static std::string traced(char letter, std::string const& token, std::string const& id) {
        return call_text("zolt_debug_not_send", std::string(1, letter), token, text(id).c_str());
    }

    /// Arming calls on an instance so far.
    std::size_t armings(int instance) const {
        auto const calls = system.calls("epoll_ctl");
        return static_cast<std::size_t>(std::count_if(calls.begin(), calls.end(), [&](system_call const& call) {
            return call.descriptor == instance && call.arguments.at(1) == EPOLL_CTL_MOD;
        }));
    }

    /// A token that lines show by that name.
    static Zolt::struct_token make_named(std::string const& name, packet_fields fields = {}) {
        Zolt::struct_token token = make_token(std::move(fields));
        name_object(token.get_header_packet(), name);
        return token;
    }

    /// Puts a token behind what is queued, as somebody who is not under test would.
    void queue(Zolt::struct_token const& token) { rec->send_q.push_back(token); }

    /// Serves what the kernel reports for the send instance until it reports nothing; the count of events.
    int serve_writes(int most = 1000) {
        int served = 0;
        epoll_event event{};
        while (served < most && __real_epoll_wait(EPoll::epoll_tcp_send, &event, 1, 0) == 1) {
            auto* const ready = static_cast<EPoll::struct_epoll_overlapped*>(event.data.ptr);
            EXPECT_EQ(side.write(static_cast<tcp_record*>(ready)), 0);
            ++served;
        }
        return served;
    }

    stream_side const side;
    tcp_record* rec = nullptr; ///< of the first connection
    stream_connection* connection = nullptr;
    std::list<stream_connection> connections;

private:
    static descriptor make_instance(char const* name, int& where) {
        where = __real_epoll_create1(0);
        name_descriptor(where, name);
        return descriptor(where);
    }

    static std::string armed(std::string const& instance, std::uint32_t mask, std::string const& name) {
        return call_text("epoll_ctl", instance, std::string("MOD"), name + ".fd", mask_text(mask), name);
    }

    /// A record that the test leaves goes with what it holds.
    static void discard(tcp_record* left) {
        left->recv_token.free();
        for (auto* const queue : {&left->send_q, &left->ack_q}) {
            for (Zolt::struct_token& token : *queue) {
                token.free();
            }
        }
        EPoll::live_list::unlink(left);
        EPoll::ending_list::unlink(left);
        descriptor(left->fd).close();
        delete left;
    }

    descriptor recv_instance;
    descriptor send_instance;
};

/// The same tests on each side; and on each side with each row of a table.
template <class fixture>
class on_both_sides : public fixture, public ::testing::WithParamInterface<stream_side> {
protected:
    on_both_sides() : fixture(GetParam()) {}
};
template <class fixture, class row>
class on_both_sides_with : public fixture, public ::testing::WithParamInterface<std::tuple<stream_side, row>> {
protected:
    on_both_sides_with() : fixture(std::get<0>(this->GetParam())) {}
    row const& given() const { return std::get<1>(this->GetParam()); }
};

} // namespace relay_test

#endif
