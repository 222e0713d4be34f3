// A Center that names nothing of its host: only the relay does. Whoever links it must not lose the host.
#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"

#include <cstdio>

int main() {
    namespace relay = Zolt::Center::INet_Relay;
    // Port 0: the kernel chooses, and nobody has to know.
    int const failures =
        relay::initialize() + relay::add_server(0) + relay::start() + relay::stop() + relay::finalize();
    std::printf("failures: %d\n", failures);
    return failures;
}
