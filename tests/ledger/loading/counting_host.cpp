// A host for the loading tests: it carries no packet, but it knows each object that the relay constructs while it is
// loaded, in order, and holds the relay to destroying them in reverse. The packet operations answer nothing.
#include "tests/ledger/loading/counting_host.hpp"

#include "Host/tesk_inet.hpp"
#include "Host/tesk_os.hpp"
#include "Host/tesk_utility.hpp"
#include "Host/zolt_global.hpp"

#include <algorithm>
#include <array>
#include <cstring>

#include <unistd.h>

namespace loading {

namespace {

struct made_object {
    kind what;
    void const* where;
};

// Constant-initialised: the relay's globals may be constructed before anything of this host.
constinit std::array<void const*, 64> made{};
constinit std::size_t alive = 0;
constinit bool reversed = true;
constinit std::array<made_object, 512> noted{};
constinit std::size_t notes = 0;

void construct(kind what, void const* where) {
    if (alive < made.size()) {
        made[alive] = where;
    }
    alive++;
    note(what, where);
}

// Every object of this program that the host counts lives in the relay's globals, so the last made goes first.
void destroy(void const* where) {
    alive--;
    reversed = reversed && alive < made.size() && made[alive] == where;
    if (alive == 0) {
        char const* const text = reversed ? c_gone_in_reverse : "gone in another order\n";
        if (::write(STDOUT_FILENO, text, std::strlen(text)) == -1) {
            ::_exit(1);
        }
    }
}

} // namespace

std::size_t objects() {
    return alive;
}

void note(kind what, void const* where) {
    if (notes < noted.size()) {
        noted[notes] = {what, where};
    }
    notes++;
}

std::size_t find_note(kind what, void const* where, std::size_t from) {
    for (std::size_t index = from; index < std::min(notes, noted.size()); index++) {
        if (noted[index].what == what && noted[index].where == where) {
            return index;
        }
    }
    return c_not_noted;
}

} // namespace loading

namespace Tesk::OS {

// The guards do nothing: no packet travels here, so no two threads ever meet.
class_thread_lock::class_thread_lock(unsigned int const&) {
    loading::construct(loading::kind::lock, this);
}
class_thread_lock::~class_thread_lock() {
    loading::destroy(this);
}
class_locker::class_locker(class_lock& lock, unsigned char*) : held(&lock) {}
class_locker::class_locker(class_lock* lock, unsigned char*) : held(lock) {}
class_locker::~class_locker() = default;
class_unlocker::class_unlocker(class_lock* lock) : released(lock) {}
class_unlocker::~class_unlocker() = default;

struct class_thread::thread_state {
    pthread_t id;
    void* (*entry)(class_thread*);
    class_thread* self;
};

class_thread::class_thread() : state(nullptr) {
    loading::construct(loading::kind::thread, this);
}
class_thread::~class_thread() {
    loading::destroy(this);
}
int class_thread::eproc_create(void* (*entry)(class_thread*), void*) {
    state = new thread_state{{}, entry, this};
    return ::pthread_create(
        &state->id, nullptr,
        [](void* given) {
            auto* const started = static_cast<thread_state*>(given);
            return started->entry(started->self);
        },
        state);
}
int class_thread::proc_wait_exit(void** result) {
    if (state == nullptr) {
        return 0;
    }
    int const answer = ::pthread_join(state->id, result);
    delete state;
    state = nullptr;
    return answer;
}

// The timer never ticks: nothing here lives for a second.
class_timer::class_timer() : state(nullptr) {
    loading::construct(loading::kind::timer, this);
}
class_timer::~class_timer() {
    loading::destroy(this);
}
int class_timer::eproc_create(double, void (*)(class_timer*), void*) {
    return 0;
}
int class_timer::proc_destroy() {
    return 0;
}

unsigned long lemon_clock() {
    return 1;
}
unsigned long lemon_cpu_clock() {
    return 1;
}
void rtsleep(double) {}
void thread_yield() {}

} // namespace Tesk::OS

namespace Tesk::Utility {

int get_integer_from_ini_file(char const*, char const*, char const*, int fallback) {
    return fallback;
}
char const* get_lwr_string_from_ini_file(char const*, char const*, char const*, char const* fallback) {
    return fallback;
}
void print_error(char const* message) {
    static_cast<void>(::write(STDERR_FILENO, message, std::strlen(message)));
}
void print_error(char const* file, int) {
    print_error(file);
}
void alert(char const* message, char const*) {
    print_error(message);
}
int fflag_on(int, int) {
    return 0;
}
int fflag_off(int, int) {
    return 0;
}

} // namespace Tesk::Utility

namespace Tesk::INet {

char const* str_from_ip(unsigned int) {
    return "";
}

} // namespace Tesk::INet

namespace Zolt {

namespace Common::Global {

int send_zolt_center(struct_token&) {
    return 0x40000007;
}
int zolt_debug_not_send(char const&, struct_token const&, char const* const&, int const&, char const*, ...) {
    return 0;
}

} // namespace Common::Global

// A token is empty, or stands for the heartbeat: the one header that the relay makes before traffic.
struct struct_token_node : struct_packet {};

struct_token::struct_token() : node(nullptr) {
    loading::note(loading::kind::token, this);
}
void struct_token::alloc_header_force() {
    static constinit struct_token_node only_header;
    node = &only_header;
}
int struct_token::alloc_data(unsigned int const&) {
    return -1;
}
struct_packet* struct_token::get_header_packet() {
    return node;
}
struct_packet* struct_token::get_data_packet() {
    return nullptr;
}
unsigned char* struct_token::get_data() {
    return nullptr;
}
bool struct_token::has_header() {
    return node != nullptr;
}
bool struct_token::has_data() {
    return false;
}
void struct_token::ref_header() {}
void struct_token::set_header(struct_token const&) {}
void struct_token::set_data(struct_token const&) {}
void struct_token::reset() {
    node = nullptr;
}
void struct_token::reset_data() {}
void struct_token::free() {
    node = nullptr;
}
void struct_token::free_header() {
    node = nullptr;
}
void struct_token::free_data() {}

struct_packet& struct_packet::operator=(struct_packet const&) = default;
unsigned char* struct_packet::get_header() {
    return nullptr;
}
unsigned int struct_packet::get_header_size() {
    return 1;
}
unsigned int struct_packet::get_packet_size() {
    return 1;
}
unsigned int struct_packet::get_data_size() {
    return 0;
}
unsigned int struct_packet::get_dst_ip() {
    return 0;
}
unsigned int struct_packet::get_mct_ip() {
    return 0;
}
unsigned short struct_packet::get_did() {
    return 0;
}
unsigned short struct_packet::get_dst_port() {
    return 0;
}
bool struct_packet::is_right_version() {
    return false;
}
bool struct_packet::is_heartbeat() {
    return false;
}
bool struct_packet::is_call_return() {
    return false;
}
bool struct_packet::is_signal_return() {
    return false;
}
bool struct_packet::is_call_return_ack() {
    return false;
}
bool struct_packet::is_signal_return_ack() {
    return false;
}
bool struct_packet::is_command_udp() {
    return false;
}
bool struct_packet::is_information_udp() {
    return false;
}
bool struct_packet::update_packet_time_and_return_timeout() {
    return false;
}
bool struct_packet::backward_error_switch(unsigned int const&) {
    return false;
}
void struct_packet::set_data_size(unsigned int) {}
void struct_packet::set_data(unsigned char*) {}
void struct_packet::set_mct_ip(unsigned int) {}
void struct_packet::set_src_ip(unsigned int) {}
void struct_packet::set_src_port(unsigned short const&) {}
void struct_packet::set_source(unsigned int const&, unsigned short const&, unsigned short const&) {}
void struct_packet::set_destination(unsigned int const&, unsigned short const&, unsigned short const&) {}
void struct_packet::initialize_packet(unsigned int const&, unsigned long const&, double) {}
void struct_packet::initialize_header(unsigned int const&, unsigned short const&, unsigned char const&,
                                      unsigned short const&, unsigned int const&) {}
void struct_packet::set_control_type() {}
void struct_packet::set_heartbeat_type() {}
void struct_packet::set_tcp_connected_to_server() {}
void struct_packet::set_tcp_disconnected_from_server() {}
void struct_packet::set_tcp_connected_from_client() {}
void struct_packet::set_tcp_disconnected_from_client() {}
void struct_packet::set_swap_address(struct_packet*) {}
void struct_packet::set_swap_acktype() {}
void struct_packet::determine_arrival_clock(unsigned long const&) {}

struct_tcp_header::struct_tcp_header() : block{} {}
void struct_tcp_header::set_port_of_sender(unsigned short) {}
void struct_tcp_header::set_port_of_receiver(unsigned short) {}
unsigned short struct_tcp_header::get_port_of_receiver() {
    return block[0];
}

} // namespace Zolt
