// Error lines, alerts and traces: what is written, what is lost, and that printing never waits.
#include "Host/tesk_utility.hpp"
#include "Host/zolt_global.hpp"
#include "Reference_Host/output_sink.hpp"
#include "tests/unit/reference_host_fixtures.hpp"

#include <atomic>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <unistd.h>

namespace reference_host_test {
namespace {

using Common::Global::zolt_debug_not_send;
using std::chrono::milliseconds;
using Tesk::Utility::alert;
using Tesk::Utility::print_error;

struct seen_line {
    line_kind kind;
    char letter;
    std::string text;

    friend bool operator==(seen_line const&, seen_line const&) = default;
};

std::ostream& operator<<(std::ostream& out, seen_line const& line) {
    return out << static_cast<int>(line.kind) << ' ' << line.letter << ' ' << line.text;
}

/// Collects the lines instead of writing them; the writing thread waits inside the target while the gate is closed.
class output : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(drain_output(c_patience));
        set_output_target(&output::collect, this);
    }

    void TearDown() override {
        gate_closed = false;
        EXPECT_TRUE(drain_output(c_patience));
        set_output_target(nullptr, nullptr);
        set_output_descriptor(STDERR_FILENO);
        set_traces("");
    }

    static void collect(output_line const& line, void* context) {
        auto* const self = static_cast<output*>(context);
        self->waiting = true;
        EXPECT_TRUE(comes_true([self] { return !self->gate_closed; }));
        std::lock_guard<std::mutex> const hold(self->lock);
        self->lines.push_back({line.kind, line.letter, std::string(line.text)});
    }

    std::vector<seen_line> drained() {
        EXPECT_TRUE(drain_output(c_patience));
        std::lock_guard<std::mutex> const hold(lock);
        return std::exchange(lines, {});
    }

    void trace(char letter, char const* format, int value = 0) {
        char const* const file = "Center/INet_Relay/EPoll/epoll";
        EXPECT_EQ(zolt_debug_not_send(letter, struct_token(), file, 7, format, value), 0);
    }

    std::atomic<bool> gate_closed{false};
    std::atomic<bool> waiting{false};
    std::mutex lock;
    std::vector<seen_line> lines;
};

TEST_F(output, error_lines_are_the_messages_with_one_end_of_line_taken_off) {
    print_error("epoll_create 에러");
    print_error("epoll.epoll_tcp_send 요청 에러\n");
    print_error("sent err : ");
    print_error(nullptr);
    print_error("Center/INet_Relay/EPoll/inet_relay_epoll.cpp", 120);
    EXPECT_EQ(drained(), (std::vector<seen_line>{
                             {line_kind::error, 0, "epoll_create 에러"},
                             {line_kind::error, 0, "epoll.epoll_tcp_send 요청 에러"},
                             {line_kind::error, 0, "sent err : "},
                             {line_kind::error, 0, ""},
                             {line_kind::position, 0, "Center/INet_Relay/EPoll/inet_relay_epoll.cpp:120"},
                         }));
}

TEST_F(output, alerts_show_their_title) {
    alert("port 80 is taken\n", "Zolt Error");
    EXPECT_EQ(drained(), (std::vector<seen_line>{{line_kind::alert, 0, "[Zolt Error] port 80 is taken"}}));
}

TEST_F(output, traces_are_off_until_switched_on_by_letter) {
    trace('t', "off %d");
    set_traces("tC");
    trace('t', "on %d", 1);
    trace('C', "on %d", 2);
    trace('T', "off %d");
    trace('E', "off %d");
    set_traces("*");
    trace('E', "on %d", 3);
    trace('\xFF', "on %d", 4);
    set_traces("");
    trace('t', "off %d");
    std::string const place = "Center/INet_Relay/EPoll/epoll:7 ";
    EXPECT_EQ(drained(), (std::vector<seen_line>{{line_kind::trace, 't', place + "t on 1"},
                                                 {line_kind::trace, 'C', place + "C on 2"},
                                                 {line_kind::trace, 'E', place + "E on 3"},
                                                 {line_kind::trace, '\xFF', place + "\xFF on 4"}}));
}

class pin_output : public output {};

// Deliberate: the format comes with two arguments for five conversions.
TEST_F(pin_output, the_delete_trace_is_not_expanded) {
    set_traces("E");
    char const letter = 'E';
    char const* const file = "f";
    zolt_debug_not_send(letter, struct_token(), file, 120, "delete %s overlapped %d.%d.%d.%d", "client", "1.2.3.4");
    EXPECT_EQ(drained(), (std::vector<seen_line>{{line_kind::trace, 'E', "f:120 E delete %s overlapped %d.%d.%d.%d"}}));
}

TEST_F(output, long_lines_are_cut) {
    std::string const text(1000, 'x');
    set_traces("t");
    print_error(text.c_str());
    alert(text.c_str(), "title");
    trace('t', text.c_str());
    for (seen_line const& line : drained()) {
        EXPECT_LE(line.text.size(), 480U);
        EXPECT_GE(line.text.size(), 470U);
    }
}

TEST_F(output, a_full_queue_loses_lines_counts_them_and_says_so) {
    constexpr std::uint64_t c_printed = 3000;
    std::uint64_t const lost_before = count_lost_lines();
    gate_closed = true;
    print_error("held");
    ASSERT_TRUE(comes_true([&] { return waiting.load(); }));
    for (std::uint64_t i = 0; i < c_printed; ++i) {
        print_error("line");
    }
    std::uint64_t const lost = count_lost_lines() - lost_before;
    EXPECT_GT(lost, 0U);
    EXPECT_LT(lost, c_printed);
    EXPECT_FALSE(drain_output(milliseconds(1)));
    gate_closed = false;
    std::vector<seen_line> const written = drained();
    EXPECT_EQ(written.size(), 1 + c_printed - lost + 1);
    auto const told = std::find_if(written.begin(), written.end(),
                                   [](seen_line const& line) { return line.kind == line_kind::loss; });
    ASSERT_NE(told, written.end());
    EXPECT_EQ(told->text, std::to_string(lost) + " lines of output were lost");
}

TEST_F(output, lines_of_one_thread_keep_their_order_among_many) {
    constexpr int c_threads = 4;
    constexpr int c_lines = 100;
    thread_group(c_threads, [](unsigned int thread) {
        for (int i = 0; i < c_lines; ++i) {
            print_error((std::to_string(thread) + ' ' + std::to_string(i)).c_str());
        }
    }).join();
    int next[c_threads] = {};
    for (seen_line const& line : drained()) {
        auto const thread = static_cast<std::size_t>(line.text[0] - '0');
        ASSERT_LT(thread, std::size(next));
        EXPECT_EQ(line.text.substr(2), std::to_string(next[thread]++));
    }
    for (int const count : next) {
        EXPECT_EQ(count, c_lines);
    }
}

/// Lines that go to a pipe.
class output_to_pipe : public output {
protected:
    void SetUp() override {
        output::SetUp();
        ASSERT_EQ(::pipe2(ends, O_NONBLOCK), 0);
        set_output_target(nullptr, nullptr);
        set_output_descriptor(ends[1]);
    }

    void TearDown() override {
        output::TearDown();
        for (int const end : ends) {
            if (end != -1) {
                ::close(end);
            }
        }
    }

    std::string read_all() {
        std::string text;
        char piece[4096];
        for (ssize_t count = 0; (count = ::read(ends[0], piece, sizeof piece)) > 0;) {
            text.append(piece, static_cast<std::size_t>(count));
        }
        return text;
    }

    int ends[2] = {-1, -1};
};

TEST_F(output_to_pipe, each_line_is_written_with_its_end) {
    print_error("one");
    print_error("two\n");
    ASSERT_TRUE(drain_output(c_patience));
    EXPECT_EQ(read_all(), "one\ntwo\n");
}

TEST_F(output_to_pipe, a_pipe_that_nobody_reads_holds_nobody_up) {
    std::string const block(4096, 'x');
    while (::write(ends[1], block.data(), block.size()) > 0) {
    }
    print_error("waits for room");
    EXPECT_FALSE(drain_output(milliseconds(1)));
    std::string text = read_all();
    EXPECT_TRUE(drain_output(c_patience));
    text += read_all();
    EXPECT_TRUE(text.ends_with("xwaits for room\n"));
}

TEST_F(output_to_pipe, a_descriptor_that_fails_loses_the_line) {
    std::uint64_t const before = count_lost_lines();
    ::close(std::exchange(ends[0], -1));
    print_error("to nobody");
    EXPECT_TRUE(drain_output(c_patience));
    EXPECT_GT(count_lost_lines(), before);
}

TEST_F(output_to_pipe, a_descriptor_that_takes_nothing_loses_the_line_in_the_end) {
    std::uint64_t const before = count_lost_lines();
    set_output_descriptor(ends[0]);
    print_error("to the end for reading");
    EXPECT_TRUE(drain_output(c_patience));
    EXPECT_GT(count_lost_lines(), before);
}

TEST(output_at_exit, what_was_printed_is_written) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto const print_and_exit = [] {
        for (int i = 0; i < 500; ++i) {
            print_error("early");
        }
        print_error("the last line");
        std::exit(0); // NOLINT(concurrency-mt-unsafe): what happens at exit is what is tested
    };
    EXPECT_EXIT(print_and_exit(), ::testing::ExitedWithCode(0), "early\nthe last line");
}

} // namespace
} // namespace reference_host_test
