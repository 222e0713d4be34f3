// The configuration file's dialect, and the two operations by which the relay reads it.
#include "Host/tesk_utility.hpp"
#include "Reference_Host/ini_file.hpp"
#include "tests/unit/reference_host_fixtures.hpp"

#include <cerrno>
#include <climits>
#include <sys/stat.h>

namespace reference_host_test {
namespace {

using Tesk::Utility::get_integer_from_ini_file;
using Tesk::Utility::get_lwr_string_from_ini_file;

/// The value of key in [ZOLT], or "(none)".
std::string value_in(std::string_view text, std::string_view key = "key") {
    ini_content const content = parse_ini(text);
    ini_entry const* const entry = find_entry(content, "ZOLT", key);
    return entry != nullptr ? entry->value : "(none)";
}

TEST(ini_dialect, reads_values_however_the_lines_are_written) {
    struct dialect_row {
        std::string_view text;
        std::string_view value;
    };
    constexpr dialect_row c_rows[] = {
        {"[ZOLT]\nkey=Value\n", "Value"},
        {"[ZOLT]\nkey=Value", "Value"},
        {"[ZOLT]\r\nkey=Value\r\n", "Value"},
        {"\xEF\xBB\xBF[ZOLT]\nkey=Value\n", "Value"},
        {"  [ ZOLT ]  \n \t key \t = \t two words \t \n", "two words"},
        {"[zolt]\nKEY=Value\n", "Value"},
        {"[ZOLT] ; comment\nkey=Value ; comment\n", "Value"},
        {"[ZOLT]\nkey=Value # comment\n", "Value"},
        {"[ZOLT]\nkey=a;b#c\n", "a;b#c"},
        {"[ZOLT]\nkey= ; comment only\n", ""},
        {"[ZOLT]\nkey=\n", ""},
        {"[ZOLT]\nkey=\"no\"\n", "no"},
        {"[ZOLT]\nkey=\" a ; b \" ; comment\n", " a ; b "},
        {"[ZOLT]\nkey=\"open\n", "\"open"},
        {"[ZOLT]\nkey=\"a\" b\n", "\"a\" b"},
        {"[ZOLT]\nkey=a=b\n", "a=b"},
        {"; key=comment\n# key=comment\n[ZOLT]\n;key=comment\nkey=Value\n", "Value"},
        {"[ZOLT]\nkey=first\nkey=last\n", "last"},
        {"[ZOLT]\nkey=first\n[OTHER]\nkey=other\n[ZOLT]\nnext=1\n", "first"},
        {"[OTHER]\nkey=other\n", "(none)"},
        {"key=before any section\n[ZOLT]\n", "(none)"},
        {"[ZOLT]\nkey1=longer name\n", "(none)"},
        {"[ZOLT]\n[OTHER\nkey=under an unfinished section\n", "(none)"},
        {"", "(none)"},
    };
    for (dialect_row const& row : c_rows) {
        EXPECT_EQ(value_in(row.text), row.value) << row.text;
    }
}

TEST(ini_dialect, lines_may_be_long) {
    std::string const value(100000, 'x');
    EXPECT_EQ(value_in("[ZOLT]\nkey=" + value + "\nnext=1\n"), value);
    EXPECT_EQ(value_in("[ZOLT]\nkey=" + value + "\nnext=1\n", "next"), "1");
}

TEST(ini_dialect, keeps_every_entry_with_its_line) {
    ini_content const content = parse_ini("; top\n[ZOLT]\nkey=1\n\nKey=2\n[other]\nkey=3");
    ASSERT_EQ(content.entries.size(), 3U);
    EXPECT_EQ(content.entries[0].line, 3);
    EXPECT_EQ(content.entries[1].line, 5);
    EXPECT_EQ(content.entries[1].key, "Key");
    EXPECT_EQ(content.entries[2].line, 7);
    EXPECT_EQ(content.entries[2].section, "other");
    EXPECT_TRUE(content.faults.empty());
}

TEST(ini_dialect, names_the_lines_that_mean_nothing) {
    ini_content const content = parse_ini("[ZOLT]\nwords\n=value\n[open\nkey=1\n");
    std::vector<std::pair<int, std::string>> faults;
    for (ini_fault const& fault : content.faults) {
        faults.emplace_back(fault.line, fault.reason);
    }
    EXPECT_EQ(faults, (std::vector<std::pair<int, std::string>>{{2, "neither section, comment nor key = value"},
                                                                {3, "value without a key"},
                                                                {4, "section without ]"}}));
}

TEST(ini_integer, is_plain_decimal_or_nothing) {
    constexpr std::pair<std::string_view, int> c_numbers[] = {
        {"0", 0}, {"5", 5}, {"+5", 5}, {"-5", -5}, {"007", 7}, {"2147483647", INT_MAX}, {"-2147483648", INT_MIN}};
    for (auto const& [text, number] : c_numbers) {
        EXPECT_EQ(parse_integer(text), number) << text;
    }
    for (std::string_view const text :
         {"", "+", "-", "+-5", "5x", "x5", "5 5", "0x10", "1e3", "5.0", "2147483648", "-2147483649", "yes"}) {
        EXPECT_EQ(parse_integer(text), std::nullopt) << text;
    }
}

TEST(ini_operations, answer_from_the_file_or_by_the_default) {
    scratch_file const file(
        "[ZOLT]\nnumber = 42\nnegative = -1\ngarbage = 4 2\nempty =\nSwitch = YeS\nkorean = 한글A\n");
    EXPECT_EQ(get_integer_from_ini_file(file.path(), "ZOLT", "number", 1), 42);
    EXPECT_EQ(get_integer_from_ini_file(file.path(), "ZOLT", "negative", 1), -1);
    for (char const* const key : {"garbage", "empty", "absent"}) {
        EXPECT_EQ(get_integer_from_ini_file(file.path(), "ZOLT", key, 7), 7) << key;
    }
    EXPECT_EQ(get_integer_from_ini_file(file.path(), "OTHER", "number", 7), 7);
    EXPECT_STREQ(get_lwr_string_from_ini_file(file.path(), "ZOLT", "switch", "no"), "yes");
    EXPECT_STREQ(get_lwr_string_from_ini_file(file.path(), "ZOLT", "empty", "no"), "");
    EXPECT_STREQ(get_lwr_string_from_ini_file(file.path(), "ZOLT", "absent", "Default"), "Default");
    EXPECT_STREQ(get_lwr_string_from_ini_file(file.path(), "ZOLT", "korean", ""), "한글a");
}

TEST(ini_operations, answer_by_the_default_when_the_file_cannot_be_read) {
    for (char const* const path : {"/nowhere/at/all.ini", "/", "/dev/zero"}) {
        EXPECT_EQ(get_integer_from_ini_file(path, "ZOLT", "key", 7), 7) << path;
        EXPECT_STREQ(get_lwr_string_from_ini_file(path, "ZOLT", "key", "no"), "no") << path;
    }
    EXPECT_EQ(read_ini_file("/nowhere/at/all.ini").error, ENOENT);
    EXPECT_EQ(read_ini_file("/").error, EISDIR);
    EXPECT_EQ(read_ini_file("/dev/zero").error, EFBIG);
}

TEST(ini_operations, do_not_wait_for_a_pipe) {
    scratch_file const file("");
    ::unlink(file.path());
    ASSERT_EQ(::mkfifo(file.path(), 0600), 0);
    EXPECT_EQ(get_integer_from_ini_file(file.path(), "ZOLT", "key", 7), 7);
}

TEST(ini_operations, the_text_stays_until_this_threads_next_call) {
    scratch_file const file("[ZOLT]\na=ONE\nb=TWO\n");
    char const* const text = get_lwr_string_from_ini_file(file.path(), "ZOLT", "a", "");
    std::thread([&] { get_lwr_string_from_ini_file(file.path(), "ZOLT", "b", ""); }).join();
    get_integer_from_ini_file(file.path(), "ZOLT", "b", 0);
    EXPECT_STREQ(text, "one");
}

TEST(shipped_configuration, has_the_nine_keys_with_their_defaults) {
    ini_content const content = read_ini_file(SHIPPED_CONFIGURATION);
    std::vector<std::pair<std::string, std::string>> entries;
    for (ini_entry const& entry : content.entries) {
        EXPECT_EQ(entry.section, "ZOLT");
        entries.emplace_back(entry.key, entry.value);
    }
    EXPECT_TRUE(content.faults.empty());
    EXPECT_EQ(entries, (std::vector<std::pair<std::string, std::string>>{{"AUTO_DISCONNECT", "yes"},
                                                                         {"SERVER_SOCKET_REUSE", "yes"},
                                                                         {"SERVER_LISTEN_BACKLOG", "5"},
                                                                         {"SERVER_LINGER_USE", "no"},
                                                                         {"SERVER_LINGER_TIME", "1024"},
                                                                         {"SERVER_NAGLE_OFF_USE", "yes"},
                                                                         {"CLIENT_LINGER_USE", "no"},
                                                                         {"CLIENT_LINGER_TIME", "1024"},
                                                                         {"CLIENT_NAGLE_OFF_USE", "yes"}}));
}

} // namespace
} // namespace reference_host_test
