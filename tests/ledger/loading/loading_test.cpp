// One program, built three ways:
//   linked       the relay is a needed library of the program, which is the host
//   opened       the program is the host and opens the relay while it runs
//   host_library the host is a library of its own; the program opens the relay while it runs
// Each way the relay's globals must be constructed in their order, the relay must run, and the globals must go in
// reverse: when the library is closed, or else at exit. A child process does it all, so that its exit can be seen too.
#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"
#include "tests/ledger/loading/counting_host.hpp"

#include <iostream>
#include <stdexcept>
#include <string>

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace relay = Zolt::Center::INet_Relay;
using loading::kind;

void require(bool holds, std::string const& what) {
    if (!holds) {
        throw std::runtime_error(what);
    }
}

#ifdef LOADING_LINKED

void* open_relay() {
    return RTLD_DEFAULT;
}
void close_relay(void*) {}

template <typename Operation>
Operation* operation(void*, Operation* linked, char const*) {
    return linked;
}
#define OPERATION(library, name, symbol) operation(library, &relay::name, symbol)

#else

void* open_relay() {
    require(loading::objects() == 0, "objects before the relay is loaded");
    void* const library = ::dlopen(LOADING_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    require(library != nullptr, "open " LOADING_LIBRARY);
    return library;
}

void close_relay(void* library) {
    require(::dlclose(library) == 0, "close the library");
    require(::dlopen(LOADING_LIBRARY, RTLD_NOW | RTLD_NOLOAD) == nullptr,
            "the library is still loaded after its close");
    require(loading::objects() == 0, "objects after the relay was unloaded");
}

template <typename Operation>
Operation* operation(void* library, char const* symbol) {
    void* const found = ::dlsym(library, symbol);
    require(found != nullptr, symbol);
    return reinterpret_cast<Operation*>(found);
}
#define OPERATION(library, name, symbol) operation<decltype(relay::name)>(library, symbol)

#endif

/// The globals that the host can see, in the order in which they must be constructed.
void check_construction(void* library) {
    static constexpr struct {
        char const* symbol;
        kind what;
        std::size_t count;
    } expected[] = {
        {"_ZN4Zolt6Center10INet_Relay5EPoll21epoll_thread_udp_recvE", kind::thread, 1},
        {"_ZN4Zolt6Center10INet_Relay5EPoll21epoll_thread_udp_sendE", kind::thread, 1},
        {"_ZN4Zolt6Center10INet_Relay5EPoll21epoll_thread_tcp_initE", kind::thread, 1},
        {"_ZN4Zolt6Center10INet_Relay5EPoll21epoll_thread_tcp_recvE", kind::thread, 8},
        {"_ZN4Zolt6Center10INet_Relay5EPoll21epoll_thread_tcp_sendE", kind::thread, 8},
        {"_ZN4Zolt6Center10INet_Relay5EPoll13g_client_lockE", kind::lock, 1},
        {"_ZN4Zolt6Center10INet_Relay5EPoll27g_establish_server_map_lockE", kind::lock, 1},
        {"_ZN4Zolt6Center10INet_Relay5EPoll10inet_timerE", kind::timer, 1},
    };
    std::size_t index = 0;
    for (auto const& global : expected) {
        void const* const first = ::dlsym(library, global.symbol);
        require(first != nullptr && loading::object(index).where == first,
                std::string("construction of ") + global.symbol);
        for (std::size_t element = 0; element < global.count; element++) {
            auto const* const address = static_cast<char const*>(loading::object(index).where);
            require(loading::object(index).what == global.what, std::string("kind of ") + global.symbol);
            require(element == 0 || loading::object(index - 1).where < address,
                    std::string("order in ") + global.symbol);
            index++;
        }
    }
    require(loading::objects() == index, "an object that is not in the list");
}

void use_relay() {
    void* const library = open_relay();
    check_construction(library);
    auto* const initialize = OPERATION(library, initialize, "_ZN4Zolt6Center10INet_Relay10initializeEv");
    auto* const add_server = OPERATION(library, add_server, "_ZN4Zolt6Center10INet_Relay10add_serverEt");
    auto* const start = OPERATION(library, start, "_ZN4Zolt6Center10INet_Relay5startEv");
    auto* const stop = OPERATION(library, stop, "_ZN4Zolt6Center10INet_Relay4stopEv");
    auto* const finalize = OPERATION(library, finalize, "_ZN4Zolt6Center10INet_Relay8finalizeEv");
    std::size_t const at_load = loading::objects();
    require(initialize() == 0, "initialize");
    // Port 0: the kernel chooses, and nobody has to know.
    require(add_server(0) == 0, "add_server");
    require(start() == 0, "start");
    require(stop() == 0, "stop");
    require(finalize() == 0, "finalize");
    require(loading::objects() == at_load, "objects left behind by finalize");
    close_relay(library);
}

int child() {
    try {
        use_relay();
        return 0;
    } catch (std::runtime_error const& failure) {
        std::cerr << "failed: " << failure.what() << '\n';
        return 1;
    }
}

std::string read_all(int fd) {
    std::string text;
    char piece[256];
    for (ssize_t got = 0; (got = ::read(fd, piece, sizeof piece)) > 0;) {
        text.append(piece, static_cast<std::size_t>(got));
    }
    return text;
}

} // namespace

int main() {
    int ends[2];
    if (::pipe(ends) != 0) {
        return 1;
    }
    pid_t const pid = ::fork();
    if (pid == 0) {
        ::dup2(ends[1], STDOUT_FILENO);
        ::close(ends[0]);
        ::close(ends[1]);
        return child();
    }
    ::close(ends[1]);
    std::string const said = read_all(ends[0]);
    int status = -1;
    ::waitpid(pid, &status, 0);
    bool const passed = status == 0 && said == loading::c_gone_in_reverse;
    std::cerr << (passed ? "passed" : "failed") << ", the child ended with status " << status << " and said: " << said;
    // This process holds the relay's globals too when it is linked; only the child's end is of interest.
    ::_exit(passed ? 0 : 1);
}
