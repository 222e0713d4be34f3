#ifndef SECOND_HOST_TESK_UTILITY_HPP
#define SECOND_HOST_TESK_UTILITY_HPP

namespace Tesk::Utility {

// This host has no configuration file: every key has its default.
int get_integer_from_ini_file(char const* path, char const* group, char const* name, int otherwise);
char const* get_lwr_string_from_ini_file(char const* path, char const* group, char const* name, char const* otherwise);

void print_error(char const* text);
void print_error(char const* where, int line);
void alert(char const* text, char const* heading);

int fflag_on(int fd, int bits);
int fflag_off(int fd, int bits);

} // namespace Tesk::Utility

#endif
