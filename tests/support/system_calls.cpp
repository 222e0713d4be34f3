#include "tests/support/system_calls.hpp"

#include "tests/support/journal.hpp"
#include "tests/support/system_script.hpp"

#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

namespace relay_test {
namespace {

struct script_state {
    std::mutex guard;
    std::map<std::string, std::vector<answer_entry>> answers;
    std::map<std::string, std::function<void(system_call const&)>> hooks;
    std::map<int, std::deque<scripted_event>> events;
    std::deque<system_call> calls;
    std::size_t first_call = 1; ///< number of the front one; calls keep their numbers when others are forgotten
};

script_state& state() {
    static auto* const the_state = new script_state;
    return *the_state;
}

constinit std::atomic<bool> g_active{false};
constinit std::atomic<bool> g_scripted{false};

} // namespace

bool interposing() {
    return g_active.load(std::memory_order_relaxed) && (recording() || g_scripted.load(std::memory_order_relaxed));
}

std::unique_ptr<answer_entry> take_answer(std::string const& name) {
    script_state& s = state();
    std::lock_guard const hold(s.guard);
    auto const found = s.answers.find(name);
    if (found == s.answers.end()) {
        return nullptr;
    }
    std::unique_ptr<answer_entry> taken;
    auto& entries = found->second;
    for (auto entry = entries.begin(); entry != entries.end();) {
        bool const is_for_good = entry->countdown == 0;
        bool const is_due = is_for_good || --entry->countdown == 0;
        if (is_due && !taken) {
            taken = std::make_unique<answer_entry>(*entry);
        }
        entry = is_due && !is_for_good ? entries.erase(entry) : entry + 1;
    }
    return taken;
}

written_call write_call(system_call& call, unsigned kind, std::string text) {
    call.text = std::move(text);
    call.thread = recording() ? thread_name() : std::string();
    call.locks = held_locks();
    std::function<void(system_call const&)> hook;
    script_state& s = state();
    {
        std::lock_guard const hold(s.guard);
        auto const found = s.hooks.find(call.name);
        hook = found == s.hooks.end() ? nullptr : found->second;
    }
    written_call written;
    if (recording()) {
        written.line = write_line(kind, call.name, call.text);
        std::lock_guard const hold(s.guard);
        s.calls.push_back(call);
        written.number = s.first_call + s.calls.size() - 1;
    }
    if (hook) {
        hook(call);
    }
    return written;
}

void write_result(written_call const& written, system_call const& call) {
    if (written.line == 0) {
        return;
    }
    set_result(written.line,
               call.result == -1 ? "-1 errno " + std::to_string(call.error) : std::to_string(call.result));
    script_state& s = state();
    std::lock_guard const hold(s.guard);
    if (written.number >= s.first_call && written.number - s.first_call < s.calls.size()) {
        s.calls[written.number - s.first_call] = call;
    }
}

bool next_event(int instance, scripted_event& event) {
    script_state& s = state();
    std::lock_guard const hold(s.guard);
    auto const found = s.events.find(instance);
    if (found == s.events.end()) {
        return false;
    }
    event = {};
    if (!found->second.empty()) {
        event = found->second.front();
        found->second.pop_front();
    }
    return true;
}

namespace {

void add_answer(std::string const& name, answer_entry entry) {
    script_state& s = state();
    std::lock_guard const hold(s.guard);
    s.answers[name].push_back(std::move(entry));
    g_scripted.store(true);
}

} // namespace

system_calls::system_calls() {
    if (g_active.exchange(true)) {
        report_failure("two system_calls objects at once");
    }
    forget_scripts();
    clear();
}

system_calls::~system_calls() {
    g_active.store(false);
    forget_scripts();
    clear();
}

void system_calls::fail(std::string const& name, int nth, int error) {
    add_answer(name, {.countdown = nth, .error = error});
}

void system_calls::fail_always(std::string const& name, int error) {
    add_answer(name, {.error = error});
}

void system_calls::answer(std::string const& name, int nth, long result) {
    add_answer(name, {.countdown = nth, .result = result});
}

void system_calls::deliver(std::string const& name, int nth, bytes data, std::uint32_t ip, std::uint16_t port) {
    add_answer(name, {.countdown = nth, .delivers = true, .delivered = std::move(data), .ip = ip, .port = port});
}

void system_calls::cap(std::string const& name, int nth, std::size_t most) {
    add_answer(name, {.countdown = nth, .most = most});
}

void system_calls::on(std::string const& name, std::function<void(system_call const&)> hook) {
    script_state& s = state();
    std::lock_guard const hold(s.guard);
    s.hooks[name] = std::move(hook);
    g_scripted.store(true);
}

void system_calls::events(int instance, std::vector<scripted_event> sequence) {
    script_state& s = state();
    std::lock_guard const hold(s.guard);
    s.events[instance].assign(sequence.begin(), sequence.end());
    g_scripted.store(true);
}

void system_calls::forget_scripts() {
    script_state& s = state();
    std::lock_guard const hold(s.guard);
    s.answers.clear();
    s.hooks.clear();
    s.events.clear();
    g_scripted.store(false);
}

std::vector<system_call> system_calls::all_calls() const {
    script_state& s = state();
    std::lock_guard const hold(s.guard);
    return {s.calls.begin(), s.calls.end()};
}

std::vector<system_call> system_calls::calls(std::string const& name) const {
    auto all = all_calls();
    std::erase_if(all, [&](system_call const& call) { return call.name != name; });
    return all;
}

std::size_t system_calls::count(std::string const& name) const {
    return calls(name).size();
}

void system_calls::clear() {
    script_state& s = state();
    std::lock_guard const hold(s.guard);
    s.first_call += s.calls.size();
    s.calls.clear();
}

} // namespace relay_test
