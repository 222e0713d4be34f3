// The one ordered record of what the relay did: host operations, system calls and engine calls in a single sequence.
//
// Every operation here may be called from any thread. The journal exists before any static object is constructed and
// outlives all of them, so that it sees the relay's globals come and go. While recording is off nothing shared is
// locked: a stress test under the thread sanitizer then sees only the ordering that the relay itself makes.
#ifndef TESTS_SUPPORT_JOURNAL_HPP
#define TESTS_SUPPORT_JOURNAL_HPP

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace relay_test {

/// What a line is about. Tests choose lines by a sum of these.
namespace about {
inline constexpr unsigned packet = 1u << 0;         ///< token and packet operations that change something
inline constexpr unsigned packet_query = 1u << 1;   ///< token and packet operations that only read
inline constexpr unsigned lock = 1u << 2;           ///< lock, unlock, release, retake
inline constexpr unsigned clock = 1u << 3;          ///< lemon_clock, lemon_cpu_clock
inline constexpr unsigned thread = 1u << 4;         ///< class_thread and class_timer operations
inline constexpr unsigned ini = 1u << 5;            ///< the two ini operations
inline constexpr unsigned error = 1u << 6;          ///< print_error (both forms) and alert
inline constexpr unsigned trace = 1u << 7;          ///< zolt_debug_not_send
inline constexpr unsigned center = 1u << 8;         ///< send_zolt_center
inline constexpr unsigned pause = 1u << 9;          ///< rtsleep, thread_yield
inline constexpr unsigned text = 1u << 10;          ///< str_from_ip
inline constexpr unsigned flags = 1u << 11;         ///< fflag_on, fflag_off
inline constexpr unsigned object = 1u << 12;        ///< constructors and destructors of host objects
inline constexpr unsigned system = 1u << 13;        ///< system calls
inline constexpr unsigned close_on_exec = 1u << 14; ///< fcntl(F_SETFD, FD_CLOEXEC), and SO_SNDTIMEO: safety additions
inline constexpr unsigned engine = 1u << 15;        ///< calls from one relay source into another
inline constexpr unsigned all = ~0u;
/// What changes the world outside, in the stated order: no queries, locks, clocks, traces or safety additions.
inline constexpr unsigned steps = packet | thread | ini | error | center | pause | flags | system | engine;
} // namespace about

/// One line. `text` is "object.name(arguments)" or "name(arguments)"; `result` is empty until the call has returned.
struct journal_entry {
    unsigned about = 0;
    std::string name;
    std::string text;
    std::string result;
    std::string thread;
    std::vector<std::string> locks; ///< names of the locks that the thread held, outermost first
    void const* object = nullptr;   ///< constructors and destructors: the object
};

using lines = std::vector<std::string>;

/// Switches recording. Off: calls are neither written down nor checked for lock order, and the ledger only counts.
void record(bool on);
bool recording();

/// Appends a line and returns its number for set_result; 0 when recording is off.
std::size_t write_line(unsigned kind, std::string name, std::string text, void const* object = nullptr);
void set_result(std::size_t number, std::string result);

/// Texts of the chosen lines in order; the two others give everything, or the count of lines with a name.
lines journal_lines(unsigned kinds = about::steps);
std::vector<journal_entry> journal_entries(unsigned kinds = about::all);
std::size_t journal_count(std::string_view name);
void clear_journal();

/// What was written while the program was loaded: the texts of the chosen lines, host objects under the names that they
/// have now, as "name.type()", and left out when they have none.
lines load_lines(unsigned kinds = about::all);
/// From now on each destroyed host object is also written to standard error: "name.~type()".
void show_destruction();

/// Waits until the predicate holds for the entries so far, looking again after each new line. False at the deadline.
bool wait_for_journal(std::function<bool(std::vector<journal_entry> const&)> const& predicate,
                      std::chrono::milliseconds limit = std::chrono::milliseconds(10000));
/// Waits until lines with that name number at least `count`.
bool wait_for_lines(std::string const& name, std::size_t count,
                    std::chrono::milliseconds limit = std::chrono::milliseconds(10000));

/// A violated rule (double free, lock inversion, ...). The fixture turns what is left at the end into test failures.
void report_failure(std::string text);
std::vector<std::string> take_failures();

/// Names by which lines show an object or descriptor. The fixture names the relay's globals; tests name their records.
void name_object(void const* object, std::string name);
void forget_object(void const* object);
void name_descriptor(int descriptor, std::string name);
void forget_descriptor(int descriptor);
/// Names the next descriptor of a family: "socket#1", "socket#2", ... Restarted by reset_names.
std::string name_new_descriptor(int descriptor, std::string const& family);
/// The name, "null", or "object#N" numbered by first appearance.
std::string object_name(void const* object);
/// The name, or the empty string.
std::string known_object_name(void const* object);
/// The name, or the number in decimal.
std::string descriptor_name(int descriptor);
/// Forgets all names and numbering.
void reset_names();

/// "main" for the first thread that asks, the given name, or "thread#N".
std::string thread_name();
void set_thread_name(std::string name);

/// Names of the locks that the calling thread holds, outermost first. Empty while recording is off.
std::vector<std::string> held_locks();

std::string to_text(bool value);
std::string to_text(int value);
std::string to_text(unsigned int value);
std::string to_text(long value);
std::string to_text(unsigned long value);
std::string to_text(double value);             ///< shortest form that reads back the same; "DBL_MAX" for the largest
std::string to_text(char const* value);        ///< in double quotes, line feeds as \n; null stays bare
std::string to_text(std::string const& value); ///< as it is: an already prepared word
std::string to_text(void const* value);        ///< object_name
std::string hex(unsigned long value);          ///< 0x...

/// "name(a, b, c)".
template <class... argument>
std::string call_text(std::string_view name, argument const&... arguments) {
    std::string text(name);
    text += '(';
    bool first = true;
    ((text += (first ? "" : ", "), first = false, text += to_text(arguments)), ...);
    text += ')';
    return text;
}

/// Writes "object.name(arguments)", or "name(arguments)" when the object is empty.
template <class... argument>
std::size_t note(unsigned kind, std::string_view object, std::string_view name, argument const&... arguments) {
    if (!recording()) {
        return 0;
    }
    std::string text = object.empty() ? std::string() : std::string(object) + ".";
    return write_line(kind, std::string(name), text + call_text(name, arguments...));
}

/// A constructor or destructor of a host object; an object without a name is shown by its type.
void note_object(void const* object, std::string_view type, std::string_view name);

/// Keeps errno as it was, or leaves the value that the test wants a host operation to leave behind.
class errno_guard {
public:
    errno_guard();
    ~errno_guard();
    errno_guard(errno_guard const&) = delete;
    errno_guard& operator=(errno_guard const&) = delete;

private:
    int saved;
};
/// True on a thread that is inside an operation of the scripted host, the clocks excepted.
bool in_host_operation();
/// From now on every host operation leaves this in errno; -1: leaves errno alone.
void spoil_errno(int value);

} // namespace relay_test

#endif
