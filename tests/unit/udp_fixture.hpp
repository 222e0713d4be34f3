// The fixture that the UDP tests share: the two UDP instances, open ports, and datagrams sent to them.
#ifndef TESTS_UNIT_UDP_FIXTURE_HPP
#define TESTS_UNIT_UDP_FIXTURE_HPP

#include "tests/support/loopback.hpp"
#include "tests/support/real_calls.hpp"
#include "tests/support/relay_fixture.hpp"

#include <cstdint>
#include <string>
#include <utility>

#include <arpa/inet.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

namespace relay_test {

/// A dotted address in network order.
inline std::uint32_t ip(char const* dotted) {
    in_addr parsed{};
    return ::inet_pton(AF_INET, dotted, &parsed) == 1 ? parsed.s_addr : 0;
}

/// The name of a table's row, for the tests made from it.
template <class row>
std::string row_name(testing::TestParamInfo<row> const& row_info) {
    return row_info.param.name;
}

class udp_fixture : public relay_fixture {
protected:
    using udp_record = EPoll::struct_epoll_overlapped_ex;

    static constexpr unsigned short c_port = 7000;

    void SetUp() override {
        relay_fixture::SetUp();
        recv_instance = make_instance("udp_recv");
        send_instance = make_instance("udp_send");
        EPoll::epoll_udp_recv = recv_instance.get();
        EPoll::epoll_udp_send = send_instance.get();
    }

    /// Before the balance is taken: records that a test left filed go as finalize would let them go.
    void TearDown() override {
        system.forget_scripts();
        EPoll::udp_finalize();
        recv_instance.close();
        send_instance.close();
        relay_fixture::TearDown();
    }

    static descriptor make_instance(char const* name) {
        descriptor instance(__real_epoll_create1(0));
        name_descriptor(instance.get(), name);
        return instance;
    }

    /// A port that is filed and registered, while its socket is bound to nothing: any number will do.
    udp_record* open_port(unsigned short port = c_port, std::string const& name = "udp") {
        system.answer("bind", 1, 0);
        EXPECT_EQ(EPoll::udp_initialize(port), 0);
        return start_over(EPoll::g_udp_map.at(port), name);
    }

    /// The same with a port that the kernel chose, open for datagrams.
    udp_record* open_bound_port() {
        EXPECT_EQ(EPoll::udp_initialize(0), 0);
        auto entry = EPoll::g_udp_map.extract(0);
        udp_record* const rec = entry.mapped();
        entry.key() = rec->local_port = bound_port(rec);
        EPoll::g_udp_map.insert(std::move(entry));
        return start_over(rec, "udp");
    }

    static unsigned short bound_port(udp_record const* rec) {
        descriptor borrowed(rec->fd);
        unsigned short const port = local_port(borrowed);
        borrowed.release();
        return port;
    }

    /// Sends one datagram to an open port.
    static void throw_at(udp_record const* rec, bytes const& datagram) {
        descriptor const sender = bind_loopback_udp();
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(rec->local_port);
        to.sin_addr.s_addr = Zolt::c_local_host;
        EXPECT_EQ(__real_sendto(sender.get(), datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&to),
                                sizeof to),
                  static_cast<ssize_t>(datagram.size()));
    }

    /// The same, and waits until it is in the queue of the port's socket. No thread may read there meanwhile.
    static void send_to(udp_record const* rec, bytes const& datagram) {
        std::uint32_t const before = queued_memory(rec);
        throw_at(rec, datagram);
        for (int wait = 0; queued_memory(rec) == before; ++wait) {
            ASSERT_LT(wait, 10000) << "the datagram did not arrive";
            ::poll(nullptr, 0, 1);
        }
    }

    static bool wait_for_datagram(udp_record const* rec) {
        pollfd waited{rec->fd, POLLIN, 0};
        return ::poll(&waited, 1, 10000) == 1;
    }

    /// The mask of the next event of an instance for that record, or 0 when there is none within that time.
    static std::uint32_t next_event(int instance, udp_record const* rec, int milliseconds) {
        epoll_event event{};
        if (__real_epoll_wait(instance, &event, 1, milliseconds) != 1) {
            return 0;
        }
        EXPECT_EQ(event.data.ptr, static_cast<EPoll::struct_epoll_overlapped const*>(rec));
        return event.events;
    }
    static constexpr int c_now = 0;
    static constexpr int c_soon = 10000;

    /// "socket bind close"
    static std::string names_of_system_calls() {
        std::string names;
        for (journal_entry const& entry : journal_entries(about::system)) {
            names += (names.empty() ? "" : " ") + entry.name;
        }
        return names;
    }

    lines texts_of(std::string const& name) const {
        lines texts;
        for (system_call const& call : system.calls(name)) {
            texts.push_back(call.text);
        }
        return texts;
    }

    descriptor recv_instance;
    descriptor send_instance;

private:
    udp_record* start_over(udp_record* rec, std::string const& name) {
        name_record(rec, name);
        name_descriptor(rec->fd, name + ".fd");
        clear_journal();
        system.clear();
        return rec;
    }

    static std::uint32_t queued_memory(udp_record const* rec) {
        std::uint32_t figures[SK_MEMINFO_VARS] = {};
        socklen_t length = sizeof figures;
        EXPECT_EQ(::getsockopt(rec->fd, SOL_SOCKET, SO_MEMINFO, figures, &length), 0);
        return figures[SK_MEMINFO_RMEM_ALLOC];
    }
};

} // namespace relay_test

#endif
