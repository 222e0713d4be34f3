// A node that accepts, answers the exchange, reads what comes and resets whatever ends; it works by itself until destroyed.
#ifndef TESTS_RACE_ANSWERING_PEER_HPP
#define TESTS_RACE_ANSWERING_PEER_HPP

#include "tests/support/loopback.hpp"

#include <atomic>
#include <thread>
#include <vector>

namespace relay_test {

class answering_peer {
public:
    /// With one listener of its own, or those given.
    answering_peer();
    explicit answering_peer(std::vector<descriptor> given);
    ~answering_peer();
    answering_peer(answering_peer const&) = delete;
    answering_peer& operator=(answering_peer const&) = delete;

    /// That of the first listener.
    std::uint16_t port() const;

private:
    struct guest {
        descriptor socket;
        std::size_t block = 0; ///< bytes of the peer's block that have come
    };

    void serve();
    void read_from(std::size_t number);

    std::vector<descriptor> listeners;
    std::vector<guest> guests;
    std::atomic<bool> is_over{false};
    std::thread thread;
};

} // namespace relay_test

#endif
