// Inside the scripted host: its clocks, threads and timer. Tests use scripted_host.hpp.
#ifndef TESTS_SUPPORT_SCRIPTED_THREADS_HPP
#define TESTS_SUPPORT_SCRIPTED_THREADS_HPP

namespace relay_test {

/// Puts clocks, hooks and creation results back. Between tests only.
void reset_threads();

} // namespace relay_test

#endif
