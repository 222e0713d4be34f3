#include "tests/support/relay_fixture.hpp"

#include <algorithm>
#include <thread>
#include <utility>

namespace relay_test {
namespace {

// How far the ack_lock of a TCP record lies behind its send_lock.
std::ptrdiff_t lock_distance() {
    static std::ptrdiff_t const distance = [] {
        bool const was_recording = recording();
        record(false);
        EPoll::struct_epoll_overlapped_tcp const rec;
        record(was_recording);
        return reinterpret_cast<char const*>(&rec.ack_lock) - reinterpret_cast<char const*>(&rec.send_lock);
    }();
    return distance;
}

// The record of a port is smaller than the distance: its lock may stand that far before any other record's.
bool is_of_a_port(void const* lock) {
    return std::ranges::any_of(EPoll::g_udp_map,
                               [lock](auto const& entry) { return &entry.second->send_lock == lock; });
}

lock_rank classify(void const* lock, bool (*is_live)(void const*)) {
    if (lock == &EPoll::g_client_lock || lock == &EPoll::g_establish_server_map_lock) {
        return lock_rank::registry;
    }
    // An ack_lock stands at a fixed distance behind its record's send_lock. What stands there may also be the ack_lock of
    // a neighbour in memory.
    void const* const before = static_cast<char const*>(lock) - lock_distance();
    bool const is_behind_a_send_lock =
        is_live(before) && !is_of_a_port(before) && classify(before, is_live) == lock_rank::send;
    return is_behind_a_send_lock ? lock_rank::ack : lock_rank::send;
}

void name_thread_array(Tesk::OS::class_thread const (&threads)[EPoll::c_thread_slots], std::string const& name) {
    for (std::size_t at = 0; at < std::size(threads); ++at) {
        name_object(&threads[at], name + "[" + std::to_string(at) + "]");
    }
}

void append(std::vector<std::string>& to, std::vector<std::string> const& more) {
    to.insert(to.end(), more.begin(), more.end());
}

void compare_lines(std::vector<std::string>& found, char const* what, lines expected, lines actual, bool is_any_order) {
    if (is_any_order) {
        std::sort(expected.begin(), expected.end());
        std::sort(actual.begin(), actual.end());
    }
    auto const [wrong, unmatched] = std::mismatch(expected.begin(), expected.end(), actual.begin(), actual.end());
    for (auto at = wrong; at != expected.end(); ++at) {
        found.push_back(std::string("expected ") + what + " is missing here: " + to_text(at->c_str()));
    }
    for (auto at = unmatched; at != actual.end(); ++at) {
        found.push_back(std::string("unexpected ") + what + ": " + to_text(at->c_str()));
    }
}

template <class record_type>
void destroy_all(std::vector<record_type*>& records) {
    for (record_type* const rec : std::exchange(records, {})) {
        delete rec;
    }
}

} // namespace

relay_fixture::relay_fixture() = default;
relay_fixture::~relay_fixture() = default;

void relay_fixture::SetUp() {
    // The first thread of a program may bring helpers that stay: a sanitizer's.
    [[maybe_unused]] static bool const has_had_a_thread = (std::thread([] {}).join(), true);
    clear_journal();
    record(true);
    set_lock_classifier(classify);
    lock_distance();
    reset_host();
    reset_packets();
    reset_names();
    name_relay_globals();
    reset_relay_globals();
    take_failures();
    clear_journal();
    balance_before = take_balance();
}

void relay_fixture::TearDown() {
    destroy_kept();
    for (std::string const& complaint : complaints()) {
        ADD_FAILURE() << complaint;
    }
    system.forget_scripts();
    engine.forget_scripts();
    reset_host();
    reset_packets();
    reset_relay_globals();
    for (std::string const& failure : take_failures()) {
        ADD_FAILURE() << failure;
    }
    clear_journal();
}

void relay_fixture::expect_error(std::string text) {
    expected_errors.push_back(std::move(text));
}
void relay_fixture::expect_position(std::string const& file) {
    expected_errors.push_back(file + ":LINE");
}

void relay_fixture::expect_alert(std::string message) {
    expected_errors.push_back(text("alert_title") + ": " + std::move(message));
}

void relay_fixture::errors_in_any_order() {
    is_any_order = true;
}
void relay_fixture::strict_traces() {
    is_strict = true;
}

void relay_fixture::expect_trace(char letter, std::string const& format) {
    expected_traces.push_back(std::string(1, letter) + " " + format);
}

EPoll::struct_epoll_overlapped_tcp* relay_fixture::make_tcp(int kind, int fd, std::string const& name) {
    auto* const rec = new EPoll::struct_epoll_overlapped_tcp;
    rec->fd = fd;
    rec->kind = kind;
    rec->local_ip = Zolt::c_local_host;
    rec->local_port = 7000;
    rec->gate_port = 7000;
    rec->remote_ip = Zolt::c_local_host;
    rec->remote_port = 9000;
    name_record(rec, name);
    return rec;
}

EPoll::struct_epoll_overlapped_ex* relay_fixture::make_udp(int fd, std::string const& name) {
    auto* const rec = new EPoll::struct_epoll_overlapped_ex;
    rec->fd = fd;
    rec->kind = EPoll::c_kind_udp;
    rec->local_port = 7000;
    name_record(rec, name);
    return rec;
}

EPoll::struct_epoll_overlapped* relay_fixture::make_listening(int fd, std::string const& name) {
    auto* const rec = new EPoll::struct_epoll_overlapped;
    rec->fd = fd;
    rec->kind = EPoll::c_kind_listen;
    rec->local_port = 7000;
    name_object(rec, name);
    return rec;
}

void relay_fixture::keep(EPoll::struct_epoll_overlapped_tcp* rec) {
    kept_tcp.push_back(rec);
}
void relay_fixture::keep(EPoll::struct_epoll_overlapped_ex* rec) {
    kept_udp.push_back(rec);
}
void relay_fixture::keep(EPoll::struct_epoll_overlapped* rec) {
    kept_listening.push_back(rec);
}

void relay_fixture::destroy_kept() {
    destroy_all(kept_tcp);
    destroy_all(kept_udp);
    destroy_all(kept_listening);
    EPoll::free_listening_records();
}

void relay_fixture::check_errors(std::vector<std::string>& found) {
    compare_lines(found, "error line", std::exchange(expected_errors, {}), error_texts(take_errors()), is_any_order);
}

void relay_fixture::check_traces(std::vector<std::string>& found) {
    lines const traces = trace_texts(take_traces());
    if (is_strict) {
        compare_lines(found, "trace", std::exchange(expected_traces, {}), traces, is_any_order);
    }
}

std::vector<std::string> relay_fixture::complaints() {
    std::vector<std::string> found;
    check_errors(found);
    check_traces(found);
    release_offers();
    wait_for_threads(balance_before.threads);
    balance after = take_balance();
    after.locks -= static_cast<long>(2 * kept_tcp.size() + kept_udp.size());
    append(found, differences(balance_before, after));
    append(found, ledger_left());
    if (!recording() && !(after.ledger == balance_before.ledger)) {
        found.push_back("packet parts are left: " + std::to_string(after.ledger.headers) + " headers, " +
                        std::to_string(after.ledger.data_parts) + " data parts, " + std::to_string(after.ledger.nodes) +
                        " nodes");
    }
    append(found, take_failures());
    return found;
}

std::string relay_fixture::all_complaints() {
    std::string all;
    for (std::string const& complaint : complaints()) {
        all += (all.empty() ? "" : "\n") + complaint;
    }
    return all;
}

void name_relay_globals() {
    name_object(&EPoll::epoll_thread_udp_recv, "epoll_thread_udp_recv");
    name_object(&EPoll::epoll_thread_udp_send, "epoll_thread_udp_send");
    name_object(&EPoll::epoll_thread_tcp_init, "epoll_thread_tcp_init");
    name_thread_array(EPoll::epoll_thread_tcp_recv, "epoll_thread_tcp_recv");
    name_thread_array(EPoll::epoll_thread_tcp_send, "epoll_thread_tcp_send");
    name_object(&EPoll::g_client_lock, "g_client_lock");
    name_object(&EPoll::g_establish_server_map_lock, "g_establish_server_map_lock");
    name_object(&EPoll::inet_timer, "inet_timer");
    name_object(&EPoll::heartbeat_token, "heartbeat_token");
    constexpr std::pair<void* (*)(Tesk::OS::class_thread*), char const*> entries[] = {
        {EPoll::epoll_thread_tcp_init_entry, "epoll_thread_tcp_init_entry"},
        {EPoll::epoll_thread_tcp_recv_entry, "epoll_thread_tcp_recv_entry"},
        {EPoll::epoll_thread_tcp_send_entry, "epoll_thread_tcp_send_entry"},
        {EPoll::epoll_thread_udp_recv_entry, "epoll_thread_udp_recv_entry"},
        {EPoll::epoll_thread_udp_send_entry, "epoll_thread_udp_send_entry"},
    };
    for (auto const& [entry, name] : entries) {
        name_object(reinterpret_cast<void const*>(entry), name);
    }
    name_object(reinterpret_cast<void const*>(EPoll::timer_inet), "timer_inet");
}

void name_record(EPoll::struct_epoll_overlapped_ex* rec, std::string const& name) {
    name_object(rec, name);
    name_object(&rec->send_lock, name + ".send_lock");
}

void name_record(EPoll::struct_epoll_overlapped_tcp* rec, std::string const& name) {
    name_record(static_cast<EPoll::struct_epoll_overlapped_ex*>(rec), name);
    name_object(&rec->ack_lock, name + ".ack_lock");
}

void reset_relay_globals() {
    EPoll::g_server_map.clear();
    EPoll::g_udp_map.clear();
    EPoll::g_connect_map.clear();
    EPoll::g_connect_fail_map.clear();
    EPoll::g_establish_client_map.clear();
    EPoll::g_establish_server_map.clear();
    EPoll::g_remote_server_map.clear();
    EPoll::g_outgoing = {};
    EPoll::g_outgoing_ending = {};
    EPoll::g_outgoing_shadowed = 0;
    EPoll::g_accepted_exchanging = {};
    EPoll::g_accepted_ending = {};
    EPoll::g_accepted_unfiled = {};
    while (EPoll::g_arrivals != nullptr) {
        EPoll::forget_arrivals(EPoll::g_arrivals->record);
    }
    EPoll::heartbeat_token.reset();
    EPoll::heartbeat_pkt = nullptr;
    for (int* const instance : {&EPoll::epoll_tcp_init, &EPoll::epoll_tcp_recv, &EPoll::epoll_tcp_send,
                                &EPoll::epoll_udp_recv, &EPoll::epoll_udp_send}) {
        *instance = 0;
    }
    for (bool* const setting : {&EPoll::g_auto_disconnect, &EPoll::g_server_linger_use, &EPoll::g_client_linger_use,
                                &EPoll::g_server_nagle_off_use, &EPoll::g_client_nagle_off_use}) {
        *setting = false;
    }
    EPoll::g_server_socket_reuse = true;
    EPoll::g_listen_backlog = 5;
    EPoll::g_server_linger_time = 0;
    EPoll::g_client_linger_time = 0;
}

} // namespace relay_test
