#include "Reference_Center/center_processes.hpp"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <unistd.h>

namespace Zolt::Reference_Center {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view c_name = "zolt-center";
constexpr std::string_view c_limit = "Max open files";
constexpr std::string_view c_socket = "socket:[";

template <class Number>
std::optional<Number> read_number(std::string_view text) {
    Number value = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end != text.data() ? std::optional(value) : std::nullopt;
}

bool is_center(fs::path const& process) {
    std::string name;
    return std::getline(std::ifstream(process / "comm"), name) && name == c_name;
}

std::size_t read_limit(fs::path const& process) {
    std::ifstream limits(process / "limits");
    for (std::string line; std::getline(limits, line);) {
        if (line.starts_with(c_limit)) {
            std::string_view rest = std::string_view(line).substr(c_limit.size());
            rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
            return read_number<std::size_t>(rest).value_or(0);
        }
    }
    return 0;
}

void read_descriptors(fs::path const& process, center_process& made) {
    std::error_code denied;
    for (auto const& entry : fs::directory_iterator(process / "fd", denied)) {
        ++made.descriptors;
        std::error_code gone;
        std::string const target = fs::read_symlink(entry.path(), gone);
        if (target.starts_with(c_socket)) {
            made.sockets.insert(
                read_number<std::uint64_t>(std::string_view(target).substr(c_socket.size())).value_or(0));
        }
    }
}

} // namespace

std::vector<center_process> find_center_processes() {
    std::vector<center_process> found;
    std::error_code denied;
    for (auto const& process : fs::directory_iterator("/proc", denied)) {
        auto const pid = read_number<int>(process.path().filename().native());
        if (!pid || *pid == ::getpid() || !is_center(process.path())) {
            continue;
        }
        center_process made;
        made.pid = *pid;
        made.most_descriptors = read_limit(process.path());
        read_descriptors(process.path(), made);
        found.push_back(std::move(made));
    }
    return found;
}

} // namespace Zolt::Reference_Center
