#include <gtest/gtest.h>

#include "tools/webfront/json.h"

using namespace std::string_literals;

TEST(webfront_json_string, puts_quotes_round_the_text) {
    EXPECT_EQ(webfront_json_string(""), "\"\"");
    EXPECT_EQ(webfront_json_string("sh -c x"), "\"sh -c x\"");
}

TEST(webfront_json_string, escapes_quotes_backslashes_and_controls) {
    EXPECT_EQ(webfront_json_string("a\"b\\c"), R"("a\"b\\c")");
    EXPECT_EQ(webfront_json_string("\n\t\x1b\x7f\0x"s), R"("\u000a\u0009\u001b\u007f\u0000x")");
}

TEST(webfront_json_string, keeps_characters_of_two_three_and_four_bytes) {
    for (const char* text : {"\xc3\xbc", "\xe2\x82\xac", "\xef\xbf\xbf", "\xf0\x9f\x90\x9b",
                             "\xf4\x8f\xbf\xbf", "\xed\x9f\xbf", "\xee\x80\x80"}) {
        EXPECT_EQ(webfront_json_string(text), "\""s + text + "\"");
    }
}

TEST(webfront_json_string, replaces_each_byte_that_is_no_utf8) {
    const std::string mark = "\\ufffd";
    struct {
        const char* bytes;
        std::string text;
    } cases[] = {
        {"\xff", mark},
        {"a\x80z", "a" + mark + "z"},
        {"\xc3", mark},                                   // cut off at the end
        {"\xe2\x82", mark + mark},                        // the same, after two of three
        {"\xe2\x28\xa1", mark + "(" + mark},              // not continued
        {"\xc0\xaf", mark + mark},                        // overlong
        {"\xe0\x80\xaf", mark + mark + mark},             // overlong
        {"\xed\xa0\x80", mark + mark + mark},             // a surrogate
        {"\xf4\x90\x80\x80", mark + mark + mark + mark},  // behind the last character
        {"\xf8\x88\x80\x80\x80", mark + mark + mark + mark + mark},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(webfront_json_string(one.bytes), "\"" + one.text + "\"");
    }
}

TEST(webfront_json_string, gives_pure_text_for_every_pair_of_bytes) {
    for (int pair = 0; pair < 1 << 16; pair++) {
        const char bytes[] = {static_cast<char>(pair >> 8), static_cast<char>(pair)};
        std::string text = webfront_json_string({bytes, sizeof bytes});
        ASSERT_GE(text.size(), 4U);
        for (char c : text) {
            ASSERT_FALSE(0 <= c && c < ' ') << pair;
        }
    }
}
