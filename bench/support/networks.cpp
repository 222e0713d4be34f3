#include "bench/support/networks.hpp"

#include "bench/plan.hpp"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sched.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace relay_bench {
namespace {

constexpr char const* c_cable[] = {"bench-near", "bench-far"};

void write_file(char const* path, std::string const& text) {
    std::ofstream file(path);
    file << text << std::flush;
    if (!file) {
        throw unsupported(std::string("writing ") + path + " is refused");
    }
}

/// Runs ip with these words; it prints what it is refused.
void run_ip(std::vector<std::string> words) {
    words.insert(words.begin(), "ip");
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    pid_t child = -1;
    int status = ::posix_spawnp(&child, "ip", nullptr, nullptr, arguments.data(), environ);
    if (status == 0) {
        ::waitpid(child, &status, 0);
    }
    if (status != 0) {
        throw unsupported("the program ip cannot set up a network here");
    }
}

void set_up(std::size_t end) {
    run_ip({"link", "set", "lo", "up"});
    run_ip({"address", "add", std::string(c_addresses[end]) + "/24", "dev", c_cable[end]});
    run_ip({"link", "set", c_cable[end], "up"});
}

} // namespace

void enter_network() {
    if (::unshare(CLONE_NEWNET) == 0) {
        return;
    }
    std::string const user = std::to_string(::getuid());
    std::string const group = std::to_string(::getgid());
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
        throw unsupported(std::string("a network of its own is refused: ") + std::strerror(errno));
    }
    write_file("/proc/self/setgroups", "deny");
    write_file("/proc/self/uid_map", "0 " + user + " 1");
    write_file("/proc/self/gid_map", "0 " + group + " 1");
}

void lay_cable(pid_t far_process) {
    run_ip(
        {"link", "add", c_cable[0], "type", "veth", "peer", "name", c_cable[1], "netns", std::to_string(far_process)});
    set_up(0);
}

void set_up_far_cable() {
    set_up(1);
}

} // namespace relay_bench
