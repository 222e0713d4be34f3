// What a poll answers, and event instances.

#include "tests/race/simulation/kernel_private.hpp"

#include <algorithm>
#include <cerrno>

#include <sys/epoll.h>

namespace simulation {
namespace {

constexpr std::uint32_t c_always = EPOLLERR | EPOLLHUP;
/// Bits that say how to report and not what.
constexpr std::uint32_t c_manner = EPOLLONESHOT | EPOLLET | EPOLLWAKEUP | EPOLLEXCLUSIVE;

std::uint32_t find_shut_mask(unsigned shut) {
    std::uint32_t mask = 0;
    if (shut == c_both_shut) {
        mask |= EPOLLHUP;
    }
    if ((shut & c_receive_shut) != 0) {
        mask |= EPOLLIN | EPOLLRDHUP;
    }
    return mask;
}

std::uint32_t find_stream_mask(stream const& s) {
    if (s.state == tcp_state::listening) {
        return s.arrived.empty() ? 0 : static_cast<std::uint32_t>(EPOLLIN);
    }
    std::uint32_t mask = find_shut_mask(s.shut);
    if (s.state == tcp_state::closed) {
        mask |= EPOLLHUP;
    }
    if (!s.unread.empty()) {
        mask |= EPOLLIN;
    }
    if (s.state != tcp_state::syn_sent && (has_room(s) || (s.shut & c_send_shut) != 0)) {
        mask |= EPOLLOUT;
    }
    if (s.error != 0) {
        mask |= EPOLLERR;
    }
    return mask;
}

std::uint32_t find_datagram_mask(datagram_socket const& s) {
    return find_shut_mask(s.shut) | EPOLLOUT | (s.unread.empty() ? 0U : static_cast<std::uint32_t>(EPOLLIN));
}

/// What the registration would report now. Whoever asks and finds no room is told when there is some.
std::uint32_t find_report(registration const& asked) {
    std::uint32_t const mask = find_mask(*asked.on);
    stream* const s = asked.on->tcp;
    if (s != nullptr && (mask & EPOLLOUT) == 0 && (s->shut & c_send_shut) == 0) {
        s->wants_room = true;
    }
    return mask & asked.mask;
}

void queue(registration& ready) {
    if (!ready.is_queued) {
        ready.is_queued = true;
        ready.in->queue.push_back(&ready);
    }
}

void arm(registration& armed, std::uint32_t mask, void* data) {
    armed.mask = mask | c_always;
    armed.data = data;
    if (find_report(armed) != 0) {
        queue(armed);
    }
}

void add(wire& w, event_instance& instance, open_file& file, std::uint32_t mask, void* data) {
    registration& fresh = w.registrations.take();
    fresh.in = &instance;
    fresh.on = &file;
    instance.members.push_back(&fresh);
    file.watchers.push_back(&fresh);
    arm(fresh, mask, data);
}

void remove(wire& w, registration& old) {
    std::erase(old.on->watchers, &old);
    std::erase(old.in->members, &old);
    std::erase(old.in->queue, &old);
    w.registrations.give_back(old);
}

/// True when the front of the queue had something to report.
bool take_front(event_instance& instance, event& found) {
    registration& front = *instance.queue.front();
    instance.queue.erase(instance.queue.begin());
    front.is_queued = false;
    std::uint32_t const report = find_report(front);
    if (report == 0) {
        return false;
    }
    found = {report, front.data};
    if ((front.mask & EPOLLONESHOT) != 0) {
        front.mask &= c_manner;
    } else if ((front.mask & EPOLLET) == 0) {
        queue(front);
    }
    return true;
}

} // namespace

void open_file::clear() {
    std::vector<registration*> kept = std::move(watchers);
    kept.clear();
    *this = open_file{};
    watchers = std::move(kept);
}

inside_call::~inside_call() {
    if (--file.calls == 0 && file.is_closed) {
        release(w, file);
    }
}

std::uint32_t find_mask(open_file const& file) {
    if (file.tcp != nullptr) {
        return find_stream_mask(*file.tcp);
    }
    return file.udp != nullptr ? find_datagram_mask(*file.udp) : 0;
}

void wake(open_file* file, std::uint32_t kind) {
    if (file == nullptr) {
        return;
    }
    for (registration* watcher : file->watchers) {
        bool const is_armed = (watcher->mask & ~c_manner) != 0;
        if (is_armed && (kind == 0 || (watcher->mask & kind) != 0)) {
            queue(*watcher);
        }
    }
}

int control_events(wire& w, event_instance& instance, int operation, open_file& file, std::uint32_t mask, void* data) {
    auto const found = std::find_if(file.watchers.begin(), file.watchers.end(),
                                    [&](registration const* known) { return known->in == &instance; });
    bool const is_known = found != file.watchers.end();
    switch (operation) {
    case EPOLL_CTL_ADD:
        if (is_known) {
            return -EEXIST;
        }
        add(w, instance, file, mask, data);
        return 0;
    case EPOLL_CTL_MOD:
        if (!is_known) {
            return -ENOENT;
        }
        arm(**found, mask, data);
        return 0;
    case EPOLL_CTL_DEL:
        if (!is_known) {
            return -ENOENT;
        }
        remove(w, **found);
        return 0;
    default:
        return -EINVAL;
    }
}

int wait_for_event(event_instance& instance, event& found, moment deadline) {
    for (;;) {
        while (!instance.queue.empty()) {
            if (take_front(instance, found)) {
                return 1;
            }
        }
        if (deadline <= now() || !wait_until("epoll_wait", deadline, [&instance] { return !instance.queue.empty(); })) {
            return 0;
        }
    }
}

void release(wire& w, open_file& file) {
    while (!file.watchers.empty()) {
        remove(w, *file.watchers.back());
    }
    if (file.events != nullptr) {
        while (!file.events->members.empty()) {
            remove(w, *file.events->members.back());
        }
        w.instances.give_back(*file.events);
    } else if (file.udp != nullptr) {
        close_datagrams(*file.udp);
    } else if (file.is_reset) {
        abort_stream(*file.tcp);
    } else {
        close_stream(*file.tcp);
    }
    w.files.give_back(file);
}

} // namespace simulation
