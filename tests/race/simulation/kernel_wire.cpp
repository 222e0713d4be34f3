// The network: what is on its way, and what each arrival does to both ends.
//
// An acknowledgement arrives in the same moment as what it acknowledges: the threads of both ends are chosen one by one
// afterwards, so nothing is lost by it.

#include "tests/race/simulation/kernel_private.hpp"

#include <algorithm>
#include <cerrno>
#include <iterator>

#include <sys/epoll.h>

namespace simulation {
namespace {

constexpr int c_most_syns = 7;     ///< the last of them is given up 127 seconds after the first was sent
constexpr int c_most_syn_acks = 6; ///< and here after 63

moment find_due(stream const& s) {
    bool const peer_still_sends = s.peer != nullptr && s.peer->state == tcp_state::closed && !s.peer->unsent.empty();
    if (s.reset_coming && !peer_still_sends) {
        return 0;
    }
    if (s.says != greeting::none) {
        return s.greets_at;
    }
    if (!s.unsent.empty()) {
        return find_window(s) != 0 ? 0 : c_never;
    }
    return s.has_fin_to_send ? 0 : c_never;
}

void tell_of_room(stream& s) {
    if (s.wants_room && has_room(s)) {
        s.wants_room = false;
        wake(s.file, EPOLLOUT);
    }
}

/// The connection is over and its local address is kept for a while.
void enter_time_wait(stream& s) {
    s.at->left.push_back({s.local, s.remote, now() + c_time_wait});
    finish(s);
}

/// One end of a connection that the accepting side has not yet seen.
void drop_embryo(stream& child) {
    child.state = tcp_state::closed;
    release_if_unused(child);
}

bool is_loopback(std::uint32_t ip) {
    return (ip & 0xFF) == 127;
}

// --- greetings -------------------------------------------------------------------------------------------------------

/// The greeting was dropped: the next after 1, 2, 4, ... seconds.
void greet_later(stream& s) {
    s.greets_at = now() + (c_second << s.greetings);
    ++s.greetings;
    note_moving(s);
}

stream* find_listener(host const& at, address const& wanted) {
    auto const found = std::find_if(at.streams.begin(), at.streams.end(), [&](stream const* s) {
        return s->state == tcp_state::listening && s->local.port == wanted.port &&
               (s->local.ip == 0 || s->local.ip == wanted.ip);
    });
    return found == at.streams.end() ? nullptr : *found;
}

bool is_full(stream const& listener) {
    return listener.arrived.size() > static_cast<std::size_t>(std::max(listener.backlog, 0));
}

/// The other end of an earlier connection between the same two addresses, which does not know yet that it ended.
stream* find_stale(host const& at, stream const& client) {
    auto const found = std::find_if(at.streams.begin(), at.streams.end(), [&](stream const* s) {
        return s != &client && s->state != tcp_state::closed && s->state != tcp_state::syn_sent &&
               s->local == client.remote && s->remote == client.local;
    });
    return found == at.streams.end() ? nullptr : *found;
}

void answer_syn(stream& client, stream& listener) {
    stream& child = new_stream(*listener.at);
    child.listener = &listener;
    child.state = tcp_state::syn_received;
    child.remote = client.local;
    child.send_limit = listener.send_limit;
    child.receive_limit = listener.receive_limit;
    take_address(child, client.remote);
    child.peer = &client;
    client.peer = &child;
    client.says = greeting::none;
    child.says = greeting::syn_ack;
    note_both_moving(client);
}

void arrive_syn(stream& client) {
    wire const& w = *client.at->net;
    if (client.greetings == c_most_syns) {
        finish_with(client, ETIMEDOUT);
        return;
    }
    host* const to = w.find_host(*client.at, client.remote.ip);
    if (to == nullptr || std::find(w.holes.begin(), w.holes.end(), client.remote) != w.holes.end()) {
        greet_later(client);
        return;
    }
    if (stream* const stale = find_stale(*to, client); stale != nullptr) {
        stale->reset_coming = true;
        note_moving(*stale);
        greet_later(client);
        return;
    }
    stream* const listener = find_listener(*to, client.remote);
    if (listener == nullptr) {
        client.says = greeting::none;
        client.reset_coming = true;
        note_moving(client);
        return;
    }
    if (is_full(*listener)) {
        greet_later(client);
        return;
    }
    answer_syn(client, *listener);
}

void arrive_ack(stream& client) {
    client.says = greeting::none;
    stream* const child = client.peer;
    if (child == nullptr || child->listener == nullptr || client.greetings == c_most_syn_acks) {
        // Nobody knows of this connection; that is said as an answer to the acknowledgement, or to the first data.
        client.reset_coming = child != nullptr && child->listener == nullptr;
        if (child != nullptr) {
            drop_embryo(*child);
        }
        note_moving(client);
        return;
    }
    stream& listener = *child->listener;
    if (is_full(listener)) {
        client.says = greeting::ack;
        greet_later(client);
        return;
    }
    child->state = tcp_state::established;
    child->is_queued = true;
    listener.arrived.push_back(child);
    note_both_moving(client);
    wake(listener.file, EPOLLIN);
}

void arrive_syn_ack(stream& child) {
    stream* const client = child.peer;
    child.says = greeting::none;
    note_moving(child);
    if (client == nullptr) {
        drop_embryo(child);
        return;
    }
    client->state = tcp_state::established;
    client->greetings = 0;
    wake(client->file, 0);
    arrive_ack(*client);
}

// --- data and ends ---------------------------------------------------------------------------------------------------

/// What arrives for nobody, or for somebody who will not read it, is answered with a reset.
void answer_with_reset(stream& sender) {
    sender.unsent.clear();
    sender.has_fin_to_send = false;
    sender.reset_coming = true;
    note_moving(sender);
}

void arrive_data(stream& sender, std::size_t size) {
    stream* const to = sender.peer;
    if (to == nullptr || refuses_data(*to)) {
        answer_with_reset(sender);
        if (to != nullptr) {
            finish_with(*to, ECONNRESET);
        }
        return;
    }
    sender.unsent.move_to(to->unread, size);
    wake(to->file, EPOLLIN);
    if (sender.state == tcp_state::closed && sender.unsent.empty()) {
        unlink_peer(sender);
        release_if_unused(sender);
        return;
    }
    tell_of_room(sender);
    note_both_moving(sender);
}

void acknowledge_fin(stream& sender) {
    switch (sender.state) {
    case tcp_state::fin_wait_1:
        sender.state = tcp_state::fin_wait_2;
        sender.orphan_until = sender.file == nullptr ? now() + c_time_wait : c_never;
        wake(sender.file, 0);
        break;
    case tcp_state::closing:
        enter_time_wait(sender);
        break;
    case tcp_state::last_ack:
        finish(sender);
        break;
    default:
        break;
    }
}

void arrive_fin(stream& sender) {
    stream* const to = sender.peer;
    if (to == nullptr) {
        answer_with_reset(sender);
        return;
    }
    sender.has_fin_to_send = false;
    to->shut |= c_receive_shut;
    to->has_seen_fin = true;
    tcp_state const before = to->state;
    if (before == tcp_state::established) {
        to->state = tcp_state::close_wait;
    } else if (before == tcp_state::fin_wait_1) {
        to->state = tcp_state::closing;
    }
    note_both_moving(sender);
    wake(to->file, 0);
    acknowledge_fin(sender);
    if (before == tcp_state::fin_wait_2) {
        enter_time_wait(*to);
    }
}

void arrive_reset(stream& s) {
    s.reset_coming = false;
    switch (s.state) {
    case tcp_state::closed:
        note_moving(s);
        break;
    case tcp_state::syn_received:
        drop_embryo(s);
        break;
    case tcp_state::syn_sent:
        finish_with(s, ECONNREFUSED);
        break;
    case tcp_state::close_wait:
        finish_with(s, EPIPE);
        break;
    default:
        finish_with(s, ECONNRESET);
    }
}

void carry_from(stream& s, dice& chance) {
    if (s.peer != nullptr && s.peer->orphan_until <= now()) {
        finish(*s.peer); // it has waited long enough for this
    }
    switch (s.says) {
    case greeting::syn:
        arrive_syn(s);
        return;
    case greeting::syn_ack:
        arrive_syn_ack(s);
        return;
    case greeting::ack:
        arrive_ack(s);
        return;
    case greeting::none:
        break;
    }
    if (s.unsent.empty()) {
        arrive_fin(s);
        return;
    }
    std::size_t const most = find_window(s);
    arrive_data(s, chance.one_in(2) ? most : 1 + chance.below(most));
}

bool has_something_to_say(stream const& s) {
    if (s.says != greeting::none) {
        return s.greets_at <= now();
    }
    return s.unsent.empty() ? s.has_fin_to_send : find_window(s) != 0;
}

void carry_one_of(stream& s, dice& chance) {
    if (s.reset_coming && find_due(s) == 0 && !(has_something_to_say(s) && chance.one_in(2))) {
        arrive_reset(s);
        return;
    }
    carry_from(s, chance);
}

} // namespace

bool refuses_data(stream const& s) {
    return s.state == tcp_state::closed ||
           ((s.shut & c_receive_shut) != 0 && (s.state == tcp_state::fin_wait_1 || s.state == tcp_state::fin_wait_2));
}

std::size_t find_window(stream const& s) {
    if (s.peer == nullptr || refuses_data(*s.peer)) {
        return s.unsent.size();
    }
    std::size_t const used = std::min(s.peer->receive_limit, s.peer->unread.size());
    return std::min(s.unsent.size(), s.peer->receive_limit - used);
}

void note_moving(stream& s) {
    std::vector<stream*>& moving = s.at->net->moving;
    s.due = find_due(s);
    if (s.due != c_never && s.slot == c_nowhere) {
        s.slot = moving.size();
        moving.push_back(&s);
    } else if (s.due == c_never && s.slot != c_nowhere) {
        moving[s.slot] = moving.back();
        moving[s.slot]->slot = s.slot;
        moving.pop_back();
        s.slot = c_nowhere;
    }
}

void note_both_moving(stream& s) {
    note_moving(s);
    if (s.peer != nullptr) {
        note_moving(*s.peer);
    }
}

bool share_a_port(address const& a, address const& b) {
    return a.port == b.port && (a.ip == 0 || b.ip == 0 || a.ip == b.ip);
}

std::uint32_t source_ip(host const& from, std::uint32_t to) {
    return is_loopback(to) ? to : from.ip;
}

host& wire::add_host(std::uint32_t ip) {
    auto const found = std::find_if(hosts.begin(), hosts.end(), [ip](auto const& known) { return known->ip == ip; });
    if (found != hosts.end()) {
        return **found;
    }
    host& made = *hosts.emplace_back(std::make_unique<host>());
    made.net = this;
    made.ip = ip;
    return made;
}

host* wire::find_host(host const& from, std::uint32_t ip) const {
    std::uint32_t const wanted = ip == 0 || is_loopback(ip) ? from.ip : ip;
    auto const found =
        std::find_if(hosts.begin(), hosts.end(), [wanted](auto const& known) { return known->ip == wanted; });
    return found == hosts.end() ? nullptr : found->get();
}

// --- the network -----------------------------------------------------------------------------------------------------

network::network() : state(std::make_unique<network_state>()) {}
network::~network() = default;

bool network::has_in_flight() const {
    moment const clock = now();
    return !state->flying.empty() || std::any_of(state->moving.begin(), state->moving.end(),
                                                 [clock](stream const* s) { return s->due <= clock; });
}

moment network::next_in_flight() const {
    moment nearest = state->flying.empty() ? c_never : 0;
    for (stream const* s : state->moving) {
        nearest = std::min(nearest, s->due);
    }
    return nearest;
}

void network::deliver_one(dice& chance) {
    moment const clock = now();
    auto const is_due = [clock](stream const* s) { return s->due <= clock; };
    auto const due = static_cast<std::size_t>(std::count_if(state->moving.begin(), state->moving.end(), is_due));
    if (due + state->flying.size() == 0) {
        return;
    }
    std::size_t chosen = chance.below(due + state->flying.size());
    if (chosen >= due) {
        deliver_datagram(*state, chosen - due);
        return;
    }
    auto which = std::find_if(state->moving.begin(), state->moving.end(), is_due);
    for (; chosen != 0; --chosen) {
        which = std::find_if(which + 1, state->moving.end(), is_due);
    }
    carry_one_of(**which, chance);
}

void network::black_hole(address to, bool on) {
    std::erase(state->holes, to);
    if (on) {
        state->holes.push_back(to);
    }
}

void network::reset_all() {
    std::vector<stream*> connected;
    for (auto const& at : state->hosts) {
        std::copy_if(at->streams.begin(), at->streams.end(), std::back_inserter(connected),
                     [](stream const* s) { return s->peer != nullptr && s->state != tcp_state::closed; });
    }
    for (stream* s : connected) {
        // The first of two may have taken the second with it.
        if (s->at != nullptr && s->state != tcp_state::closed) {
            arrive_reset(*s);
        }
    }
}

} // namespace simulation
