// The ledger build finds what it is there to find. Each fault is planted here and must be reported.
#include "tests/unit/reference_host_fixtures.hpp"

#include <cstring>

namespace reference_host_test {
namespace {

class ledger : public accounted_test {
protected:
    void SetUp() override { EXPECT_EQ(count_live_parts(), ledger_counts{}); }

    /// The one report there is; its numbers are replaced by a sign.
    static std::string only_report() {
        std::vector<std::string> const reports = take_ledger_reports();
        EXPECT_EQ(reports.size(), 1U);
        std::string text;
        for (char const c : reports.empty() ? std::string() : reports.front()) {
            bool const digit = c >= '0' && c <= '9';
            if (!digit) {
                text += c;
            } else if (text.empty() || text.back() != '#') {
                text += '#';
            }
        }
        return text;
    }
};

TEST_F(ledger, counts_every_part_by_kind) {
    struct_token one = make(packet_kind::data, "data");
    struct_token other;
    other.set_header(one);
    EXPECT_EQ(count_live_parts(), (ledger_counts{2, 1, 1}));
    other.free();
    one.free();
}

TEST_F(ledger, names_what_is_left_with_its_creator) {
    struct_token one = make(packet_kind::data, "data");
    std::vector<std::string> const lines = list_live_parts();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_NE(lines[0].find("header part"), std::string::npos);
    EXPECT_NE(lines[0].find("made by alloc_header_force"), std::string::npos);
    EXPECT_NE(lines[1].find("node"), std::string::npos);
    EXPECT_NE(lines[2].find("data part"), std::string::npos);
    EXPECT_NE(lines[2].find("made by alloc_data"), std::string::npos);
    one.free();
}

TEST_F(ledger, reports_a_second_free) {
    struct_token one = make(packet_kind::data);
    struct_token copy = one;
    one.free();
    copy.free();
    EXPECT_EQ(only_report(), "second free: free on node # made by alloc_header_force, ended by free");
}

TEST_F(ledger, reports_a_second_free_of_one_part) {
    struct_token one = make(packet_kind::data);
    struct_token copy = one;
    one.free_header();
    copy.free_header();
    EXPECT_EQ(only_report(), "second free: free_header on node # made by alloc_header_force, ended by free_header");
}

TEST_F(ledger, reports_use_through_a_handle_after_free) {
    struct_token one = make(packet_kind::data);
    struct_token copy = one;
    one.free();
    EXPECT_FALSE(copy.has_header());
    EXPECT_EQ(only_report(), "use after free: has_header on node # made by alloc_header_force, ended by free");
}

TEST_F(ledger, reports_use_through_a_view_after_free) {
    struct_token one = make(packet_kind::data, "data");
    struct_packet* const header = one.get_header_packet();
    struct_packet* const data = one.get_data_packet();
    one.free();
    header->is_heartbeat();
    EXPECT_EQ(only_report(), "use after free: a view of header part # made by alloc_header_force, ended by free");
    data->get_header();
    EXPECT_EQ(only_report(), "use after free: a view of data part # made by alloc_data, ended by free");
}

TEST_F(ledger, reports_a_byte_written_after_free) {
    struct_token one = make(packet_kind::data, "data");
    unsigned char* const data = one.get_data();
    one.free();
    data[2] = 0;
    EXPECT_EQ(only_report(), "written after free: data part # made by alloc_data, ended by free");
    EXPECT_TRUE(take_ledger_reports().empty()) << "said once";
}

TEST_F(ledger, fills_what_ends_with_a_pattern) {
    struct_token one = make(packet_kind::data, "data");
    unsigned char const* const data = one.get_data();
    one.free();
    EXPECT_EQ(data[0], 0xDB);
    EXPECT_EQ(data[3], 0xDB);
}

TEST_F(ledger, lets_go_of_what_it_holds_back_when_told) {
    make(packet_kind::data, "data").free();
    release_kept_memory();
    EXPECT_EQ(get_kept_bytes(), 0U);
    EXPECT_EQ(count_live_parts(), ledger_counts{});
}

TEST(ledger_at_exit, says_what_is_left) {
    auto const leave_one_behind = [] {
        struct_token one;
        one.alloc_header_force();
        std::exit(0); // NOLINT(concurrency-mt-unsafe): what happens at exit is what is tested
    };
    EXPECT_EXIT(leave_one_behind(), ::testing::ExitedWithCode(0),
                "ledger: left at exit: header part [0-9]+ made by alloc_header_force");
}

} // namespace
} // namespace reference_host_test
