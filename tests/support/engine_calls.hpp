// Calls from one relay source into another, counted, and answered or thrown from where a test says so.
//
// A call inside one source does not pass here, nor does one through a pointer. A call that the test itself makes does:
// a function under test must not be answered. Names are those of the engine's functions without namespace; a name that
// is not interposed is reported. Without a script entry the real function runs. At most one object lives at a time.
// Any thread may call everything here. Journal lines: "EPoll::name(arguments)".
#ifndef TESTS_SUPPORT_ENGINE_CALLS_HPP
#define TESTS_SUPPORT_ENGINE_CALLS_HPP

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace relay_test {

/// Stands in for an engine function. Argument: its first one when that is a record, else null. The result is passed
/// on where the function has one. May throw.
using engine_stand_in = std::function<int(void* record)>;

class engine_calls {
public:
    engine_calls();
    ~engine_calls();
    engine_calls(engine_calls const&) = delete;
    engine_calls& operator=(engine_calls const&) = delete;

    /// From now on the stand-in runs instead of the real function. Null: the real one again.
    void on(std::string const& name, engine_stand_in stand_in);
    /// The same for a fixed result; or for all functions that take a record (the event handlers among them).
    void answer(std::string const& name, int result);
    void answer_all(int result);
    /// The n-th call from now on returns that result, the others go to the real function.
    void answer_nth(std::string const& name, int nth, int result);
    /// Back to the real functions.
    void forget_scripts();

    std::size_t count(std::string const& name) const;
    /// The first arguments of the calls so far.
    std::vector<void const*> records(std::string const& name) const;
    /// What the calls so far returned; nothing for those that have not, threw, or have no result.
    std::vector<std::optional<int>> results(std::string const& name) const;
};

/// Names of all functions that are interposed.
std::vector<std::string> engine_call_names();

} // namespace relay_test

#endif
