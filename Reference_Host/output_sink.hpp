// Where print_error, alert and traces go: a bounded queue that one thread of the host writes out.
//
// Printing never blocks and never allocates: it happens under the relay's locks. A line that finds the queue full is
// lost and counted, and the number lost is written as a line of its own as soon as there is room. Lines longer than
// 480 bytes are cut. The writing thread is made by the first line. At exit what is queued is written for up to one
// second; what is printed after that is lost.
#ifndef REFERENCE_HOST_OUTPUT_SINK_HPP
#define REFERENCE_HOST_OUTPUT_SINK_HPP

#include <chrono>
#include <cstdint>
#include <string_view>

namespace Zolt::Reference_Host {

/// Which operation a line comes from.
enum class line_kind : unsigned char {
    error,    ///< print_error with a message
    position, ///< print_error with a source position
    alert,    ///< alert
    trace,    ///< a trace that is switched on
    loss,     ///< how many lines were lost before this one
};

/// One line, without the end of line.
struct output_line {
    line_kind kind;        ///< what printed it
    char letter;           ///< a trace's letter, otherwise 0
    std::string_view text; ///< valid until the target returns
};

/// Receives each line in the order of printing. Thread: the writing one only.
using output_target = void (*)(output_line const& line, void* context);

/// Lines go to this function from now on; null: to the descriptor. On return the target before is not called any more,
/// so it must not be called from a target.
void set_output_target(output_target target, void* context);
/// The descriptor that lines are written to, one line a write; 2 until set. Not closed here.
void set_output_descriptor(int descriptor);
/// Waits until every line printed before the call is written, or the time is over. True when all were written.
bool drain_output(std::chrono::milliseconds longest);
/// Lines lost since the start: printed into a full queue, or not taken by the descriptor.
std::uint64_t count_lost_lines();

/// Which traces are written: their letters, "*" for all; none until set. Any thread.
void set_traces(std::string_view letters);
/// True when traces of that letter are written.
bool is_traced(char letter);

/// Prints a line. Any thread, any lock; see above.
void print_line(line_kind kind, char letter, std::string_view text);

} // namespace Zolt::Reference_Host

#endif
