// A node of its own process: the relay as it ships, the reference host, and a Center that makes and checks traffic.
//
// Argument: the sender's number. It opens a port that is free and prints "port NUMBER", then answers each line of its
// standard input with any number of lines and "end":
//
//   connect PORT              add_client, on the loopback
//   withdraw PORT             del_client
//   send on|off               keep every connection busy, or hand over nothing more
//   stuff PORT COUNT BYTES    that many packets to the peer that connected from the port
//   report                    the lines of traffic_center::report, and "line COUNT TEXT" for each text that was printed
//   stop                      stop and finalize; "figure stopped_ms", and what is left: "figure left_records", ...
//
// The end of its input ends it. Result: 0; 1 when no port could be opened.

#include "Center/INet_Relay/EPoll/epoll.hpp"
#include "Center/INet_Relay/EPoll/epoll_tcp_method.hpp"
#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"
#include "Reference_Host/inbox.hpp"
#include "Reference_Host/ini_file.hpp"
#include "Reference_Host/output_sink.hpp"
#include "tests/race/traffic/traffic_center.hpp"

#include <chrono>
#include <filesystem>
#include <iostream>
#include <memory>
#include <random>
#include <sstream>

#include <unistd.h>

namespace {

using namespace traffic;

namespace relay = Zolt::Center::INet_Relay;
namespace host = Zolt::Reference_Host;

constexpr std::chrono::seconds c_patience{5};

/// The relay flushes standard output by itself; lines go past its buffer, whole.
void say(std::string line) {
    line += '\n';
    if (::write(STDOUT_FILENO, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        std::_Exit(1);
    }
}

void say_figure(std::string const& name, std::size_t value) {
    say("figure " + name + " " + std::to_string(value));
}

std::size_t count_descriptors() {
    auto const entries = std::filesystem::directory_iterator("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

/// What the relay and its host print, by text.
class printed_lines {
public:
    printed_lines() { host::set_output_target(&printed_lines::note, this); }
    ~printed_lines() { host::set_output_target(nullptr, nullptr); }

    void forget() {
        host::drain_output(c_patience);
        std::lock_guard const hold(guard);
        counts.clear();
    }
    void report() {
        host::drain_output(c_patience);
        std::lock_guard const hold(guard);
        for (auto const& [text, count] : counts) {
            say("line " + std::to_string(count) + " " + text);
        }
    }

private:
    static void note(host::output_line const& line, void* self) {
        auto* const all = static_cast<printed_lines*>(self);
        std::lock_guard const hold(all->guard);
        ++all->counts[std::string(line.text)];
    }

    std::mutex guard;
    std::map<std::string, std::size_t> counts;
};

/// Ends what is left of connections after finalize, as a Center that goes on without its relay does.
void clear_registries() {
    using namespace relay::EPoll;
    clear_establish_map(g_establish_server_map);
    clear_establish_map(g_establish_client_map);
    clear_connect_map(g_connect_map);
    clear_connect_map(g_connect_fail_map);
}

/// Records in any registry or list. No thread of the relay may run.
std::size_t count_records() {
    using namespace relay::EPoll;
    std::size_t count = g_establish_server_map.size();
    for (auto const* rec = g_outgoing.first; rec != nullptr; rec = rec->listed.next) {
        ++count;
    }
    for (auto const* list : {&g_accepted_exchanging, &g_accepted_unfiled}) {
        for (auto const* rec = list->first; rec != nullptr; rec = rec->listed.next) {
            ++count;
        }
    }
    for (auto const* rec = g_accepted_ending.first; rec != nullptr; rec = rec->ending.next) {
        ++count;
    }
    return count;
}

class node {
public:
    explicit node(std::uint16_t sender) : center(std::make_unique<traffic_center>(sender)) {
        // The thread that writes lines is made by the first one; from here on it is there.
        host::print_line(host::line_kind::trace, 't', "ready");
        lines.forget();
        descriptors = count_descriptors();
    }

    bool open();
    void serve();

private:
    void obey(std::istringstream& words);
    void stuff(std::istringstream& words);
    void report();
    void stop();

    printed_lines lines;
    std::unique_ptr<traffic_center> center;
    std::size_t descriptors = 0;
};

bool node::open() {
    constexpr int c_attempts = 100;
    std::mt19937 random(static_cast<unsigned>(::getpid()));
    relay::initialize();
    for (int attempt = 0; attempt < c_attempts; ++attempt) {
        auto const port = static_cast<std::uint16_t>(10000 + random() % 20000); // below those that the kernel gives out
        if (relay::add_server(port) == 0) {
            relay::start();
            lines.forget(); // what was said about ports that were taken
            say("port " + std::to_string(port));
            return true;
        }
    }
    return false;
}

void node::serve() {
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream words(line);
        obey(words);
        say("end");
    }
}

void node::obey(std::istringstream& words) {
    std::string command;
    words >> command;
    if (command == "stuff") {
        stuff(words);
    } else if (command == "report") {
        report();
    } else if (command == "stop") {
        stop();
    } else if (command == "send") {
        std::string how;
        words >> how;
        center->send(how == "on");
    } else {
        std::uint16_t port = 0;
        words >> port;
        (command == "connect" ? relay::add_client : relay::del_client)(Zolt::c_local_host, port);
    }
}

void node::stuff(std::istringstream& words) {
    std::uint16_t port = 0;
    int count = 0;
    std::uint32_t size = 0;
    words >> port >> count >> size;
    center->stuff({Zolt::c_local_host, port}, count, size);
}

void node::report() {
    for (std::string const& line : center->report()) {
        say(line);
    }
    lines.report();
}

void node::stop() {
    host::get_center_inbox().stop();
    auto const before = std::chrono::steady_clock::now();
    relay::stop();
    auto const took = std::chrono::steady_clock::now() - before;
    relay::finalize();
    say_figure("stopped_ms", static_cast<std::size_t>(took / std::chrono::milliseconds(1)));
    say_figure("left_records", count_records());
    clear_registries();
    say_figure("left_descriptors", count_descriptors() - descriptors);
}

} // namespace

int main(int count, char** arguments) {
    host::redirect_ini_files("/dev/null"); // every key has its default
    node one(static_cast<std::uint16_t>(count > 1 ? std::atoi(arguments[1]) : 0));
    if (!one.open()) {
        return 1;
    }
    one.serve();
    return 0;
}
