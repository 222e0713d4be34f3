// The five event threads: the loop they share, their dispatch tables, how a thread ends, what it prints.
#include "tests/support/allocations.hpp"
#include "tests/support/loopback.hpp"
#include "tests/support/relay_fixture.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <new>
#include <stdexcept>

#include <netinet/in.h>
#include <sys/eventfd.h>

namespace {

using namespace relay_test;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using names = std::vector<std::string>;

/// What one thread does with records of one kind.
struct kind_row {
    int kind;
    names on_event;
    names on_error;
};

struct thread_row {
    char const* name;
    void* (*entry)(Tesk::OS::class_thread*);
    int* instance;
    char const* instance_name;
    char const* ended_by;
    char const* went_on;
    std::vector<kind_row> kinds; ///< kinds that are not listed are ignored
    int handled_kind;            ///< one that a plain event leads to a handler for
    char const* handler;
    std::uint32_t handled_mask;
};

// The set-up thread looks at whole masks for kind 3; see c_connecting_masks.
thread_row const c_threads[] = {
    {"tcp_init",
     EPoll::epoll_thread_tcp_init_entry,
     &EPoll::epoll_tcp_init,
     "epoll_tcp_init",
     "tcp_init_ended_by",
     "init_went_on",
     {{1, {"accept"}, {}}},
     1,
     "accept",
     EPOLLIN},
    {"tcp_recv",
     EPoll::epoll_thread_tcp_recv_entry,
     &EPoll::epoll_tcp_recv,
     "epoll_tcp_recv",
     "tcp_recv_ended_by",
     "recv_went_on",
     {{2, {"recv_server_init"}, {"failed_server_init"}},
      {3, {"recv_client_init"}, {"failed_connect_init"}},
      {4, {"recv_server"}, {"shutdown_server"}},
      {5, {"recv_client"}, {"unestablish_connect", "close_client"}}},
     4,
     "recv_server",
     EPOLLIN},
    {"tcp_send",
     EPoll::epoll_thread_tcp_send_entry,
     &EPoll::epoll_tcp_send,
     "epoll_tcp_send",
     "tcp_send_ended_by",
     "send_went_on",
     {{2, {"send_server_init"}, {"failed_server_init"}},
      {3, {"send_client_init"}, {"failed_connect_init"}},
      {4, {"send_server"}, {"failed_send"}},
      {5, {"send_client"}, {"failed_send"}}},
     5,
     "send_client",
     EPOLLOUT},
    {"udp_recv",
     EPoll::epoll_thread_udp_recv_entry,
     &EPoll::epoll_udp_recv,
     "epoll_udp_recv",
     "udp_recv_ended_by",
     "recv_went_on",
     {{0, {"recv_udp"}, {}}},
     0,
     "recv_udp",
     EPOLLIN},
    {"udp_send",
     EPoll::epoll_thread_udp_send_entry,
     &EPoll::epoll_udp_send,
     "epoll_udp_send",
     "udp_send_ended_by",
     "send_went_on",
     {{0, {"send_udp"}, {}}},
     0,
     "send_udp",
     EPOLLOUT},
};

constexpr std::uint32_t c_plain_masks[] = {0x001, 0x004, 0x005, 0x002, 0x2001, 0x2005};
constexpr std::uint32_t c_error_masks[] = {0x008, 0x010, 0x009, 0x011, 0x00C, 0x014,
                                           0x018, 0x019, 0x01C, 0x01D, 0x2019};
constexpr int c_kinds[] = {-1, 0, 1, 2, 3, 4, 5, 6, 1000};
constexpr int c_tcp_init_row = 0;

struct connecting_row {
    std::uint32_t mask;
    names handlers;
};
connecting_row const c_connecting_masks[] = {
    {0x004, {"completed_connect"}},
    {0x014, {"completed_connect"}},
    {0x01C, {"failed_connect"}},
    {0x001, {}},
    {0x005, {}},
    {0x00C, {}},
    {0x008, {}},
    {0x010, {}},
    {0x011, {}},
    {0x015, {}},
    {0x018, {}},
    {0x019, {}},
    {0x01D, {}},
    {0x2004, {}},
    {0x2014, {}},
    {0x201C, {}},
    {0, {}},
};

void PrintTo(thread_row const& row, std::ostream* out) {
    *out << row.name;
}

class event_threads : public relay_fixture {
protected:
    void SetUp() override {
        relay_fixture::SetUp();
        ::pthread_sigmask(SIG_BLOCK, nullptr, &mask_before);
    }

    void TearDown() override {
        ::pthread_sigmask(SIG_SETMASK, &mask_before, nullptr);
        relay_fixture::TearDown();
    }

    /// A record of any kind; the fixture keeps it.
    EPoll::struct_epoll_overlapped* make_record(int kind) {
        std::string const name = "kind " + std::to_string(kind);
        if (kind == EPoll::c_kind_udp) {
            auto* const rec = make_udp(-1, name);
            keep(rec);
            return rec;
        }
        if (kind == EPoll::c_kind_listen) {
            auto* const rec = make_listening(-1, name);
            keep(rec);
            return rec;
        }
        auto* const rec = make_tcp(kind, -1, name);
        keep(rec);
        return rec;
    }

    /// Instances that no kernel knows; scripted events come from them.
    void use_made_up_instances() {
        int next = 1 << 20;
        for (thread_row const& row : c_threads) {
            *row.instance = next++;
            name_descriptor(*row.instance, row.instance_name);
        }
    }

    /// Runs the entry on this thread over these events and the stop that follows. Its result.
    void* serve(thread_row const& row, std::vector<scripted_event> sequence) {
        system.events(*row.instance, std::move(sequence));
        return row.entry(nullptr);
    }

    static lines calls_of(names const& handlers, std::string const& record) {
        lines calls;
        for (std::string const& handler : handlers) {
            calls.push_back("EPoll::" + handler + "(" + record + ")");
        }
        return calls;
    }

    /// What a thread that a string ended prints.
    static std::string ended_line(thread_row const& row, std::string const& what, int error) {
        return text(row.ended_by) + what + text("ended_errno") + std::to_string(error) + "\n";
    }

    sigset_t mask_before{};
};

class event_thread : public event_threads, public ::testing::WithParamInterface<thread_row> {
protected:
    void SetUp() override {
        event_threads::SetUp();
        use_made_up_instances();
        engine.answer_all(0);
        handled = make_record(GetParam().handled_kind);
    }

    scripted_event handled_event() const { return {GetParam().handled_mask, handled}; }
    std::size_t waits() const { return system.count("epoll_wait"); }

    EPoll::struct_epoll_overlapped* handled = nullptr;
};

INSTANTIATE_TEST_SUITE_P(all, event_thread, ::testing::ValuesIn(c_threads),
                         [](auto const& row) { return std::string(row.param.name); });

// --- dispatch --------------------------------------------------------------------------------------------------

TEST_P(event_thread, calls_the_handlers_of_its_table_and_no_others) {
    for (int const kind : c_kinds) {
        bool const has_own_masks = GetParam().entry == c_threads[c_tcp_init_row].entry && kind == 3;
        auto const found = std::find_if(GetParam().kinds.begin(), GetParam().kinds.end(),
                                        [&](kind_row const& row) { return row.kind == kind; });
        kind_row const expected = found == GetParam().kinds.end() ? kind_row{kind, {}, {}} : *found;
        auto* const rec = make_record(kind);
        auto const check = [&](std::uint32_t mask, names const& handlers) {
            clear_journal();
            EXPECT_EQ(serve(GetParam(), {{mask, rec}}), nullptr);
            EXPECT_EQ(journal_lines(about::engine), calls_of(handlers, known_object_name(rec)))
                << "kind " << kind << ", mask " << hex(mask);
        };
        for (std::uint32_t const mask : c_plain_masks) {
            check(mask, has_own_masks ? (mask == EPOLLOUT ? names{"completed_connect"} : names{}) : expected.on_event);
        }
        for (std::uint32_t const mask :
             has_own_masks ? std::vector<std::uint32_t>{}
                           : std::vector<std::uint32_t>(std::begin(c_error_masks), std::end(c_error_masks))) {
            check(mask, expected.on_error);
        }
    }
}

TEST_P(event_thread, waits_on_its_own_instance_for_one_event_without_limit) {
    serve(GetParam(), {handled_event(), handled_event()});
    std::string const wait = "epoll_wait(" + std::string(GetParam().instance_name) + ", 1, -1)";
    std::string const call = calls_of({GetParam().handler}, known_object_name(handled)).at(0);
    EXPECT_EQ(journal_lines(), (lines{wait, call, wait, call, wait}));
}

TEST_P(event_thread, ignores_its_argument) {
    int something = 0;
    system.events(*GetParam().instance, {handled_event()});
    EXPECT_EQ(GetParam().entry(reinterpret_cast<Tesk::OS::class_thread*>(&something)), nullptr);
    EXPECT_EQ(engine.count(GetParam().handler), 1u);
}

TEST_P(event_thread, ends_without_a_word_at_an_event_without_a_record) {
    for (std::uint32_t const mask : {0x000u, 0x004u, 0x008u, 0x010u, 0x014u, 0x01Cu}) {
        clear_journal();
        EXPECT_EQ(serve(GetParam(), {{mask, nullptr}, handled_event()}), nullptr);
        EXPECT_EQ(journal_lines().size(), 1u) << hex(mask);
    }
}

TEST_P(event_thread, goes_on_after_a_kind_that_it_does_not_know) {
    for (int const kind : {-1, 6, 1000}) {
        clear_journal();
        auto* const stranger = make_record(kind);
        serve(GetParam(), {{EPOLLIN, stranger}, {EPOLLERR, stranger}, handled_event()});
        EXPECT_EQ(journal_lines(about::engine), calls_of({GetParam().handler}, known_object_name(handled)));
    }
}

TEST_P(event_thread, takes_no_lock) {
    for (kind_row const& row : GetParam().kinds) {
        serve(GetParam(), {{EPOLLIN, make_record(row.kind)}, {EPOLLERR, make_record(row.kind)}});
    }
    EXPECT_THAT(journal_lines(about::lock), IsEmpty());
}

// --- the loop --------------------------------------------------------------------------------------------------

TEST_P(event_thread, waits_again_when_interrupted) {
    system.fail("epoll_wait", 1, EINTR);
    system.fail("epoll_wait", 2, EINTR);
    EXPECT_EQ(serve(GetParam(), {handled_event()}), nullptr);
    EXPECT_EQ(waits(), 4u);
    EXPECT_EQ(engine.count(GetParam().handler), 1u);
}

TEST_P(event_thread, ends_when_waiting_fails) {
    for (int const error : {EBADF, EINVAL, EFAULT}) {
        clear_journal();
        system.fail("epoll_wait", 1, error);
        EXPECT_EQ(serve(GetParam(), {handled_event()}), nullptr);
        expect_error(ended_line(GetParam(), text("epoll_wait_failed"), error));
        EXPECT_EQ(journal_count("epoll_wait"), 1u);
    }
    EXPECT_EQ(engine.count(GetParam().handler), 0u);
}

TEST_P(event_thread, ends_when_waiting_gives_nothing) {
    system.answer("epoll_wait", 1, 0);
    errno = ENOTTY;
    EXPECT_EQ(serve(GetParam(), {handled_event()}), nullptr);
    expect_error(ended_line(GetParam(), text("epoll_wait_failed"), ENOTTY));
    EXPECT_EQ(waits(), 1u);
}

TEST_P(event_thread, ends_at_a_string_from_a_handler) {
    engine.on(GetParam().handler, [](void*) -> int {
        errno = EPIPE;
        throw std::string("no more");
    });
    EXPECT_EQ(serve(GetParam(), {handled_event(), handled_event()}), nullptr);
    expect_error(ended_line(GetParam(), "no more", EPIPE));
    EXPECT_EQ(waits(), 1u);
}

TEST_P(event_thread, notes_any_other_exception_and_goes_on) {
    int thrown = 0;
    engine.on(GetParam().handler, [&](void*) -> int {
        switch (++thrown) {
        case 1:
            throw 7;
        case 2:
            throw "a plain text";
        case 3:
            throw std::bad_alloc();
        case 4:
            throw std::runtime_error("an error");
        case 5:
            throw 7L;
        default:
            return 0;
        }
    });
    EXPECT_EQ(serve(GetParam(), std::vector<scripted_event>(6, handled_event())), nullptr);
    for (int round = 0; round < 5; ++round) {
        expect_error(text(GetParam().went_on));
    }
    EXPECT_EQ(waits(), 7u);
    EXPECT_EQ(thrown, 6);
}

TEST_P(event_thread, blocks_the_signal_of_a_broken_pipe_only) {
    sigset_t inside{};
    engine.on(GetParam().handler, [&](void*) {
        ::pthread_sigmask(SIG_BLOCK, nullptr, &inside);
        return 0;
    });
    serve(GetParam(), {handled_event()});
    for (int const signal : {SIGPIPE, SIGTERM, SIGINT, SIGUSR1}) {
        int const was_blocked = ::sigismember(&mask_before, signal);
        EXPECT_EQ(::sigismember(&inside, signal), signal == SIGPIPE ? 1 : was_blocked) << signal;
    }
}

TEST_P(event_thread, allocates_nothing_in_its_loop) {
    constexpr int events = 8;
    auto* const stranger = make_record(6);
    descriptor const instance(::epoll_create1(EPOLL_CLOEXEC));
    std::vector<descriptor> sources;
    for (int at = 0; at <= events; ++at) {
        sources.emplace_back(::eventfd(1, EFD_CLOEXEC));
        epoll_event event{};
        event.events = EPOLLIN | EPOLLONESHOT;
        event.data.ptr = at == events ? nullptr : stranger;
        ASSERT_EQ(::epoll_ctl(instance.get(), EPOLL_CTL_ADD, sources.back().get(), &event), 0);
    }
    *GetParam().instance = instance.get();
    engine.forget_scripts();
    system.forget_scripts();
    record(false);
    long const so_far = count_allocations();
    GetParam().entry(nullptr);
    long const allocated = count_allocations() - so_far;
    record(true);
    EXPECT_EQ(allocated, 0);
}

// --- results ---------------------------------------------------------------------------------------------------

TEST_P(event_thread, ignores_the_results_of_its_handlers) {
    for (int const result : {1, -1, 0x40000007}) {
        engine.answer_all(result);
        for (kind_row const& row : GetParam().kinds) {
            bool const counts = row.on_event.at(0) == text("recv_server_init_ended") ||
                                row.on_event.at(0) == text("recv_client_init_ended");
            auto* const rec = make_record(row.kind);
            std::vector<scripted_event> sequence = {{EPOLLERR, rec}, handled_event()};
            if (!counts) {
                sequence.push_back({EPOLLIN, rec});
            }
            std::size_t const so_far = waits();
            serve(GetParam(), sequence);
            EXPECT_EQ(waits() - so_far, sequence.size() + 1) << "kind " << row.kind;
        }
    }
}

class recv_thread : public event_threads, public ::testing::WithParamInterface<int> {
protected:
    void SetUp() override {
        event_threads::SetUp();
        use_made_up_instances();
    }
    thread_row const& row = c_threads[1];
};

class pin_recv_thread : public recv_thread {};
INSTANTIATE_TEST_SUITE_P(results, pin_recv_thread, ::testing::Values(1, -1, 12345));

TEST_P(pin_recv_thread, ends_when_an_exchange_cannot_go_on) {
    std::pair<int, std::string> const steps[] = {{2, "recv_server_init"}, {3, "recv_client_init"}};
    for (auto const& [kind, step] : steps) {
        auto* const rec = make_record(kind);
        engine.on(step, [](void*) {
            errno = ENOENT;
            return GetParam();
        });
        clear_journal();
        EXPECT_EQ(serve(row, {{EPOLLIN, rec}, {EPOLLIN, rec}}), nullptr);
        expect_error(ended_line(row, step, ENOENT));
        EXPECT_EQ(journal_count("epoll_wait"), 1u);
    }
}

// --- deliberate oddities ---------------------------------------------------------------------------------------

class pin_event_thread : public event_threads {
protected:
    void SetUp() override {
        event_threads::SetUp();
        use_made_up_instances();
        engine.answer_all(0);
    }
};

TEST_F(pin_event_thread, setting_up_compares_whole_masks) {
    auto* const rec = make_record(EPoll::c_kind_connecting);
    for (connecting_row const& row : c_connecting_masks) {
        clear_journal();
        serve(c_threads[c_tcp_init_row], {{row.mask, rec}});
        EXPECT_EQ(journal_lines(about::engine), calls_of(row.handlers, known_object_name(rec))) << hex(row.mask);
    }
}

TEST_F(pin_event_thread, an_error_of_an_established_connection_closes_nothing_on_the_send_side) {
    for (int const kind : {EPoll::c_kind_established_server, EPoll::c_kind_established_client}) {
        serve(c_threads[2], {{EPOLLOUT | EPOLLERR | EPOLLHUP, make_record(kind)}});
    }
    EXPECT_EQ(engine.count("failed_send"), 2u);
    for (char const* const closing : {"close_client", "shutdown_server", "unestablish_connect", "delete_overlapped"}) {
        EXPECT_EQ(engine.count(closing), 0u) << closing;
    }
}

TEST_F(pin_event_thread, tcp_and_udp_share_the_text_after_which_a_thread_goes_on) {
    EXPECT_STREQ(c_threads[1].went_on, c_threads[3].went_on);
    EXPECT_STREQ(c_threads[2].went_on, c_threads[4].went_on);
    EXPECT_EQ(text("init_went_on"), "epoll_init_thread_entry catch: ");
}

// --- threads that run ------------------------------------------------------------------------------------------

class running_threads : public event_threads {
protected:
    void SetUp() override {
        event_threads::SetUp();
        start_threads(true);
        ASSERT_EQ(INet_Relay::initialize(), 0);
        ASSERT_EQ(INet_Relay::start(), 0);
        ASSERT_TRUE(wait_for_lines("epoll_wait", 5));
    }

    void TearDown() override {
        EXPECT_EQ(INet_Relay::stop(), 0);
        EXPECT_EQ(returned_threads(), 5);
        INet_Relay::finalize();
        sources.clear();
        event_threads::TearDown();
    }

    /// Raises an event with that record in an instance.
    void raise(int instance, EPoll::struct_epoll_overlapped* rec) {
        sources.emplace_back(::eventfd(1, EFD_CLOEXEC));
        epoll_event event{};
        event.events = EPOLLIN | EPOLLONESHOT;
        event.data.ptr = rec;
        rec->baton.fetch_add(1, std::memory_order_release);
        EXPECT_EQ(::epoll_ctl(instance, EPOLL_CTL_ADD, sources.back().get(), &event), 0);
    }

    std::vector<descriptor> sources;
};

TEST_F(running_threads, handlers_run_on_the_thread_of_their_instance) {
    engine.answer_all(0);
    raise(EPoll::epoll_tcp_init, make_record(1));
    raise(EPoll::epoll_tcp_recv, make_record(4));
    raise(EPoll::epoll_udp_recv, make_record(0));
    for (char const* const line : {"EPoll::accept", "EPoll::recv_server", "EPoll::recv_udp"}) {
        EXPECT_TRUE(wait_for_lines(line, 1)) << line;
    }
    std::map<std::string, std::string> threads;
    for (journal_entry const& entry : journal_entries(about::engine)) {
        threads[entry.name] = entry.thread;
    }
    EXPECT_EQ(threads, (std::map<std::string, std::string>{{"EPoll::accept", "epoll_thread_tcp_init"},
                                                           {"EPoll::recv_server", "epoll_thread_tcp_recv[0]"},
                                                           {"EPoll::recv_udp", "epoll_thread_udp_recv"}}));
}

TEST_F(running_threads, one_that_ended_stays_ended_while_the_others_serve) {
    engine.answer_all(0);
    engine.on("recv_udp", [](void*) -> int { throw std::string("over"); });
    raise(EPoll::epoll_udp_recv, make_record(0));
    EXPECT_TRUE(wait_for_lines("print_error", 1));
    auto const printed = take_errors();
    ASSERT_EQ(printed.size(), 1u);
    EXPECT_TRUE(printed[0].text.starts_with(text("udp_recv_ended_by") + "over" + text("ended_errno")));
    EXPECT_EQ(printed[0].thread, "epoll_thread_udp_recv");
    raise(EPoll::epoll_tcp_recv, make_record(5));
    EXPECT_TRUE(wait_for_lines("EPoll::recv_client", 1));
    EXPECT_EQ(journal_count("eproc_create"), 6u);
}

TEST_F(running_threads, one_that_noted_an_exception_serves_on) {
    engine.answer_all(0);
    engine.on("recv_client", [](void*) -> int { throw 7; });
    raise(EPoll::epoll_tcp_recv, make_record(5));
    EXPECT_TRUE(wait_for_lines("print_error", 1));
    expect_error(text("recv_went_on"));
    raise(EPoll::epoll_tcp_recv, make_record(4));
    EXPECT_TRUE(wait_for_lines("EPoll::recv_server", 1));
}

} // namespace
