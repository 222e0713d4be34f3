// Standard output and standard error, past stdio: the relay flushes stdio's standard output after each send, so
// nothing of this program may wait in there.
#ifndef REFERENCE_CENTER_OUTPUT_HPP
#define REFERENCE_CENTER_OUTPUT_HPP

#include "Reference_Center/failure.hpp"

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace Zolt::Reference_Center {

/// Keys stay in the order in which they were set.
using json_object = nlohmann::ordered_json;

/// The object on one line, its end included.
std::string to_line(json_object const& object);

/// Writes a result, all of it, to standard output. Throws failure when its reader is gone.
void write_out(std::string_view text);
/// Writes one line, or one JSON object on a line.
void write_out_line(std::string_view line);
void write_out_object(json_object const& object);
/// Writes a line to standard error; what goes wrong with that is ignored.
void write_error_line(std::string_view line);

/// Tells the user why the program ends: a line on standard error, or with as_json an object on standard output, if that
/// can be written.
void report_failure(failure const& reason, bool as_json);

/// True when the descriptor is a terminal that understands cursor movements.
bool is_terminal(int descriptor);
/// True for a terminal whose user did not set NO_COLOR.
bool wants_colour(int descriptor);

} // namespace Zolt::Reference_Center

#endif
