#include "tests/hosts/listening_backlog.hpp"

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace hosts {
namespace {

/// Makes one more connection to the port. On the loopback it stands when connect returns.
void knock_at(std::uint16_t port) {
    int const fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    static_cast<void>(::connect(fd, reinterpret_cast<sockaddr const*>(&address), sizeof address));
    ::close(fd);
}

} // namespace

void knock_for_waiting(std::uint16_t port) {
    std::ifstream table("/proc/net/tcp");
    std::string line;
    std::getline(table, line); // the head
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string place, local, remote, state, queues, timer, retries, user, timeout, inode;
        fields >> place >> local >> remote >> state >> queues >> timer >> retries >> user >> timeout >> inode;
        // Established, and in no process: not accepted yet. Knocks that wait have ended on their side already.
        bool const is_waiting = state == "01" && inode == "0";
        if (is_waiting && std::stoul(local.substr(local.find(':') + 1), nullptr, 16) == port) {
            knock_at(port);
        }
    }
}

} // namespace hosts
