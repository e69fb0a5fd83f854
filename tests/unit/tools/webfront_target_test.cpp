#include <gtest/gtest.h>

#include <string>

#include "tools/webfront/target.h"

using namespace std::string_literals;

TEST(webfront_split_target, cuts_at_the_first_question_mark) {
    webfront_target parts = webfront_split_target("/debugar.cgi?cmd=strace&pid=1?2");
    EXPECT_EQ(parts.path, "/debugar.cgi");
    EXPECT_EQ(parts.query, "cmd=strace&pid=1?2");
}

TEST(webfront_split_target, has_no_query_without_a_question_mark) {
    webfront_target parts = webfront_split_target("/debug.tgz");
    EXPECT_EQ(parts.path, "/debug.tgz");
    EXPECT_EQ(parts.query, "");
}

TEST(webfront_split_target, accepts_a_question_mark_at_either_end) {
    EXPECT_EQ(webfront_split_target("/x?").path, "/x");
    EXPECT_EQ(webfront_split_target("/x?").query, "");
    EXPECT_EQ(webfront_split_target("?x").path, "");
    EXPECT_EQ(webfront_split_target("?x").query, "x");
}

TEST(webfront_message, has_the_path_a_zero_byte_and_the_query) {
    EXPECT_EQ(webfront_message("/debug.tgz?listen"), "/debug.tgz\0listen"s);
}

TEST(webfront_message, ends_with_the_zero_byte_without_a_query) {
    EXPECT_EQ(webfront_message("/debug.tgz"), "/debug.tgz\0"s);
}

TEST(webfront_message, decodes_nothing) {
    EXPECT_EQ(webfront_message("/a%00%2f+b?c=%41+d"), "/a%00%2f+b\0c=%41+d"s);
}

TEST(webfront_is_origin_form, requires_a_slash_first) {
    EXPECT_TRUE(webfront_is_origin_form("/"));
    EXPECT_TRUE(webfront_is_origin_form("/a?b"));
    EXPECT_TRUE(webfront_is_origin_form("/a%00b"));
    EXPECT_FALSE(webfront_is_origin_form(""));
    EXPECT_FALSE(webfront_is_origin_form("*"));
    EXPECT_FALSE(webfront_is_origin_form("http://127.0.0.1:8080/"));
    EXPECT_FALSE(webfront_is_origin_form("127.0.0.1:8080"));
}

TEST(webfront_is_origin_form, refuses_blanks_and_control_characters) {
    EXPECT_FALSE(webfront_is_origin_form("/a b"));
    EXPECT_FALSE(webfront_is_origin_form("/a\tb"));
    EXPECT_FALSE(webfront_is_origin_form("/a\0b"s));
    EXPECT_FALSE(webfront_is_origin_form("/a\x1f"));
    EXPECT_FALSE(webfront_is_origin_form("/a\x7f"));
}

TEST(webfront_is_own_host, accepts_both_names_in_upper_and_lower_case) {
    EXPECT_TRUE(webfront_is_own_host("127.0.0.1:8080", 8080));
    EXPECT_TRUE(webfront_is_own_host("localhost:8080", 8080));
    EXPECT_TRUE(webfront_is_own_host("LocalHost:8080", 8080));
}

TEST(webfront_is_own_host, requires_the_exact_port) {
    EXPECT_FALSE(webfront_is_own_host("127.0.0.1:8081", 8080));
    EXPECT_FALSE(webfront_is_own_host("127.0.0.1:80800", 8080));
    EXPECT_FALSE(webfront_is_own_host("127.0.0.1:", 8080));
    EXPECT_FALSE(webfront_is_own_host("localhost:08080", 8080));
}

TEST(webfront_is_own_host, requires_the_port_unless_it_is_80) {
    EXPECT_TRUE(webfront_is_own_host("127.0.0.1", 80));
    EXPECT_TRUE(webfront_is_own_host("LOCALHOST", 80));
    EXPECT_TRUE(webfront_is_own_host("localhost:80", 80));
    EXPECT_FALSE(webfront_is_own_host("127.0.0.1", 8080));
    EXPECT_FALSE(webfront_is_own_host("localhost", 8080));
}

TEST(webfront_is_own_host, refuses_every_other_name) {
    EXPECT_FALSE(webfront_is_own_host("", 8080));
    EXPECT_FALSE(webfront_is_own_host("rebound.example:8080", 8080));
    EXPECT_FALSE(webfront_is_own_host("localhost.example:8080", 8080));
    EXPECT_FALSE(webfront_is_own_host("xlocalhost:8080", 8080));
    EXPECT_FALSE(webfront_is_own_host("localhost:8080.example", 8080));
    EXPECT_FALSE(webfront_is_own_host("[::1]:8080", 8080));
    EXPECT_FALSE(webfront_is_own_host("localhost:8080\0"s, 8080));
}
