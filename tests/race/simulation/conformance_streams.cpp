// Scripts about the life of a TCP connection.

#include "tests/race/simulation/conformance_world.hpp"

#include <array>
#include <vector>

#include <sys/epoll.h>
#include <sys/socket.h>

namespace conformance {
namespace {

char const* word_for(long sent, std::size_t wanted) {
    if (sent <= 0) {
        return "nothing";
    }
    return static_cast<std::size_t>(sent) < wanted ? "a part" : "all";
}

void tell_sent(stage& s, std::string const& what, long sent, std::size_t wanted) {
    s.tell(what + ": " + word_for(sent, wanted));
}

constexpr std::size_t c_too_much = 4 * 1024 * 1024;

void play_partial_write(stage& s) {
    ends const pair = s.connect(true);
    std::vector<char> const much(c_too_much);
    s.w.set_nonblocking(pair.near, true);
    tell_sent(s, "without waiting", s.w.send(pair.near, much.data(), much.size()), much.size());
    s.fill(pair.near);
    s.tell("full", s.w.send(pair.near, much.data(), much.size()));
    s.expect_poll("full", pair.near, 0);
    s.drain(pair.far, pair.near);
    s.expect_poll("drained", pair.near, EPOLLOUT);
    s.tell("one byte", s.w.send(pair.near, much.data(), 1));
}

void play_bounded_write(stage& s) {
    ends const pair = s.connect(true);
    std::vector<char> const much(c_too_much);
    s.tell("bound", s.w.set_send_timeout(pair.near, 20000));
    tell_sent(s, "first", s.w.send(pair.near, much.data(), much.size()), much.size());
    s.fill(pair.near);
    s.w.set_nonblocking(pair.near, false);
    s.tell("second", s.w.send(pair.near, much.data(), much.size()));
    s.expect_poll("after", pair.near, 0);
}

void play_endless_write(stage& s) {
    ends const pair = s.connect(true);
    std::vector<char> const much(c_too_much);
    s.w.run_beside([&] {
        if (!s.w.wait_until([&] { return (s.w.poll(pair.near) & EPOLLOUT) == 0; })) {
            ++s.faults;
        }
        s.w.shutdown(pair.near, SHUT_RDWR);
    });
    long const sent = s.w.send(pair.near, much.data(), much.size());
    s.w.join();
    tell_sent(s, "sent", sent, much.size());
    s.tell("once more", s.w.send(pair.near, much.data(), 1));
}

void play_peer_gone(stage& s) {
    ends const pair = s.connect();
    s.close_with_reset(pair.far);
    s.expect_poll("reset", pair.near, 0x201D);
    s.tell("send", s.send(pair.near, "abc"));
    s.tell("send again", s.send(pair.near, "abc"));
    s.expect_poll("error taken", pair.near, 0x2015);
    s.read("read", pair.near);
}

void play_data_for_closed(stage& s) {
    ends const pair = s.connect();
    s.close(pair.far);
    s.expect_poll("fin", pair.near, 0x2005);
    s.tell("send", s.send(pair.near, "abc"));
    s.expect_poll("answered", pair.near, 0x201D);
    s.tell("send again", s.send(pair.near, "abc"));
    s.expect_poll("error taken", pair.near, 0x2015);
    s.read("read", pair.near);
}

void play_half_close(stage& s) {
    ends const pair = s.connect();
    s.send(pair.near, "abc");
    s.tell("shutdown", s.w.shutdown(pair.near, SHUT_WR));
    s.expect_poll("near", pair.near, 0x004);
    s.expect_poll("far", pair.far, 0x2005);
    s.read("far reads", pair.far);
    s.read("far reads", pair.far);
    s.tell("near sends", s.send(pair.near, "abc"));
    s.tell("far sends", s.send(pair.far, "answer"));
    s.expect_poll("near", pair.near, 0x005);
    s.read("near reads", pair.near);
    s.tell("far ends", s.w.shutdown(pair.far, SHUT_WR));
    s.expect_poll("near", pair.near, 0x2015);
    s.expect_poll("far", pair.far, 0x2015);
    s.read("near reads", pair.near);
    s.tell("near shuts what is over", s.w.shutdown(pair.near, SHUT_RDWR));
}

void play_shut_for_reading(stage& s) {
    ends const pair = s.connect();
    s.tell("shutdown", s.w.shutdown(pair.near, SHUT_RD));
    s.expect_poll("near", pair.near, 0x2005);
    s.read("nothing", pair.near);
    s.send(pair.far, "abc");
    s.read("data all the same", pair.near);
    s.tell("near sends", s.send(pair.near, "abc"));
    s.read("far reads", pair.far);
}

void play_unread_at_close(stage& s) {
    ends const pair = s.connect();
    s.send(pair.near, "abc");
    s.expect_poll("unread", pair.far, 0x005);
    s.close(pair.far);
    s.expect_poll("near", pair.near, 0x201D);
    s.read("near reads", pair.near);
    s.read("near reads", pair.near);
}

void play_unread_at_close_both(stage& s) {
    ends const pair = s.connect();
    s.send(pair.near, "abc");
    s.send(pair.far, "xyz");
    s.close(pair.far);
    s.expect_poll("near", pair.near, 0x201D);
    s.read("near reads", pair.near);
    s.read("near reads", pair.near);
    s.read("near reads", pair.near);
}

void play_reset_while_unread(stage& s) {
    ends const pair = s.connect();
    s.send(pair.far, "abc");
    s.close_with_reset(pair.far);
    s.expect_poll("near", pair.near, 0x201D);
    s.read("part", pair.near, 2);
    s.expect_poll("rest", pair.near, 0x201D);
    s.read("rest", pair.near);
    s.read("error", pair.near);
    s.read("end", pair.near);
}

void play_reset_after_fin(stage& s) {
    ends const pair = s.connect();
    s.send(pair.far, "abc");
    s.w.shutdown(pair.far, SHUT_WR);
    s.expect_poll("fin", pair.near, 0x2005);
    s.close_with_reset(pair.far);
    s.expect_poll("reset", pair.near, 0x201D);
    s.read("data", pair.near);
    s.read("end", pair.near);
    s.tell("send", s.send(pair.near, "abc"));
    s.expect_poll("error taken", pair.near, 0x2015);
}

void play_data_after_own_shutdown(stage& s) {
    ends const pair = s.connect();
    s.w.shutdown(pair.near, SHUT_RDWR);
    s.expect_poll("far", pair.far, 0x2005);
    s.tell("far sends", s.send(pair.far, "abc"));
    s.expect_poll("near", pair.near, 0x201D);
    s.expect_poll("far", pair.far, 0x201D);
    s.read("near reads", pair.near);
    s.read("near reads", pair.near);
    s.read("far reads", pair.far);
    s.tell("far sends", s.send(pair.far, "abc"));
}

void play_unsent_at_close(stage& s) {
    ends const pair = s.connect(true);
    s.fill(pair.near);
    s.close(pair.near);
    std::vector<char> much(65536);
    s.w.set_nonblocking(pair.far, true);
    long last = 0;
    bool const has_ended = s.w.wait_until([&] {
        while ((last = s.w.recv(pair.far, much.data(), much.size())) > 0) {
        }
        return last == 0;
    });
    s.tell("ended", has_ended ? 1 : 0);
    s.tell("after all data", last);
    s.expect_poll("far", pair.far, 0x2005);
}

void play_unread_after_own_shutdown(stage& s) {
    ends const pair = s.connect();
    s.send(pair.far, "abc");
    s.w.shutdown(pair.near, SHUT_RDWR);
    s.expect_poll("near", pair.near, 0x2015);
    s.read("unread", pair.near);
    s.read("end", pair.near);
    s.tell("send", s.send(pair.near, "abc"));
}

void play_both_close(stage& s) {
    ends const pair = s.connect();
    s.close(pair.far);
    s.expect_poll("near", pair.near, 0x2005);
    s.tell("shutdown", s.w.shutdown(pair.near, SHUT_WR));
    s.expect_poll("over", pair.near, 0x2015);
    s.tell("shutdown", s.w.shutdown(pair.near, SHUT_WR));
    s.read("read", pair.near);
    s.tell("send", s.send(pair.near, "abc"));
}

void play_shut_twice(stage& s) {
    ends const pair = s.connect();
    s.tell("shutdown", s.w.shutdown(pair.near, SHUT_RDWR));
    s.tell("twice", s.w.shutdown(pair.near, SHUT_RDWR));
    s.close(pair.far);
    s.expect_poll("near", pair.near, 0x2015);
    s.w.settle();
    s.tell("when it is over", s.w.shutdown(pair.near, SHUT_RDWR));
}

void play_never_connected_calls(stage& s) {
    int const fd = s.socket(SOCK_STREAM);
    s.read("read", fd);
    s.tell("send", s.send(fd, "abc"));
    s.tell("shutdown", s.w.shutdown(fd, SHUT_WR));
    s.expect_poll("shut for writing", fd, 0x014);
    s.tell("shutdown", s.w.shutdown(fd, SHUT_RDWR));
    s.expect_poll("shut", fd, 0x2015);
    s.read("read", fd);
    s.tell("accept", s.w.accept(fd));
    s.tell("no such direction", s.w.shutdown(fd, 3));
}

void play_read_nothing(stage& s) {
    ends const pair = s.connect();
    s.w.set_nonblocking(pair.near, true);
    s.read("no data", pair.near, 0);
    s.send(pair.far, "abc");
    s.read("no room", pair.near, 0);
    s.read("data", pair.near);
    s.read("no more", pair.near);
    s.tell("no bytes sent", s.w.send(pair.near, "", 0));
}

void play_connecting_calls(stage& s) {
    int const listening = s.listener(0);
    int const first = s.socket(SOCK_STREAM);
    s.w.set_nonblocking(first, true);
    s.tell("connect", s.w.connect(first, s.w.port_of(listening)));
    s.expect_poll("connected", first, EPOLLOUT);
    s.tell("connect again", s.w.connect(first, s.w.port_of(listening)));
    s.tell("and again", s.w.connect(first, s.w.port_of(listening)));
    int const second = s.begin_connection(listening);
    s.w.settle();
    s.tell("hung", s.w.connect(second, s.w.port_of(listening)));
    s.read("hung", second);
    s.tell("hung sends", s.send(second, "abc"));
    s.tell("listener connects", s.w.connect(listening, s.w.port_of(listening)));
    s.read("listener reads", listening);
}

void play_refused_and_again(stage& s) {
    int const nobody = s.socket(SOCK_STREAM);
    s.w.bind(nobody, 0);
    int const fd = s.begin_connection(nobody);
    s.expect_poll("refused", fd, 0x201D);
    s.tell("asked again", s.w.connect(fd, s.w.port_of(nobody)));
    s.expect_poll("as new", fd, 0x014);
    s.tell("another try", s.w.connect(fd, s.w.port_of(s.listener())));
    s.expect_poll("connected", fd, 0x004);
}

void play_blocking_connect(stage& s) {
    int const listening = s.listener();
    int const nobody = s.socket(SOCK_STREAM);
    s.w.bind(nobody, 0);
    int const fd = s.socket(SOCK_STREAM);
    s.tell("refused", s.w.connect(fd, s.w.port_of(nobody)));
    s.tell("connect", s.w.connect(fd, s.w.port_of(listening)));
    s.tell("again", s.w.connect(fd, s.w.port_of(listening)));
    s.tell("accept", s.w.close(s.w.accept(listening)));
}

void play_blocking_calls(stage& s) {
    int const listening = s.listener();
    int const fd = s.socket(SOCK_STREAM);
    s.w.run_beside([&] {
        s.w.connect(fd, s.w.port_of(listening));
        s.w.send(fd, "abc", 3);
    });
    int const accepted = s.w.accept(listening);
    std::array<char, 8> text{};
    s.tell("read", s.w.recv(accepted, text.data(), text.size()));
    s.w.join();
    s.w.close(accepted);
}

void play_read_ended_from_outside(stage& s) {
    ends const pair = s.connect();
    s.w.run_beside([&] { s.w.shutdown(pair.near, SHUT_RDWR); });
    std::array<char, 8> text{};
    s.tell("read", s.w.recv(pair.near, text.data(), text.size()));
    s.w.join();
}

void play_backlog(stage& s) {
    int const listening = s.listener(1);
    s.arrive(listening);
    s.arrive(listening);
    int const third = s.begin_connection(listening);
    s.w.settle();
    s.expect_poll("dropped", third, 0);
    s.tell("accept", s.w.close(s.w.accept(listening)));
    s.expect_poll("still", third, 0);
    s.expect_poll("tried again", third, EPOLLOUT);
}

void play_backlog_raised(stage& s) {
    int const listening = s.listener(0);
    s.arrive(listening);
    s.tell("listen again", s.w.listen(listening, 5));
    s.arrive(listening);
    s.expect_poll("listener", listening, EPOLLIN);
}

void play_reset_in_queue(stage& s) {
    int const listening = s.listener();
    s.close_with_reset(s.arrive(listening));
    s.expect_poll("listener", listening, EPOLLIN);
    int const accepted = s.w.accept(listening);
    s.expect_poll("accepted", accepted, 0x201D);
    s.read("read", accepted);
    s.w.close(accepted);
}

void play_listener_shut(stage& s) {
    int const listening = s.listener();
    int const events = s.instance();
    int const waiting = s.arrive(listening);
    s.add(events, listening, EPOLLIN | EPOLLET);
    s.expect_events(events, 1);
    s.tell("shutdown", s.w.shutdown(listening, SHUT_RD));
    s.expect_poll("listener", listening, 0x014);
    s.expect_events(events, 1);
    s.expect_poll("who waited", waiting, 0x201D);
    s.tell("accept", s.w.accept(listening));
    s.tell("listen again", s.w.listen(listening, 5));
    s.arrive(listening);
}

void play_listener_closed(stage& s) {
    int const listening = s.listener();
    int const waiting = s.arrive(listening);
    s.send(waiting, "abc");
    s.close(listening);
    s.expect_poll("who waited", waiting, 0x201D);
    s.read("read", waiting);
}

void play_accept_without_waiting(stage& s) {
    int const listening = s.listener();
    s.w.set_nonblocking(listening, true);
    s.tell("accept", s.w.accept(listening));
    ends const pair = s.connect();
    s.tell("accept at a connection", s.w.accept(pair.near));
    s.tell("listen at a connection", s.w.listen(pair.near, 5));
    s.arrive(listening);
    int const accepted = s.w.accept(listening);
    s.tell("accepted is blocking", s.w.get_flags(accepted));
    s.w.close(accepted);
}

script const c_scripts[] = {
    {"partial_write", play_partial_write},
    {"bounded_write", play_bounded_write},
    {"endless_write", play_endless_write, {"sent: a part", "once more: EPIPE"}},
    {"peer_gone",
     play_peer_gone,
     {"reset: 0x201D", "send: ECONNRESET", "send again: EPIPE", "error taken: 0x2015", "read: 0"}},
    {"data_for_closed", play_data_for_closed},
    {"half_close", play_half_close},
    {"shut_for_reading", play_shut_for_reading},
    {"unread_at_close", play_unread_at_close},
    {"unread_at_close_both", play_unread_at_close_both},
    {"reset_while_unread", play_reset_while_unread},
    {"reset_after_fin", play_reset_after_fin},
    {"data_after_own_shutdown", play_data_after_own_shutdown},
    {"unsent_at_close", play_unsent_at_close},
    {"unread_after_own_shutdown", play_unread_after_own_shutdown},
    {"both_close", play_both_close},
    {"shut_twice", play_shut_twice},
    {"never_connected_calls", play_never_connected_calls},
    {"read_nothing", play_read_nothing},
    {"connecting_calls", play_connecting_calls},
    {"refused_and_again", play_refused_and_again},
    {"blocking_connect", play_blocking_connect},
    {"blocking_calls", play_blocking_calls},
    {"read_ended_from_outside", play_read_ended_from_outside},
    {"backlog", play_backlog},
    {"backlog_raised", play_backlog_raised},
    {"reset_in_queue", play_reset_in_queue},
    {"listener_shut", play_listener_shut},
    {"listener_closed", play_listener_closed},
    {"accept_without_waiting", play_accept_without_waiting},
};

} // namespace

std::span<script const> stream_scripts() {
    return c_scripts;
}

} // namespace conformance
