#include "Reference_Center/stop_signals.hpp"

#include "Reference_Center/failure.hpp"
#include "Reference_Host/inbox.hpp"

#include <csignal>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace Zolt::Reference_Center {
namespace {

/// Who signals a process and its group sends the same signal twice.
constexpr std::chrono::milliseconds c_same_signal{100};

int open_signals() {
    sigset_t set;
    ::sigemptyset(&set);
    ::sigaddset(&set, SIGINT);
    ::sigaddset(&set, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
    return checked(::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC), "signalfd");
}

} // namespace

blocked_signals::blocked_signals() : signal_fd(open_signals()) {}

blocked_signals::~blocked_signals() {
    ::close(signal_fd);
}

bool blocked_signals::take() const {
    signalfd_siginfo info;
    return ::read(signal_fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info);
}

stop_signals::stop_signals() : watcher([this] { watch(); }) {}

stop_signals::~stop_signals() {
    end.signal();
    watcher.join();
}

void stop_signals::watch() {
    pollfd waited[2] = {{signals.descriptor(), POLLIN, 0}, {end.number(), POLLIN, 0}};
    for (;;) {
        ::poll(waited, 2, -1);
        if (waited[1].revents != 0) {
            return;
        }
        while (signals.take()) {
            note_signal();
        }
    }
}

void stop_signals::note_signal() {
    auto const now = std::chrono::steady_clock::now();
    if (!requested.exchange(true, std::memory_order_acq_rel)) {
        first_at = now;
        Reference_Host::get_center_inbox().wake();
    } else if (now - first_at > c_same_signal) {
        ::_exit(static_cast<int>(exit_code::interrupted));
    }
}

} // namespace Zolt::Reference_Center
