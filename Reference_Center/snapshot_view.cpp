#include "Reference_Center/snapshot_view.hpp"

#include "Reference_Center/failure.hpp"

#include <algorithm>
#include <array>
#include <fmt/format.h>

namespace Zolt::Reference_Center {
namespace {

constexpr double c_kibi = 1024;
constexpr double c_minute = 60;
constexpr double c_hour = 3600;
constexpr double c_day = 86400;

/// What another program says goes to a terminal as letters only.
std::string printable(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](char letter) { return letter < ' ' || letter > '~'; }, '?');
    return text;
}

std::string text_of(json_object const& text) {
    return printable(text.get<std::string>());
}

std::string size_text(double bytes) {
    constexpr std::array<char const*, 5> units{"B", "KiB", "MiB", "GiB", "TiB"};
    std::size_t unit = 0;
    for (; bytes >= c_kibi && unit + 1 < units.size(); ++unit) {
        bytes /= c_kibi;
    }
    return unit == 0 ? fmt::format("{:.0f} B", bytes) : fmt::format("{:.1f} {}", bytes, units[unit]);
}

std::string age_text(double seconds) {
    if (seconds < c_minute) {
        return fmt::format("{:.1f} s", seconds);
    }
    auto const part = [&](double unit, double of) { return static_cast<int>(seconds / unit) % static_cast<int>(of); };
    if (seconds < c_hour) {
        return fmt::format("{} min {} s", part(c_minute, c_minute), part(1, c_minute));
    }
    if (seconds < c_day) {
        return fmt::format("{} h {} min", static_cast<int>(seconds / c_hour), part(c_minute, c_minute));
    }
    return fmt::format("{:.0f} d {} h", seconds / c_day - 0.5, part(c_hour, c_day / c_hour));
}

std::string latency_text(json_object const& latency) {
    if (latency.at("count") == 0) {
        return "-";
    }
    return fmt::format("{:.0f} us", latency.at("p99").get<double>());
}

double number(json_object const& object, char const* key) {
    return object.at(key).get<double>();
}

view_line traffic_line(json_object const& snapshot, std::string const& direction) {
    json_object const& rates = snapshot.at("rates");
    auto const total = [&](char const* key) {
        json_object const& totals = snapshot.at("totals");
        return number(totals.at("tcp_" + direction), key) + number(totals.at("udp_" + direction), key);
    };
    return {fmt::format("{:<4}{:.0f} packets/s, {}/s; in all {:.0f} packets, {}", direction,
                        rates.at("packets_" + direction + "_per_s").get<double>(),
                        size_text(rates.at("bytes_" + direction + "_per_s").get<double>()), total("packets"),
                        size_text(total("bytes")))};
}

view_line title_line(json_object const& snapshot) {
    bool const healthy = snapshot.at("healthy").get<bool>();
    bool const ready = snapshot.at("ready").get<bool>();
    return {fmt::format("zolt-center {}, pid {}, up {}: {}, {}", text_of(snapshot.at("version")),
                        snapshot.at("pid").get<std::int64_t>(), age_text(number(snapshot, "uptime_s")),
                        healthy ? "healthy" : "NOT HEALTHY", ready ? "ready" : "not ready"),
            healthy ? look::heading : look::bad};
}

view_line waiting_line(json_object const& snapshot) {
    json_object const& queue = snapshot.at("queue");
    json_object const& inbox = snapshot.at("inbox");
    std::string const limit =
        queue.at("max_bytes").is_null() ? "" : fmt::format(" of at most {}", size_text(number(queue, "max_bytes")));
    return {fmt::format("waiting to leave {:.0f} packets, {}{}; waiting in the inbox {:.0f} packets, {}",
                        number(queue, "packets"), size_text(number(queue, "bytes")), limit, number(inbox, "packets"),
                        size_text(number(inbox, "bytes")))};
}

view_line latency_line(json_object const& latency) {
    if (latency.at("count") == 0) {
        return {"no packet was written lately"};
    }
    return {fmt::format("written within {:.0f} us (median), {:.0f} us (99 %), {:.0f} us (longest)",
                        number(latency, "p50"), number(latency, "p99"), number(latency, "max"))};
}

double traffic_of(json_object const& peer) {
    json_object const& rates = peer.at("rates");
    return number(rates, "bytes_in_per_s") + number(rates, "bytes_out_per_s");
}

std::string peer_row(std::array<std::string, 8> const& cells) {
    return fmt::format("{:<22}{:<9}{:<12}{:>12}{:>11}{:>11}{:>11}{:>9}", cells[0], cells[1], cells[2], cells[3],
                       cells[4], cells[5], cells[6], cells[7]);
}

view_line peer_line(json_object const& peer) {
    json_object const& rates = peer.at("rates");
    std::string const state = text_of(peer.at("state"));
    return {peer_row({text_of(peer.at("address")), text_of(peer.at("over")), state, age_text(number(peer, "since_s")),
                      size_text(number(rates, "bytes_in_per_s")), size_text(number(rates, "bytes_out_per_s")),
                      size_text(number(peer.at("queue"), "bytes")), latency_text(peer.at("latency_us"))}),
            state == "established" ? look::plain : look::bad};
}

void add_peers(std::vector<view_line>& lines, json_object const& peers) {
    if (peers.empty()) {
        lines.push_back({"no peers"});
        return;
    }
    std::vector<json_object> sorted(peers.begin(), peers.end());
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](json_object const& a, json_object const& b) { return traffic_of(a) > traffic_of(b); });
    lines.push_back({peer_row({"peer", "over", "state", "for", "in /s", "out /s", "waiting", "99 %"}), look::heading});
    for (json_object const& peer : sorted) {
        lines.push_back(peer_line(peer));
    }
}

std::vector<view_line> describe(json_object const& snapshot) {
    std::vector<view_line> lines{title_line(snapshot)};
    for (json_object const& problem : snapshot.at("problems")) {
        lines.push_back({text_of(problem), look::bad});
    }
    if (!snapshot.at("ports").empty()) {
        lines.push_back({fmt::format("serving {}", fmt::join(snapshot.at("ports").get<std::vector<int>>(), ", "))});
    }
    lines.push_back(traffic_line(snapshot, "in"));
    lines.push_back(traffic_line(snapshot, "out"));
    lines.push_back(waiting_line(snapshot));
    lines.push_back(latency_line(snapshot.at("latency_us")));
    add_peers(lines, snapshot.at("peers"));
    return lines;
}

} // namespace

std::vector<view_line> snapshot_lines(json_object const& snapshot) {
    try {
        return describe(snapshot);
    } catch (json_object::exception const& reason) {
        throw failure(exit_code::failed,
                      printable(fmt::format("what answers is no Center of this kind: {}", reason.what())));
    }
}

std::string snapshot_text(json_object const& snapshot) {
    std::string text;
    for (view_line const& line : snapshot_lines(snapshot)) {
        text += line.text + "\n";
    }
    return text;
}

} // namespace Zolt::Reference_Center
