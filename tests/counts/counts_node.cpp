// A node of its own process that counts what it does: the relay as it ships, the reference host, and a Center that
// hands over packets as told and takes what comes.
//
// Argument: a number, of no meaning here. It opens a port that is free and prints "port NUMBER", then answers each line
// of its standard input with any number of lines and "end":
//
//   share DESCRIPTOR               the memory that the nodes of a test share
//   center looking|sleeping        how the Center waits for packets: looking, it makes no system call for it
//   stock BYTES                    makes packets of that size and frees them: what can be kept for later is there then
//   connect PORT                   add_client on the loopback; answers when the connection is established
//   tcp PORT BYTES COUNT WINDOW    that many packets to the peer that it connected to, at most WINDOW not yet taken
//   udp BYTES COUNT WINDOW         the same to its own port
//   mark                           forgets what was counted
//   count                          "figure ROLE.KIND COUNT" for each that is not 0, since the mark; and "figure printed.lines COUNT"
//
// What the main thread does but in a stream, as "caller", is not reported. Packets of a window of 1 are handed over when the send thread waits again. The end of its input ends it. Result: 0;
// 1 when no port could be opened; 77 when calls cannot be counted here.

#include "Center/INet_Relay/EPoll/epoll.hpp"
#include "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"
#include "Reference_Host/inbox.hpp"
#include "Reference_Host/ini_file.hpp"
#include "Reference_Host/output_sink.hpp"
#include "Reference_Host/packet_building.hpp"
#include "tests/counts/call_counter.hpp"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <map>
#include <random>
#include <span>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

namespace {

namespace relay = Zolt::Center::INet_Relay;
namespace host = Zolt::Reference_Host;

constexpr std::chrono::seconds c_patience{20};

/// In memory that the nodes share.
struct shared_counts {
    std::atomic<std::uint64_t> taken{0}; ///< data packets, by all Centers
};

/// Lines go past the buffer of standard output, which the relay flushes for each packet.
void say(std::string line) {
    line += '\n';
    if (::write(STDOUT_FILENO, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        std::_Exit(1);
    }
}

/// Waits without being counted; ends the process when it does not come true.
template <class Condition>
void wait_until(Condition const& is_so) {
    auto const deadline = std::chrono::steady_clock::now() + c_patience;
    while (!is_so()) {
        if (std::chrono::steady_clock::now() > deadline) {
            say("fault a condition that does not come true");
            std::_Exit(1);
        }
        counts::yield_uncounted();
    }
}

constinit std::atomic<std::uint64_t> g_lines{0};

/// Nobody reads what is printed: that there was something is a figure.
void note_line(host::output_line const&, void*) {
    ++g_lines;
}

class node {
public:
    node() : worker([this] { take_packets(); }) {}
    ~node();
    node(node const&) = delete;
    node& operator=(node const&) = delete;

    bool open();
    void serve();

private:
    void obey(std::istringstream& words);
    void share(int descriptor);
    static void stock(std::istringstream& words);
    void stream_tcp(std::istringstream& words);
    void stream_udp(std::istringstream& words);
    template <class HandOver>
    void stream(std::istringstream& words, std::uint16_t to, char const* sender, HandOver const& hand_over);
    void count() const;
    void take_packets();
    void wait_for_packets() const;

    std::uint16_t served = 0;
    shared_counts own;
    std::atomic<shared_counts*> shared{&own};
    std::map<std::string, std::uint64_t> marked;
    std::uint64_t lines_marked = 0;
    std::atomic<bool> is_looking{true};
    std::atomic<bool> is_over{false};
    std::atomic<int> connections{0};
    std::thread worker;
};

bool node::open() {
    constexpr int c_attempts = 100;
    std::mt19937 random(static_cast<unsigned>(::getpid()));
    relay::initialize();
    counts::set_role_of_instance(relay::EPoll::epoll_tcp_recv, "tcp_recv");
    counts::set_role_of_instance(relay::EPoll::epoll_tcp_send, "tcp_send");
    counts::set_role_of_instance(relay::EPoll::epoll_udp_recv, "udp_recv");
    counts::set_role_of_instance(relay::EPoll::epoll_udp_send, "udp_send");
    for (int attempt = 0; attempt < c_attempts && served == 0; ++attempt) {
        auto const port = static_cast<std::uint16_t>(10000 + random() % 20000); // below those that the kernel gives out
        served = relay::add_server(port) == 0 ? port : std::uint16_t{0};
    }
    relay::start();
    say("port " + std::to_string(served));
    return served != 0;
}

node::~node() {
    relay::stop();
    relay::finalize();
    relay::clear_leftovers();
    is_over = true;
    host::get_center_inbox().stop();
    worker.join();
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
    if (command == "share") {
        int descriptor = -1;
        words >> descriptor;
        share(descriptor);
    } else if (command == "center") {
        std::string how;
        words >> how;
        is_looking = how == "looking";
        host::get_center_inbox().wake();
    } else if (command == "stock") {
        stock(words);
    } else if (command == "connect") {
        std::uint16_t port = 0;
        words >> port;
        relay::add_client(Zolt::c_local_host, port);
        wait_until([this] { return connections != 0; });
    } else if (command == "tcp") {
        stream_tcp(words);
    } else if (command == "udp") {
        stream_udp(words);
    } else if (command == "mark") {
        marked = counts::read_counts();
        lines_marked = g_lines;
    } else {
        count();
    }
}

void node::share(int descriptor) {
    void* const memory = ::mmap(nullptr, sizeof(shared_counts), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    if (memory == MAP_FAILED) {
        std::_Exit(1);
    }
    shared = static_cast<shared_counts*>(memory);
}

void node::stock(std::istringstream& words) {
    constexpr std::size_t c_stock = 1024;
    std::uint32_t size = 0;
    words >> size;
    std::vector<Zolt::struct_token> tokens;
    for (std::size_t i = 0; i < c_stock; ++i) {
        tokens.push_back(host::make_packet({}, size));
    }
    for (Zolt::struct_token& token : tokens) {
        token.free();
    }
}

void node::stream_tcp(std::istringstream& words) {
    std::uint16_t port = 0;
    words >> port;
    stream(words, port, "tcp_send", [port](Zolt::struct_token& token) {
        return relay::send_tcp_client({Zolt::c_local_host, port}, token, token.get_header_packet());
    });
}

void node::stream_udp(std::istringstream& words) {
    stream(words, served, "udp_send",
           [](Zolt::struct_token& token) { return relay::send_udp(token, token.get_header_packet()); });
}

template <class HandOver>
void node::stream(std::istringstream& words, std::uint16_t to, char const* sender, HandOver const& hand_over) {
    std::uint32_t size = 0;
    std::uint64_t packets = 0;
    std::uint64_t window = 0;
    words >> size >> packets >> window;
    host::packet_plan plan;
    plan.destination = {Zolt::c_local_host, to, 0};
    std::atomic<std::uint64_t> const& taken = shared.load()->taken;
    std::uint64_t const before = taken;
    // A datagram leaves in one piece.
    std::uint64_t const pieces = size == 0 || sender[0] == 'u' ? 1 : 2;
    std::uint64_t waits = counts::count_waits(sender);
    counts::set_role("caller");
    for (std::uint64_t handed = 0; handed < packets; ++handed) {
        wait_until([&] { return before + handed - taken < window; });
        Zolt::struct_token token = host::make_packet(plan, size);
        if (hand_over(token) != 0) {
            std::_Exit(1);
        }
        if (window == 1) {
            waits += pieces;
            wait_until([&] { return counts::count_waits(sender) >= waits; });
        }
    }
    counts::set_role("control");
    wait_until([&] { return taken == before + packets; });
}

void node::count() const {
    for (auto const& [name, value] : counts::read_counts()) {
        auto const known = marked.find(name);
        std::uint64_t const since = value - (known != marked.end() ? known->second : 0);
        if (since != 0 && !name.starts_with("control.")) {
            say("figure " + name + " " + std::to_string(since));
        }
    }
    say("figure printed.lines " + std::to_string(g_lines - lines_marked));
}

void node::wait_for_packets() const {
    while (is_looking && !is_over && host::get_center_inbox().count().packets == 0) {
        counts::yield_uncounted();
    }
}

void node::take_packets() {
    constexpr std::size_t c_batch = 64;
    std::array<Zolt::struct_token, c_batch> tokens;
    counts::set_role("center");
    while (!is_over) {
        wait_for_packets();
        std::size_t const got = host::get_center_inbox().take(tokens, c_patience);
        std::uint64_t packets = 0;
        for (Zolt::struct_token& token : std::span(tokens).first(got)) {
            if (host::is_control(*token.get_header_packet())) {
                ++connections;
            } else {
                ++packets;
            }
            token.free();
        }
        shared.load()->taken += packets;
    }
}

} // namespace

int main() {
    if (!counts::count_calls()) {
        return 77;
    }
    host::redirect_ini_files("/dev/null"); // every key has its default
    host::set_output_target(note_line, nullptr);
    counts::set_role("control");
    node one;
    if (!one.open()) {
        return 1;
    }
    one.serve();
    return 0;
}
