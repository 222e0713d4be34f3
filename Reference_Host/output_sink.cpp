#include "Reference_Host/output_sink.hpp"

#include "Reference_Host/bounded_queue.hpp"
#include "Reference_Host/thread_starting.hpp"
#include "Reference_Host/wakeup.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <poll.h>
#include <unistd.h>

namespace Zolt::Reference_Host {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::size_t c_line_room = 480;
constexpr std::size_t c_lines = 1024;
constexpr milliseconds c_drain_at_exit{1000};
/// How long the descriptor may refuse a line before the line is lost.
constexpr milliseconds c_write_patience{1000};
constexpr std::string_view c_cut_mark = "...";

struct queued_line {
    line_kind kind;
    char letter;
    std::uint16_t length;
    char text[c_line_room + 1]; ///< one more for the end of line

    void fill(line_kind new_kind, char new_letter, std::string_view new_text) {
        kind = new_kind;
        letter = new_letter;
        length = static_cast<std::uint16_t>(std::min(new_text.size(), c_line_room));
        std::memcpy(text, new_text.data(), length);
        if (new_text.size() > c_line_room) {
            std::memcpy(text + c_line_room - c_cut_mark.size(), c_cut_mark.data(), c_cut_mark.size());
        }
    }
};

/// The sink of the process: made by the first line, never destroyed, because lines may be printed until the very end.
class output_sink {
public:
    output_sink() : queue(c_lines) {
        if (start_thread(thread, &output_sink::run, this) != 0) {
            closing.store(true, std::memory_order_release);
        }
    }

    void print(line_kind kind, char letter, std::string_view text) {
        bool const taken = !closing.load(std::memory_order_acquire) &&
                           queue.put([&](queued_line& line) { line.fill(kind, letter, text); });
        if (!taken) {
            lost.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        writer.wake();
    }

    void set_target(output_target new_target, void* new_context) {
        std::lock_guard<std::mutex> const hold(target_lock);
        target = new_target;
        context = new_context;
    }

    void set_descriptor(int number) { descriptor.store(number, std::memory_order_relaxed); }

    bool drain(milliseconds longest) {
        // Lines are taken in the order of their positions, so the count of those written tells which are.
        std::uint64_t const goal = queue.count_put();
        return drained.sleep_until(steady_clock::now() + longest,
                                   [&] { return written.load(std::memory_order_acquire) >= goal; });
    }

    std::uint64_t count_lost() const { return lost.load(std::memory_order_relaxed); }

    /// Writes what is queued, ends the thread and takes nothing more. The thread never blocks for long, so neither does
    /// this.
    void close() {
        drain(c_drain_at_exit);
        if (!closing.exchange(true, std::memory_order_acq_rel)) {
            writer.wake();
            ::pthread_join(thread, nullptr);
        }
    }

private:
    static void* run(void* argument) {
        wear_thread_name({"relay-output"});
        static_cast<output_sink*>(argument)->write_until_closed();
        return nullptr;
    }

    void write_until_closed() {
        auto const has_work = [this] { return queue.size() != 0 || closing.load(std::memory_order_acquire); };
        while (!closing.load(std::memory_order_acquire)) {
            writer.sleep_until(steady_clock::now() + std::chrono::hours(1), has_work);
            write_queued();
        }
    }

    void write_queued() {
        bool taken = false;
        while (queue.take([&](queued_line& line) { taken = write_line(line); })) {
            if (taken) {
                report_loss();
            }
            written.fetch_add(1, std::memory_order_acq_rel);
            drained.wake();
        }
    }

    /// Says how many lines were lost since this was last said; only behind a line that went out, so that a descriptor
    /// that takes nothing costs no time twice.
    void report_loss() {
        std::uint64_t const total = lost.load(std::memory_order_relaxed);
        if (total == reported_loss) {
            return;
        }
        queued_line line;
        char text[64];
        std::snprintf(text, sizeof text, "%llu lines of output were lost",
                      static_cast<unsigned long long>(total - reported_loss));
        line.fill(line_kind::loss, 0, text);
        if (write_line(line)) {
            reported_loss = total;
        }
    }

    /// False when the line was lost.
    bool write_line(queued_line& line) {
        std::lock_guard<std::mutex> const hold(target_lock);
        if (target != nullptr) {
            target({line.kind, line.letter, {line.text, line.length}}, context);
            return true;
        }
        line.text[line.length] = '\n';
        bool const taken = write_bytes(descriptor.load(std::memory_order_relaxed), line.text, line.length + 1U);
        lost.fetch_add(taken ? 0 : 1, std::memory_order_relaxed);
        return taken;
    }

    /// False when the descriptor does not take the bytes in time. A line is shorter than a pipe's atomic write, so a
    /// descriptor that is ready takes it whole.
    bool write_bytes(int fd, char const* bytes, std::size_t count) {
        auto const deadline = steady_clock::now() + c_write_patience;
        while (count != 0) {
            pollfd ready{fd, POLLOUT, 0};
            if (::poll(&ready, 1, 50) != 1) {
                if (steady_clock::now() >= deadline || closing.load(std::memory_order_acquire)) {
                    return false;
                }
                continue;
            }
            ssize_t const done = ::write(fd, bytes, count);
            if (done < 0 && errno != EINTR && errno != EAGAIN) {
                return false;
            }
            if (done > 0) {
                bytes += done;
                count -= static_cast<std::size_t>(done);
            }
        }
        return true;
    }

    bounded_queue<queued_line> queue;
    wakeup writer;
    wakeup drained;
    std::atomic<bool> closing{false};
    std::atomic<std::uint64_t> written{0};
    std::atomic<std::uint64_t> lost{0};
    std::uint64_t reported_loss = 0; ///< the writing thread's
    std::atomic<int> descriptor{STDERR_FILENO};
    std::mutex target_lock;
    output_target target = nullptr;
    void* context = nullptr;
    pthread_t thread{};
};

output_sink& get_sink() {
    static output_sink* const sink = [] {
        auto* const made = new output_sink;
        std::atexit([] { get_sink().close(); });
        return made;
    }();
    return *sink;
}

constinit std::atomic<std::uint64_t> g_traced_letters[2]{};

/// Letters beyond ASCII share the last bit.
struct letter_bit {
    explicit letter_bit(char letter) {
        unsigned int const number = std::min<unsigned int>(static_cast<unsigned char>(letter), 127U);
        word = number / 64;
        mask = std::uint64_t{1} << (number % 64);
    }
    unsigned int word;
    std::uint64_t mask;
};

} // namespace

void set_output_target(output_target target, void* context) {
    get_sink().set_target(target, context);
}

void set_output_descriptor(int descriptor) {
    get_sink().set_descriptor(descriptor);
}

bool drain_output(std::chrono::milliseconds longest) {
    return get_sink().drain(longest);
}

std::uint64_t count_lost_lines() {
    return get_sink().count_lost();
}

void set_traces(std::string_view letters) {
    std::uint64_t words[2] = {0, 0};
    for (char const letter : letters) {
        if (letter == '*') {
            words[0] = words[1] = ~std::uint64_t{0};
            break;
        }
        letter_bit const bit(letter);
        words[bit.word] |= bit.mask;
    }
    g_traced_letters[0].store(words[0], std::memory_order_relaxed);
    g_traced_letters[1].store(words[1], std::memory_order_relaxed);
}

bool is_traced(char letter) {
    letter_bit const bit(letter);
    return (g_traced_letters[bit.word].load(std::memory_order_relaxed) & bit.mask) != 0;
}

void print_line(line_kind kind, char letter, std::string_view text) {
    try {
        get_sink().print(kind, letter, text);
    } catch (std::bad_alloc const&) {
        // Only the first line allocates; without memory for the sink there is nobody to tell.
    }
}

} // namespace Zolt::Reference_Host
