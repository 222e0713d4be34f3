// What holds after loading, and initialize: heartbeat, configuration, instances.
#include "tests/unit/lifecycle_fixture.hpp"

#include <cerrno>
#include <cstdlib>
#include <iterator>

#include <fcntl.h>

namespace {

using namespace relay_test;
using ::testing::ElementsAre;
using ::testing::Eq;
using ::testing::IsEmpty;

/// The globals as loading left them, before any test touched them.
struct loaded_state {
    std::vector<int> descriptors;
    std::vector<bool> settings;
    std::vector<int> numbers;
    bool has_heartbeat = true;
    Zolt::struct_packet* heartbeat = nullptr;
    std::size_t filed = 0;
};

loaded_state& loaded() {
    static loaded_state the_state;
    return the_state;
}

class look_after_loading : public ::testing::Environment {
    void SetUp() override {
        loaded_state& state = loaded();
        for (instance_row const& row : instances()) {
            state.descriptors.push_back(*row.instance);
        }
        for (key_row const& row : keys()) {
            if (row.setting != nullptr) {
                state.settings.push_back(*row.setting);
            } else {
                state.numbers.push_back(*row.number);
            }
        }
        state.has_heartbeat = has_header_part(EPoll::heartbeat_token);
        state.heartbeat = EPoll::heartbeat_pkt;
        state.filed = EPoll::g_server_map.size() + EPoll::g_udp_map.size() + EPoll::g_connect_map.size() +
                      EPoll::g_connect_fail_map.size() + EPoll::g_establish_client_map.size() +
                      EPoll::g_establish_server_map.size() + EPoll::g_remote_server_map.size();
    }
};

[[maybe_unused]] auto* const g_look_after_loading = ::testing::AddGlobalTestEnvironment(new look_after_loading);

class loading : public lifecycle_fixture {};
class initializing : public lifecycle_fixture {};

// --- after loading ---------------------------------------------------------------------------------------------

void append_array(lines& to, std::string const& name, std::string const& end) {
    for (int at = 0; at < 8; ++at) {
        to.push_back(name + "[" + std::to_string(at) + "]." + end);
    }
}

lines constructions() {
    lines order = {"epoll_thread_udp_recv.class_thread()", "epoll_thread_udp_send.class_thread()",
                   "epoll_thread_tcp_init.class_thread()"};
    append_array(order, "epoll_thread_tcp_recv", "class_thread()");
    append_array(order, "epoll_thread_tcp_send", "class_thread()");
    order.insert(order.end(), {"g_client_lock.class_thread_lock()", "g_establish_server_map_lock.class_thread_lock()",
                               "inet_timer.class_timer()", "heartbeat_token.struct_token()"});
    return order;
}

TEST_F(loading, loading_makes_the_host_objects_in_order_and_starts_nothing) {
    EXPECT_EQ(load_lines(about::object), constructions());
    EXPECT_THAT(load_lines(about::all & ~about::object), IsEmpty());
}

TEST_F(loading, unloading_destroys_them_in_reverse) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    lines order = constructions();
    order.pop_back(); // a token has no destructor
    std::string expected;
    for (auto line = order.rbegin(); line != order.rend(); ++line) {
        expected += line->insert(line->find('.') + 1, "~") + "\n";
    }
    EXPECT_EXIT((show_destruction(), std::exit(0)), ::testing::ExitedWithCode(0), Eq(expected));
}

TEST_F(loading, after_loading_everything_is_zero_but_two_settings) {
    loaded_state const& state = loaded();
    EXPECT_THAT(state.descriptors, ElementsAre(0, 0, 0, 0, 0));
    EXPECT_THAT(state.settings, ElementsAre(false, true, false, false, false, false)); // the socket reuse switch
    EXPECT_THAT(state.numbers, ElementsAre(5, 0, 0));                                  // the backlog
    EXPECT_FALSE(state.has_heartbeat);
    EXPECT_EQ(state.heartbeat, nullptr);
    EXPECT_EQ(state.filed, 0u);
}

TEST_F(loading, the_thread_arrays_have_eight_places) {
    EXPECT_EQ(std::size(EPoll::epoll_thread_tcp_recv), 8u);
    EXPECT_EQ(std::size(EPoll::epoll_thread_tcp_send), 8u);
}

// --- initialize ------------------------------------------------------------------------------------------------

TEST_F(initializing, initialize_builds_the_heartbeat_then_reads_the_configuration_then_creates_the_instances) {
    EXPECT_EQ(INet_Relay::initialize(), 0);
    lines expected = {"heartbeat_token.alloc_header_force()",
                      "header#1.initialize_packet(0x100007f, 0, DBL_MAX)",
                      "header#1.set_source(0x0, 0, 0)",
                      "header#1.set_destination(0x0, 0, 0)",
                      "header#1.initialize_header(0, 0, 0, 0, 0x0)",
                      "header#1.set_heartbeat_type()"};
    for (key_row const& row : keys()) {
        std::string const place =
            "(\"" + text("ini_file") + "\", \"" + text("ini_section") + "\", \"" + row.key + "\", ";
        expected.push_back(row.setting != nullptr
                               ? "get_lwr_string_from_ini_file" + place + (row.built_in ? "\"yes\")" : "\"no\")")
                               : "get_integer_from_ini_file" + place + std::to_string(row.fallback) + ")");
    }
    expected.insert(expected.end(), 5, "epoll_create1(0)");
    EXPECT_EQ(journal_lines(), expected);
    INet_Relay::finalize();
}

TEST_F(initializing, initialize_keeps_the_heartbeat_header_for_all) {
    initialize();
    EXPECT_EQ(EPoll::heartbeat_pkt, EPoll::heartbeat_token.get_header_packet());
    EXPECT_TRUE(EPoll::heartbeat_pkt->is_heartbeat());
    EXPECT_FALSE(EPoll::heartbeat_token.has_data());
    INet_Relay::finalize();
}

TEST_F(initializing, a_missing_file_gives_the_defaults) {
    initialize();
    for (key_row const& row : keys()) {
        if (row.setting != nullptr) {
            EXPECT_EQ(*row.setting, row.built_in) << row.key;
        } else {
            EXPECT_EQ(*row.number, row.fallback) << row.key;
        }
    }
    INet_Relay::finalize();
}

struct value_row {
    char const* value;
    bool is_on;
};

class initializing_switch : public lifecycle_fixture, public ::testing::WithParamInterface<value_row> {};

TEST_P(initializing_switch, is_off_only_for_no_in_any_case) {
    for (key_row const& row : keys()) {
        if (row.setting == nullptr) {
            continue;
        }
        *row.setting = !GetParam().is_on;
        reset_host();
        set_ini(row.key, std::string(GetParam().value));
        initialize();
        for (key_row const& other : keys()) {
            if (other.setting != nullptr) {
                EXPECT_EQ(*other.setting, other.setting == row.setting ? GetParam().is_on : other.built_in)
                    << other.key << " after reading " << row.key << " = " << GetParam().value;
            }
        }
        INet_Relay::finalize();
    }
}

INSTANTIATE_TEST_SUITE_P(values, initializing_switch,
                         ::testing::Values(value_row{"no", false}, value_row{"No", false}, value_row{"NO", false},
                                           value_row{"yes", true}, value_row{"1", true}, value_row{"0", true},
                                           value_row{"off", true}, value_row{"false", true}, value_row{"", true},
                                           value_row{"none", true}, value_row{"n", true}));

TEST_F(initializing, integers_are_kept_as_read) {
    int next = -3;
    for (key_row const& row : keys()) {
        if (row.number != nullptr) {
            set_ini(row.key, next);
            initialize();
            EXPECT_EQ(*row.number, next) << row.key;
            INet_Relay::finalize();
            next += 1000;
        }
    }
}

TEST_F(initializing, a_switch_has_its_built_in_value_while_it_is_read) {
    for (key_row const& row : keys()) {
        if (row.setting != nullptr) {
            *row.setting = !row.built_in;
            set_ini(row.key, std::string(row.built_in ? "no" : "yes"));
        }
    }
    int seen = 0;
    on_ini([&](std::string const& key) {
        for (key_row const& row : keys()) {
            if (row.setting != nullptr && key == row.key) {
                EXPECT_EQ(*row.setting, row.built_in) << key;
                ++seen;
            }
        }
    });
    initialize();
    EXPECT_EQ(seen, 6);
    on_ini(nullptr);
    INet_Relay::finalize();
}

TEST_F(initializing, each_instance_is_stored_before_the_next_is_created) {
    std::vector<std::vector<int>> seen;
    system.on("epoll_create1", [&](system_call const&) {
        std::vector<int> now;
        for (instance_row const& row : instances()) {
            now.push_back(*row.instance);
        }
        seen.push_back(now);
    });
    EXPECT_EQ(INet_Relay::initialize(), 0);
    auto const created = system.calls("epoll_create1");
    ASSERT_EQ(created.size(), 5u);
    for (std::size_t call = 0; call < created.size(); ++call) {
        for (std::size_t at = 0; at < created.size(); ++at) {
            EXPECT_EQ(seen.at(call).at(at), at < call ? created[at].result : 0)
                << "call " << call << ", instance " << at;
        }
        EXPECT_EQ(*instances()[call].instance, created[call].result);
    }
    system.on("epoll_create1", nullptr);
    INet_Relay::finalize();
}

class initializing_instance : public lifecycle_fixture, public ::testing::WithParamInterface<std::size_t> {};

TEST_P(initializing_instance, failure_is_printed_and_thrown_and_undoes_nothing) {
    constexpr int previous = 1 << 20;
    for (instance_row const& row : instances()) {
        *row.instance = previous;
    }
    system.fail("epoll_create1", static_cast<int>(GetParam()) + 1, EMFILE);
    try {
        INet_Relay::initialize();
        ADD_FAILURE() << "initialize returned";
    } catch (std::string const& thrown) {
        EXPECT_EQ(thrown, text("epoll_create_failed"));
    }
    expect_error(text("epoll_create_failed"));
    EXPECT_EQ(system.count("epoll_create1"), GetParam() + 1);
    EXPECT_EQ(system.count("close"), 0u);
    EXPECT_TRUE(EPoll::heartbeat_token.has_header());
    auto const created = system.calls("epoll_create1");
    for (std::size_t at = 0; at < 5; ++at) {
        EXPECT_EQ(*instances()[at].instance, at <= GetParam() ? created[at].result : previous) << at;
        EXPECT_EQ(take_balance().descriptors.contains(*instances()[at].instance), at < GetParam()) << at;
    }
    INet_Relay::finalize();
}

INSTANTIATE_TEST_SUITE_P(nth, initializing_instance, ::testing::Range(std::size_t{0}, std::size_t{5}));

TEST_F(initializing, children_inherit_no_instance) {
    initialize();
    for (instance_row const& row : instances()) {
        EXPECT_EQ(::fcntl(*row.instance, F_GETFD, 0), FD_CLOEXEC) << row.name;
    }
    INet_Relay::finalize();
}

} // namespace
