#include "tests/race/traffic/node_process.hpp"

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <sstream>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace traffic {
namespace {

constexpr int c_patience_ms = 20'000;

std::array<int, 2> make_pipe() {
    std::array<int, 2> ends{-1, -1};
    EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    return ends;
}

/// True once the process can be waited for.
bool ends_in_time(::pid_t pid) {
    auto const watched = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    ::pollfd until{watched, POLLIN, 0};
    bool const has_ended = ::poll(&until, 1, c_patience_ms) == 1;
    ::close(watched);
    return has_ended;
}

void read_range(std::istringstream& words, node_answer::ranges& into) {
    int sender = 0;
    int flow = 0;
    std::uint32_t first = 0;
    std::uint32_t last = 0;
    words >> sender >> flow >> first >> last;
    into[{sender, flow}].emplace_back(first, last);
}

void read_into(node_answer& answer, std::string const& line) {
    std::istringstream words(line);
    std::string what;
    words >> what;
    std::uint64_t count = 0;
    std::string text;
    if (what == "figure") {
        words >> text >> count;
        answer.figures[text] = count;
    } else if (what == "line") {
        words >> count >> std::ws;
        std::getline(words, text);
        answer.printed[text] = count;
    } else if (what == "fault") {
        answer.faults.push_back(line);
    } else {
        read_range(words, what == "under_way"  ? answer.under_way
                          : what == "returned" ? answer.returned
                                               : answer.received);
    }
}

} // namespace

node_process::node_process(std::uint16_t sender) {
    std::array<int, 2> const input = make_pipe();
    std::array<int, 2> const output = make_pipe();
    ::posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    std::string name = TRAFFIC_NODE;
    std::string number = std::to_string(sender);
    std::array<char*, 3> const arguments{name.data(), number.data(), nullptr};
    EXPECT_EQ(::posix_spawn(&pid, name.c_str(), &actions, nullptr, arguments.data(), environ), 0);
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(input[0]);
    ::close(output[1]);
    to = input[1];
    from = output[0];
    std::istringstream words(read_line());
    std::string what;
    words >> what >> served;
    EXPECT_EQ(what, "port");
}

node_process::~node_process() {
    finish();
}

node_answer node_process::ask(std::string const& command) {
    std::string const line = command + "\n";
    EXPECT_EQ(::write(to, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    node_answer answer;
    for (std::string got = read_line(); got != "end"; got = read_line()) {
        if (got.empty()) {
            ADD_FAILURE() << "no answer to: " << command;
            break;
        }
        read_into(answer, got);
    }
    return answer;
}

int node_process::finish() {
    if (pid == -1) {
        return 0;
    }
    ::close(std::exchange(to, -1));
    if (!ends_in_time(pid)) {
        ADD_FAILURE() << "a node does not end";
        ::kill(pid, SIGKILL);
    }
    int status = 0;
    ::waitpid(std::exchange(pid, -1), &status, 0);
    ::close(std::exchange(from, -1));
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string node_process::read_line() {
    std::array<char, 16384> piece;
    for (;;) {
        std::size_t const end = unread.find('\n');
        if (end != std::string::npos) {
            std::string line = unread.substr(0, end);
            unread.erase(0, end + 1);
            return line;
        }
        ::pollfd readable{from, POLLIN, 0};
        ssize_t const got =
            ::poll(&readable, 1, c_patience_ms) == 1 ? ::read(from, piece.data(), piece.size()) : ssize_t{0};
        if (got <= 0) {
            return {};
        }
        unread.append(piece.data(), static_cast<std::size_t>(got));
    }
}

} // namespace traffic
