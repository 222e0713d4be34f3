// One TCP socket: its calls, its states, and how it ends.

#include "tests/race/simulation/kernel_private.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sys/epoll.h>
#include <sys/socket.h>

namespace simulation {
namespace {

bool is_waiting_for_connection(stream const& s) {
    return s.state == tcp_state::syn_sent || s.state == tcp_state::syn_received;
}

/// An orphan that has waited long enough for its peer's end no longer holds anything.
void end_old_orphans(host& at) {
    auto const is_old = [](stream const* s) { return s->orphan_until <= now(); };
    for (;;) {
        auto const old = std::find_if(at.streams.begin(), at.streams.end(), is_old);
        if (old == at.streams.end()) {
            return;
        }
        finish(**old);
    }
}

bool is_taken(host& at, address const& wanted) {
    std::erase_if(at.left, [](left_address const& entry) { return entry.until <= now(); });
    end_old_orphans(at);
    return std::any_of(at.streams.begin(), at.streams.end(),
                       [&](stream* s) { return share_a_port(s->local, wanted); }) ||
           std::any_of(at.left.begin(), at.left.end(),
                       [&](auto const& entry) { return share_a_port(entry.local, wanted); });
}

void take_any_port(stream& s) {
    address wanted{s.local.ip, c_first_free_port};
    while (is_taken(*s.at, wanted)) {
        ++wanted.port;
    }
    take_address(s, wanted);
}

int take_error(stream& s) {
    int const error = s.error;
    s.error = 0;
    return -error;
}

/// The deadline of a call that may wait for room or a connection; 0: it may not.
moment find_send_deadline(open_file const& file) {
    if (file.is_nonblocking) {
        return 0;
    }
    return file.send_timeout == 0 ? c_never : now() + file.send_timeout;
}

bool has_connection_like(stream const& wanted) {
    return std::any_of(wanted.at->streams.begin(), wanted.at->streams.end(), [&](stream const* s) {
        return s != &wanted && s->state != tcp_state::closed && s->local == wanted.local && s->remote == wanted.remote;
    });
}

/// Back to the socket it was before connect.
void disconnect(stream& s) {
    s.state = tcp_state::closed;
    s.shut = 0;
    s.has_seen_fin = false;
    s.says = greeting::none;
    unlink_peer(s);
    if (!s.port_is_chosen) {
        leave_host(s);
        s.local = {};
    }
    note_moving(s);
}

int begin_connecting(stream& s, address remote) {
    if (!s.has_port) {
        take_any_port(s);
    }
    s.remote = remote;
    s.local.ip = s.local.ip == 0 ? source_ip(*s.at, remote.ip) : s.local.ip;
    if (has_connection_like(s)) {
        return -EADDRNOTAVAIL;
    }
    s.shut = 0;
    s.state = tcp_state::syn_sent;
    s.connecting = progress::connecting;
    s.says = greeting::syn;
    s.greetings = 0;
    s.greets_at = 0;
    note_moving(s);
    return 0;
}

/// Before the first byte: the connection must be there.
int wait_for_connection(stream& s, moment deadline) {
    while (s.state != tcp_state::established && s.state != tcp_state::close_wait) {
        if (s.error != 0) {
            return take_error(s);
        }
        if (!is_waiting_for_connection(s)) {
            return -EPIPE;
        }
        if (deadline == 0 ||
            !wait_until("send", deadline, [&s] { return s.error != 0 || !is_waiting_for_connection(s); })) {
            return -EAGAIN;
        }
    }
    return 0;
}

void begin_fin(stream& s) {
    if (s.state != tcp_state::established && s.state != tcp_state::close_wait) {
        return;
    }
    s.state = s.state == tcp_state::established ? tcp_state::fin_wait_1 : tcp_state::last_ack;
    s.has_fin_to_send = true;
    note_both_moving(s);
}

} // namespace

char const* word_for(tcp_state state) {
    constexpr char const* c_words[] = {"closed",     "listening",  "syn sent",   "syn received", "established",
                                       "fin wait 1", "fin wait 2", "close wait", "closing",      "last ack"};
    return c_words[static_cast<int>(state)];
}

void byte_queue::append(void const* data, std::size_t size) {
    auto const* const first = static_cast<unsigned char const*>(data);
    bytes.insert(bytes.end(), first, first + size);
}

void byte_queue::take(void* data, std::size_t size) {
    if (size != 0) {
        std::memcpy(data, bytes.data() + head, size);
    }
    head += size;
    if (head == bytes.size()) {
        clear();
    } else if (head > bytes.size() / 2) {
        bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(head));
        head = 0;
    }
}

void byte_queue::move_to(byte_queue& other, std::size_t size) {
    std::size_t const at = other.bytes.size();
    other.bytes.resize(at + size);
    take(other.bytes.data() + at, size);
}

void byte_queue::keep_front(std::size_t size) {
    bytes.resize(head + std::min(size, this->size()));
}

void byte_queue::clear() {
    bytes.clear();
    head = 0;
}

/// Everything as new, apart from the memory of the buffers.
void stream::clear() {
    byte_queue first = std::move(unread);
    byte_queue second = std::move(unsent);
    std::vector<stream*> third = std::move(arrived);
    *this = stream{};
    first.clear();
    second.clear();
    third.clear();
    unread = std::move(first);
    unsent = std::move(second);
    arrived = std::move(third);
}

void take_address(stream& s, address local) {
    s.local = local;
    s.has_port = true;
    s.at->streams.push_back(&s);
}

stream& new_stream(host& at) {
    stream& s = at.net->streams.take();
    s.at = &at;
    return s;
}

// --- the calls -------------------------------------------------------------------------------------------------------

int bind_stream(stream& s, address local) {
    if (s.state != tcp_state::closed || s.has_port) {
        return -EINVAL;
    }
    if (local.ip != 0 && s.at->net->find_host(*s.at, local.ip) != s.at) {
        return -EADDRNOTAVAIL;
    }
    if (local.port == 0) {
        s.local.ip = local.ip;
        take_any_port(s);
    } else if (is_taken(*s.at, local)) {
        return -EADDRINUSE;
    } else {
        take_address(s, local);
    }
    s.port_is_chosen = local.port != 0;
    return 0;
}

int listen_on(stream& s, int backlog) {
    if (s.connecting != progress::unconnected || (s.state != tcp_state::closed && s.state != tcp_state::listening)) {
        return -EINVAL;
    }
    if (!s.has_port) {
        take_any_port(s);
    }
    s.state = tcp_state::listening;
    s.backlog = backlog;
    return 0;
}

stream* accept_from(open_file& file, int& error) {
    stream& s = *file.tcp;
    while (s.state == tcp_state::listening && s.arrived.empty()) {
        if (file.is_nonblocking) {
            error = -EAGAIN;
            return nullptr;
        }
        wait_for("accept", [&s] { return s.state != tcp_state::listening || !s.arrived.empty(); });
    }
    if (s.state != tcp_state::listening) {
        error = -EINVAL;
        return nullptr;
    }
    stream* const child = s.arrived.front();
    s.arrived.erase(s.arrived.begin());
    child->is_queued = false;
    child->listener = nullptr;
    child->connecting = progress::connected;
    return child;
}

int connect_stream(open_file& file, address remote) {
    stream& s = *file.tcp;
    int waiting = -EALREADY;
    if (s.connecting == progress::connected || s.state == tcp_state::listening) {
        return -EISCONN;
    }
    if (s.connecting == progress::disconnecting) {
        return -EINVAL;
    }
    if (s.connecting != progress::connecting) {
        if (int const error = begin_connecting(s, remote); error != 0) {
            return error;
        }
        waiting = -EINPROGRESS;
    }
    moment const deadline = find_send_deadline(file);
    if (is_waiting_for_connection(s) &&
        (deadline == 0 || !wait_until("connect", deadline, [&s] { return !is_waiting_for_connection(s); }))) {
        return waiting;
    }
    if (s.state != tcp_state::closed) {
        s.connecting = progress::connected;
        return 0;
    }
    int const error = take_error(s);
    s.connecting = progress::unconnected;
    disconnect(s);
    return error != 0 ? error : -ECONNABORTED;
}

long send_stream(open_file& file, unsigned char const* data, std::size_t size) {
    stream& s = *file.tcp;
    moment const deadline = find_send_deadline(file);
    if (int const error = wait_for_connection(s, deadline); error != 0) {
        return error;
    }
    auto const is_over = [&s] { return s.error != 0 || (s.shut & c_send_shut) != 0; };
    std::size_t sent = 0;
    while (!is_over() && sent < size) {
        std::size_t const room = s.send_limit - std::min(s.send_limit, s.unsent.size());
        if (room != 0) {
            std::size_t const piece = std::min(room, size - sent);
            s.unsent.append(data + sent, piece);
            sent += piece;
            note_moving(s);
            continue;
        }
        s.wants_room = true;
        if (deadline == 0 || !wait_until("send", deadline, [&] { return has_room(s) || is_over(); })) {
            return sent != 0 ? static_cast<long>(sent) : -EAGAIN;
        }
    }
    if (sent != 0 || !is_over()) {
        return static_cast<long>(sent);
    }
    return s.error != 0 ? take_error(s) : -EPIPE;
}

long receive_stream(open_file& file, void* data, std::size_t size) {
    stream& s = *file.tcp;
    if (s.state == tcp_state::listening) {
        return -ENOTCONN;
    }
    auto const has_answer = [&s] {
        return !s.unread.empty() || s.error != 0 || (s.shut & c_receive_shut) != 0 || s.state == tcp_state::closed;
    };
    while (!has_answer()) {
        if (file.is_nonblocking) {
            return -EAGAIN;
        }
        wait_for("recv", has_answer);
    }
    if (!s.unread.empty()) {
        std::size_t const piece = std::min(size, s.unread.size());
        s.unread.take(data, piece);
        note_both_moving(s);
        return static_cast<long>(piece);
    }
    if (s.has_seen_fin) {
        return 0;
    }
    if (s.error != 0) {
        return take_error(s);
    }
    return (s.shut & c_receive_shut) != 0 ? 0 : -ENOTCONN;
}

int shut_stream(stream& s, unsigned how) {
    int result = 0;
    if (s.connecting == progress::connecting) {
        s.connecting = is_waiting_for_connection(s) || s.state == tcp_state::closed ? progress::disconnecting
                                                                                    : progress::connected;
    }
    switch (s.state) {
    case tcp_state::listening:
        if ((how & c_receive_shut) != 0) {
            stop_listening(s);
            disconnect(s);
        }
        break;
    case tcp_state::syn_sent:
        disconnect(s);
        s.error = ECONNRESET;
        s.connecting = progress::unconnected;
        break;
    case tcp_state::closed:
        result = -ENOTCONN;
        s.shut |= how;
        break;
    default:
        s.shut |= how;
        if ((how & c_send_shut) != 0) {
            begin_fin(s);
        }
        note_both_moving(s);
    }
    wake(s.file, 0);
    return result;
}

void close_stream(stream& s) {
    s.file = nullptr;
    s.shut = c_both_shut;
    if (s.state == tcp_state::listening) {
        stop_listening(s);
    } else if (s.state != tcp_state::closed && !s.unread.empty()) {
        abort_stream(s);
        return;
    } else if (s.state == tcp_state::syn_sent) {
        disconnect(s);
    }
    begin_fin(s);
    if (s.state == tcp_state::fin_wait_2) {
        s.orphan_until = now() + c_time_wait;
    }
    note_both_moving(s);
    release_if_unused(s);
}

// --- how it ends -----------------------------------------------------------------------------------------------------

void stop_listening(stream& s) {
    s.state = tcp_state::closed;
    for (stream* other : s.at->streams) {
        if (other->listener == &s) {
            other->listener = nullptr;
        }
    }
    std::vector<stream*> const never_accepted = std::move(s.arrived);
    s.arrived.clear();
    for (stream* child : never_accepted) {
        child->is_queued = false;
        abort_stream(*child);
    }
}

void abort_stream(stream& s) {
    s.file = nullptr;
    if (s.peer != nullptr && s.state != tcp_state::syn_sent) {
        // What the peer has room for is under way before the reset; the rest never leaves.
        s.unsent.keep_front(find_window(s));
        s.peer->reset_coming = true;
    } else {
        s.unsent.clear();
    }
    s.state = tcp_state::closed;
    s.shut = c_both_shut;
    s.says = greeting::none;
    s.has_fin_to_send = false;
    s.reset_coming = false;
    s.unread.clear();
    leave_host(s);
    if (s.unsent.empty()) {
        unlink_peer(s);
    }
    note_both_moving(s);
    release_if_unused(s);
}

void finish(stream& s) {
    s.state = tcp_state::closed;
    s.shut = c_both_shut;
    s.says = greeting::none;
    s.has_fin_to_send = false;
    s.reset_coming = false;
    s.orphan_until = c_never;
    s.unsent.clear();
    if (!s.port_is_chosen) {
        leave_host(s);
    }
    unlink_peer(s);
    note_moving(s);
    wake(s.file, 0);
    release_if_unused(s);
}

void finish_with(stream& s, int error) {
    s.error = error;
    finish(s);
}

void unlink_peer(stream& s) {
    stream* const peer = s.peer;
    if (peer == nullptr) {
        return;
    }
    s.peer = nullptr;
    peer->peer = nullptr;
    note_moving(*peer);
    release_if_unused(*peer);
}

void leave_host(stream& s) {
    if (s.has_port) {
        std::erase(s.at->streams, &s);
        s.has_port = false;
    }
}

void release_if_unused(stream& s) {
    bool const still_sends = s.peer != nullptr && !s.unsent.empty();
    if (s.at != nullptr && s.file == nullptr && s.state == tcp_state::closed && !s.is_queued && !still_sends) {
        discard(s);
    }
}

void discard(stream& s) {
    wire& w = *s.at->net;
    leave_host(s);
    unlink_peer(s);
    s.unsent.clear();
    s.says = greeting::none;
    s.has_fin_to_send = false;
    s.reset_coming = false;
    note_moving(s);
    w.streams.give_back(s);
}

bool has_room(stream const& s) {
    std::size_t const used = s.unsent.size();
    return s.send_limit >= used && s.send_limit - used >= used / 2;
}

} // namespace simulation
