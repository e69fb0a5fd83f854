#include "tools/json/json_output.h"

#include <gtest/gtest.h>

#include <string>

using namespace std::string_literals;

namespace {

const std::string replaced = "\xef\xbf\xbd";  // U+FFFD

std::string string_of(std::string_view bytes) {
    json_output json;
    json.string(bytes);
    return std::string(json.text());
}

std::string number_of(double number) {
    json_output json;
    json.number(number);
    return std::string(json.text());
}

}  // namespace

TEST(json_output, nests_objects_and_arrays) {
    json_output json;
    json.begin_object();
    json.key("a");
    json.begin_array();
    json.number(int64_t{-1});
    json.number(UINT64_MAX);
    json.boolean(true);
    json.null();
    json.end_array();
    json.key("b");
    json.begin_object();
    json.end_object();
    json.end_object();
    EXPECT_EQ(json.text(), R"({"a":[-1,18446744073709551615,true,null],"b":{}})");
}

TEST(json_output, writes_one_value_a_line) {
    json_output json;
    for (int64_t number : {1, 2}) {
        json.number(number);
        json.end_line();
    }
    EXPECT_EQ(json.text(), "1\n2\n");
}

TEST(json_output, stays_inside_an_array_when_cleared) {
    json_output json;
    json.begin_array();
    json.number(int64_t{1});
    json.clear();
    EXPECT_EQ(json.text(), "");
    json.number(int64_t{2});
    json.end_array();
    EXPECT_EQ(json.text(), ",2]");
}

TEST(json_output, writes_whole_numbers_without_a_decimal_point) {
    EXPECT_EQ(number_of(0), "0");
    EXPECT_EQ(number_of(-12), "-12");
    EXPECT_EQ(number_of(1e15), "1000000000000000");
    EXPECT_EQ(number_of(2.25), "2.25");
    EXPECT_EQ(std::stod(number_of(1e300)), 1e300);
}

TEST(json_output, escapes_quotes_backslashes_and_control_characters) {
    EXPECT_EQ(string_of("a\"b\\c"), R"("a\"b\\c")");
    EXPECT_EQ(string_of("\n\t\x1b\0x"s), R"("\n\t\u001B\u0000x")");
}

TEST(json_output, keeps_characters_of_two_three_and_four_bytes) {
    for (const char* text : {"\xc3\xbc", "\xe2\x82\xac", "\xef\xbf\xbf", "\xf0\x9f\x90\x9b",
                             "\xf4\x8f\xbf\xbf", "\xed\x9f\xbf", "\xee\x80\x80"}) {
        EXPECT_EQ(string_of(text), "\""s + text + "\"");
    }
}

TEST(json_output, replaces_bytes_that_are_not_utf8) {
    struct {
        const char* bytes;
        std::string text;
    } cases[] = {
        {"\xff", replaced},
        {"a\x80z", "a" + replaced + "z"},
        {"\xc3", replaced},                           // ends early
        {"\xe2\x82", replaced},                       // ends early, after two of three bytes
        {"\xe2\x28\xa1", replaced + "(" + replaced},  // a byte of another character inside
        {"\xc0\xaf", replaced},                       // overlong
        {"\xe0\x80\xaf", replaced},                   // overlong
        {"\xed\xa0\x80", replaced},                   // a surrogate
        {"\xf4\x90\x80\x80", replaced},               // above U+10FFFF
    };
    for (const auto& one : cases) {
        EXPECT_EQ(string_of(one.bytes), "\"" + one.text + "\"") << testing::PrintToString(one.bytes);
    }
}

TEST(json_output, reads_no_byte_after_the_end_of_a_string) {
    EXPECT_EQ(string_of(std::string_view("\xe2\x82\xac", 2)), "\"" + replaced + "\"");
}

TEST(json_output, escapes_keys_as_well) {
    json_output json;
    json.begin_object();
    json.key("\"\xff");
    json.null();
    json.end_object();
    EXPECT_EQ(json.text(), "{\"\\\"" + replaced + "\":null}");
}
