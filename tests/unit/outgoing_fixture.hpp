// Outgoing connections in each state that they pass through, made by hand, and a relay that runs with real threads.
#ifndef TESTS_UNIT_OUTGOING_FIXTURE_HPP
#define TESTS_UNIT_OUTGOING_FIXTURE_HPP

#include "tests/support/loopback.hpp"
#include "tests/support/real_calls.hpp"
#include "tests/support/relay_fixture.hpp"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <utility>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/epoll.h>

namespace relay_test {

using tcp_record = EPoll::struct_epoll_overlapped_tcp;
using phase = EPoll::outgoing_phase;

inline constexpr std::uint64_t c_timeout = 8000;
inline constexpr std::size_t c_block_size = 1024;
inline constexpr std::uint16_t c_port = 9000;
inline constexpr std::uint32_t c_recv_mask = 0x40000001;
inline constexpr std::uint32_t c_send_mask = 0xC0000004;
inline constexpr std::uint32_t c_cancel_mask = 0xC0000005;

/// Where on the loopback a port is.
inline Zolt::struct_node_addr at_port(std::uint16_t port = c_port) {
    return {Zolt::c_local_host, port};
}

inline bytes block_bytes(Zolt::struct_tcp_header const& block) {
    bytes content(sizeof block);
    std::memcpy(content.data(), &block, sizeof block);
    return content;
}

/// The port by which a peer says that it knows the relay's node.
inline constexpr std::uint16_t c_gate = 6543;

/// The block that a side sends.
inline bytes init_block(std::uint16_t sender, std::uint16_t receiver) {
    Zolt::struct_tcp_header block;
    block.set_port_of_sender(sender);
    block.set_port_of_receiver(receiver);
    return block_bytes(block);
}

/// A TCP socket on the loopback that refuses connects for as long as it does not listen.
inline descriptor bound_socket() {
    descriptor socket(__real_socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = Zolt::c_local_host;
    EXPECT_EQ(__real_bind(socket.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address), 0);
    return socket;
}

/// A trace as one line: letter, file, token, format, arguments. The line number must be a real one.
inline std::string traced(char letter, std::string const& file, std::string const& format, lines const& arguments = {},
                          std::string const& token = "no token") {
    std::string line = std::string(1, letter) + " " + file + " " + token + " " + format;
    for (std::string const& argument : arguments) {
        line += " | " + argument;
    }
    return line;
}

inline std::string shown(trace_line const& trace) {
    struct to_words {
        std::string operator()(std::string const& value) const { return value; }
        std::string operator()(void const* value) const { return object_name(value); }
        std::string operator()(double value) const { return to_text(value); }
        std::string operator()(long value) const { return to_text(value); }
        std::string operator()(unsigned long value) const { return to_text(value); }
    };
    lines arguments;
    for (trace_argument const& argument : trace.arguments) {
        arguments.push_back(std::visit(to_words(), argument));
    }
    return traced(trace.letter, trace.file, trace.text, arguments, trace.token) + (trace.line > 0 ? "" : " | no line");
}

inline lines take_shown_traces() {
    lines all;
    for (trace_line const& trace : take_traces()) {
        all.push_back(shown(trace));
    }
    return all;
}

/// An epoll_ctl as one line.
inline std::string ctl(char const* instance, char const* operation, std::string const& fd, std::uint32_t mask,
                       char const* record) {
    return call_text("epoll_ctl", std::string(instance), std::string(operation), fd, mask_text(mask),
                     std::string(record));
}

/// Lines of these kinds; tokens and parts that nobody named show without their numbers.
inline lines lines_without_numbers(unsigned kinds) {
    lines all = journal_lines(kinds);
    for (std::string& line : all) {
        for (auto sign = line.find('#'); sign != line.npos; sign = line.find('#', sign)) {
            line.erase(sign, line.find_first_not_of("0123456789", sign + 1) - sign);
        }
    }
    return all;
}

/// How often the current thread, or any other, let go of a lock for good.
inline std::ptrdiff_t outer_holds(std::string const& lock) {
    return std::ranges::count(journal_lines(about::lock), lock + ".unlock(guard, depth 0)");
}

/// Runs an event thread on this one, over events that the test tells, until it is told to stop.
using thread_entry = void* (*)(Tesk::OS::class_thread*);
inline void serve(system_calls& system, thread_entry entry, int instance, std::vector<scripted_event> sequence) {
    system.events(instance, std::move(sequence));
    entry(nullptr);
}

/// An initialised relay without threads.
class outgoing_fixture : public relay_fixture {
protected:
    void SetUp() override {
        relay_fixture::SetUp();
        INet_Relay::initialize();
        name_descriptor(EPoll::epoll_tcp_init, "tcp_init");
        name_descriptor(EPoll::epoll_tcp_recv, "tcp_recv");
        name_descriptor(EPoll::epoll_tcp_send, "tcp_send");
        forget_calls();
    }

    void TearDown() override {
        while (EPoll::g_outgoing.first != nullptr) {
            destroy(EPoll::g_outgoing.first);
        }
        peers.clear();
        system.forget_scripts();
        engine.forget_scripts();
        INet_Relay::finalize();
        relay_fixture::TearDown();
    }

    void forget_calls() {
        clear_journal();
        system.clear();
        take_traces();
    }

    /// A record that no registry names: between two of them, or new.
    tcp_record* unfiled(std::string const& name, std::uint16_t port = c_port) {
        return make_outgoing(name, at_port(port), phase::none, EPoll::c_kind_connecting, -1);
    }

    /// A record whose retry is due: no socket.
    tcp_record* waiting(std::string const& name, std::uint16_t port = c_port) {
        return make_outgoing(name, at_port(port), phase::waiting, EPoll::c_kind_connecting, -1);
    }

    /// A record whose connect is under way, as far as the relay knows; the socket is a real one that goes nowhere.
    tcp_record* connecting(std::string const& name, std::uint16_t port = c_port) {
        int const fd = __real_socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        tcp_record* const rec = make_outgoing(name, at_port(port), phase::connecting, EPoll::c_kind_connecting, fd);
        watch(rec, EPoll::epoll_tcp_init);
        return rec;
    }

    /// A record that has asked for its connect to a peer who has it: the event is due.
    tcp_record* connected(std::string const& name, std::uint16_t port = c_port) {
        tcp_record* const rec = make_paired(name, port, phase::connecting, EPoll::c_kind_connecting);
        real::fcntl(rec->fd, F_SETFL, O_NONBLOCK);
        watch(rec, EPoll::epoll_tcp_init);
        return rec;
    }

    /// A record in its exchange, with all of its block to send and all of the answer to come.
    tcp_record* exchanging(std::string const& name, std::uint16_t port = c_port) {
        tcp_record* const rec = make_paired(name, port, phase::connecting, EPoll::c_kind_connecting);
        rec->local_port = 7000;
        rec->send_remain = c_block_size;
        rec->recv_remain = c_block_size;
        watch(rec, EPoll::epoll_tcp_send);
        return rec;
    }

    /// A record whose block is sent: the answer is awaited.
    tcp_record* awaiting_answer(std::string const& name, std::uint16_t port = c_port) {
        tcp_record* const rec = exchanging(name, port);
        rec->send_remain = 0;
        watch(rec, EPoll::epoll_tcp_recv);
        return rec;
    }

    /// An established record.
    tcp_record* established(std::string const& name, std::uint16_t port = c_port) {
        tcp_record* const rec = make_paired(name, port, phase::established, EPoll::c_kind_established_client);
        rec->gate_port = 7000;
        watch(rec, EPoll::epoll_tcp_send);
        watch(rec, EPoll::epoll_tcp_recv);
        return rec;
    }

    /// The other end of a record's connection.
    descriptor& peer_of(tcp_record const* rec) { return peers.at(rec); }

    static std::vector<tcp_record const*> live_records() {
        std::vector<tcp_record const*> all;
        for (tcp_record* at = EPoll::g_outgoing.first; at != nullptr; at = EPoll::live_list::after(at)) {
            all.push_back(at);
        }
        return all;
    }

    /// Whether a record that was made here, or by add_client, has not been destroyed.
    static bool lives(tcp_record const* rec) {
        auto const all = live_records();
        return std::ranges::find(all, rec) != all.end();
    }

    /// The registries that name a record under its destination: "connect fail establish".
    static std::string registries_of(tcp_record const* rec, std::uint16_t port = c_port) {
        std::pair<char const*, EPoll::connection_map const&> const registries[] = {
            {"connect ", EPoll::g_connect_map},
            {"fail ", EPoll::g_connect_fail_map},
            {"establish ", EPoll::g_establish_client_map}};
        std::string names;
        for (auto const& [name, registry] : registries) {
            auto const entry = registry.find(at_port(port));
            names += entry != registry.end() && entry->second == rec ? name : "";
        }
        return names.empty() ? names : names.substr(0, names.size() - 1);
    }

    /// Gives a record a second place: one that a failed exchange, or a shadow, leaves.
    static void file_also(tcp_record* rec, phase where) {
        Tesk::OS::class_locker const guard(&EPoll::g_client_lock, nullptr);
        EPoll::file_outgoing(rec, where);
    }

    static void destroy(tcp_record* rec) {
        EPoll::live_list::unlink(rec);
        EPoll::ending_list::unlink(rec);
        free_queues(rec);
        if (rec->fd != -1) {
            real::close(rec->fd);
        }
        delete rec;
    }

    static void free_queues(tcp_record* rec) {
        for (auto* const queue : {&rec->send_q, &rec->ack_q}) {
            for (Zolt::struct_token& token : *queue) {
                token.free();
            }
            queue->clear();
        }
        rec->recv_token.free();
    }

    /// A registration that has fired: MOD arms it.
    static void watch(tcp_record* rec, int instance) {
        epoll_event event{};
        event.events = EPOLLONESHOT | EPOLLET;
        event.data.ptr = static_cast<EPoll::struct_epoll_overlapped*>(rec);
        __real_epoll_ctl(instance, EPOLL_CTL_ADD, rec->fd, &event);
    }

private:
    tcp_record* make_outgoing(std::string const& name, Zolt::struct_node_addr destination, phase where, int kind,
                              int fd) {
        tcp_record* rec = nullptr;
        {
            Tesk::OS::class_locker const guard(&EPoll::g_client_lock, nullptr);
            rec = EPoll::new_outgoing(destination);
            rec->kind = kind;
            rec->fd = fd;
            if (where != phase::none) {
                EPoll::file_outgoing(rec, where);
            }
        }
        name_record(rec, name);
        if (fd != -1) {
            name_descriptor(fd, name + ".fd");
        }
        forget_calls();
        return rec;
    }

    tcp_record* make_paired(std::string const& name, std::uint16_t port, phase where, int kind) {
        auto [near_end, far_end] = connected_pair();
        tcp_record* const rec = make_outgoing(name, at_port(port), where, kind, near_end.release());
        peers[rec] = std::move(far_end);
        return rec;
    }

    std::map<tcp_record const*, descriptor> peers;
};

/// A relay with its threads running; the timer is stepped by hand. What it leaves is cleared after finalize.
class running_relay : public relay_fixture {
protected:
    void SetUp() override {
        relay_fixture::SetUp();
        start_threads(true);
        INet_Relay::initialize();
        INet_Relay::start();
    }

    void TearDown() override {
        INet_Relay::stop();
        peers.clear();
        INet_Relay::finalize();
        for (auto* const registry : {&EPoll::g_connect_map, &EPoll::g_connect_fail_map}) {
            EPoll::clear_connect_map(*registry);
        }
        EPoll::clear_establish_map(EPoll::g_establish_client_map);
        relay_fixture::TearDown();
    }

    /// Looks again and again, under g_client_lock, until it is so; false after ten seconds.
    static bool wait_until(std::function<bool()> const& is_so) {
        auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (std::chrono::steady_clock::now() < deadline) {
            {
                Tesk::OS::class_locker const guard(&EPoll::g_client_lock, nullptr);
                if (is_so()) {
                    return true;
                }
            }
            std::size_t const seen = journal_entries().size();
            wait_for_journal([seen](auto const& entries) { return entries.size() > seen; },
                             std::chrono::milliseconds(5));
        }
        return false;
    }

    static bool is_established(std::uint16_t port) { return EPoll::g_establish_client_map.contains(at_port(port)); }
    static bool is_booked(std::uint16_t port) { return EPoll::g_connect_fail_map.contains(at_port(port)); }

    /// A socket that stays open until the relay has stopped, unless the test closes it.
    descriptor& keep_open(descriptor socket) { return peers.emplace_back(std::move(socket)); }

    /// A listener on the loopback, kept open.
    descriptor& listen(int backlog = 16) { return keep_open(listen_loopback(backlog)); }

    /// The peer's end of the next connection, kept open.
    descriptor& accept(descriptor const& listener) { return keep_open(accept_loopback(listener)); }

    /// The same, once the peer has played its side of the exchange and the connection is established.
    descriptor& establish(descriptor const& listener, std::uint16_t gate_port = 7000) {
        descriptor& peer = accept(listener);
        EXPECT_EQ(read_bytes(peer, c_block_size).size(), c_block_size);
        write_bytes(peer, init_block(1, gate_port));
        EXPECT_TRUE(wait_until([&] { return is_established(local_port(listener)); }));
        return peer;
    }

private:
    std::deque<descriptor> peers;
};

} // namespace relay_test

#endif
