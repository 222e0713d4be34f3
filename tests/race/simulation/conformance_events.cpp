// Scripts about masks and event instances.

#include "tests/race/simulation/conformance_world.hpp"

#include <array>

#include <sys/epoll.h>
#include <sys/socket.h>

namespace conformance {
namespace {

// As the relay arms.
constexpr std::uint32_t c_once_in = EPOLLIN | EPOLLONESHOT;
constexpr std::uint32_t c_once_out = EPOLLOUT | EPOLLONESHOT;
constexpr std::uint32_t c_edge_once_both = EPOLLIN | EPOLLOUT | EPOLLONESHOT | EPOLLET;
constexpr std::uint32_t c_edge_once_out = EPOLLOUT | EPOLLONESHOT | EPOLLET;

void play_never_connected(stage& s) {
    int const fd = s.socket(SOCK_STREAM);
    int const events = s.instance();
    s.expect_poll("poll", fd, 0x014);
    s.add(events, fd, EPOLLOUT);
    s.expect_events(events, 2);
}

void play_listening(stage& s) {
    int const fd = s.listener();
    s.expect_poll("nobody came", fd, 0);
    s.arrive(fd);
    s.expect_poll("somebody came", fd, 0x001);
    s.tell("accepted", s.w.close(s.w.accept(fd)));
    s.expect_poll("accepted", fd, 0);
}

void play_connected(stage& s) {
    ends const pair = s.connect();
    s.expect_poll("near", pair.near, 0x004);
    s.expect_poll("far", pair.far, 0x004);
    s.send(pair.near, "abc");
    s.expect_poll("with data", pair.far, 0x005);
    s.read("read", pair.far);
    s.expect_poll("without data", pair.far, 0x004);
}

/// A connect to a port where nobody listens.
int begin_refused(stage& s) {
    int const nobody = s.socket(SOCK_STREAM);
    s.w.bind(nobody, 0);
    return s.begin_connection(nobody);
}

void play_refused(stage& s) {
    int const events = s.instance();
    int const fd = begin_refused(s);
    s.add(events, fd, c_edge_once_out);
    s.expect_events(events, 1);
}

void play_refused_poll(stage& s) {
    int const fd = begin_refused(s);
    s.expect_poll("refused", fd, 0x201D);
    s.read("the error", fd);
    s.expect_poll("error taken", fd, 0x2015);
    s.read("once more", fd);
    s.tell("send", s.send(fd, "abc"));
}

/// A connect whose SYN is dropped, because the listener's queue is full.
int begin_hung(stage& s) {
    int const listening = s.listener(0);
    s.arrive(listening);
    int const fd = s.begin_connection(listening);
    s.w.settle();
    return fd;
}

void play_hung(stage& s) {
    int const events = s.instance();
    int const fd = begin_hung(s);
    s.expect_poll("hung", fd, 0);
    s.add(events, fd, c_edge_once_out);
    s.expect_events(events, 0);
    s.tell("shutdown", s.w.shutdown(fd, SHUT_RDWR));
    s.modify(events, fd, c_edge_once_both);
    s.expect_events(events, 1);
    s.tell("again", s.w.shutdown(fd, SHUT_RDWR));
    s.modify(events, fd, c_edge_once_both);
    s.expect_events(events, 1);
    s.modify(events, fd, c_edge_once_both);
    s.expect_events(events, 1);
}

void play_hung_is_told(stage& s) {
    int const events = s.instance();
    int const fd = begin_hung(s);
    s.add(events, fd, c_edge_once_out);
    s.tell("shutdown", s.w.shutdown(fd, SHUT_RDWR));
    s.expect_events(events, 1);
    s.modify(events, fd, c_edge_once_out);
    s.expect_events(events, 1);
}

void play_connected_then_shut(stage& s) {
    int const events = s.instance();
    int const fd = s.arrive(s.listener());
    s.add(events, fd, c_edge_once_out);
    s.tell("shutdown", s.w.shutdown(fd, SHUT_RDWR));
    for (int tick = 0; tick < 3; ++tick) {
        s.modify(events, fd, c_edge_once_both);
        s.expect_events(events, 1);
    }
}

/// What two instances report of an end: one is armed before it, the other afterwards.
ends watch_end(stage& s, void (*end)(stage&, ends)) {
    ends const pair = s.connect();
    int const receiving = s.instance();
    int const sending = s.instance();
    s.add(receiving, pair.near, c_once_in);
    end(s, pair);
    s.expect_events(receiving, 1);
    s.add(sending, pair.near, c_once_out);
    s.expect_events(sending, 1);
    return pair;
}

void play_peer_reset(stage& s) {
    ends const pair = watch_end(s, [](stage& on, ends of) { on.close_with_reset(of.far); });
    s.expect_poll("poll", pair.near, 0x201D);
}

void play_own_shutdown(stage& s) {
    watch_end(s, [](stage& on, ends of) { on.w.shutdown(of.near, SHUT_RDWR); });
}

void play_peer_fin(stage& s) {
    ends const pair = watch_end(s, [](stage& on, ends of) { on.close(of.far); });
    s.expect_poll("poll", pair.near, 0x2005);
}

struct watched {
    ends pair;
    int events = -1;
};

/// A connection whose near end is registered.
watched watch(stage& s, std::uint32_t mask) {
    watched const made{s.connect(), s.instance()};
    s.add(made.events, made.pair.near, mask);
    return made;
}

void play_two_arrivals_once(stage& s) {
    auto const [pair, events] = watch(s, c_once_in);
    s.send(pair.far, "one");
    s.send(pair.far, "two");
    s.expect_events(events, 1);
    s.send(pair.far, "three");
    s.expect_events(events, 0);
}

void play_rearmed_when_ready(stage& s) {
    auto const [pair, events] = watch(s, c_once_in);
    s.send(pair.far, "one");
    s.expect_events(events, 1);
    s.modify(events, pair.near, c_once_in);
    s.expect_events(events, 1);
}

void play_rearmed_when_not(stage& s) {
    auto const [pair, events] = watch(s, c_once_in);
    s.send(pair.far, "one");
    s.expect_events(events, 1);
    s.read("read", pair.near);
    s.modify(events, pair.near, c_once_in);
    s.expect_events(events, 0);
    s.send(pair.far, "two");
    s.expect_events(events, 1);
}

void play_edge(stage& s) {
    auto const [pair, events] = watch(s, EPOLLIN | EPOLLET);
    s.send(pair.far, "one");
    s.send(pair.far, "two");
    s.expect_events(events, 1);
    s.send(pair.far, "three");
    s.expect_events(events, 1);
    s.read("read", pair.near);
    s.expect_events(events, 0);
}

void play_level(stage& s) {
    auto const [pair, events] = watch(s, EPOLLIN);
    s.expect_events(events, 0);
    s.send(pair.far, "one");
    s.expect_events(events, 2);
    s.read("read", pair.near);
    s.expect_events(events, 0);
}

void play_fired_is_deaf(stage& s) {
    auto const [pair, events] = watch(s, c_once_in);
    s.send(pair.far, "one");
    s.expect_events(events, 1);
    s.close_with_reset(pair.far);
    s.expect_events(events, 0);
    s.modify(events, pair.near, EPOLLONESHOT);
    s.expect_events(events, 1);
}

void play_bare_one_shot(stage& s) {
    auto const [pair, events] = watch(s, EPOLLONESHOT);
    s.send(pair.far, "one");
    s.expect_events(events, 0);
    s.close_with_reset(pair.far);
    s.expect_events(events, 1);
    s.expect_events(events, 0);
}

void play_bare_never_connected(stage& s) {
    int const fd = s.socket(SOCK_STREAM);
    int const events = s.instance();
    s.add(events, fd, EPOLLONESHOT);
    s.expect_events(events, 1);
    s.modify(events, fd, EPOLLONESHOT | EPOLLET);
    s.expect_events(events, 1);
    s.modify(events, fd, 0);
    s.expect_events(events, 2);
}

void play_wake_up_in_five(stage& s) {
    std::array<int, 5> instances{};
    int const fd = s.socket(SOCK_STREAM);
    for (int& instance : instances) {
        instance = s.instance();
        s.tell("add", s.add(instance, fd, EPOLLOUT));
    }
    for (int const instance : instances) {
        s.expect_events(instance, 2);
    }
    s.close(fd);
    for (int const instance : instances) {
        s.expect_events(instance, 0);
    }
}

void play_two_instances(stage& s) {
    ends const pair = s.connect();
    int const receiving = s.instance();
    int const sending = s.instance();
    s.add(receiving, pair.near, c_once_in);
    s.add(sending, pair.near, c_once_out);
    s.send(pair.far, "one");
    s.expect_events(receiving, 1);
    s.expect_events(sending, 1);
}

void play_closed_while_registered(stage& s) {
    int const events = s.instance();
    int const fd = s.socket(SOCK_STREAM);
    s.add(events, fd, EPOLLOUT, "closed");
    s.close(fd);
    s.expect_events(events, 0);
    int const next = s.socket(SOCK_STREAM);
    s.tell("same number", next == fd ? 1 : 0);
    s.tell("modify", s.modify(events, next, EPOLLOUT, "next"));
    s.tell("add", s.add(events, next, EPOLLOUT, "next"));
    s.expect_events(events, 1);
}

void play_refusals(stage& s) {
    int const events = s.instance();
    int const fd = s.listener();
    int const file = s.w.plain_file();
    int const closed = s.socket(SOCK_STREAM);
    s.close(closed);
    s.tell("add", s.add(events, fd, EPOLLIN));
    s.tell("add twice", s.add(events, fd, EPOLLIN));
    s.tell("delete", s.w.epoll_ctl(events, EPOLL_CTL_DEL, fd, 0, nullptr));
    s.tell("delete twice", s.w.epoll_ctl(events, EPOLL_CTL_DEL, fd, 0, nullptr));
    s.tell("modify unknown", s.modify(events, fd, EPOLLIN));
    s.tell("no such operation", s.w.epoll_ctl(events, 17, fd, EPOLLIN, nullptr));
    s.tell("add what is closed", s.add(events, closed, EPOLLIN));
    s.tell("add to what is closed", s.add(closed, fd, EPOLLIN));
    s.tell("add to a socket", s.add(fd, events, EPOLLIN));
    s.tell("add to itself", s.add(events, events, EPOLLIN));
    s.tell("add a plain file", s.add(events, file, EPOLLIN));
    report found;
    s.tell("wait at a socket", s.w.epoll_wait(fd, found));
    s.tell("wait at what is closed", s.w.epoll_wait(closed, found));
}

void play_three_connects(stage& s) {
    int const listening = s.listener();
    int const events = s.instance();
    s.w.set_nonblocking(listening, true);
    s.add(events, listening, EPOLLIN | EPOLLET);
    for (int i = 0; i < 3; ++i) {
        s.arrive(listening);
    }
    s.expect_events(events, 1);
    s.tell("accept", s.w.close(s.w.accept(listening)));
    s.expect_events(events, 0);
    s.arrive(listening);
    s.expect_events(events, 1);
}

void play_room(stage& s) {
    ends const pair = s.connect(true);
    int const events = s.instance();
    s.add(events, pair.near, c_once_out);
    s.expect_events(events, 1);
    s.fill(pair.near);
    s.modify(events, pair.near, c_once_out);
    s.expect_events(events, 0);
    s.drain(pair.far, pair.near);
    s.expect_events(events, 1);
}

void play_room_while_disarmed(stage& s) {
    ends const pair = s.connect(true);
    int const events = s.instance();
    s.fill(pair.near);
    s.add(events, pair.near, c_once_in);
    s.drain(pair.far, pair.near);
    s.expect_events(events, 0);
    s.modify(events, pair.near, c_once_out);
    s.expect_events(events, 1);
}

void play_deleted_in_queue(stage& s) {
    int const fd = s.socket(SOCK_STREAM);
    int const events = s.instance();
    s.add(events, fd, EPOLLOUT);
    s.w.epoll_ctl(events, EPOLL_CTL_DEL, fd, 0, nullptr);
    s.expect_events(events, 0);
    s.add(events, fd, EPOLLOUT);
    s.expect_events(events, 1);
}

void play_modified_in_queue(stage& s) {
    int const fd = s.socket(SOCK_STREAM);
    int const events = s.instance();
    s.add(events, fd, c_once_out, "before");
    s.modify(events, fd, c_once_in, "after");
    s.expect_events(events, 1);
}

void play_narrowed_in_queue(stage& s) {
    auto const [pair, events] = watch(s, c_once_out);
    s.modify(events, pair.near, c_once_in);
    s.expect_events(events, 0);
    s.send(pair.far, "one");
    s.expect_events(events, 1);
}

void play_taking_turns(stage& s) {
    int const events = s.instance();
    s.add(events, s.socket(SOCK_STREAM), EPOLLOUT, "first");
    s.add(events, s.socket(SOCK_STREAM), EPOLLOUT, "second");
    s.add(events, s.socket(SOCK_STREAM), c_once_out, "third");
    s.expect_events(events, 6);
}

void play_first_come(stage& s) {
    ends const one = s.connect();
    ends const two = s.connect();
    int const events = s.instance();
    s.add(events, one.near, c_once_in, "one");
    s.add(events, two.near, c_once_in, "two");
    s.send(two.far, "b");
    s.send(one.far, "a");
    s.expect_events(events, 2);
}

void play_connect_is_told(stage& s) {
    int const listening = s.listener();
    int const events = s.instance();
    int const fd = s.socket(SOCK_STREAM);
    s.w.set_nonblocking(fd, true);
    s.tell("connect", s.w.connect(fd, s.w.port_of(listening)));
    s.add(events, fd, c_edge_once_out);
    s.expect_events(events, 1);
}

void play_fin_is_told_to_writers(stage& s) {
    auto const [pair, events] = watch(s, EPOLLOUT | EPOLLET);
    s.expect_events(events, 1);
    s.close(pair.far);
    s.expect_events(events, 1);
}

void play_data_is_not_told_to_writers(stage& s) {
    auto const [pair, events] = watch(s, EPOLLOUT | EPOLLET);
    s.expect_events(events, 1);
    s.send(pair.far, "one");
    s.expect_events(events, 0);
}

void play_half_closed_by_peer(stage& s) {
    auto const [pair, events] = watch(s, EPOLLIN | EPOLLRDHUP | EPOLLONESHOT);
    s.w.shutdown(pair.far, SHUT_WR);
    s.expect_events(events, 1);
}

/// A connection whose near end found no room and waits for some.
ends connect_stalled(stage& s, int events) {
    ends const pair = s.connect(true);
    s.fill(pair.near);
    s.add(events, pair.near, c_once_out);
    s.expect_events(events, 0);
    return pair;
}

void play_stalled_and_reset(stage& s) {
    int const events = s.instance();
    ends const pair = connect_stalled(s, events);
    s.close_with_reset(pair.far);
    s.expect_events(events, 1);
}

void play_stalled_and_shut(stage& s) {
    int const events = s.instance();
    ends const pair = connect_stalled(s, events);
    s.tell("shutdown", s.w.shutdown(pair.near, SHUT_RDWR));
    s.expect_events(events, 1);
}

void play_stalled_and_half_closed(stage& s) {
    int const events = s.instance();
    ends const pair = connect_stalled(s, events);
    s.w.shutdown(pair.far, SHUT_WR);
    s.expect_poll("fin", pair.near, 0x2001);
    s.expect_events(events, 0);
    s.drain(pair.far, pair.near);
    s.expect_events(events, 1);
}

void play_stalled_and_closed(stage& s) {
    int const events = s.instance();
    ends const pair = connect_stalled(s, events);
    s.close(pair.far); // with all that it has not read
    s.expect_events(events, 1);
}

void play_fired_and_shut(stage& s) {
    auto const [pair, events] = watch(s, c_once_in);
    s.send(pair.far, "one");
    s.expect_events(events, 1);
    s.read("read", pair.near);
    s.w.shutdown(pair.near, SHUT_RDWR);
    s.expect_events(events, 0);
    s.modify(events, pair.near, c_once_in);
    s.expect_events(events, 1);
}

void play_data_then_fin(stage& s) {
    auto const [pair, events] = watch(s, c_once_in);
    s.send(pair.far, "last");
    s.close(pair.far);
    s.expect_events(events, 1);
    s.read("data", pair.near);
    s.modify(events, pair.near, c_once_in);
    s.expect_events(events, 1);
    s.read("end", pair.near);
    s.modify(events, pair.near, c_once_in);
    s.expect_events(events, 1);
}

script const c_scripts[] = {
    {"never_connected",
     play_never_connected,
     {"poll: 0x014", "event of it: 0x014", "event of it: 0x014", "one more of it: 0x014"}},
    {"listening", play_listening},
    {"connected", play_connected},
    {"refused", play_refused, {"event of it: 0x01C"}},
    {"refused_poll", play_refused_poll},
    {"hung",
     play_hung,
     {"hung: 0x000", "shutdown: 0", "event of it: 0x01C", "again: ENOTCONN", "event of it: 0x01D",
      "event of it: 0x01D"}},
    {"hung_is_told", play_hung_is_told},
    {"connected_then_shut",
     play_connected_then_shut,
     {"shutdown: 0", "event of it: 0x015", "event of it: 0x015", "event of it: 0x015"}},
    {"peer_reset", play_peer_reset, {"event of it: 0x019", "event of it: 0x01C", "poll: 0x201D"}},
    {"own_shutdown", play_own_shutdown, {"event of it: 0x011", "event of it: 0x014"}},
    {"peer_fin", play_peer_fin, {"event of it: 0x001", "event of it: 0x004", "poll: 0x2005"}},
    {"two_arrivals_once", play_two_arrivals_once},
    {"rearmed_when_ready", play_rearmed_when_ready},
    {"rearmed_when_not", play_rearmed_when_not},
    {"edge", play_edge},
    {"level", play_level},
    {"fired_is_deaf", play_fired_is_deaf},
    {"bare_one_shot", play_bare_one_shot},
    {"bare_never_connected", play_bare_never_connected},
    {"wake_up_in_five", play_wake_up_in_five},
    {"two_instances", play_two_instances},
    {"closed_while_registered", play_closed_while_registered},
    {"refusals", play_refusals},
    {"three_connects", play_three_connects, {"event of it: 0x001", "accept: 0", "event of it: 0x001"}},
    {"room", play_room},
    {"room_while_disarmed", play_room_while_disarmed},
    {"deleted_in_queue", play_deleted_in_queue},
    {"modified_in_queue", play_modified_in_queue},
    {"narrowed_in_queue", play_narrowed_in_queue},
    {"taking_turns", play_taking_turns},
    {"first_come", play_first_come},
    {"connect_is_told", play_connect_is_told},
    {"fin_is_told_to_writers", play_fin_is_told_to_writers},
    {"data_is_not_told_to_writers", play_data_is_not_told_to_writers},
    {"half_closed_by_peer", play_half_closed_by_peer},
    {"stalled_and_reset", play_stalled_and_reset},
    {"stalled_and_shut", play_stalled_and_shut},
    {"stalled_and_half_closed", play_stalled_and_half_closed},
    {"stalled_and_closed", play_stalled_and_closed},
    {"fired_and_shut", play_fired_and_shut},
    {"data_then_fin", play_data_then_fin},
};

} // namespace

std::span<script const> event_scripts() {
    return c_scripts;
}

} // namespace conformance
