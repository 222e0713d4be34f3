// Records of both sides, filed or not, and what became of them.
#ifndef TESTS_UNIT_REGISTRIES_FIXTURE_HPP
#define TESTS_UNIT_REGISTRIES_FIXTURE_HPP

#include "tests/unit/outgoing_fixture.hpp"

#include <array>
#include <set>
#include <string>
#include <utility>

namespace relay_test {

/// The registry in which an outgoing record of that phase is filed.
inline EPoll::connection_map& registry_of(phase where) {
    switch (where) {
    case phase::connecting:
        return EPoll::g_connect_map;
    case phase::established:
        return EPoll::g_establish_client_map;
    default:
        return EPoll::g_connect_fail_map;
    }
}

inline std::array<EPoll::connection_map*, 3> all_registries() {
    return {&EPoll::g_connect_map, &EPoll::g_establish_client_map, &EPoll::g_connect_fail_map};
}

class registries_fixture : public outgoing_fixture {
protected:
    void TearDown() override {
        for (auto const& [peer, rec] : std::exchange(EPoll::g_establish_server_map, {})) {
            destroy(rec);
        }
        outgoing_fixture::TearDown();
    }

    /// An accepted record with a socket of its own, registered for sending and receiving, which never fires by itself.
    tcp_record* accepted(std::string const& name, int kind, std::uint16_t port = c_port) {
        int const fd = __real_socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        name_descriptor(fd, name + ".fd");
        tcp_record* const rec = make_tcp(kind, fd, name);
        rec->remote_port = port;
        epoll_event event{};
        event.data.ptr = static_cast<EPoll::struct_epoll_overlapped*>(rec);
        __real_epoll_ctl(EPoll::epoll_tcp_send, EPOLL_CTL_ADD, fd, &event);
        __real_epoll_ctl(EPoll::epoll_tcp_recv, EPOLL_CTL_ADD, fd, &event);
        return rec;
    }

    /// An accepted and established record, filed.
    tcp_record* filed_accepted(std::string const& name, std::uint16_t port = c_port) {
        tcp_record* const rec = accepted(name, EPoll::c_kind_established_server, port);
        EPoll::g_establish_server_map[at_port(port)] = rec;
        return rec;
    }

    /// An accepted record in its exchange, listed.
    tcp_record* listed_accepted(std::string const& name) {
        tcp_record* const rec = accepted(name, EPoll::c_kind_accepted);
        EPoll::g_accepted_exchanging.link(rec);
        return rec;
    }

    /// Names of the records whose last lock was destroyed: those that are gone.
    static std::set<std::string> gone() {
        std::set<std::string> names;
        for (std::string const& line : journal_lines(about::object)) {
            if (std::size_t const end = line.find(".send_lock.~"); end != std::string::npos) {
                names.insert(line.substr(0, end));
            }
        }
        return names;
    }

    static bool file(tcp_record* rec, phase where) {
        Tesk::OS::class_locker const guard(&EPoll::g_client_lock, nullptr);
        return EPoll::file_outgoing(rec, where);
    }
    static void erase(phase where, tcp_record* rec) {
        Tesk::OS::class_locker const guard(&EPoll::g_client_lock, nullptr);
        EPoll::erase_destination(where, rec);
    }
    static bool unfile(tcp_record* rec) {
        Tesk::OS::class_locker const guard(&EPoll::g_client_lock, nullptr);
        return EPoll::unfile_outgoing(rec);
    }

    static void del_client(std::uint16_t port = c_port) { INet_Relay::del_client(Zolt::c_local_host, port); }
    static void register_destination() { EPoll::g_remote_server_map[at_port()] = 1; }
};

} // namespace relay_test

#endif
