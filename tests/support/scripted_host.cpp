#include "tests/support/scripted_host.hpp"

#include "Host/tesk_inet.hpp"
#include "Host/tesk_utility.hpp"
#include "Host/zolt_global.hpp"
#include "tests/support/journal.hpp"
#include "tests/support/locks.hpp"
#include "tests/support/real_calls.hpp"
#include "tests/support/scripted_threads.hpp"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <utility>

#include <fcntl.h>

namespace relay_test {
namespace {

struct host_state {
    std::mutex guard;
    std::map<std::string, std::string> ini_texts;
    std::map<std::string, int> ini_numbers;
    std::function<void(std::string const&)> ini_hook;
    std::string ini_answer;
    std::vector<error_line> errors;
    std::function<void(error_line const&)> error_hook;
    std::vector<trace_line> traces;
    std::deque<int> answers;
    std::function<int(packet_fields const&)> decide;
    std::vector<center_offer> offers;
    std::vector<Zolt::struct_token> taken;
};

host_state& state() {
    static auto* const the_state = new host_state;
    return *the_state;
}

constinit std::atomic<int> g_trace_result{0};
constinit std::atomic<int> g_fflag_result{0};
constinit std::atomic<bool> g_check_offer_locks{true};

template <class member, class value>
void set_member(member host_state::*where, value what) {
    host_state& s = state();
    std::lock_guard const hold(s.guard);
    s.*where = std::move(what);
}

template <class member>
member get_member(member host_state::*where) {
    host_state& s = state();
    std::lock_guard const hold(s.guard);
    return s.*where;
}

template <class member>
member take_member(member host_state::*where) {
    host_state& s = state();
    std::lock_guard const hold(s.guard);
    return std::exchange(s.*where, {});
}

int next_of(std::deque<int> host_state::*script, int fallback) {
    host_state& s = state();
    std::lock_guard const hold(s.guard);
    if ((s.*script).empty()) {
        return fallback;
    }
    int const next = (s.*script).front();
    (s.*script).pop_front();
    return next;
}

// The line in the journal comes last, when the error is there to be taken: tests wait for the line. A hook that throws
// stands for a host that could not print.
void write_error(char const* name, error_line const& line) {
    if (auto const hook = get_member(&host_state::error_hook)) {
        hook(line);
    }
    {
        host_state& s = state();
        std::lock_guard const hold(s.guard);
        s.errors.push_back(line);
    }
    note(about::error, "", name, line.text.c_str());
}

// How the arguments of a format are to be read. The delete trace names six conversions and comes with two texts.
std::vector<std::string> conversions_of(std::string_view format) {
    if (format == "delete %s overlapped %d.%d.%d.%d") {
        return {"s", "s"};
    }
    std::vector<std::string> found;
    for (std::size_t at = format.find('%'); at != std::string_view::npos; at = format.find('%', at)) {
        ++at;
        if (at < format.size() && format[at] == '%') {
            ++at;
            continue;
        }
        at = format.find_first_not_of("0123456789.-+# ", at);
        std::size_t const end = at == std::string_view::npos ? at : format.find_first_not_of("lhz", at);
        if (end == std::string_view::npos) {
            break;
        }
        found.emplace_back(format.substr(at, end + 1 - at));
        at = end;
    }
    return found;
}

std::vector<trace_argument> read_arguments(char const* format, va_list list) {
    std::vector<trace_argument> arguments;
    for (std::string const& conversion : conversions_of(format)) {
        if (conversion == "s") {
            char const* const text = va_arg(list, char const*);
            arguments.emplace_back(text == nullptr ? std::string("null") : std::string(text));
        } else if (conversion == "d" || conversion == "i") {
            arguments.emplace_back(long{va_arg(list, int)});
        } else if (conversion == "u" || conversion == "x" || conversion == "X") {
            arguments.emplace_back(static_cast<unsigned long>(va_arg(list, unsigned int)));
        } else if (conversion == "lu" || conversion == "lx" || conversion == "lX" || conversion == "zu") {
            arguments.emplace_back(va_arg(list, unsigned long));
        } else if (conversion == "ld") {
            arguments.emplace_back(va_arg(list, long));
        } else if (conversion == "p") {
            arguments.emplace_back(static_cast<void const*>(va_arg(list, void*)));
        } else {
            report_failure("trace format with an unknown conversion: " + std::string(format));
            break;
        }
    }
    return arguments;
}

// What this thread's last accepted offer was, while recording is off: released by its next one.
struct last_taken {
    Zolt::struct_token token;
    bool held = false;
    void let_go() {
        if (std::exchange(held, false)) {
            release_taken(token);
        }
    }
    ~last_taken() { let_go(); }
};
thread_local last_taken t_last_taken;

center_offer describe_offer(Zolt::struct_token& token) {
    center_offer offer;
    offer.token = token_name(token);
    offer.thread = thread_name();
    offer.locks = held_locks();
    if (has_header_part(token)) {
        offer.packet = fields_of(token);
        offer.header = header_of(token);
        offer.data = offer.packet.data;
    }
    return offer;
}

int decide(packet_fields const& packet) {
    auto const own = get_member(&host_state::decide);
    return own ? own(packet) : next_of(&host_state::answers, c_center_took);
}

int offer_unrecorded(Zolt::struct_token& token) {
    t_last_taken.let_go();
    int const answer = decide(fields_of(token));
    if (answer == c_center_took) {
        mark_taken(token);
        t_last_taken.token = token;
        t_last_taken.held = true;
    }
    return answer;
}

int offer_recorded(Zolt::struct_token& token) {
    center_offer offer = describe_offer(token);
    if (g_check_offer_locks.load() && holds_registry_or_ack_lock()) {
        report_failure("send_zolt_center called under a registry lock or an ack_lock");
    }
    offer.answer = decide(offer.packet);
    int const answer = offer.answer;
    std::string const name = offer.token;
    {
        host_state& s = state();
        std::lock_guard const hold(s.guard);
        s.offers.push_back(std::move(offer));
        if (answer == c_center_took) {
            mark_taken(token);
            s.taken.push_back(token);
        }
    }
    // The line comes last: who waits for it finds the offer.
    set_result(note(about::center, "", "send_zolt_center", name), hex(static_cast<unsigned>(answer)));
    return answer;
}

} // namespace

void set_ini(std::string const& key, std::string value) {
    host_state& s = state();
    std::lock_guard const hold(s.guard);
    s.ini_texts[key] = std::move(value);
}

void set_ini(std::string const& key, int value) {
    host_state& s = state();
    std::lock_guard const hold(s.guard);
    s.ini_numbers[key] = value;
}

void on_ini(std::function<void(std::string const&)> hook) {
    set_member(&host_state::ini_hook, std::move(hook));
}

std::vector<error_line> take_errors() {
    return take_member(&host_state::errors);
}

lines error_texts(std::vector<error_line> const& errors) {
    lines texts;
    for (error_line const& error : errors) {
        texts.push_back(error.line != 0 ? error.text + ":LINE"
                                        : (error.title.empty() ? "" : error.title + ": ") + error.text);
    }
    return texts;
}

void on_error_line(std::function<void(error_line const&)> hook) {
    set_member(&host_state::error_hook, std::move(hook));
}

std::vector<trace_line> take_traces() {
    return take_member(&host_state::traces);
}

lines trace_texts(std::vector<trace_line> const& traces) {
    lines texts;
    for (trace_line const& trace : traces) {
        texts.push_back(std::string(1, trace.letter) + " " + trace.text);
    }
    return texts;
}

void set_trace_result(int result) {
    g_trace_result.store(result);
}

void script_center(std::vector<int> next) {
    set_member(&host_state::answers, std::deque<int>(next.begin(), next.end()));
}

void on_offer(std::function<int(packet_fields const&)> decide) {
    set_member(&host_state::decide, std::move(decide));
}
std::vector<center_offer> take_offers() {
    return take_member(&host_state::offers);
}
void check_offer_locks(bool on) {
    g_check_offer_locks.store(on);
}
void set_fflag_result(int result) {
    g_fflag_result.store(result);
}

void release_offers() {
    for (Zolt::struct_token const& token : take_member(&host_state::taken)) {
        release_taken(token);
    }
    t_last_taken.let_go();
}

void reset_host() {
    release_offers();
    reset_threads();
    host_state& s = state();
    std::lock_guard const hold(s.guard);
    s.ini_texts.clear();
    s.ini_numbers.clear();
    s.ini_hook = nullptr;
    s.errors.clear();
    s.error_hook = nullptr;
    s.traces.clear();
    s.answers.clear();
    s.decide = nullptr;
    s.offers.clear();
    g_trace_result.store(0);
    g_fflag_result.store(0);
    g_check_offer_locks.store(true);
    spoil_errno(-1);
}

} // namespace relay_test

namespace Tesk::Utility {

using namespace relay_test;

int get_integer_from_ini_file(char const* file, char const* section, char const* key, int fallback) {
    errno_guard const keep;
    note(about::ini, "", "get_integer_from_ini_file", file, section, key, fallback);
    if (auto const hook = get_member(&host_state::ini_hook)) {
        hook(key);
    }
    auto const numbers = get_member(&host_state::ini_numbers);
    auto const found = numbers.find(key);
    return found == numbers.end() ? fallback : found->second;
}

char const* get_lwr_string_from_ini_file(char const* file, char const* section, char const* key, char const* fallback) {
    errno_guard const keep;
    note(about::ini, "", "get_lwr_string_from_ini_file", file, section, key, fallback);
    if (auto const hook = get_member(&host_state::ini_hook)) {
        hook(key);
    }
    host_state& s = state();
    std::lock_guard const hold(s.guard);
    auto const found = s.ini_texts.find(key);
    s.ini_answer = found == s.ini_texts.end() ? std::string(fallback) : found->second;
    std::transform(s.ini_answer.begin(), s.ini_answer.end(), s.ini_answer.begin(),
                   [](char letter) { return static_cast<char>(std::tolower(static_cast<unsigned char>(letter))); });
    return s.ini_answer.c_str();
}

void print_error(char const* message) {
    errno_guard const keep;
    write_error("print_error", {message, 0, {}, thread_name()});
}

void print_error(char const* file, int line) {
    errno_guard const keep;
    write_error("print_error", {file, line, {}, thread_name()});
}

void alert(char const* message, char const* title) {
    errno_guard const keep;
    write_error("alert", {message, 0, title, thread_name()});
}

namespace {

int change_flag(char const* name, int descriptor, int flag, bool on) {
    errno_guard const keep;
    note(about::flags, "", name, descriptor_name(descriptor), hex(static_cast<unsigned>(flag)));
    int const before = real::fcntl(descriptor, F_GETFL, 0);
    if (before != -1) {
        real::fcntl(descriptor, F_SETFL, on ? before | flag : before & ~flag);
    }
    return g_fflag_result.load();
}

} // namespace

int fflag_on(int descriptor, int flag) {
    return change_flag("fflag_on", descriptor, flag, true);
}
int fflag_off(int descriptor, int flag) {
    return change_flag("fflag_off", descriptor, flag, false);
}

} // namespace Tesk::Utility

namespace Tesk::INet {

// One buffer a thread, overwritten by each of its calls: a text that is kept shows as a wrong one.
char const* str_from_ip(unsigned int ip) {
    using namespace relay_test;
    errno_guard const keep;
    note(about::text, "", "str_from_ip", hex(ip));
    thread_local char text[16];
    unsigned char part[4];
    std::memcpy(part, &ip, sizeof part);
    std::string const dotted = std::to_string(part[0]) + "." + std::to_string(part[1]) + "." + std::to_string(part[2]) +
                               "." + std::to_string(part[3]);
    std::memcpy(text, dotted.c_str(), dotted.size() + 1);
    return text;
}

} // namespace Tesk::INet

namespace Zolt::Common::Global {

using namespace relay_test;

int send_zolt_center(struct_token& token) {
    errno_guard const keep;
    return recording() ? offer_recorded(token) : offer_unrecorded(token);
}

int zolt_debug_not_send(char const& letter, struct_token const& token, char const* const& file, int const& line,
                        char const* format, ...) {
    errno_guard const keep;
    if (!recording()) {
        return g_trace_result.load();
    }
    trace_line trace;
    trace.letter = letter;
    trace.has_header = has_header_part(token);
    trace.token = token_name(token);
    trace.file = file;
    trace.line = line;
    trace.format = format;
    trace.text = format;
    trace.thread = thread_name();
    trace.locks = held_locks();
    va_list list;
    va_start(list, format);
    trace.arguments = read_arguments(format, list);
    va_end(list);
    note(about::trace, "", "zolt_debug_not_send", std::string(1, letter), trace.token, format);
    host_state& s = state();
    std::lock_guard const hold(s.guard);
    s.traces.push_back(std::move(trace));
    return g_trace_result.load();
}

} // namespace Zolt::Common::Global
