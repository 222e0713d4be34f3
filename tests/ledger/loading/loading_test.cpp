// One program, built three ways:
//   linked       the relay is a needed library of the program, which is the host
//   opened       the program is the host and opens the relay while it runs
//   host_library the host is a library of its own; the program opens the relay while it runs
// Each way the relay's globals must be constructed in their order, the relay must run, and the globals must go in
// reverse: when the library is closed, or else at exit. A child process does it all, so that its exit can be seen too.
#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"
#include "Host/tesk_os.hpp"
#include "tests/ledger/loading/counting_host.hpp"

#include <iostream>
#include <stdexcept>
#include <string>

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

// Replaces the C++ runtime's, which every library asks to run a global's destructor at its end.
extern "C" int __cxa_atexit(void (*destroy)(void*), void* object, void* library) {
    using signature = int(void (*)(void*), void*, void*);
    loading::note(loading::kind::destructor, object);
    static auto* const real = reinterpret_cast<signature*>(::dlsym(RTLD_NEXT, "__cxa_atexit"));
    return real(destroy, object, library);
}

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

std::string symbol_of(std::string const& global) {
    return "_ZN4Zolt6Center10INet_Relay5EPoll" + std::to_string(global.size()) + global + "E";
}

/// Every global that is constructed, in the order in which that must happen.
void check_construction(void* library) {
    static constexpr struct {
        char const* name;
        kind what;
        std::size_t count;
    } expected[] = {
        {"g_server_map", kind::destructor, 1},
        {"epoll_thread_udp_recv", kind::thread, 1},
        {"epoll_thread_udp_send", kind::thread, 1},
        {"epoll_thread_tcp_init", kind::thread, 1},
        {"epoll_thread_tcp_recv", kind::thread, 8},
        {"epoll_thread_tcp_send", kind::thread, 8},
        {"g_udp_map", kind::destructor, 1},
        {"g_connect_map", kind::destructor, 1},
        {"g_connect_fail_map", kind::destructor, 1},
        {"g_establish_client_map", kind::destructor, 1},
        {"g_client_lock", kind::lock, 1},
        {"g_establish_server_map", kind::destructor, 1},
        {"g_establish_server_map_lock", kind::lock, 1},
        {"g_remote_server_map", kind::destructor, 1},
        {"inet_timer", kind::timer, 1},
        {"heartbeat_token", kind::token, 1},
    };
    std::size_t next = 0;
    std::size_t objects = 0;
    for (auto const& global : expected) {
        auto const* const first = static_cast<char const*>(::dlsym(library, symbol_of(global.name).c_str()));
        require(first != nullptr, std::string("look up ") + global.name);
        for (std::size_t element = 0; element < global.count; element++) {
            std::size_t const note =
                loading::find_note(global.what, first + element * sizeof(Tesk::OS::class_thread), next);
            require(note != loading::c_not_noted, std::string("construct in its order ") + global.name);
            next = note + 1;
        }
        objects += global.what == kind::destructor || global.what == kind::token ? 0 : global.count;
    }
    require(loading::objects() == objects, "an object that is not in the list");
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
