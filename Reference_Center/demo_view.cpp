#include "Reference_Center/demo_view.hpp"

#include "Reference_Center/output.hpp"

#include <fmt/format.h>
#include <unistd.h>

namespace Zolt::Reference_Center {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds c_live_every{100};
constexpr milliseconds c_line_every{1000};

double mebibytes(std::uint64_t bytes) {
    return static_cast<double>(bytes) / (1 << 20);
}

std::string plain_line(double seconds, std::string const& name, node_picture const& node) {
    return fmt::format("{:5.1f} s {}: {}, {} links, tcp in {:.1f} MiB out {:.1f} MiB, udp in {} out {}, queued {}",
                       seconds, name, node.condition, node.links, mebibytes(node.tcp_in), mebibytes(node.tcp_out),
                       node.udp_in, node.udp_out, node.queued);
}

std::string table_row(std::string const& name, node_picture const& node) {
    return fmt::format("{:<8}{:<11}{:>6}{:>12.1f}{:>12.1f}{:>10}{:>10}{:>9}\n", name, node.condition, node.links,
                       mebibytes(node.tcp_in), mebibytes(node.tcp_out), node.udp_in, node.udp_out, node.queued);
}

} // namespace

demo_view::demo_view(bool quiet, bool as_json)
    : is_quiet(quiet), results_are_progress(as_json), is_live(!quiet && is_terminal(STDERR_FILENO)) {}

demo_view::~demo_view() {
    erase();
}

void demo_view::show(std::map<std::string, node_picture> const& nodes) {
    auto const now = steady_clock::now();
    if (is_quiet || now < due) {
        return;
    }
    due = now + (is_live ? c_live_every : c_line_every);
    if (is_live) {
        draw(nodes);
        return;
    }
    double const seconds = std::chrono::duration<double>(now - begin).count();
    for (auto const& [name, node] : nodes) {
        write_error_line(plain_line(seconds, name, node));
    }
}

void demo_view::draw(std::map<std::string, node_picture> const& nodes) {
    erase();
    std::string table = fmt::format("{:<8}{:<11}{:>6}{:>12}{:>12}{:>10}{:>10}{:>9}", "node", "", "links", "tcp in MiB",
                                    "tcp out MiB", "udp in", "udp out", "queued");
    if (wants_colour(STDERR_FILENO)) {
        table = "\x1b[1m" + table + "\x1b[0m";
    }
    table += "\n";
    for (auto const& [name, node] : nodes) {
        table += table_row(name, node);
    }
    drawn_lines = nodes.size() + 1;
    table.pop_back(); // write_error_line ends the last one
    write_error_line(table);
}

void demo_view::erase() {
    if (drawn_lines != 0) {
        // Up to the table's first line, and clear from there.
        std::string const clear = fmt::format("\x1b[{}A\r\x1b[J", drawn_lines);
        static_cast<void>(::write(STDERR_FILENO, clear.data(), clear.size()) == 0);
        drawn_lines = 0;
    }
}

void demo_view::print(std::string const& line) {
    if (results_are_progress) {
        mention(line);
        return;
    }
    erase();
    write_out_line(line);
}

void demo_view::mention(std::string const& line) {
    if (!is_quiet) {
        erase();
        write_error_line(line);
    }
}

} // namespace Zolt::Reference_Center
