#include "tests/race/answering_peer.hpp"

#include "tests/race/live_relay.hpp"

#include <poll.h>
#include <sys/socket.h>

namespace relay_test {
namespace {

std::vector<descriptor> one_listener() {
    std::vector<descriptor> made;
    made.push_back(listen_loopback(128));
    return made;
}

} // namespace

answering_peer::answering_peer() : answering_peer(one_listener()) {}

answering_peer::answering_peer(std::vector<descriptor> given)
    : listeners(std::move(given)), thread([this] { serve(); }) {}

answering_peer::~answering_peer() {
    is_over = true;
    thread.join();
}

std::uint16_t answering_peer::port() const {
    return local_port(listeners.front());
}

void answering_peer::serve() {
    while (!is_over) {
        std::vector<::pollfd> watched;
        for (descriptor const& listener : listeners) {
            watched.push_back({listener.get(), POLLIN, 0});
        }
        for (guest const& one : guests) {
            watched.push_back({one.socket.get(), POLLIN, 0});
        }
        ::poll(watched.data(), watched.size(), 5);
        for (std::size_t i = watched.size(); i > listeners.size(); --i) {
            if (watched[i - 1].revents != 0) {
                read_from(i - 1 - listeners.size());
            }
        }
        for (std::size_t i = 0; i < listeners.size(); ++i) {
            if (watched[i].revents != 0) {
                guests.push_back({accept_loopback(listeners[i]), 0});
            }
        }
    }
}

void answering_peer::read_from(std::size_t number) {
    guest& one = guests[number];
    unsigned char space[4096];
    std::size_t const wanted = one.block < c_init_block ? c_init_block - one.block : sizeof space;
    ssize_t const got = ::recv(one.socket.get(), space, wanted, MSG_DONTWAIT);
    if (got <= 0) {
        reset_connection(one.socket); // no port is left waiting
        guests.erase(guests.begin() + static_cast<std::ptrdiff_t>(number));
        return;
    }
    bool const was_complete = one.block >= c_init_block;
    one.block += static_cast<std::size_t>(got);
    if (!was_complete && one.block == c_init_block) {
        static unsigned char const answer[c_init_block] = {};
        ::send(one.socket.get(), answer, sizeof answer, MSG_NOSIGNAL);
    }
}

} // namespace relay_test
