#include "tests/support/engine_calls.hpp"

#include "Center/INet_Relay/EPoll/epoll_tcp_method.hpp"
#include "Center/INet_Relay/EPoll/epoll_tcp_method_client.hpp"
#include "Center/INet_Relay/EPoll/epoll_tcp_method_server.hpp"
#include "Center/INet_Relay/EPoll/epoll_udp_method.hpp"
#include "tests/support/journal.hpp"
#include "tests/support/packets.hpp"

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <type_traits>
#include <utility>

namespace relay_test {
namespace {

struct engine_state {
    std::mutex guard;
    std::map<std::string, engine_stand_in> stand_ins;
    std::map<std::string, std::vector<void const*>> calls;
    std::map<std::string, std::vector<std::optional<int>>> results; ///< one for each of the calls
};

engine_state& state() {
    static auto* const the_state = new engine_state;
    return *the_state;
}

constinit std::atomic<bool> g_active{false};
constinit std::atomic<bool> g_scripted{false};

void* as_record(void* pointer) {
    return pointer;
}
template <class other>
requires(!std::is_convertible_v<other, void*>) void* as_record(other const&) {
    return nullptr;
}
void* first_record() {
    return nullptr;
}
template <class first, class... rest>
void* first_record(first const& argument, rest const&...) {
    return as_record(argument);
}

std::string shown(void const* pointer) {
    return object_name(pointer);
}
std::string shown(Zolt::struct_packet const* packet) {
    return packet == nullptr ? "null" : "packet";
}
std::string shown(Zolt::struct_token const& token) {
    return token_name(token);
}
std::string shown(unsigned long number) {
    return std::to_string(number);
}

struct taken_call {
    std::size_t number; ///< among those of its name, from 0
    engine_stand_in stand_in;
};

taken_call take_call(char const* name, void* record) {
    engine_state& s = state();
    std::lock_guard const hold(s.guard);
    auto& calls = s.calls[name];
    calls.push_back(record);
    s.results[name].resize(calls.size());
    auto const found = s.stand_ins.find(name);
    return {calls.size() - 1, found == s.stand_ins.end() ? nullptr : found->second};
}

void keep_result(char const* name, std::size_t number, int result) {
    engine_state& s = state();
    std::lock_guard const hold(s.guard);
    s.results[name].at(number) = result;
}

// A null result of take_call, or a stand-in that wants the real function this time.
struct go_on {};

template <class result, class... parameter>
result intercept(char const* name, result (*real)(parameter...), parameter... arguments) {
    if (!g_active.load(std::memory_order_relaxed) || (!recording() && !g_scripted.load(std::memory_order_relaxed))) {
        return real(static_cast<parameter>(arguments)...);
    }
    if (recording()) {
        write_line(about::engine, std::string("EPoll::") + name,
                   call_text(std::string("EPoll::") + name, shown(arguments)...));
    }
    void* const record = first_record(arguments...);
    taken_call const taken = take_call(name, record);
    if (taken.stand_in) {
        try {
            int const answer = taken.stand_in(record);
            if constexpr (std::is_void_v<result>) {
                return;
            } else {
                keep_result(name, taken.number, answer);
                return answer;
            }
        } catch (go_on const&) {
        }
    }
    if constexpr (std::is_void_v<result>) {
        return real(static_cast<parameter>(arguments)...);
    } else {
        result const answer = real(static_cast<parameter>(arguments)...);
        keep_result(name, taken.number, answer);
        return answer;
    }
}

} // namespace
} // namespace relay_test

namespace Zolt::Center::INet_Relay::EPoll {

// Two names for each function: the linker sends calls to the first and leaves the real one under the second.
#define ENGINE_CALL_0(result, name, symbol)                                                                            \
    result wrapped_##name() __asm__("__wrap_" symbol);                                                                 \
    result real_##name() __asm__("__real_" symbol);                                                                    \
    result wrapped_##name() {                                                                                          \
        return relay_test::intercept<result>(#name, real_##name);                                                      \
    }
#define ENGINE_CALL_1(result, name, symbol, type_a)                                                                    \
    result wrapped_##name(type_a) __asm__("__wrap_" symbol);                                                           \
    result real_##name(type_a) __asm__("__real_" symbol);                                                              \
    result wrapped_##name(type_a a) {                                                                                  \
        return relay_test::intercept<result, type_a>(#name, real_##name, a);                                           \
    }
#define ENGINE_CALL_2(result, name, symbol, type_a, type_b)                                                            \
    result wrapped_##name(type_a, type_b) __asm__("__wrap_" symbol);                                                   \
    result real_##name(type_a, type_b) __asm__("__real_" symbol);                                                      \
    result wrapped_##name(type_a a, type_b b) {                                                                        \
        return relay_test::intercept<result, type_a, type_b>(#name, real_##name, a, b);                                \
    }
#define ENGINE_CALL_3(result, name, symbol, type_a, type_b, type_c)                                                    \
    result wrapped_##name(type_a, type_b, type_c) __asm__("__wrap_" symbol);                                           \
    result real_##name(type_a, type_b, type_c) __asm__("__real_" symbol);                                              \
    result wrapped_##name(type_a a, type_b b, type_c c) {                                                              \
        return relay_test::intercept<result, type_a, type_b, type_c>(#name, real_##name, a, b, c);                     \
    }
#include "tests/support/engine_calls.inc"
#undef ENGINE_CALL_0
#undef ENGINE_CALL_1
#undef ENGINE_CALL_2
#undef ENGINE_CALL_3

} // namespace Zolt::Center::INet_Relay::EPoll

namespace relay_test {

std::vector<std::string> engine_call_names() {
    return {
#define ENGINE_CALL_0(result, name, symbol) #name,
#define ENGINE_CALL_1(result, name, symbol, type_a) #name,
#define ENGINE_CALL_2(result, name, symbol, type_a, type_b) #name,
#define ENGINE_CALL_3(result, name, symbol, type_a, type_b, type_c) #name,
#include "tests/support/engine_calls.inc"
    };
}

namespace {

void check_name(std::string const& name) {
    auto const names = engine_call_names();
    if (std::find(names.begin(), names.end(), name) == names.end()) {
        report_failure("no engine call is interposed under the name " + name);
    }
}

} // namespace

engine_calls::engine_calls() {
    if (g_active.exchange(true)) {
        report_failure("two engine_calls objects at once");
    }
    forget_scripts();
}

engine_calls::~engine_calls() {
    g_active.store(false);
    forget_scripts();
    engine_state& s = state();
    std::lock_guard const hold(s.guard);
    s.calls.clear();
    s.results.clear();
}

void engine_calls::on(std::string const& name, engine_stand_in stand_in) {
    check_name(name);
    engine_state& s = state();
    std::lock_guard const hold(s.guard);
    s.stand_ins[name] = std::move(stand_in);
    g_scripted.store(true);
}

void engine_calls::answer(std::string const& name, int result) {
    on(name, [result](void*) { return result; });
}

void engine_calls::answer_all(int result) {
    for (std::string const& name : engine_call_names()) {
        answer(name, result);
    }
}

void engine_calls::answer_nth(std::string const& name, int nth, int result) {
    auto const left = std::make_shared<std::atomic<int>>(nth);
    on(name, [left, result](void*) {
        if (left->fetch_sub(1) != 1) {
            throw go_on();
        }
        return result;
    });
}

void engine_calls::forget_scripts() {
    engine_state& s = state();
    std::lock_guard const hold(s.guard);
    s.stand_ins.clear();
    g_scripted.store(false);
}

std::size_t engine_calls::count(std::string const& name) const {
    return records(name).size();
}

std::vector<void const*> engine_calls::records(std::string const& name) const {
    check_name(name);
    engine_state& s = state();
    std::lock_guard const hold(s.guard);
    auto const found = s.calls.find(name);
    return found == s.calls.end() ? std::vector<void const*>() : found->second;
}

std::vector<std::optional<int>> engine_calls::results(std::string const& name) const {
    check_name(name);
    engine_state& s = state();
    std::lock_guard const hold(s.guard);
    auto const found = s.results.find(name);
    return found == s.results.end() ? std::vector<std::optional<int>>() : found->second;
}

} // namespace relay_test
