#include "tests/support/balance.hpp"

#include "tests/support/locks.hpp"

#include <chrono>
#include <filesystem>
#include <thread>

#include <dirent.h>
#include <unistd.h>

namespace relay_test {
namespace {

// "socket:[123]" is a socket, "anon_inode:[eventpoll]" an eventpoll, a path a file.
std::string kind_of(std::string const& target) {
    if (target.starts_with('/')) {
        return "file";
    }
    constexpr std::string_view anonymous = "anon_inode:";
    if (target.starts_with(anonymous)) {
        std::string const kind = target.substr(anonymous.size());
        return kind.starts_with('[') ? kind.substr(1, kind.size() - 2) : kind;
    }
    return target.substr(0, target.find(':'));
}

std::map<int, std::string> open_descriptors() {
    std::map<int, std::string> found;
    DIR* const directory = ::opendir("/proc/self/fd");
    if (directory == nullptr) {
        return found;
    }
    while (dirent const* const entry = ::readdir(directory)) {
        char target[256];
        std::string const path = std::string("/proc/self/fd/") + entry->d_name;
        ssize_t const size = ::readlink(path.c_str(), target, sizeof target);
        if (size > 0 && entry->d_name[0] != '.') {
            int const number = std::stoi(entry->d_name);
            if (number != ::dirfd(directory)) {
                found[number] = kind_of(std::string(target, static_cast<std::size_t>(size)));
            }
        }
    }
    ::closedir(directory);
    return found;
}

int running_threads() {
    int count = 0;
    for ([[maybe_unused]] auto const& task : std::filesystem::directory_iterator("/proc/self/task")) {
        ++count;
    }
    return count;
}

void compare(std::vector<std::string>& lines, char const* what, long before, long after) {
    if (before != after) {
        lines.push_back(std::string(what) + ": " + std::to_string(before) + " before, " + std::to_string(after) +
                        " after");
    }
}

} // namespace

balance take_balance() {
    lock_counts const locks = count_locks();
    return {open_descriptors(), running_threads(), locks.made - locks.destroyed, count_ledger(), locked_lock_count()};
}

int count_descriptors(balance const& counted, std::string const& kind) {
    int count = 0;
    for (auto const& [number, its_kind] : counted.descriptors) {
        count += its_kind == kind ? 1 : 0;
    }
    return count;
}

std::vector<std::string> differences(balance const& before, balance const& after) {
    std::vector<std::string> lines;
    for (auto const& [number, kind] : after.descriptors) {
        if (!before.descriptors.contains(number)) {
            lines.push_back("descriptor " + std::to_string(number) + " (" + kind + ") is still open");
        }
    }
    for (auto const& [number, kind] : before.descriptors) {
        auto const found = after.descriptors.find(number);
        if (found == after.descriptors.end()) {
            lines.push_back("descriptor " + std::to_string(number) + " (" + kind + ") was closed");
        } else if (found->second != kind) {
            lines.push_back("descriptor " + std::to_string(number) + " was a " + kind + " and is a " + found->second);
        }
    }
    compare(lines, "threads", before.threads, after.threads);
    compare(lines, "locks of records", before.locks, after.locks);
    compare(lines, "held locks", before.locked, after.locked);
    return lines;
}

bool wait_for_threads(int count) {
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (running_threads() > count) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

} // namespace relay_test
