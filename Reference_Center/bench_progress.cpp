#include "Reference_Center/bench_progress.hpp"

#include "Reference_Center/output.hpp"

#include <fmt/format.h>
#include <unistd.h>

namespace Zolt::Reference_Center {
namespace {

/// Back to the line's beginning, which is cleared.
constexpr char const* c_erase = "\r\x1b[K";

void draw(std::string const& text) {
    static_cast<void>(::write(STDERR_FILENO, text.data(), text.size()) == 0);
}

} // namespace

bench_progress::bench_progress(bool wanted, bench_time begins, bench_time ends)
    : is_shown(wanted && is_terminal(STDERR_FILENO)), begin(begins), end(ends) {}

bench_progress::~bench_progress() {
    if (is_drawn) {
        draw(c_erase);
    }
}

void bench_progress::show(bench_time now) {
    if (is_shown) {
        draw(c_erase + text_at(now));
        is_drawn = true;
    }
}

std::string bench_progress::text_at(bench_time now) const {
    if (now < begin) {
        return fmt::format("warming up; {:.1f} s remain", in_seconds(end - now));
    }
    if (now >= end) {
        return fmt::format("waiting for the last answers; {} have come", answered);
    }
    return fmt::format("{:.1f} of {:.1f} s; {} answers; {:.1f} s remain", in_seconds(now - begin),
                       in_seconds(end - begin), answered, in_seconds(end - now));
}

} // namespace Zolt::Reference_Center
