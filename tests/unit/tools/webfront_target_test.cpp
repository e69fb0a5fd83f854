#include <gtest/gtest.h>

#include <string>

#include "tools/webfront/target.h"

using namespace std::string_literals;

TEST(webfront_split_target, cuts_at_the_first_question_mark) {
    webfront_target parts = webfront_split_target("/debugar.cgi?cmd=strace&pid=1?2");
    EXPECT_EQ(parts.path, "/debugar.cgi");
    EXPECT_EQ(parts.query, "cmd=strace&pid=1?2");
}

TEST(webfront_split_target, leaves_the_query_empty_without_a_mark) {
    webfront_target parts = webfront_split_target("/debug.tgz");
    EXPECT_EQ(parts.path, "/debug.tgz");
    EXPECT_EQ(parts.query, "");
}

TEST(webfront_split_target, takes_a_mark_at_the_end_and_at_the_start) {
    EXPECT_EQ(webfront_split_target("/x?").path, "/x");
    EXPECT_EQ(webfront_split_target("/x?").query, "");
    EXPECT_EQ(webfront_split_target("?x").path, "");
    EXPECT_EQ(webfront_split_target("?x").query, "x");
}

TEST(webfront_message, is_the_path_a_zero_byte_and_the_query) {
    EXPECT_EQ(webfront_message("/debug.tgz?listen"), "/debug.tgz\0listen"s);
}

TEST(webfront_message, ends_in_the_zero_byte_without_a_query) {
    EXPECT_EQ(webfront_message("/debug.tgz"), "/debug.tgz\0"s);
}

TEST(webfront_message, decodes_nothing) {
    EXPECT_EQ(webfront_message("/a%00%2f+b?c=%41+d"), "/a%00%2f+b\0c=%41+d"s);
}

TEST(webfront_is_origin_form, wants_a_slash_first) {
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

TEST(webfront_host_is_ours, knows_both_names_with_the_port_in_any_case) {
    EXPECT_TRUE(webfront_host_is_ours("127.0.0.1:8080", 8080));
    EXPECT_TRUE(webfront_host_is_ours("localhost:8080", 8080));
    EXPECT_TRUE(webfront_host_is_ours("LocalHost:8080", 8080));
}

TEST(webfront_host_is_ours, wants_the_very_port) {
    EXPECT_FALSE(webfront_host_is_ours("127.0.0.1:8081", 8080));
    EXPECT_FALSE(webfront_host_is_ours("127.0.0.1:80800", 8080));
    EXPECT_FALSE(webfront_host_is_ours("127.0.0.1:", 8080));
    EXPECT_FALSE(webfront_host_is_ours("localhost:08080", 8080));
}

TEST(webfront_host_is_ours, lets_the_port_be_left_out_only_when_it_is_80) {
    EXPECT_TRUE(webfront_host_is_ours("127.0.0.1", 80));
    EXPECT_TRUE(webfront_host_is_ours("LOCALHOST", 80));
    EXPECT_TRUE(webfront_host_is_ours("localhost:80", 80));
    EXPECT_FALSE(webfront_host_is_ours("127.0.0.1", 8080));
    EXPECT_FALSE(webfront_host_is_ours("localhost", 8080));
}

TEST(webfront_host_is_ours, refuses_every_other_name) {
    EXPECT_FALSE(webfront_host_is_ours("", 8080));
    EXPECT_FALSE(webfront_host_is_ours("rebound.example:8080", 8080));
    EXPECT_FALSE(webfront_host_is_ours("localhost.example:8080", 8080));
    EXPECT_FALSE(webfront_host_is_ours("xlocalhost:8080", 8080));
    EXPECT_FALSE(webfront_host_is_ours("localhost:8080.example", 8080));
    EXPECT_FALSE(webfront_host_is_ours("[::1]:8080", 8080));
    EXPECT_FALSE(webfront_host_is_ours("localhost:8080\0"s, 8080));
}
