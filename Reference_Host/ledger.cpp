#include "Reference_Host/ledger.hpp"

#include "Reference_Host/ledger_hooks.hpp"
#include "Reference_Host/packet_limits.hpp"
#include "Reference_Host/recycler.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <new>
#include <string_view>
#include <utility>

namespace Zolt::Reference_Host {
namespace {

constexpr unsigned char c_ended_byte = 0xDB;
/// Bytes of ended parts held back; the oldest go first.
constexpr std::uint64_t c_held_back_bytes = std::uint64_t{8} << 20;

/// The ledger's own memory: a test that makes operator new fail must not hit it.
template <class Value>
struct plain_allocator {
    using value_type = Value;
    plain_allocator() = default;
    template <class Other>
    explicit plain_allocator(plain_allocator<Other> const&) {}

    Value* allocate(std::size_t count) {
        void* const memory = std::malloc(count * sizeof(Value));
        if (memory == nullptr) {
            throw std::bad_alloc();
        }
        return static_cast<Value*>(memory);
    }
    void deallocate(Value* memory, std::size_t) { std::free(memory); }
    friend bool operator==(plain_allocator const&, plain_allocator const&) { return true; }
};

enum class part_kind { node, header, data };

constexpr char const* c_kind_names[] = {"node", "header part", "data part"};

part_kind kind_of(recycler_bin bin) {
    return bin == c_bin_node ? part_kind::node : bin == c_bin_header ? part_kind::header : part_kind::data;
}

struct ledger_entry {
    part_kind kind;
    std::uint64_t number;
    char const* maker;
    char const* ender; ///< null while alive
    std::uint64_t bytes;

    std::string describe() const {
        std::string text =
            std::string(c_kind_names[static_cast<int>(kind)]) + ' ' + std::to_string(number) + " made by " + maker;
        return ender != nullptr ? text + ", ended by " + ender : text;
    }
};

thread_local char const* t_operation = "the host";

class ledger {
public:
    void* make(recycler_bin bin, std::uint64_t bytes) {
        void* const block = ::operator new(bytes, std::nothrow);
        if (block != nullptr) {
            std::lock_guard<std::mutex> const hold(lock);
            entries[block] = {kind_of(bin), ++last_number, t_operation, nullptr, bytes};
        }
        return block;
    }

    void end(void* block) {
        std::lock_guard<std::mutex> const hold(lock);
        ledger_entry& entry = entries.at(block);
        entry.ender = t_operation;
        std::memset(block, c_ended_byte, entry.bytes);
        held_back.push_back(block);
        held_back_bytes += entry.bytes;
        while (held_back_bytes > c_held_back_bytes) {
            let_go_oldest();
        }
    }

    bool admits(char const* operation, struct_token_node const* node) {
        std::lock_guard<std::mutex> const hold(lock);
        auto const found = entries.find(node);
        if (found != entries.end() && found->second.ender == nullptr) {
            return true;
        }
        char const* const fault =
            std::string_view(operation).starts_with("free") ? "second free: " : "use after free: ";
        std::string const what = found != entries.end() ? found->second.describe() : "a node that nobody made";
        reports.push_back(fault + std::string(operation) + " on " + what);
        return false;
    }

    void check_view(struct_packet const* view) {
        auto const* const first = reinterpret_cast<unsigned char const*>(view);
        std::lock_guard<std::mutex> const hold(lock);
        report_if_ended(first - offsetof(header_part, storage), part_kind::header);
        report_if_ended(first - offsetof(data_part, storage), part_kind::data);
    }

    ledger_counts count() {
        std::lock_guard<std::mutex> const hold(lock);
        ledger_counts counts;
        std::size_t* const by_kind[] = {&counts.nodes, &counts.headers, &counts.data};
        for (auto const& [block, entry] : entries) {
            *by_kind[static_cast<int>(entry.kind)] += entry.ender == nullptr ? 1U : 0U;
        }
        return counts;
    }

    std::vector<std::string> list_live() {
        std::lock_guard<std::mutex> const hold(lock);
        std::map<std::uint64_t, std::string> by_number;
        for (auto const& [block, entry] : entries) {
            if (entry.ender == nullptr) {
                by_number[entry.number] = entry.describe();
            }
        }
        std::vector<std::string> lines;
        lines.reserve(by_number.size());
        for (auto& [number, line] : by_number) {
            lines.push_back(std::move(line));
        }
        return lines;
    }

    std::vector<std::string> take_reports() {
        std::lock_guard<std::mutex> const hold(lock);
        std::for_each(held_back.begin(), held_back.end(), [this](void* block) { report_if_written(block); });
        return std::exchange(reports, {});
    }

    void let_go_all() {
        std::lock_guard<std::mutex> const hold(lock);
        while (!held_back.empty()) {
            let_go_oldest();
        }
    }

private:
    void report_if_ended(void const* block, part_kind kind) {
        auto const found = entries.find(block);
        if (found != entries.end() && found->second.kind == kind && found->second.ender != nullptr) {
            reports.push_back("use after free: a view of " + found->second.describe());
        }
    }

    void report_if_written(void* block) {
        ledger_entry const& entry = entries.at(block);
        auto* const bytes = static_cast<unsigned char*>(block);
        auto const written = [](unsigned char byte) { return byte != c_ended_byte; };
        if (std::any_of(bytes, bytes + entry.bytes, written)) {
            reports.push_back("written after free: " + entry.describe());
            std::memset(block, c_ended_byte, entry.bytes);
        }
    }

    void let_go_oldest() {
        void* const block = held_back.front();
        report_if_written(block);
        held_back.pop_front();
        held_back_bytes -= entries.at(block).bytes;
        entries.erase(block);
        ::operator delete(block);
    }

    std::mutex lock;
    using entry_allocator = plain_allocator<std::pair<void const* const, ledger_entry>>;
    std::map<void const*, ledger_entry, std::less<>, entry_allocator> entries; ///< alive or held back
    std::deque<void*, plain_allocator<void*>> held_back;
    std::uint64_t held_back_bytes = 0;
    std::uint64_t last_number = 0;
    std::vector<std::string> reports;
};

void print_what_is_left();

ledger& get_ledger() {
    // Never destroyed: parts are freed until the very end.
    static ledger* const only = [] {
        std::atexit(print_what_is_left);
        return new ledger;
    }();
    return *only;
}

void print_what_is_left() {
    for (std::string const& line : get_ledger().take_reports()) {
        std::fprintf(stderr, "ledger: %s\n", line.c_str());
    }
    for (std::string const& line : get_ledger().list_live()) {
        std::fprintf(stderr, "ledger: left at exit: %s\n", line.c_str());
    }
}

} // namespace

bool ledger_admits(char const* operation, struct_token_node const* node) {
    t_operation = operation;
    return node == nullptr || get_ledger().admits(operation, node);
}

void ledger_check_view(struct_packet const* view) {
    get_ledger().check_view(view);
}

ledger_counts count_live_parts() {
    return get_ledger().count();
}

std::vector<std::string> list_live_parts() {
    return get_ledger().list_live();
}

std::vector<std::string> take_ledger_reports() {
    return get_ledger().take_reports();
}

void release_held_back() {
    get_ledger().let_go_all();
}

void* obtain_block(recycler_bin bin, std::uint64_t data_size) {
    return get_ledger().make(bin, block_bytes(bin, data_size));
}

void return_block(recycler_bin, void* block) {
    get_ledger().end(block);
}

// Nothing is kept to be used again in this build.

void set_kept_bytes_limit(std::uint64_t) {}

std::uint64_t get_kept_bytes() {
    return 0;
}

void release_kept_memory() {
    get_ledger().let_go_all();
}

} // namespace Zolt::Reference_Host
