// Accepted connections in each state that they pass through, made by hand with a peer in the test's hand, and a relay
// that listens with real threads.
#ifndef TESTS_UNIT_ACCEPTING_FIXTURE_HPP
#define TESTS_UNIT_ACCEPTING_FIXTURE_HPP

#include "tests/unit/registries_fixture.hpp"

#include <cerrno>
#include <map>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace relay_test {

inline constexpr std::uint16_t c_listening_port = 7000;
inline constexpr std::uint32_t c_arrival_mask = 0x80000001;
inline constexpr unsigned char c_connected_from_client = 3;
inline constexpr unsigned char c_disconnected_from_client = 4;

using listening_record = EPoll::struct_epoll_overlapped;

inline listening_record* base_of(tcp_record* rec) {
    return rec;
}

/// A transfer that moved nothing: result 0, or -1 with this errno.
struct empty_transfer {
    int error;
    friend void PrintTo(empty_transfer const& transfer, std::ostream* out) { *out << "errno " << transfer.error; }

    void script(system_calls& system, char const* call) const {
        error == 0 ? system.answer(call, 1, 0) : system.fail(call, 1, error);
    }
};
inline auto all_empty_transfers() {
    return ::testing::Values(empty_transfer{0}, empty_transfer{ECONNRESET}, empty_transfer{EPIPE},
                             empty_transfer{ETIMEDOUT}, empty_transfer{EINTR}, empty_transfer{EAGAIN});
}

/// Events of offers, and with each how many locks the thread held.
using notices = std::vector<std::pair<unsigned char, std::size_t>>;
inline notices notices_of(std::vector<center_offer> const& offers) {
    notices all;
    for (center_offer const& offer : offers) {
        all.emplace_back(offer.packet.event, offer.locks.size());
    }
    return all;
}
inline notices take_notices() {
    return notices_of(take_offers());
}

inline bytes part_of(bytes const& whole, std::size_t first, std::size_t count) {
    auto const from = whole.begin() + static_cast<std::ptrdiff_t>(first);
    return {from, from + static_cast<std::ptrdiff_t>(count)};
}

class accepting_fixture : public registries_fixture {
protected:
    void TearDown() override {
        for (auto const& each : std::exchange(made, {})) {
            tcp_record* const rec = each.first;
            if (!known_object_name(each.second).empty()) {
                std::erase_if(EPoll::g_establish_server_map, [rec](auto const& entry) { return entry.second == rec; });
                destroy(rec);
            }
        }
        far_ends.clear();
        sockets.clear();
        registries_fixture::TearDown();
    }

    /// Just accepted: all of the peer's block is to come.
    tcp_record* begun(std::string const& name, std::uint16_t port = c_port) {
        tcp_record* const rec = paired(name, EPoll::c_kind_accepted, port);
        rec->recv_remain = c_block_size;
        rec->reap_clock = static_cast<std::uint32_t>(Tesk::OS::lemon_clock());
        EPoll::g_accepted_exchanging.link(rec);
        watch(rec, EPoll::epoll_tcp_recv);
        forget_calls();
        return rec;
    }

    /// The peer's block has arrived; all of the reply is to be sent.
    tcp_record* replying(std::string const& name, std::uint16_t port = c_port) {
        tcp_record* const rec = begun(name, port);
        rec->recv_remain = 0;
        rec->server_init_header.set_port_of_sender(c_listening_port);
        rec->server_init_header.set_port_of_receiver(port);
        rec->send_remain = c_block_size;
        watch(rec, EPoll::epoll_tcp_send);
        return rec;
    }

    /// Established and filed.
    tcp_record* served(std::string const& name, std::uint16_t port = c_port) {
        tcp_record* const rec = paired(name, EPoll::c_kind_established_server, port);
        EPoll::g_establish_server_map[at_port(port)] = rec;
        watch(rec, EPoll::epoll_tcp_recv);
        watch(rec, EPoll::epoll_tcp_send);
        forget_calls();
        return rec;
    }

    /// A record that the relay made: from now on named, and destroyed at the end unless the relay does it.
    tcp_record* adopt(tcp_record* rec, std::string const& name) {
        name_record(rec, name);
        name_descriptor(rec->fd, name + ".fd");
        made[rec] = &rec->send_lock;
        return rec;
    }

    descriptor& far_end(tcp_record const* rec) { return far_ends.at(rec); }

    /// A socket that stays open until the test is over.
    descriptor& keep_open(descriptor socket) { return sockets.emplace_back(std::move(socket)); }

    bool is_gone(tcp_record* rec) const { return known_object_name(made.at(rec)).empty(); }

    static tcp_record* filed(std::uint16_t port = c_port) {
        auto const entry = EPoll::g_establish_server_map.find(at_port(port));
        return entry == EPoll::g_establish_server_map.end() ? nullptr : entry->second;
    }

    void receive_event(std::uint32_t mask, tcp_record* rec) {
        serve(system, EPoll::epoll_thread_tcp_recv_entry, EPoll::epoll_tcp_recv, {{mask, base_of(rec)}});
    }
    void send_event(std::uint32_t mask, tcp_record* rec) {
        serve(system, EPoll::epoll_thread_tcp_send_entry, EPoll::epoll_tcp_send, {{mask, base_of(rec)}});
    }

    /// Does the event threads' work here, on what the kernel reports, until it is so; false after ten seconds.
    bool serve_until(std::function<bool()> const& is_so) {
        auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!is_so()) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            serve_next(EPoll::epoll_thread_tcp_init_entry, EPoll::epoll_tcp_init);
            serve_next(EPoll::epoll_thread_tcp_recv_entry, EPoll::epoll_tcp_recv);
            serve_next(EPoll::epoll_thread_tcp_send_entry, EPoll::epoll_tcp_send);
        }
        return true;
    }

    static constexpr int c_deadline = 10000; ///< milliseconds

    /// The same for one event of one thread, if the kernel reports one within that many milliseconds.
    void serve_next(thread_entry entry, int instance, int milliseconds = 1) {
        epoll_event event{};
        if (__real_epoll_wait(instance, &event, 1, milliseconds) == 1) {
            serve(system, entry, instance, {{event.events, event.data.ptr}});
        }
    }

    /// The only trace so far stands at that line of the accepting side's source.
    static void expect_only_trace(char letter, int line, std::string const& format, lines const& locks = {}) {
        auto const traces = take_traces();
        ASSERT_EQ(traces.size(), 1u);
        EXPECT_EQ(shown(traces[0]), traced(letter, text("file_server"), format));
        EXPECT_EQ(traces[0].line, line);
        EXPECT_EQ(traces[0].locks, locks);
    }

    static lines lock_and_unlock(std::string const& lock) {
        return {lock + ".lock(pointer, depth 1)", lock + ".unlock(guard, depth 0)"};
    }

private:
    tcp_record* paired(std::string const& name, int kind, std::uint16_t port) {
        auto [near_end, peer] = connected_pair();
        tcp_record* const rec = adopt(make_tcp(kind, near_end.release(), name), name);
        rec->remote_port = port;
        far_ends[rec] = std::move(peer);
        return rec;
    }

    std::map<tcp_record*, void const*> made; ///< with the lock by which the journal knows that it lives
    std::map<tcp_record const*, descriptor> far_ends;
    std::deque<descriptor> sockets;
};

/// A relay with its threads running and one server port open.
class running_server : public running_relay {
protected:
    void SetUp() override {
        running_relay::SetUp();
        port = unused_port();
        ASSERT_EQ(INet_Relay::add_server(port), 0);
    }

    void TearDown() override {
        INet_Relay::stop();
        EPoll::clear_establish_map(EPoll::g_establish_server_map);
        running_relay::TearDown();
    }

    /// A peer, kept open.
    descriptor& connect() { return keep_open(connect_loopback(port)); }

    static bytes block_of(descriptor const& peer, std::uint16_t gate_port) {
        return init_block(local_port(peer), gate_port);
    }

    /// The same once established; it has read the reply.
    descriptor& establish(std::uint16_t gate_port = c_listening_port) {
        std::size_t const told = wait_for_offers(0).size();
        descriptor& peer = connect();
        write_bytes(peer, block_of(peer, gate_port));
        EXPECT_EQ(read_bytes(peer, c_block_size).size(), c_block_size);
        EXPECT_GT(wait_for_offers(told + 1).size(), told);
        return peer;
    }

    /// What the Center was offered from the beginning, at least so much unless ten seconds pass.
    std::vector<center_offer> const& wait_for_offers(std::size_t count) {
        wait_until([this, count] {
            for (center_offer& offer : take_offers()) {
                heard.push_back(std::move(offer));
            }
            return heard.size() >= count;
        });
        return heard;
    }

    static bool wait_for_line(std::string const& part) {
        return wait_for_journal([&part](std::vector<journal_entry> const& entries) {
            return std::ranges::any_of(
                entries, [&part](journal_entry const& entry) { return entry.text.find(part) != std::string::npos; });
        });
    }

    /// No accepted record is left, in a registry or out of it, once the threads have ended.
    static void expect_no_accepted_record() {
        INet_Relay::stop();
        EXPECT_TRUE(EPoll::g_establish_server_map.empty());
        EXPECT_EQ(EPoll::g_accepted_exchanging.first, nullptr);
        EXPECT_EQ(EPoll::g_accepted_ending.first, nullptr);
    }

    std::uint16_t port = 0;

private:
    std::vector<center_offer> heard;
};

} // namespace relay_test

#endif
