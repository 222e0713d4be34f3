#include "Reference_Center/diagnostics.hpp"

#include "Reference_Center/output.hpp"
#include "Reference_Host/output_sink.hpp"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

namespace Zolt::Reference_Center {
namespace {

using std::chrono::steady_clock;

constexpr std::chrono::minutes c_fold_time{1};
constexpr std::chrono::seconds c_last_lines_time{1};
constexpr std::size_t c_most_texts = 256;
constinit std::atomic<std::uint64_t> g_folded_lines{0};

/// The texts written within the last minute. Thread: the host's writing one, then the one that flushes.
class line_folder {
public:
    void take(std::string_view text) {
        auto const now = steady_clock::now();
        if (folds.size() >= c_most_texts) {
            flush();
        }
        auto const [entry, is_new] = folds.try_emplace(std::string(text));
        fold& here = entry->second;
        if (!is_new && now < here.open_until) {
            ++here.held;
            g_folded_lines.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        write(entry->first, here.held);
        here = {now + c_fold_time, 0};
        explain_end(text);
    }

    void flush() {
        for (auto const& [text, here] : folds) {
            if (here.held != 0) {
                write(text, here.held);
            }
        }
        folds.clear();
    }

private:
    struct fold {
        steady_clock::time_point open_until;
        std::uint64_t held = 0;
    };

    static void write(std::string const& text, std::uint64_t held) {
        if (held == 0) {
            spdlog::warn("relay: {}", text);
        } else {
            spdlog::warn("relay: {} (held back {} times)", text, held);
        }
    }

    /// Looks like an error, and is none: told once.
    void explain_end(std::string_view text) {
        if (!has_explained && (text == "recv server 에러" || text == "recv client 에러")) {
            has_explained = true;
            log_event("the line above comes with the end of each connection, also of one that the peer just closed");
        }
    }

    std::map<std::string, fold, std::less<>> folds;
    bool has_explained = false;
};

line_folder& get_folder() {
    static line_folder folder;
    return folder;
}

void take_relay_line(Reference_Host::output_line const& line, void*) {
    if (line.kind == Reference_Host::line_kind::trace) {
        spdlog::debug("relay: {}", line.text);
    } else {
        get_folder().take(line.text);
    }
}

} // namespace

void start_diagnostics(chattiness level) {
    auto const colour = wants_colour(STDERR_FILENO) ? spdlog::color_mode::always : spdlog::color_mode::never;
    auto logger =
        std::make_shared<spdlog::logger>("zolt-center", std::make_shared<spdlog::sinks::stderr_color_sink_mt>(colour));
    logger->set_pattern("%H:%M:%S.%e %^%l%$ %v");
    logger->set_level(level == chattiness::quiet    ? spdlog::level::warn
                      : level == chattiness::normal ? spdlog::level::info
                                                    : spdlog::level::debug);
    spdlog::set_default_logger(std::move(logger));
    Reference_Host::set_traces(level == chattiness::verbose ? "*" : "");
}

std::uint64_t count_folded_lines() {
    return g_folded_lines.load(std::memory_order_relaxed);
}

void log_event(std::string_view text) {
    spdlog::info(text);
}

void log_warning(std::string_view text) {
    spdlog::warn(text);
}

relay_lines::relay_lines() {
    Reference_Host::set_output_target(take_relay_line, nullptr);
}

relay_lines::~relay_lines() {
    Reference_Host::drain_output(c_last_lines_time);
    Reference_Host::set_output_target(nullptr, nullptr);
    get_folder().flush();
}

} // namespace Zolt::Reference_Center
