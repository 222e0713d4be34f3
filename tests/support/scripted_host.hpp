// The scripted host: what the relay asks of its host, answered as a test says and written into the journal.
//
// Controls may be used from any thread. Everything is put back by reset_host, which the fixture calls.
#ifndef TESTS_SUPPORT_SCRIPTED_HOST_HPP
#define TESTS_SUPPORT_SCRIPTED_HOST_HPP

#include "Host/tesk_os.hpp"
#include "tests/support/journal.hpp"
#include "tests/support/packets.hpp"

#include <functional>
#include <string>
#include <variant>
#include <vector>

namespace relay_test {

// --- clocks and pauses -----------------------------------------------------------------------------------------

/// Both clocks stand still until set. After reset: 100000 and 500000.
void set_clock(unsigned long ticks);
void advance_clock(unsigned long ticks);
void set_cpu_clock(unsigned long count);
/// rtsleep and thread_yield return at once; these run inside them. Null: nothing.
void on_rtsleep(std::function<void(double)> hook);
void on_thread_yield(std::function<void()> hook);

// --- threads and the timer -------------------------------------------------------------------------------------

/// Off (as after reset): class_thread::eproc_create only writes its line. On: it starts a real thread, which
/// proc_wait_exit joins.
void start_threads(bool on);
/// Results of the next class_thread and class_timer eproc_create calls; 0 when the list is used up.
void script_create_results(std::vector<int> next);
/// Entries that have returned so far, of real threads.
int returned_threads();
/// True while a real thread of this object has been started and not yet joined.
bool is_running(Tesk::OS::class_thread const& thread);
/// Steps the timer once, on the calling thread; reports a failure when it is not running.
void tick(Tesk::OS::class_timer& timer);
bool is_running(Tesk::OS::class_timer const& timer);

// --- configuration ---------------------------------------------------------------------------------------------

/// The file has this value; keys that nobody set are missing, so that the default is answered. Strings are answered
/// in lower case, from one buffer that the next call overwrites.
void set_ini(std::string const& key, std::string value);
void set_ini(std::string const& key, int value);
/// Runs inside both ini operations, before the answer, with the key.
void on_ini(std::function<void(std::string const&)> hook);

// --- error output ----------------------------------------------------------------------------------------------

/// One print_error or alert. A position has line != 0; an alert has a title.
struct error_line {
    std::string text;
    int line = 0;
    std::string title;
    std::string thread;
};
/// Every error line and alert since the last take.
std::vector<error_line> take_errors();
/// Texts only, positions as "file:LINE" and alerts as "title: message".
lines error_texts(std::vector<error_line> const& errors);
/// Runs inside print_error (both forms) and alert.
void on_error_line(std::function<void(error_line const&)> hook);

// --- traces ----------------------------------------------------------------------------------------------------

/// One argument of a trace, as passed. Text is copied during the call.
using trace_argument = std::variant<long, unsigned long, double, std::string, void const*>;

struct trace_line {
    char letter = 0;
    bool has_header = false;
    std::string token; ///< token_name
    std::string file;
    int line = 0;
    char const* format = nullptr; ///< the pointer that was passed
    std::string text;             ///< the format's characters
    std::vector<trace_argument> arguments;
    std::string thread;
    std::vector<std::string> locks;
};
/// Every trace since the last take. The delete trace is read with exactly two text arguments.
std::vector<trace_line> take_traces();
/// "letter text" of each.
lines trace_texts(std::vector<trace_line> const& traces);
/// Result of zolt_debug_not_send; 0 after reset.
void set_trace_result(int result);

// --- the Center ------------------------------------------------------------------------------------------------

inline constexpr int c_center_took = 0;
inline constexpr int c_center_refused = 0x40000007;
inline constexpr int c_center_busy = 0x40000008;

/// One offer, with the bytes as they were at that moment.
struct center_offer {
    std::string token;
    packet_fields packet;
    bytes header;
    bytes data;
    int answer = 0;
    std::string thread;
    std::vector<std::string> locks;
};
/// Answers of the next offers; "took" when the list is used up.
void script_center(std::vector<int> next);
/// Decides instead of the list. Null: the list again.
void on_offer(std::function<int(packet_fields const&)> decide);
/// Every offer since the last take. Parts that the Center took go back to the ledger at reset_host.
std::vector<center_offer> take_offers();
/// Gives those parts back now.
void release_offers();
/// An offer under a registry lock or an ack_lock is reported; switch off for a host that does not mind.
void check_offer_locks(bool on);

// --- descriptor flags ------------------------------------------------------------------------------------------

/// fflag_on and fflag_off act on the real descriptor and answer this; 0 after reset.
void set_fflag_result(int result);

/// Puts every control back and frees what the Center took. Between tests only.
void reset_host();

} // namespace relay_test

#endif
