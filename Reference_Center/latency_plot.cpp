#include "Reference_Center/latency_plot.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <fmt/format.h>

namespace Zolt::Reference_Center {
namespace {

constexpr double c_left = 76;
constexpr double c_right = 736;
constexpr double c_top = 56;
constexpr double c_bottom = 356;
constexpr double c_step = 0.02; ///< between two points of the curve, in nines
constexpr double c_fewest_nines = 2;
constexpr double c_most_nines = 6;

constexpr char const* c_plot_head =
    R"(<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 760 420" width="760" height="420" role="img">
<style>
  svg {{ --page: #ffffff; --ink: #1c1f23; --faint: #d5d9de; --mark: #0b62c4; font: 13px sans-serif; }}
  @media (prefers-color-scheme: dark) {{
    svg {{ --page: #16191d; --ink: #e6e8eb; --faint: #3a4048; --mark: #6cb0ff; }}
  }}
  .page {{ fill: var(--page); }} text {{ fill: var(--ink); }} .title {{ font-size: 15px; font-weight: bold; }}
  .grid {{ stroke: var(--faint); }} .curve {{ fill: none; stroke: var(--mark); stroke-width: 2; }}
  .dot {{ fill: var(--mark); }} .up {{ text-anchor: end; }} .across {{ text-anchor: middle; }}
</style>
<title>{0}</title>
<rect class="page" width="760" height="420"/>
<text class="title" x="24" y="28">{0}</text>
)";

struct named_share {
    double share;
    char const* text;
};
constexpr std::array<named_share, 8> c_ticks{{{0, "0 %"},
                                              {0.5, "50 %"},
                                              {0.9, "90 %"},
                                              {0.99, "99 %"},
                                              {0.999, "99.9 %"},
                                              {0.9999, "99.99 %"},
                                              {0.99999, "99.999 %"},
                                              {0.999999, "99.9999 %"}}};

std::string escape(std::string const& text) {
    std::string escaped;
    for (char const letter : text) {
        escaped += letter == '&' ? "&amp;" : letter == '<' ? "&lt;" : std::string(1, letter);
    }
    return escaped;
}

std::string time_text(double nanoseconds) {
    if (nanoseconds < 1e3) {
        return fmt::format("{:.3g} ns", nanoseconds);
    }
    return nanoseconds < 1e6   ? fmt::format("{:.3g} us", nanoseconds / 1e3)
           : nanoseconds < 1e9 ? fmt::format("{:.3g} ms", nanoseconds / 1e6)
                               : fmt::format("{:.3g} s", nanoseconds / 1e9);
}

double nines_of(double share) {
    return -std::log10(1 - share);
}

class latency_picture {
public:
    explicit latency_picture(latency_histogram const& shown)
        : latencies(shown),
          nines(std::clamp(std::log10(static_cast<double>(shown.count())), c_fewest_nines, c_most_nines)),
          lowest(static_cast<int>(std::log10(std::max<double>(static_cast<double>(shown.least()), 1)))),
          highest(
              std::max(static_cast<int>(std::ceil(std::log10(static_cast<double>(shown.most()) + 1))), lowest + 1)) {}

    std::string draw() const { return time_axis() + share_axis() + curve() + dots(); }

private:
    double across(double at_nines) const { return c_left + (c_right - c_left) * at_nines / nines; }
    double up(double nanoseconds) const {
        double const part = (std::log10(std::max(nanoseconds, 1.0)) - lowest) / (highest - lowest);
        return c_bottom - (c_bottom - c_top) * part;
    }
    double time_at(double share) const { return static_cast<double>(latencies.at_share(share)); }

    std::string time_axis() const {
        std::string text;
        for (int decade = lowest; decade <= highest; ++decade) {
            for (double const part : {1, 2, 5}) {
                double const time = part * std::pow(10, decade);
                if (time > std::pow(10, highest)) {
                    break;
                }
                text += fmt::format(
                    R"(<line class="grid" x1="{:.1f}" x2="{:.1f}" y1="{:.1f}" y2="{:.1f}"/><text class="up" x="{:.1f}" y="{:.1f}">{}</text>)",
                    c_left, c_right, up(time), up(time), c_left - 8, up(time) + 4, time_text(time));
                text += '\n';
            }
        }
        return text;
    }

    std::string share_axis() const {
        std::string text;
        for (auto const& [share, name] : c_ticks) {
            double const place = nines_of(share);
            if (place <= nines) {
                text += fmt::format(
                    R"(<line class="grid" x1="{0:.1f}" x2="{0:.1f}" y1="{1:.1f}" y2="{2:.1f}"/><text class="across" x="{0:.1f}" y="{3:.1f}">{4}</text>)",
                    across(place), c_top, c_bottom, c_bottom + 20, name);
                text += '\n';
            }
        }
        return text +
               fmt::format(
                   R"(<text class="across" x="{:.1f}" y="{:.1f}">share of all that took at most so long</text>)",
                   (c_left + c_right) / 2, c_bottom + 46) +
               "\n";
    }

    std::string curve() const {
        std::string points;
        for (int step = 0; step < nines / c_step; ++step) {
            double const place = step * c_step;
            points += fmt::format("{:.1f},{:.1f} ", across(place), up(time_at(1 - std::pow(10, -place))));
        }
        points += fmt::format("{:.1f},{:.1f}", across(nines), up(time_at(1 - std::pow(10, -nines))));
        return fmt::format("<polyline class=\"curve\" points=\"{}\"/>\n", points);
    }

    std::string dots() const {
        std::string text;
        for (auto const& [share, name] : c_ticks) {
            double const place = nines_of(share);
            if (place == 0 || place > nines) {
                continue;
            }
            double const time = time_at(share);
            text += fmt::format(
                R"(<circle class="dot" cx="{0:.1f}" cy="{1:.1f}" r="4"/><text class="up" x="{2:.1f}" y="{3:.1f}">{4}</text>)",
                across(place), up(time), across(place) - 6, up(time) - 8, time_text(time));
            text += '\n';
        }
        return text;
    }

    latency_histogram const& latencies;
    double const nines; ///< where the axis of shares ends
    int const lowest;   ///< where the axis of times begins, as a power of ten of nanoseconds
    int const highest;  ///< and ends
};

} // namespace

std::string draw_latencies(latency_histogram const& latencies, std::string const& title) {
    std::string const head = fmt::format(c_plot_head, escape(title));
    if (latencies.count() == 0) {
        return head + "<text class=\"across\" x=\"380\" y=\"210\">nothing was measured</text>\n</svg>\n";
    }
    return head + latency_picture(latencies).draw() + "</svg>\n";
}

} // namespace Zolt::Reference_Center
