#include "tests/support/journal.hpp"

#include <atomic>
#include <cerrno>
#include <cfloat>
#include <charconv>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <map>
#include <mutex>
#include <utility>

namespace relay_test {
namespace {

struct journal_state {
    std::mutex guard;
    std::condition_variable written;
    std::deque<journal_entry> entries;
    std::size_t first_number = 1;
    std::vector<std::string> failures;
    std::map<void const*, std::string> objects;
    std::map<int, std::string> descriptors;
    std::map<std::string, unsigned> numbering;
    unsigned threads = 0;
    std::vector<journal_entry> at_load;
    bool loading = true;
};

// Never destroyed: the relay's globals report their destruction after every static object of the harness is gone.
journal_state& state() {
    static auto* const the_state = new journal_state;
    return *the_state;
}

constinit std::atomic<bool> g_recording{true};
constinit std::atomic<int> g_spoiled_errno{-1};
constinit std::atomic<bool> g_show_destruction{false};
thread_local std::string t_thread_name;

std::string next_name(journal_state& s, std::string const& family) {
    return family + "#" + std::to_string(++s.numbering[family]);
}

std::string name_of(journal_state& s, void const* object) {
    auto const found = s.objects.find(object);
    if (found != s.objects.end()) {
        return found->second;
    }
    return s.objects[object] = next_name(s, "object");
}

} // namespace

void record(bool on) {
    g_recording.store(on, std::memory_order_relaxed);
}

bool recording() {
    return g_recording.load(std::memory_order_relaxed);
}

std::size_t write_line(unsigned kind, std::string name, std::string text, void const* object) {
    if (!recording()) {
        return 0;
    }
    journal_entry entry{kind, std::move(name), std::move(text), {}, thread_name(), held_locks(), object};
    journal_state& s = state();
    std::lock_guard const hold(s.guard);
    s.entries.push_back(std::move(entry));
    s.written.notify_all();
    return s.first_number + s.entries.size() - 1;
}

void set_result(std::size_t number, std::string result) {
    journal_state& s = state();
    std::lock_guard const hold(s.guard);
    if (number < s.first_number || number - s.first_number >= s.entries.size()) {
        return;
    }
    s.entries[number - s.first_number].result = std::move(result);
    s.written.notify_all();
}

std::vector<journal_entry> journal_entries(unsigned kinds) {
    journal_state& s = state();
    std::lock_guard const hold(s.guard);
    std::vector<journal_entry> chosen;
    for (auto const& entry : s.entries) {
        if ((entry.about & kinds) != 0) {
            chosen.push_back(entry);
        }
    }
    return chosen;
}

lines journal_lines(unsigned kinds) {
    lines chosen;
    for (auto& entry : journal_entries(kinds)) {
        chosen.push_back(std::move(entry.text));
    }
    return chosen;
}

std::size_t journal_count(std::string_view name) {
    std::size_t count = 0;
    for (auto const& entry : journal_entries()) {
        count += entry.name == name ? 1 : 0;
    }
    return count;
}

void clear_journal() {
    journal_state& s = state();
    std::lock_guard const hold(s.guard);
    if (std::exchange(s.loading, false)) {
        s.at_load.assign(s.entries.begin(), s.entries.end());
    }
    s.first_number += s.entries.size();
    s.entries.clear();
}

lines load_lines(unsigned kinds) {
    journal_state& s = state();
    std::lock_guard const hold(s.guard);
    lines chosen;
    for (journal_entry const& entry : s.at_load) {
        auto const named = s.objects.find(entry.object);
        bool const is_object = (entry.about & about::object) != 0;
        if ((entry.about & kinds) != 0 && (!is_object || named != s.objects.end())) {
            chosen.push_back(is_object ? named->second + "." + entry.name + "()" : entry.text);
        }
    }
    return chosen;
}

void show_destruction() {
    g_show_destruction.store(true);
}

void note_object(void const* object, std::string_view type, std::string_view name) {
    if (!recording()) {
        return;
    }
    std::string const known = known_object_name(object);
    std::string const text = (known.empty() ? std::string(type) : known) + "." + std::string(name) + "()";
    write_line(about::object, std::string(name), text, object);
    if (g_show_destruction.load() && name.starts_with('~')) {
        std::fputs((text + "\n").c_str(), stderr);
    }
}

bool wait_for_journal(std::function<bool(std::vector<journal_entry> const&)> const& predicate,
                      std::chrono::milliseconds limit) {
    journal_state& s = state();
    std::unique_lock hold(s.guard);
    // The system clock on purpose: the thread sanitizer of g++ 12 does not know the wait on the steady one.
    return s.written.wait_until(hold, std::chrono::system_clock::now() + limit, [&] {
        return predicate({s.entries.begin(), s.entries.end()});
    });
}

bool wait_for_lines(std::string const& name, std::size_t count, std::chrono::milliseconds limit) {
    auto const enough = [&](std::vector<journal_entry> const& entries) {
        std::size_t seen = 0;
        for (auto const& entry : entries) {
            seen += entry.name == name ? 1 : 0;
        }
        return seen >= count;
    };
    return wait_for_journal(enough, limit);
}

void report_failure(std::string text) {
    journal_state& s = state();
    std::lock_guard const hold(s.guard);
    s.failures.push_back(std::move(text));
}

std::vector<std::string> take_failures() {
    journal_state& s = state();
    std::lock_guard const hold(s.guard);
    return std::exchange(s.failures, {});
}

void name_object(void const* object, std::string name) {
    journal_state& s = state();
    std::lock_guard const hold(s.guard);
    s.objects[object] = std::move(name);
}

void forget_object(void const* object) {
    journal_state& s = state();
    std::lock_guard const hold(s.guard);
    s.objects.erase(object);
}

void name_descriptor(int descriptor, std::string name) {
    journal_state& s = state();
    std::lock_guard const hold(s.guard);
    s.descriptors[descriptor] = std::move(name);
}

void forget_descriptor(int descriptor) {
    journal_state& s = state();
    std::lock_guard const hold(s.guard);
    s.descriptors.erase(descriptor);
}

std::string name_new_descriptor(int descriptor, std::string const& family) {
    journal_state& s = state();
    std::lock_guard const hold(s.guard);
    return s.descriptors[descriptor] = next_name(s, family);
}

std::string object_name(void const* object) {
    if (object == nullptr) {
        return "null";
    }
    journal_state& s = state();
    std::lock_guard const hold(s.guard);
    return name_of(s, object);
}

std::string known_object_name(void const* object) {
    journal_state& s = state();
    std::lock_guard const hold(s.guard);
    auto const found = s.objects.find(object);
    return found == s.objects.end() ? std::string() : found->second;
}

std::string descriptor_name(int descriptor) {
    journal_state& s = state();
    std::lock_guard const hold(s.guard);
    auto const found = s.descriptors.find(descriptor);
    return found == s.descriptors.end() ? std::to_string(descriptor) : found->second;
}

void reset_names() {
    journal_state& s = state();
    std::lock_guard const hold(s.guard);
    s.objects.clear();
    s.descriptors.clear();
    s.numbering.clear();
}

std::string thread_name() {
    if (t_thread_name.empty()) {
        journal_state& s = state();
        std::lock_guard const hold(s.guard);
        unsigned const number = s.threads++;
        t_thread_name = number == 0 ? std::string("main") : "thread#" + std::to_string(number);
    }
    return t_thread_name;
}

void set_thread_name(std::string name) {
    t_thread_name = std::move(name);
}

std::string to_text(bool value) {
    return value ? "true" : "false";
}
std::string to_text(int value) {
    return std::to_string(value);
}
std::string to_text(unsigned int value) {
    return std::to_string(value);
}
std::string to_text(long value) {
    return std::to_string(value);
}
std::string to_text(unsigned long value) {
    return std::to_string(value);
}

std::string to_text(double value) {
    if (value == DBL_MAX) {
        return "DBL_MAX";
    }
    char digits[32];
    auto const end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    return {digits, end};
}

std::string to_text(char const* value) {
    if (value == nullptr) {
        return "null";
    }
    std::string text = "\"";
    for (char const* at = value; *at != '\0'; ++at) {
        text += *at == '\n' ? std::string("\\n") : std::string(1, *at);
    }
    return text + "\"";
}

std::string to_text(std::string const& value) {
    return value;
}
std::string to_text(void const* value) {
    return object_name(value);
}

std::string hex(unsigned long value) {
    char digits[20];
    auto const end = std::to_chars(digits, digits + sizeof digits, value, 16).ptr;
    return "0x" + std::string(digits, end);
}

namespace {

constinit thread_local int t_host_depth = 0;

} // namespace

errno_guard::errno_guard() : saved(errno) {
    ++t_host_depth;
}

errno_guard::~errno_guard() {
    --t_host_depth;
    int const spoiled = g_spoiled_errno.load(std::memory_order_relaxed);
    errno = spoiled == -1 ? saved : spoiled;
}

bool in_host_operation() {
    return t_host_depth != 0;
}

void spoil_errno(int value) {
    g_spoiled_errno.store(value, std::memory_order_relaxed);
}

} // namespace relay_test
