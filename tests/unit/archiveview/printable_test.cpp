#include "tools/archiveview/source/printable.h"

#include <gtest/gtest.h>

using namespace archiveview;

TEST(printable, keeps_text) {
    for (const char* text : {"", "plain ~!", "größer", "\u20ac", "\U0001f600", "\u00a0"}) {
        EXPECT_EQ(printable(text), text);
    }
}

TEST(printable, replaces_control_characters) {
    EXPECT_EQ(printable(std::string_view("a\0b\x1b[0m\r\n\t\x7f", 11)), "a?b?[0m????");
    EXPECT_EQ(printable("\u0080\u009b\u009f"), "??????");
}

TEST(printable, replaces_characters_that_reorder_or_hide_text) {
    for (const char* text : {"\u202e", "\u200b", "\u2066", "\ufeff", "\u2028"}) {
        EXPECT_EQ(printable(text), "???");
    }
}

TEST(printable, replaces_what_is_not_utf8) {
    EXPECT_EQ(printable("\xff\xfe"), "??");
    EXPECT_EQ(printable("\xc3"), "?");
    EXPECT_EQ(printable("\xc3(\xe2\x82"), "?(??");
    EXPECT_EQ(printable("\xc0\x9b\xc1\x80"), "????");            // longer than needed
    EXPECT_EQ(printable("\xe0\x82\x9b"), "???");                 // the same
    EXPECT_EQ(printable("\xed\xa0\x80"), "???");                 // half of a pair
    EXPECT_EQ(printable("\xf4\x90\x80\x80\xf8\x88"), "??????");  // beyond the last character
}
