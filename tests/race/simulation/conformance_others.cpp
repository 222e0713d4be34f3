// Scripts about descriptors, local addresses and datagrams.

#include "tests/race/simulation/conformance_world.hpp"

#include <array>
#include <string>
#include <vector>

#include <sys/epoll.h>
#include <sys/socket.h>

namespace conformance {
namespace {

void play_lowest_descriptor(stage& s) {
    std::array<int, 3> const made{s.socket(SOCK_STREAM), s.instance(), s.socket(SOCK_DGRAM)};
    for (int const fd : made) {
        s.close(fd);
    }
    for (int const fd : made) {
        s.tell("the same", s.instance() == fd ? 1 : 0);
    }
    s.close(made[1]);
    int const listening = s.socket(SOCK_STREAM);
    s.tell("the free one", listening == made[1] ? 1 : 0);
    s.close(made[0]);
    s.w.bind(listening, 0);
    s.w.listen(listening, 5);
    s.arrive(listening);
    s.close(made[2]);
    int const accepted = s.w.accept(listening);
    s.tell("accepted", accepted == made[2] ? 1 : 0);
    s.w.close(accepted);
}

void play_closed_descriptor(stage& s) {
    int const fd = s.socket(SOCK_STREAM);
    s.close(fd);
    std::uint16_t from = 0;
    s.tell("close", s.w.close(fd));
    s.tell("bind", s.w.bind(fd, 0));
    s.tell("listen", s.w.listen(fd, 1));
    s.tell("accept", s.w.accept(fd));
    s.tell("connect", s.w.connect(fd, 1));
    s.tell("send", s.send(fd, "abc"));
    s.read("recv", fd);
    s.tell("sendto", s.w.sendto(fd, "abc", 3, 1));
    s.tell("recvfrom", s.w.recvfrom(fd, nullptr, 0, 0, from));
    s.tell("shutdown", s.w.shutdown(fd, SHUT_RDWR));
    s.tell("flags", s.w.get_flags(fd));
    s.tell("set flags", s.w.set_nonblocking(fd, true));
    s.tell("send timeout", s.w.set_send_timeout(fd, 1));
}

void play_no_socket(stage& s) {
    int const fd = s.instance();
    s.tell("bind", s.w.bind(fd, 0));
    s.tell("listen", s.w.listen(fd, 1));
    s.tell("accept", s.w.accept(fd));
    s.tell("send", s.send(fd, "abc"));
    s.read("recv", fd);
    s.tell("shutdown", s.w.shutdown(fd, SHUT_RDWR));
}

void play_flags(stage& s) {
    int const fd = s.socket(SOCK_STREAM);
    s.tell("at first", s.w.get_flags(fd));
    s.tell("on", s.w.set_nonblocking(fd, true));
    s.tell("is on", s.w.get_flags(fd) != 0 ? 1 : 0);
    s.tell("off", s.w.set_nonblocking(fd, false));
    s.tell("is off", s.w.get_flags(fd));
}

void play_bind_conflicts(stage& s) {
    int const first = s.socket(SOCK_STREAM);
    int const second = s.socket(SOCK_STREAM);
    s.tell("no port yet", s.w.port_of(first));
    s.tell("foreign address", s.w.bind(first, 0, where::elsewhere));
    s.tell("any port", s.w.bind(first, 0));
    s.tell("twice", s.w.bind(first, 0));
    std::uint16_t const port = s.w.port_of(first);
    s.tell("same port", s.w.bind(second, port));
    s.tell("same port everywhere", s.w.bind(second, port, where::anywhere));
    s.tell("same port for datagrams", s.w.bind(s.socket(SOCK_DGRAM), port));
    s.close(first);
    s.tell("free again", s.w.bind(second, port));
}

void play_bind_conflict_of_datagrams(stage& s) {
    int const first = s.datagram_socket();
    int const second = s.socket(SOCK_DGRAM);
    std::uint16_t const port = s.w.port_of(first);
    s.tell("same port", s.w.bind(second, port));
    s.tell("same port everywhere", s.w.bind(second, port, where::anywhere));
    s.tell("twice", s.w.bind(first, 0));
    s.close(first);
    s.tell("free again", s.w.bind(second, port, where::anywhere));
}

/// The near end of a connection, bound to the port that is told.
ends connect_bound(stage& s, std::uint16_t& port, bool by_number = true) {
    int const listening = s.listener();
    int near = s.socket(SOCK_STREAM);
    s.w.bind(near, 0);
    port = s.w.port_of(near);
    if (by_number) {
        s.close(near);
        near = s.socket(SOCK_STREAM);
        s.tell("bind", s.w.bind(near, port));
    }
    s.tell("connect", s.w.connect(near, s.w.port_of(listening)));
    int const far = s.w.accept(listening);
    s.close(listening);
    return {near, far};
}

void play_closed_first(stage& s) {
    std::uint16_t port = 0;
    ends const pair = connect_bound(s, port);
    s.close(pair.near);
    s.expect_poll("far", pair.far, 0x2005);
    int const again = s.socket(SOCK_STREAM);
    s.tell("half closed", s.w.bind(again, port));
    s.w.close(pair.far);
    s.w.settle();
    s.tell("just left", s.w.bind(again, port));
}

void play_closed_second(stage& s) {
    std::uint16_t port = 0;
    ends const pair = connect_bound(s, port);
    s.w.close(pair.far);
    s.expect_poll("near", pair.near, 0x2005);
    int const again = s.socket(SOCK_STREAM);
    s.tell("in use", s.w.bind(again, port));
    s.close(pair.near);
    int result = -1;
    s.w.wait_until([&] { return result == 0 || (result = s.w.bind(again, port)) == 0; });
    s.tell("free", result);
}

void play_closed_with_reset(stage& s) {
    std::uint16_t port = 0;
    ends const pair = connect_bound(s, port);
    s.close_with_reset(pair.near);
    s.tell("free", s.w.bind(s.socket(SOCK_STREAM), port));
    s.expect_poll("far", pair.far, 0x201D);
    s.w.close(pair.far);
}

void end_and_bind(stage& s, bool by_number) {
    std::uint16_t port = 0;
    ends const pair = connect_bound(s, port, by_number);
    s.close_with_reset(pair.far);
    s.expect_poll("near", pair.near, 0x201D);
    s.tell("port of what is over", s.w.port_of(pair.near) == port ? 1 : 0);
    int const again = s.socket(SOCK_STREAM);
    s.tell("bind", s.w.bind(again, port));
    s.close(again);
    s.close(pair.near);
    s.tell("bind when it is closed", s.w.bind(s.socket(SOCK_STREAM), port));
}

void play_over_but_open(stage& s) {
    end_and_bind(s, true);
}

void play_over_with_any_port(stage& s) {
    end_and_bind(s, false);
}

void play_port_of_accepted(stage& s) {
    int const listening = s.listener();
    std::uint16_t const port = s.w.port_of(listening);
    int const near = s.arrive(listening);
    int const far = s.w.accept(listening);
    s.tell("same port", s.w.port_of(far) == port ? 1 : 0);
    s.close(listening);
    s.tell("in use", s.w.bind(s.socket(SOCK_STREAM), port));
    s.close_with_reset(near);
    s.expect_poll("far", far, 0x201D);
    s.tell("free", s.w.bind(s.socket(SOCK_STREAM), port));
    s.w.close(far);
}

/// A socket with a port chosen by number that connects there; what becomes of its port is told.
void connect_and_bind_again(stage& s, int listening, bool is_cancelled) {
    int const first = s.socket(SOCK_STREAM);
    s.w.bind(first, 0);
    std::uint16_t const port = s.w.port_of(first);
    s.close(first);
    int const fd = s.socket(SOCK_STREAM);
    s.tell("bind", s.w.bind(fd, port));
    s.w.set_nonblocking(fd, true);
    s.tell("connect", s.w.connect(fd, s.w.port_of(listening)));
    if (is_cancelled) {
        s.w.settle();
        s.tell("cancel", s.w.shutdown(fd, SHUT_RDWR));
    }
    s.expect_poll("failed", fd, is_cancelled ? 0x01C : 0x201D);
    int const again = s.socket(SOCK_STREAM);
    s.tell("bind while it is open", s.w.bind(again, port));
    s.close(fd);
    s.tell("bind when it is closed", s.w.bind(again, port));
}

void play_port_of_refused(stage& s) {
    int const nobody = s.socket(SOCK_STREAM);
    s.w.bind(nobody, 0);
    connect_and_bind_again(s, nobody, false);
}

void play_port_of_cancelled(stage& s) {
    int const listening = s.listener(0);
    s.arrive(listening);
    connect_and_bind_again(s, listening, true);
}

// --- datagrams -------------------------------------------------------------------------------------------------------

struct datagram_pair {
    explicit datagram_pair(stage& s) : near(s.datagram_socket()), far(s.datagram_socket()), port(s.w.port_of(far)) {}

    int near;
    int far;
    std::uint16_t port;
};

void take(stage& s, std::string const& what, int fd, std::size_t size, int flags) {
    std::array<char, 100> text{};
    std::uint16_t from = 0;
    s.w.settle();
    long const got = s.w.recvfrom(fd, text.data(), size, flags, from);
    s.tell(what, got);
    if (got > 0) {
        s.tell("  " + std::string(text.data()));
    }
}

void play_empty_datagram(stage& s) {
    datagram_pair const pair(s);
    s.expect_poll("nothing", pair.far, 0x004);
    s.tell("send", s.w.sendto(pair.near, "", 0, pair.port));
    s.expect_poll("empty", pair.far, 0x005);
    for (int i = 0; i < 3; ++i) {
        take(s, "peek", pair.far, 100, MSG_PEEK);
    }
    s.expect_poll("still there", pair.far, 0x005);
    take(s, "read", pair.far, 100, 0);
    s.expect_poll("gone", pair.far, 0x004);
}

void play_peek(stage& s) {
    datagram_pair const pair(s);
    s.w.sendto(pair.near, "abcdef", 6, pair.port);
    s.w.sendto(pair.near, "xyz", 3, pair.port);
    take(s, "peek", pair.far, 4, MSG_PEEK);
    take(s, "peek for the size", pair.far, 4, MSG_PEEK | MSG_TRUNC);
    take(s, "short read", pair.far, 4, 0);
    take(s, "short read for the size", pair.far, 2, MSG_TRUNC);
    take(s, "nothing", pair.far, 100, MSG_DONTWAIT);
}

void play_datagram_sender(stage& s) {
    datagram_pair const pair(s);
    int const unbound = s.socket(SOCK_DGRAM);
    std::array<char, 8> text{};
    std::uint16_t from = 0;
    s.w.sendto(unbound, "abc", 3, pair.port);
    s.w.settle();
    s.w.recvfrom(pair.far, text.data(), text.size(), 0, from);
    s.tell("bound now", from != 0 && from == s.w.port_of(unbound) ? 1 : 0);
    s.tell("answer", s.w.sendto(pair.far, "xyz", 3, from));
    take(s, "answered", unbound, 100, 0);
}

void play_datagram_refusals(stage& s) {
    datagram_pair const pair(s);
    std::vector<char> const much(65508);
    s.tell("too long", s.w.sendto(pair.near, much.data(), much.size(), pair.port));
    s.tell("no port", s.w.sendto(pair.near, "abc", 3, 0));
    s.tell("no address", s.send(pair.near, "abc"));
    s.tell("listen", s.w.listen(pair.near, 5));
    s.tell("accept", s.w.accept(pair.near));
    s.w.set_nonblocking(pair.near, true);
    take(s, "nothing", pair.near, 100, 0);
    s.close(pair.far);
    s.tell("to nobody", s.w.sendto(pair.near, "abc", 3, pair.port));
    s.expect_poll("no error", pair.near, 0x004);
}

void play_datagram_shutdown(stage& s) {
    int const fd = s.datagram_socket();
    int const events = s.instance();
    s.add(events, fd, EPOLLIN | EPOLLONESHOT);
    s.tell("shutdown", s.w.shutdown(fd, SHUT_RDWR));
    s.expect_events(events, 1);
    s.expect_poll("poll", fd, 0x2015);
    take(s, "read", fd, 100, 0);
}

void play_datagram_events(stage& s) {
    datagram_pair const pair(s);
    int const receiving = s.instance();
    int const sending = s.instance();
    s.add(receiving, pair.far, EPOLLIN | EPOLLONESHOT);
    s.add(sending, pair.near, EPOLLOUT | EPOLLONESHOT);
    s.expect_events(receiving, 0);
    s.expect_events(sending, 1);
    s.w.sendto(pair.near, "one", 3, pair.port);
    s.w.sendto(pair.near, "two", 3, pair.port);
    s.expect_events(receiving, 1);
    take(s, "read", pair.far, 100, 0);
    s.expect_events(receiving, 0);
    s.modify(receiving, pair.far, EPOLLIN | EPOLLONESHOT);
    s.expect_events(receiving, 1);
    s.expect_events(sending, 0);
}

void play_datagram_edge_writer(stage& s) {
    datagram_pair const pair(s);
    int const events = s.instance();
    s.add(events, pair.near, EPOLLOUT | EPOLLET);
    s.expect_events(events, 1);
    s.w.sendto(pair.near, "one", 3, pair.port);
    s.expect_events(events, 1);
}

script const c_scripts[] = {
    {"lowest_descriptor", play_lowest_descriptor},
    {"closed_descriptor", play_closed_descriptor},
    {"no_socket", play_no_socket},
    {"flags", play_flags},
    {"bind_conflicts", play_bind_conflicts},
    {"bind_conflict_of_datagrams", play_bind_conflict_of_datagrams},
    {"closed_first",
     play_closed_first,
     {"bind: 0", "connect: 0", "far: 0x2005", "half closed: EADDRINUSE", "just left: EADDRINUSE"}},
    {"closed_second", play_closed_second},
    {"closed_with_reset", play_closed_with_reset},
    {"over_but_open", play_over_but_open},
    {"over_with_any_port", play_over_with_any_port},
    {"port_of_accepted", play_port_of_accepted},
    {"port_of_refused", play_port_of_refused},
    {"port_of_cancelled", play_port_of_cancelled},
    {"empty_datagram",
     play_empty_datagram,
     {"nothing: 0x004", "send: 0", "empty: 0x005", "peek: 0", "peek: 0", "peek: 0", "still there: 0x005", "read: 0",
      "gone: 0x004"}},
    {"peek", play_peek},
    {"datagram_sender", play_datagram_sender},
    {"datagram_refusals", play_datagram_refusals},
    {"datagram_shutdown", play_datagram_shutdown},
    {"datagram_events", play_datagram_events},
    {"datagram_edge_writer", play_datagram_edge_writer},
};

} // namespace

std::span<script const> other_scripts() {
    return c_scripts;
}

} // namespace conformance
