// In which order the parts of a record end. The host sees the locks go; the queues and the record itself show by the
// memory that they give back.
#include "tests/support/loopback.hpp"
#include "tests/support/real_calls.hpp"
#include "tests/unit/lifecycle_fixture.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>

namespace {

struct watched_memory {
    void const* memory = nullptr;
    char const* name = nullptr;
};

// The queues of one record, and the record.
constinit std::array<watched_memory, 3> g_watched{};

void note_end(void const* memory) {
    for (watched_memory& watched : g_watched) {
        if (memory != nullptr && watched.memory == memory) {
            watched.memory = nullptr;
            relay_test::write_line(relay_test::about::object, "give_back",
                                   std::string(watched.name) + " gives back its memory");
        }
    }
}

} // namespace

// The linker sends every call of the two operators that end an object here.
extern "C" {
void __real__ZdlPv(void* memory) noexcept;
void __real__ZdlPvm(void* memory, std::size_t size) noexcept;

void __wrap__ZdlPv(void* memory) noexcept {
    note_end(memory);
    __real__ZdlPv(memory);
}
void __wrap__ZdlPvm(void* memory, std::size_t size) noexcept {
    note_end(memory);
    __real__ZdlPvm(memory, size);
}
}

namespace {

using namespace relay_test;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;

class ending_record : public lifecycle_fixture {
protected:
    void SetUp() override {
        lifecycle_fixture::SetUp();
        g_watched = {};
        initialize();
    }
    void TearDown() override {
        INet_Relay::finalize();
        g_watched = {};
        lifecycle_fixture::TearDown();
    }

    /// A record with something in each queue, so that both have memory.
    EPoll::struct_epoll_overlapped_tcp* make_watched(int fd) {
        auto* const rec = make_tcp(EPoll::c_kind_established_server, fd, "rec");
        rec->send_q.push_back(Zolt::struct_token());
        rec->ack_q.push_back(make_token({.call = true}));
        g_watched = {{{&rec->ack_q.front(), "rec.ack_q"}, {&rec->send_q.front(), "rec.send_q"}, {rec, "rec"}}};
        return rec;
    }

    /// The ends of locks and memory, and of what stands beside them.
    static lines ends(char const* beside = "") {
        lines chosen;
        for (journal_entry const& entry : journal_entries()) {
            if (entry.name == "~class_thread_lock" || entry.name == "give_back" || entry.name == beside) {
                chosen.push_back(entry.text);
            }
        }
        return chosen;
    }

    static lines parts_in_order() {
        return {"rec.ack_lock.~class_thread_lock()", "rec.ack_q gives back its memory",
                "rec.send_lock.~class_thread_lock()", "rec.send_q gives back its memory", "rec gives back its memory"};
    }
};

TEST_F(ending_record, of_a_connection_loses_its_parts_one_by_one_after_its_send_lock_was_let_go) {
    auto* const rec = make_watched(-1);
    clear_journal();
    EXPECT_EQ(EPoll::delete_overlapped(rec), 0);
    EXPECT_EQ(ends(), parts_in_order());
    EXPECT_THAT(journal_entries(about::object), ::testing::Each(::testing::Field(&journal_entry::locks, IsEmpty())));
}

TEST_F(ending_record, of_a_cleared_registry_loses_them_likewise_after_its_socket_and_packet) {
    auto* const rec = make_watched(__real_socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    rec->recv_token = make_token({});
    name_descriptor(rec->fd, "rec.fd");
    name_object(rec->recv_token.get_header_packet(), "received");
    EPoll::connection_map registry{{peer_of(rec), rec}};
    clear_journal();
    EPoll::clear_establish_map(registry);
    lines const steps = journal_lines(about::object | about::system | about::packet);
    lines expected = parts_in_order();
    expected.insert(expected.begin(), "received.free()");
    expected.insert(expected.begin(), "close(rec.fd)");
    auto const from = std::find(steps.begin(), steps.end(), expected.front());
    lines last(from, steps.end());
    std::erase_if(last, [](std::string const& step) { return step.ends_with(".free_header()"); });
    EXPECT_EQ(last, expected);
}

TEST_F(ending_record, of_a_udp_port_loses_lock_and_queue_and_flushes_nothing) {
    auto* const rec = make_udp(-1, "rec");
    auto queued = make_token({.data = {1}});
    rec->send_q.push_back(queued);
    g_watched = {{{&rec->send_q.front(), "rec.send_q"}, {rec, "rec"}, {}}};
    EPoll::g_udp_map = {{7000, rec}};
    clear_journal();
    EXPECT_EQ(EPoll::udp_finalize(), 0);
    EXPECT_EQ(ends("send_zolt_center"), (lines{"rec.send_lock.~class_thread_lock()", "rec.send_q gives back its memory",
                                               "rec gives back its memory"}));
    EXPECT_EQ(header_references(queued), 1);
    EXPECT_EQ(data_references(queued), 1);
    queued.free();
}

TEST_F(ending_record, of_a_listening_socket_ends_in_finalize_and_not_before) {
    std::uint16_t const port = unused_port();
    ASSERT_EQ(EPoll::request_listen(port), 0);
    auto* const listening = static_cast<EPoll::struct_epoll_overlapped*>(system.calls("epoll_ctl").back().pointer);
    g_watched = {{{listening, "listening"}, {}, {}}};
    descriptor const first(EPoll::g_server_map.at(port));

    // The port is opened again in vain, and the relay stops: an event of the record may still be on its way.
    system.fail("bind", 1, EADDRINUSE);
    expect_alert(text("port_taken_before") + std::to_string(port) + text("port_taken_after"));
    expect_error(text("listen_bind_failed"));
    EXPECT_EQ(EPoll::request_listen(port), EADDRINUSE);
    INet_Relay::stop();
    EXPECT_EQ(journal_count("give_back"), 0U);
    EXPECT_EQ(listening->kind, EPoll::c_kind_listen);
    EXPECT_EQ(listening->fd, first.get());
    EXPECT_EQ(listening->local_ip, 0U);
    EXPECT_EQ(listening->local_port, port);

    clear_journal();
    INet_Relay::finalize();
    EXPECT_EQ(ends("close"),
              (lines{"close(epoll_tcp_send)", "close(epoll_tcp_recv)", "close(epoll_tcp_init)", "close(epoll_udp_send)",
                     "close(epoll_udp_recv)", "listening gives back its memory"}));
}

} // namespace
