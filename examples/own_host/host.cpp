// A whole host: packets, tokens, the inbox, settings, output, locks, threads, the timer and clocks.
#include "examples/own_host/host.hpp"
#include "Host/tesk_inet.hpp"
#include "Host/tesk_os.hpp"
#include "Host/tesk_utility.hpp"
#include "Host/zolt_global.hpp"

#include <bit>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <utility>

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

// --- packets ---------------------------------------------------------------------------------------------------

namespace Zolt {
namespace {

/// Those up to info are answered with an error when they cannot be delivered.
enum class kind : std::uint32_t { data, call, signal, command, info, call_ack, signal_ack, heartbeat, control, error };

/// What travels in front of each packet's data, in the byte order of both ends.
struct wire_header {
    std::uint32_t version = 0x6D790001, data_size = 0;
    kind what = kind::data;
};

/// What the relay says about a packet. It does not travel: no peer can forge it, and reading a header leaves it alone.
struct stamps {
    struct_node_addr source, destination;
    std::uint32_t group = 0;
    own_host::event told = own_host::event::packet;
};

/// What every struct_packet really is: a header, with the data behind it in the same block.
struct part : struct_packet {
    explicit part(unsigned int data) : bytes(new unsigned char[sizeof(wire_header) + data]) {
        new (bytes.get()) wire_header;
    }
    wire_header& wire() const { return *reinterpret_cast<wire_header*>(bytes.get()); }

    std::unique_ptr<unsigned char[]> const bytes;
    stamps known;
};

wire_header& wire(struct_packet* packet) { return static_cast<part*>(packet)->wire(); }
stamps& known(struct_packet* packet) { return static_cast<part*>(packet)->known; }
bool is(struct_packet* packet, kind what) { return wire(packet).what == what; }

} // namespace

struct_packet& struct_packet::operator=(struct_packet const& other) {
    wire(this) = static_cast<part const&>(other).wire();
    known(this) = static_cast<part const&>(other).known;
    return *this;
}
unsigned char* struct_packet::get_header() { return static_cast<part*>(this)->bytes.get(); }
unsigned int struct_packet::get_header_size() { return sizeof(wire_header); }
unsigned int struct_packet::get_data_size() { return wire(this).data_size; }
void struct_packet::set_data_size(unsigned int size) { wire(this).data_size = size; }
unsigned int struct_packet::get_packet_size() { return get_header_size() + get_data_size(); }
// Only called when alloc_data answered other than 0, which the one below never does.
void struct_packet::set_data(unsigned char*) { std::abort(); }

bool struct_packet::is_right_version() { return wire(this).version == wire_header().version; }
bool struct_packet::is_heartbeat() { return is(this, kind::heartbeat); }
bool struct_packet::is_call_return() { return is(this, kind::call); }
bool struct_packet::is_signal_return() { return is(this, kind::signal); }
bool struct_packet::is_call_return_ack() { return is(this, kind::call_ack); }
bool struct_packet::is_signal_return_ack() { return is(this, kind::signal_ack); }
bool struct_packet::is_command_udp() { return is(this, kind::command); }
bool struct_packet::is_information_udp() { return is(this, kind::info); }
void struct_packet::set_heartbeat_type() { wire(this).what = kind::heartbeat; }
void struct_packet::set_control_type() { wire(this).what = kind::control; }
void struct_packet::set_tcp_connected_to_server() { known(this).told = own_host::event::connected; }
void struct_packet::set_tcp_disconnected_from_server() { known(this).told = own_host::event::disconnected; }
void struct_packet::set_tcp_connected_from_client() { known(this).told = own_host::event::connected; }
void struct_packet::set_tcp_disconnected_from_client() { known(this).told = own_host::event::disconnected; }

// This host has no node ids, no time-outs and no error codes: what the relay says of them is not kept.
unsigned short struct_packet::get_did() { return 0; }
unsigned int struct_packet::get_dst_ip() { return known(this).destination.ip; }
unsigned short struct_packet::get_dst_port() { return known(this).destination.port; }
unsigned int struct_packet::get_mct_ip() { return known(this).group; }
void struct_packet::set_mct_ip(unsigned int ip) { known(this).group = ip; }
void struct_packet::set_src_ip(unsigned int ip) { known(this).source.ip = ip; }
void struct_packet::set_src_port(unsigned short const& port) { known(this).source.port = port; }
void struct_packet::set_source(unsigned int const& ip, unsigned short const& port, unsigned short const&) {
    known(this).source = {ip, port};
}
void struct_packet::set_destination(unsigned int const& ip, unsigned short const& port, unsigned short const&) {
    known(this).destination = {ip, port};
}
void struct_packet::initialize_packet(unsigned int const&, unsigned long const&, double) {}
void struct_packet::initialize_header(unsigned int const&, unsigned short const&, unsigned char const&,
                                      unsigned short const&, unsigned int const&) {}
void struct_packet::determine_arrival_clock(unsigned long const&) {}
bool struct_packet::update_packet_time_and_return_timeout() { return false; }
bool struct_packet::backward_error_switch(unsigned int const&) {
    if (wire(this).what > kind::info) {
        return false;
    }
    wire(this) = {.what = kind::error};
    known(this) = {known(this).destination, known(this).source, 0, own_host::event::came_back};
    return true;
}
void struct_packet::set_swap_address(struct_packet* other) {
    known(this).source = std::exchange(known(this).destination, known(other).source);
}
void struct_packet::set_swap_acktype() { wire(this).what = is_call_return() ? kind::call_ack : kind::signal_ack; }

// --- tokens: a handle points to a node, a node shares up to two parts with other nodes ---------------------------

struct struct_token_node {
    std::shared_ptr<part> header, data;
    std::atomic<int> handles{0}; ///< that will free the header: the one heartbeat waits in many queues at once
};

namespace {

struct_token_node& opened(struct_token_node*& node) { return *(node = node != nullptr ? node : new struct_token_node); }
void drop(struct_token_node*& node, std::shared_ptr<part>& dropped) {
    dropped.reset();
    if (node->header == nullptr && node->data == nullptr) {
        delete std::exchange(node, nullptr);
    }
}

} // namespace

struct_token::struct_token() : node(nullptr) {}
struct_packet* struct_token::get_header_packet() { return node != nullptr ? node->header.get() : nullptr; }
struct_packet* struct_token::get_data_packet() { return node != nullptr ? node->data.get() : nullptr; }
unsigned char* struct_token::get_data() { return has_data() ? node->data->bytes.get() + sizeof(wire_header) : nullptr; }
bool struct_token::has_header() { return get_header_packet() != nullptr; }
bool struct_token::has_data() { return get_data_packet() != nullptr; }
void struct_token::alloc_header_force() {
    opened(node).header = std::make_shared<part>(0);
    node->handles = 1;
}
int struct_token::alloc_data(unsigned int const& size) {
    opened(node).data = std::make_shared<part>(size <= own_host::c_most_data ? size : throw std::bad_alloc());
    return 0;
}
void struct_token::ref_header() { ++node->handles; }
void struct_token::set_header(struct_token const& other) {
    opened(node).header = other.node->header;
    node->handles = 1;
}
void struct_token::set_data(struct_token const& other) { opened(node).data = other.node->data; }
void struct_token::reset() { node = nullptr; }
void struct_token::reset_data() {
    if (has_data()) { // forgotten, not given back
        static_cast<void>(new std::shared_ptr<part>(std::exchange(node->data, nullptr)));
    }
}
void struct_token::free() { free_data(), free_header(); }
void struct_token::free_header() {
    if (has_header() && --node->handles == 0) {
        drop(node, node->header);
    }
}
void struct_token::free_data() {
    if (has_data()) {
        drop(node, node->data);
    }
}

// The block that opens a connection: the ports of both ends, and nothing else that is read.
struct_tcp_header::struct_tcp_header() : block{} {}
void struct_tcp_header::set_port_of_sender(unsigned short port) { std::memcpy(block, &port, sizeof port); }
void struct_tcp_header::set_port_of_receiver(unsigned short port) { std::memcpy(block + 2, &port, sizeof port); }
unsigned short struct_tcp_header::get_port_of_receiver() { return std::uint16_t(block[2] | block[3] << 8); }

} // namespace Zolt

// --- the inbox, where arrivals wait for the Center --------------------------------------------------------------

static constexpr int c_refused = 0x40000007, c_busy = 0x40000008;
static struct {
    std::mutex lock;
    std::condition_variable filled;
    std::deque<own_host::arrival> waiting;
    bool is_closed = false;
} inbox;

bool own_host::wait_for(arrival& next, std::chrono::milliseconds longest) {
    std::unique_lock hold(inbox.lock);
    if (!inbox.filled.wait_for(hold, longest, [] { return !inbox.waiting.empty(); })) {
        return false;
    }
    next = std::move(inbox.waiting.front());
    inbox.waiting.pop_front();
    return true;
}

void own_host::close_inbox() {
    std::scoped_lock const hold(inbox.lock);
    inbox.is_closed = true;
}

Zolt::struct_token own_host::make_packet(Zolt::struct_node_addr to, std::string_view data) {
    Zolt::struct_token token;
    token.alloc_header_force();
    Zolt::known(token.get_header_packet()).destination = to;
    if (!data.empty()) {
        token.alloc_data(Zolt::wire(token.get_header_packet()).data_size = static_cast<unsigned int>(data.size()));
        std::memcpy(token.get_data(), data.data(), data.size());
    }
    return token;
}

int Zolt::Common::Global::send_zolt_center(struct_token& offered) try {
    std::scoped_lock const hold(inbox.lock);
    if (inbox.is_closed || inbox.waiting.size() == own_host::c_most_waiting) {
        return inbox.is_closed ? c_refused : c_busy;
    }
    stamps const& stamp = known(offered.get_header_packet());
    own_host::arrival next{stamp.group == c_local_host ? own_host::event::datagram : stamp.told, stamp.source, {}};
    if (offered.has_data()) {
        next.data.assign(offered.get_data(), offered.get_data() + offered.get_header_packet()->get_data_size());
    }
    inbox.waiting.push_back(std::move(next));
    inbox.filled.notify_one();
    // What was taken stays readable for the thread that offered it until that thread's next offer.
    static thread_local std::unique_ptr<struct_token_node> kept;
    kept.reset(std::bit_cast<struct_token_node*>(offered));
    return 0;
} catch (std::bad_alloc const&) {
    return c_busy;
}

int Zolt::Common::Global::zolt_debug_not_send(char const&, struct_token const&, char const* const&, int const&,
                                              char const*, ...) {
    return 0;
}

// --- settings, output, addresses -------------------------------------------------------------------------------

namespace Tesk::Utility {

// This host has no settings: every key has its default.
char const* get_lwr_string_from_ini_file(char const*, char const*, char const*, char const* value) { return value; }
int get_integer_from_ini_file(char const*, char const*, char const*, int value) { return value; }

void alert(char const* message, char const* title) {
    // Nobody may wait here, also not for a full pipe: the relay prints with locks held.
    pollfd output{STDERR_FILENO, POLLOUT, 0};
    if (::poll(&output, 1, 0) == 1) {
        ::dprintf(STDERR_FILENO, "%s: %.900s\n", title, message);
    }
}
void print_error(char const* message) { alert(message, "relay"); }
void print_error(char const* file, int line) { alert(file, std::to_string(line).c_str()); }
int fflag_on(int descriptor, int flag) { return ::fcntl(descriptor, F_SETFL, ::fcntl(descriptor, F_GETFL) | flag); }
int fflag_off(int descriptor, int flag) { return ::fcntl(descriptor, F_SETFL, ::fcntl(descriptor, F_GETFL) & ~flag); }

} // namespace Tesk::Utility

char const* Tesk::INet::str_from_ip(unsigned int ip) {
    static thread_local char text[INET_ADDRSTRLEN];
    return ::inet_ntop(AF_INET, &ip, text, sizeof text);
}

// --- locks, threads, the timer, clocks -------------------------------------------------------------------------

namespace Tesk::OS {
namespace {

/// Signals are for the program's own threads.
std::jthread start_without_signals(auto entry) {
    sigset_t all, before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    std::jthread started(std::move(entry));
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return started;
}

/// Re-entrant: one word holds the number of the thread that has the lock.
void take(struct_lock_words& lock) {
    thread_local auto const self = static_cast<std::uint32_t>(::gettid());
    for (std::uint32_t owner = 0; !lock.owner.compare_exchange_strong(owner, self) && owner != self; owner = 0) {
        lock.owner.wait(owner);
    }
    ++lock.depth;
}
void give_back(struct_lock_words& lock) {
    if (--lock.depth == 0) {
        lock.owner = 0;
        lock.owner.notify_one();
    }
}

} // namespace

class_thread_lock::class_thread_lock(unsigned int const&) {}
class_thread_lock::~class_thread_lock() = default;
class_locker::class_locker(class_lock& lock, unsigned char*) : held(&lock) { take(held->words); }
class_locker::class_locker(class_lock* lock, unsigned char* unused) : class_locker(*lock, unused) {}
class_locker::~class_locker() { give_back(held->words); }
class_unlocker::class_unlocker(class_lock* lock) : released(lock) { give_back(released->words); }
class_unlocker::~class_unlocker() { take(released->words); }

struct class_thread::thread_state {
    std::jthread thread;
    void* result = nullptr;
};
class_thread::class_thread() : state(new thread_state) {}
class_thread::~class_thread() { delete state; }
int class_thread::eproc_create(void* (*entry)(class_thread*), void*) {
    state->thread = start_without_signals([this, entry] { state->result = entry(this); });
    return 0;
}
int class_thread::proc_wait_exit(void** result) {
    state->thread = std::jthread(); // waits for the one before
    *(result != nullptr ? result : &state->result) = state->result;
    return 0;
}

struct class_timer::timer_state {
    std::jthread thread;
};
class_timer::class_timer() : state(new timer_state) {}
class_timer::~class_timer() { delete state; }
int class_timer::eproc_create(double period, void (*callback)(class_timer*), void*) {
    state->thread = start_without_signals(
        [this, every = std::chrono::duration<double>(period), callback](std::stop_token const& stop) {
            std::mutex lock;
            std::unique_lock hold(lock);
            std::condition_variable_any pause;
            // Each pause begins when the callback has returned: one that is slow loses ticks and brings no burst.
            while (!pause.wait_for(hold, stop, every, [&] { return stop.stop_requested(); })) {
                callback(this);
            }
        });
    return 0;
}
int class_timer::proc_destroy() {
    state->thread = std::jthread(); // asks the one before to stop, and waits for it
    return 0;
}

unsigned long lemon_clock() { return lemon_cpu_clock() / 1000; }
unsigned long lemon_cpu_clock() {
    return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::duration<unsigned long, std::micro>(1);
}
void rtsleep(double seconds) { std::this_thread::sleep_for(std::chrono::duration<double>(seconds)); }
void thread_yield() { std::this_thread::yield(); }

} // namespace Tesk::OS
