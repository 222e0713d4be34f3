#include "Reference_Center/demo_process.hpp"

#include "Reference_Center/error_description.hpp"

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Zolt::Reference_Center {
namespace {

constexpr std::size_t c_most_words = 20;
constexpr int c_cannot_start = 127;

struct channel {
    int reading = -1;
    int writing = -1;
};

channel open_channel() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        throw failure(exit_code::failed, std::string("cannot open a pipe: ") + describe_error(errno));
    }
    return {ends[0], ends[1]};
}

/// The child's way from fork to exec. Only what is allowed there.
[[noreturn]] void become_node(node_start const& start, char* const* arguments, channel in, channel out, channel err) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    // The terminal's Ctrl-C is for the demonstration; it ends its nodes. They take a signal of their own as usual.
    ::setpgid(0, 0);
    sigset_t none;
    ::sigemptyset(&none);
    ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
    ::dup2(in.reading, STDIN_FILENO);
    ::dup2(out.writing, STDOUT_FILENO);
    ::dup2(err.writing, STDERR_FILENO);
    if (start.kept_descriptor != -1) {
        ::fcntl(start.kept_descriptor, F_SETFD, 0);
    }
    if (start.network == -1 || ::setns(start.network, CLONE_NEWNET) == 0) {
        ::execv("/proc/self/exe", arguments);
    }
    ::_exit(c_cannot_start);
}

/// Appends what can be read; false at the end.
bool read_into(std::string& text, int fd) {
    std::array<char, 16384> bytes;
    ssize_t const got = ::read(fd, bytes.data(), bytes.size());
    if (got > 0) {
        text.append(bytes.data(), static_cast<std::size_t>(got));
    }
    return got > 0 || (got == -1 && errno == EINTR);
}

std::optional<std::string> take_line(std::string& text) {
    std::size_t const end = text.find('\n');
    if (end == std::string::npos) {
        return std::nullopt;
    }
    std::string line = text.substr(0, end);
    text.erase(0, end + 1);
    return line;
}

} // namespace

node_process::node_process(node_start const& start) {
    channel const in = open_channel();
    channel const out = open_channel();
    channel const err = open_channel();
    std::vector<std::string> words_of{"zolt-center", start.command};
    words_of.insert(words_of.end(), start.arguments.begin(), start.arguments.end());
    std::vector<char*> arguments;
    arguments.reserve(words_of.size() + 1);
    for (std::string& word : words_of) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    pid = ::fork();
    if (pid == 0) {
        become_node(start, arguments.data(), in, out, err);
    }
    input_fd = in.writing;
    output_fd = out.reading;
    error_fd = err.reading;
    for (int const descriptor : {in.reading, out.writing, err.writing}) {
        ::close(descriptor);
    }
    if (pid == -1) {
        throw failure(exit_code::failed, std::string("cannot start a process: ") + describe_error(errno));
    }
}

node_process::~node_process() {
    signal(SIGKILL);
    wait();
    for (int const descriptor : {input_fd, output_fd, error_fd}) {
        ::close(descriptor);
    }
}

void node_process::write_command(json_object const& command) {
    std::string const line = command.dump() + "\n";
    // A line is shorter than what a pipe takes at once.
    static_cast<void>(::write(input_fd, line.data(), line.size()) == 0);
}

bool node_process::read_output() {
    return read_into(output_text, output_fd);
}

bool node_process::read_errors() {
    bool const goes_on = read_into(error_text, error_fd);
    while (auto line = take_line(error_text)) {
        words.push_back(std::move(*line));
        if (words.size() > c_most_words) {
            words.pop_front();
        }
    }
    return goes_on;
}

std::optional<std::string> node_process::next_line() {
    return take_line(output_text);
}

void node_process::signal(int number) const {
    if (pid != -1) {
        ::kill(pid, number);
    }
}

int node_process::wait() {
    int status = 0;
    if (pid == -1 || ::waitpid(pid, &status, 0) != pid) {
        return 0;
    }
    pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace Zolt::Reference_Center
