// What the relay does with its host, told to a Center at once by the thread that does it: before a line is queued, a packet
// offered, a descriptor used. A Center learns from it what no packet says, such as why a connection ended.
#ifndef REFERENCE_HOST_RELAY_OBSERVER_HPP
#define REFERENCE_HOST_RELAY_OBSERVER_HPP

#include "Host/zolt_packet.hpp"

#include <cstdarg>
#include <string_view>

namespace Zolt::Reference_Host {

/// Thread: any of the relay's, and the Center's own inside an operation of the relay. Locks: any may be held. Each call
/// must be short, may neither call the relay nor wait for somebody who does, and throws nothing.
class relay_observer {
public:
    /// print_error with a message; without the end of line. errno is what the relay left there.
    virtual void on_error(std::string_view text) = 0;
    /// Every trace, switched on or not. The token is the relay's; its header may be marked.
    virtual void on_trace(char const* format, struct_token& token, std::va_list arguments) = 0;
    /// One of the relay's own notices is about to be offered, again after each answer that was busy. What is written into
    /// it reaches the Center.
    virtual void on_notice(struct_packet& notice) = 0;
    /// The relay makes a descriptor blocking, or not blocking.
    virtual void on_descriptor(int descriptor, bool is_blocking) = 0;

protected:
    ~relay_observer() = default;
};

/// Null takes it away. Only while no thread of the relay runs. Not owned.
void set_relay_observer(relay_observer* observer);
/// Null when there is none.
relay_observer* get_relay_observer();

/// How many names of this host's threads were given away: the next thread is called "relay-" and that number and 1.
/// A name is taken also for a thread that cannot be started.
unsigned int count_thread_names();

} // namespace Zolt::Reference_Host

#endif
