// What the program tells the service manager that started it, if one did: a datagram to the socket that NOTIFY_SOCKET names.
#ifndef REFERENCE_CENTER_SERVICE_MANAGER_HPP
#define REFERENCE_CENTER_SERVICE_MANAGER_HPP

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace Zolt::Reference_Center {

class service_manager {
public:
    /// Takes the variables NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID from the environment, so that no child finds them.
    service_manager();

    /// Any thread. Without a manager nothing happens; what goes wrong is ignored: the manager notices by itself.
    void tell(std::string_view state) const;
    void tell_ready() const { tell("READY=1"); }
    void tell_stopping() const { tell("STOPPING=1"); }
    void tell_alive() const { tell("WATCHDOG=1"); }
    /// After how long without tell_alive the manager ends this process; nothing when it does not watch.
    std::optional<std::chrono::microseconds> patience() const { return watchdog; }

private:
    std::string address; ///< of the socket; empty when there is none
    std::optional<std::chrono::microseconds> watchdog;
};

} // namespace Zolt::Reference_Center

#endif
