#include "Reference_Center/connection_observer.hpp"

#include "Reference_Center/error_description.hpp"
#include "Reference_Center/hand_over_book.hpp"
#include "Reference_Center/socket_facts.hpp"
#include "Reference_Host/packet_reading.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/tcp.h>
#include <utility>

namespace Zolt::Reference_Center {
namespace {

using Reference_Host::connection_event;
using std::chrono::steady_clock;

/// The relay gives an attempt up after 8000 ticks; a little less, because this clock began a little later.
constexpr std::chrono::milliseconds c_attempt_time{7900};
constexpr unsigned int c_reason_bits = 8;

/// What this thread is doing: the destination that the relay tries on it, and the error of its last failed receive.
struct thread_state {
    std::optional<struct_node_addr> trying;
    int receive_error = 0;
};
constinit thread_local thread_state t_state;

/// Texts of the relay that tell of an attempt's failure, each on the thread that made it, with errno as its cause.
bool tells_of_failed_attempt(std::string_view text) {
    return text.starts_with("connect err:") || text == "bind" || text == "소켓 생성 실패";
}

bool tells_of_failed_receive(std::string_view text) {
    return text == "recv client 에러" || text == "recv server 에러";
}

std::uint32_t ip_argument(std::va_list arguments) {
    return ::inet_addr(va_arg(arguments, char const*));
}

bool is_given_up(int error) {
    return error == ETIMEDOUT || error == EHOSTUNREACH || error == ENETUNREACH || error == EHOSTDOWN ||
           error == ENETDOWN;
}

/// Of the socket of a connection that the relay ends, and which was not withdrawn.
connection_end judge(int state, int error) {
    if (state == TCP_FIN_WAIT1 || state == TCP_FIN_WAIT2 || state == TCP_CLOSING) {
        return {close_reason::silent, 0};
    }
    // A receive that gave nothing leaves an error of before; only a socket that is closed had one.
    if (state != TCP_CLOSE || error == 0) {
        return {};
    }
    return {is_given_up(error) ? close_reason::send_failed : close_reason::reset, error};
}

/// The first one behind that key for which it holds, or else the first one at all, or the end.
template <typename Map, typename Condition>
typename Map::iterator find_after(Map& map, typename Map::key_type const& last, Condition const& condition) {
    auto const after = std::find_if(map.upper_bound(last), map.end(), condition);
    return after != map.end() ? after : std::find_if(map.begin(), map.end(), condition);
}

/// In the code of the notice, which the relay leaves 0: the reason and 1, and the error.
void write_end(struct_packet& notice, connection_end end) {
    Reference_Host::set_code(notice, (static_cast<std::uint32_t>(end.reason) + 1) |
                                         static_cast<std::uint32_t>(end.error) << c_reason_bits);
}

} // namespace

connection_end end_of(struct_packet const& notice) {
    std::uint32_t const code = Reference_Host::get_code(notice);
    std::uint32_t const reason = code & ((1U << c_reason_bits) - 1);
    return {static_cast<close_reason>(reason - 1), static_cast<int>(code >> c_reason_bits)};
}

std::string end_text(connection_end end) {
    switch (end.reason) {
    case close_reason::peer_closed:
        return "the peer closed the connection";
    case close_reason::silent:
        return "nothing arrived within the relay's time-out";
    case close_reason::deleted:
        return "this Center withdrew the destination";
    case close_reason::shutdown:
        return "this Center stopped";
    default:
        return describe_error(end.error);
    }
}

connection_observer::connection_observer(std::vector<std::uint16_t> served, closed_connections& ring)
    : ports(std::move(served)), closed(ring) {
    Reference_Host::set_relay_observer(this);
}

connection_observer::~connection_observer() {
    Reference_Host::set_relay_observer(nullptr);
}

// --- destinations ------------------------------------------------------------------------------------------------

connection_observer::adding::adding(connection_observer& of, struct_node_addr destination) {
    std::lock_guard const hold(of.lock);
    // As the relay counts: only a destination that it does not know is tried.
    auto const [entry, is_new] = of.known.try_emplace(destination);
    ++entry->second.count;
    if (is_new) {
        entry->second.is_wanted = true;
        t_state.trying = destination;
    }
}

connection_observer::adding::~adding() {
    t_state.trying = std::nullopt;
}

bool connection_observer::withdraw(struct_node_addr destination) {
    std::lock_guard const hold(lock);
    if (--known[destination].count != 0) {
        return false;
    }
    attempts.erase(known[destination].attempt);
    known.erase(destination);
    return true;
}

void connection_observer::note_stopping() {
    std::lock_guard const hold(lock);
    stopping = true;
}

std::optional<connection_observer::moment> connection_observer::find_attempt(struct_node_addr address) const {
    std::lock_guard const hold(lock);
    auto const entry = known.find(address);
    return entry != known.end() && entry->second.is_under_way ? std::optional(entry->second.since) : std::nullopt;
}

bool connection_observer::is_wanted(struct_node_addr address) const {
    std::lock_guard const hold(lock);
    auto const entry = known.find(address);
    return entry != known.end() && entry->second.is_wanted;
}

void connection_observer::choose_next_to_retry(std::uint32_t ip) {
    auto const is_there = [ip](destinations::value_type const& entry) {
        return entry.first.ip == ip && entry.second.is_wanted;
    };
    auto const waits = [&](destinations::value_type const& entry) {
        return is_there(entry) && !entry.second.is_under_way && !entry.second.is_established;
    };
    auto chosen = find_after(known, last_retried, waits);
    if (chosen == known.end()) {
        // The relay may be quicker than the notice of an end.
        chosen = std::find_if(known.begin(), known.end(), is_there);
    }
    t_state.trying = std::nullopt;
    if (chosen != known.end()) {
        last_retried = chosen->first;
        t_state.trying = chosen->first;
    }
}

void connection_observer::begin_attempt() {
    if (!t_state.trying) {
        return;
    }
    auto const entry = known.find(*t_state.trying);
    if (entry == known.end()) {
        return;
    }
    attempts.erase(entry->second.attempt);
    entry->second.attempt = ++last_attempt;
    attempts.emplace(last_attempt, entry->first);
    entry->second.is_under_way = true;
    entry->second.is_connected = false;
    entry->second.is_established = false;
    entry->second.descriptor = -1;
    entry->second.since = steady_clock::now();
}

/// Of the attempts under way to that address, the one whose socket shows it. The kernel tells of attempts in the order in
/// which they began: whoever looks behind the last one need not look at those before it again. When no socket shows it,
/// the one whose socket is gone.
connection_observer::destinations::iterator connection_observer::find_failed(std::uint32_t ip) {
    auto gone = known.end();
    auto const has_failed = [&](auto const& begun) {
        auto const entry = known.find(begun.second);
        if (begun.second.ip != ip || entry == known.end() || !entry->second.is_under_way) {
            return false;
        }
        int const descriptor = entry->second.descriptor;
        auto const info = read_tcp_info(descriptor);
        gone = info || descriptor == -1 ? gone : entry;
        return info && info->tcpi_state != TCP_SYN_SENT && info->tcpi_state != TCP_ESTABLISHED;
    };
    auto const failed = find_after(attempts, last_failed, has_failed);
    if (failed == attempts.end()) {
        return gone;
    }
    last_failed = failed->first;
    return known.find(failed->second);
}

void connection_observer::end_attempt(destinations::iterator failed, close_reason reason, std::string detail) {
    failed->second.is_under_way = false;
    closed_report report;
    report.who = {failed->first, way::outgoing};
    report.reason = reason;
    report.detail = std::move(detail);
    closed.add(std::move(report));
}

void connection_observer::note_failed_exchange(std::uint32_t ip) {
    auto const failed = find_failed(ip);
    if (failed == known.end()) {
        return;
    }
    bool const took_long = steady_clock::now() - failed->second.since >= c_attempt_time;
    // The socket is closed next: nobody misses its error.
    int const error = take_socket_error(failed->second.descriptor);
    forget_descriptor(failed->second.descriptor);
    if (failed->second.is_connected) {
        end_attempt(failed, close_reason::init_failed,
                    took_long    ? "the peer did not complete the opening exchange in time"
                    : error != 0 ? describe_error(error)
                                 : "the connection ended within the opening exchange");
    } else if (took_long || error == ETIMEDOUT) {
        end_attempt(failed, close_reason::connect_timeout, "the peer did not answer in time");
    } else {
        end_attempt(failed, close_reason::refused, error != 0 ? describe_error(error) : "the attempt was ended");
    }
}

// --- what the relay does with its host -----------------------------------------------------------------------------

void connection_observer::on_error(std::string_view text) {
    int const error = errno;
    if (tells_of_failed_receive(text)) {
        t_state.receive_error = error;
    } else if (text == "sent err : ") {
        note_failed_datagram();
    } else if (t_state.trying && tells_of_failed_attempt(text)) {
        std::lock_guard const hold(lock);
        auto const failed = known.find(*t_state.trying);
        if (failed != known.end() && failed->second.is_under_way) {
            std::string const what = text == "bind" ? "the local port of before cannot be used: " : "";
            end_attempt(failed, close_reason::refused, what + describe_error(error));
        }
    }
    errno = error;
}

namespace {

bool begins_with(char const* text, std::string_view beginning) {
    return std::all_of(beginning.begin(), beginning.end(), [&](char letter) { return *text++ == letter; });
}

/// Whether it is a trace that comes with every packet.
bool is_of_packets(char const* format) {
    return (format[0] != 't' && format[0] != 'r') || begins_with(format, "tcp s") || begins_with(format, "tcp rec");
}

} // namespace

void connection_observer::on_trace(char const* format, struct_token& token, std::va_list arguments) {
    if (is_of_packets(format)) {
        return;
    }
    if (std::strcmp(format, "tcp broadcast send") == 0) {
        if (marks) {
            marks(token);
        }
    } else if (std::strcmp(format, "tcp request connect %s") == 0) {
        std::lock_guard const hold(lock);
        begin_attempt();
    } else if (std::strcmp(format, "reconnect faults %s") == 0) {
        std::lock_guard const hold(lock);
        choose_next_to_retry(ip_argument(arguments));
    } else if (std::strcmp(format, "tcp init failed %s") == 0) {
        std::lock_guard const hold(lock);
        note_failed_exchange(ip_argument(arguments));
    }
}

void connection_observer::on_notice(struct_packet& notice) {
    if (Reference_Host::get_code(notice) != 0) {
        return; // offered before
    }
    connection_event const event = Reference_Host::get_event(notice);
    auto const source = Reference_Host::get_source(notice);
    bool const is_accepted =
        event == connection_event::connected_from_client || event == connection_event::disconnected_from_client;
    peer const who{{source.ip, source.port}, is_accepted ? way::accepted : way::outgoing};
    std::lock_guard const hold(lock);
    auto const destination = is_accepted ? known.end() : known.find(who.address);
    bool const is_begin =
        event == connection_event::connected_from_client || event == connection_event::connected_to_server;
    if (destination != known.end()) {
        destination->second.is_established = is_begin;
        destination->second.is_under_way = destination->second.is_under_way && !is_begin;
    }
    if (is_begin) {
        if (auto const found = find_socket(who); found != open.end()) {
            found->second.is_established = true;
        }
        return;
    }
    write_end(notice, find_end(who));
}

void connection_observer::on_descriptor(int descriptor, bool is_blocking) {
    int const error = errno;
    std::lock_guard const hold(lock);
    if (is_blocking) {
        take_connected(descriptor);
    } else if (!has_listening) {
        candidates.push_back(descriptor);
    } else if (auto const entry = t_state.trying ? known.find(*t_state.trying) : known.end(); entry != known.end()) {
        entry->second.descriptor = descriptor;
    }
    errno = error;
}

// --- sockets -------------------------------------------------------------------------------------------------------

void connection_observer::take_connected(int descriptor) {
    forget_descriptor(descriptor);
    auto const remote = read_remote_address(descriptor);
    if (!remote) {
        return; // gone already
    }
    bool const is_accepted = std::find(ports.begin(), ports.end(), read_local_port(descriptor)) != ports.end();
    peer const who{*remote, is_accepted ? way::accepted : way::outgoing};
    open.insert({who, {descriptor, read_socket_cookie(descriptor), false}});
    by_descriptor[descriptor] = who;
    if (auto const entry = known.find(*remote); !is_accepted && entry != known.end()) {
        entry->second.is_connected = true;
    }
}

void connection_observer::forget_descriptor(int descriptor) {
    auto const known_as = by_descriptor.find(descriptor);
    if (known_as == by_descriptor.end()) {
        return;
    }
    auto const [begin, end] = open.equal_range(known_as->second);
    auto const gone =
        std::find_if(begin, end, [&](auto const& entry) { return entry.second.descriptor == descriptor; });
    if (!gone->second.is_established && gone->first.via == way::accepted) {
        closed_report report;
        report.who = gone->first;
        report.reason = close_reason::init_failed;
        report.detail = "the connection ended within the opening exchange";
        closed.add(std::move(report));
    }
    open.erase(gone);
    by_descriptor.erase(known_as);
}

/// Of several with one name, the one that has ended.
connection_observer::sockets::iterator connection_observer::find_socket(peer const& who) {
    auto const [begin, end] = open.equal_range(who);
    auto const ended = std::find_if(begin, end, [](sockets::value_type const& entry) {
        auto const info = read_tcp_info(entry.second.descriptor);
        return info && info->tcpi_state != TCP_ESTABLISHED;
    });
    if (ended != end) {
        return ended;
    }
    return begin != end ? begin : open.end();
}

connection_end connection_observer::find_end(peer const& who) {
    int const receive_error = std::exchange(t_state.receive_error, 0);
    auto const found = find_socket(who);
    connection_end end;
    if (found != open.end()) {
        int const descriptor = found->second.descriptor;
        auto const info = read_tcp_info(descriptor);
        // A failed receive has taken the error already.
        int const error = receive_error != 0 ? receive_error : take_socket_error(descriptor);
        end = judge(info ? static_cast<int>(info->tcpi_state) : static_cast<int>(TCP_CLOSE), error);
        found->second.is_established = true;
        forget_descriptor(descriptor);
    }
    if (stopping) {
        end = {close_reason::shutdown, 0};
    } else if (who.via == way::outgoing && !known.contains(who.address)) {
        end = {close_reason::deleted, 0};
    }
    return end;
}

std::optional<double> connection_observer::find_silence(peer const& who) const {
    std::lock_guard const hold(lock);
    auto const found = open.find(who);
    if (found == open.end() || read_socket_cookie(found->second.descriptor) != found->second.cookie) {
        return std::nullopt;
    }
    auto const info = read_tcp_info(found->second.descriptor);
    return info ? std::optional(info->tcpi_last_data_recv / 1000.0) : std::nullopt;
}

std::vector<listening_socket> connection_observer::take_listening() {
    std::lock_guard const hold(lock);
    has_listening = true;
    std::vector<listening_socket> found;
    for (int const descriptor : std::exchange(candidates, {})) {
        if (is_listening(descriptor)) {
            found.push_back({read_local_port(descriptor), descriptor});
        }
    }
    return found;
}

void connection_observer::sweep() {
    std::lock_guard const hold(lock);
    std::vector<int> gone;
    for (auto const& [who, socket] : open) {
        if (!socket.is_established && read_socket_cookie(socket.descriptor) != socket.cookie) {
            gone.push_back(socket.descriptor);
        }
    }
    std::for_each(gone.begin(), gone.end(), [this](int descriptor) { forget_descriptor(descriptor); });
}

} // namespace Zolt::Reference_Center
