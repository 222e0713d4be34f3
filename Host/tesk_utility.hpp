// Configuration reading, error output and descriptor flags: what the relay requires of its host.
//
// Declarations only. Every operation may run on all of the relay's threads at the same time, with any of the
// relay's locks held; none may wait for one, nor block on a full pipe.
#ifndef HOST_TESK_UTILITY_HPP
#define HOST_TESK_UTILITY_HPP

namespace Tesk::Utility {

/// The key's integer, or the default when file, section or key is missing.
int get_integer_from_ini_file(char const* file, char const* section, char const* key, int fallback);
/// The key's value in lower case, or the default. Owner: the host; valid at least until this thread's next call.
char const* get_lwr_string_from_ini_file(char const* file, char const* section, char const* key, char const* fallback);

/// Writes a message to the host's error output. The text is the relay's and is read before the call returns.
void print_error(char const* message);
/// Writes a source position (file, line) to the host's error output.
void print_error(char const* file, int line);
/// Shows or logs a message for the operator and returns when that is done.
void alert(char const* message, char const* title);

/// Sets, or clears, file status flags of a descriptor. 0, or -1 with errno.
int fflag_on(int descriptor, int flag);
int fflag_off(int descriptor, int flag);

} // namespace Tesk::Utility

#endif
