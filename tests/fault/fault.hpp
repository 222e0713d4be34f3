// One fault among the system calls of the relay: which call, which of them, and what it answers instead.
#ifndef TESTS_FAULT_FAULT_HPP
#define TESTS_FAULT_FAULT_HPP

#include "tests/support/system_calls.hpp"

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace relay_test {

/// A call by name, and words that narrow it down: "epoll_ctl MOD tcp_recv", "setsockopt TCP_NODELAY", "recvfrom".
struct fault {
    std::string call;
    int position = 1;        ///< the n-th of these calls; persistent: that one and all after it
    std::string result;      ///< an errno by name, "0", or "short": less is moved than asked for
    bool persistent = false; ///< a persistent EINTR ends after c_interruptions: those who retry would never return
};
inline constexpr int c_interruptions = 1000;
inline constexpr std::size_t c_short_transfer = 7; ///< bytes that a "short" transfer moves

/// "ENOMEM" for ENOMEM; throws std::runtime_error for a name or number that the tables here do not know.
int errno_by_name(std::string const& name);
std::string errno_name(int number);

/// True when a call is one of those that the words describe.
bool is_call(std::string const& words, system_call const& made);

/// While it lives the fault is in force.
class injection {
public:
    injection(system_calls& system, fault what, std::function<void()> first_hit = nullptr);
    ~injection();
    injection(injection const&) = delete;
    injection& operator=(injection const&) = delete;

    int hits() const;

private:
    void meet(system_call const& made);

    system_calls& script;
    fault wanted;
    std::function<void()> on_first_hit;
    int seen = 0;
    int hit = 0;
};

} // namespace relay_test

#endif
