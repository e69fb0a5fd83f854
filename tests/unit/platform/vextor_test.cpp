#include "platform/vextor.h"

#include <gtest/gtest.h>

#include <string>

namespace {

class vextor : public testing::Test {
protected:
    void TearDown() override { CGI_cleanup(); }
};

void parse(const std::string& query) {
    CGI_set_query(query.c_str());
    CGI_save_env();
}

}  // namespace

TEST_F(vextor, values_are_found_by_name) {
    parse("kind=core&pid=12&time=3");
    EXPECT_STREQ(CGI_get_value("kind"), "core");
    EXPECT_STREQ(CGI_get_value("pid"), "12");
    EXPECT_STREQ(CGI_get_value("time"), "3");
}

TEST_F(vextor, absent_name_is_null) {
    parse("kind=core");
    EXPECT_EQ(CGI_get_value("kin"), nullptr);
    EXPECT_EQ(CGI_get_value("kinds"), nullptr);
    EXPECT_EQ(CGI_get_value("core"), nullptr);
    EXPECT_EQ(CGI_get_value(""), nullptr);
    EXPECT_EQ(CGI_get_value(nullptr), nullptr);
}

TEST_F(vextor, names_compare_exactly) {
    parse("Kind=upper&kind=lower");
    EXPECT_STREQ(CGI_get_value("kind"), "lower");
    EXPECT_STREQ(CGI_get_value("Kind"), "upper");
    EXPECT_EQ(CGI_get_value("KIND"), nullptr);
}

TEST_F(vextor, first_value_of_a_name_wins) {
    parse("a=1&b=2&a=3&%61=4");
    EXPECT_STREQ(CGI_get_value("a"), "1");
}

TEST_F(vextor, name_without_equals_sign_has_the_empty_value) {
    parse("first&a=1&last");
    EXPECT_STREQ(CGI_get_value("first"), "");
    EXPECT_STREQ(CGI_get_value("last"), "");
    EXPECT_STREQ(CGI_get_value("a"), "1");
}

TEST_F(vextor, value_may_be_empty_or_contain_equals_signs) {
    parse("empty=&filter=a==b=c");
    EXPECT_STREQ(CGI_get_value("empty"), "");
    EXPECT_STREQ(CGI_get_value("filter"), "a==b=c");
}

TEST_F(vextor, empty_pairs_are_ignored) {
    parse("&&a=1&&&b=2&");
    EXPECT_STREQ(CGI_get_value("a"), "1");
    EXPECT_STREQ(CGI_get_value("b"), "2");
    EXPECT_EQ(CGI_get_value(""), nullptr);
}

TEST_F(vextor, empty_name_with_equals_sign_is_a_pair) {
    parse("=nameless");
    EXPECT_STREQ(CGI_get_value(""), "nameless");
}

TEST_F(vextor, escapes_are_decoded_in_names_and_values) {
    parse("%6b%69nd=%2Fusr%2fbin&a%3Db=%26%2B%25");
    EXPECT_STREQ(CGI_get_value("kind"), "/usr/bin");
    EXPECT_STREQ(CGI_get_value("a=b"), "&+%");
}

TEST_F(vextor, decoded_text_is_not_decoded_again) {
    parse("a=%2541&b=%252B&c=%2b");
    EXPECT_STREQ(CGI_get_value("a"), "%41");
    EXPECT_STREQ(CGI_get_value("b"), "%2B");
    EXPECT_STREQ(CGI_get_value("c"), "+");
}

TEST_F(vextor, bytes_above_127_are_decoded) {
    parse("a=%C3%bc%FF");
    EXPECT_STREQ(CGI_get_value("a"), "\xC3\xBC\xFF");
}

TEST_F(vextor, plus_is_a_space_in_names_and_values) {
    parse("a+name=tcp+port+80");
    EXPECT_STREQ(CGI_get_value("a name"), "tcp port 80");
    EXPECT_EQ(CGI_get_value("a+name"), nullptr);
}

TEST_F(vextor, bad_escape_is_kept_unchanged) {
    parse("a=%zz&b=%4&c=%&d=%4g&e=%%41&f=100%+sure&g=%&%=h&i=%-1&j=%+1&k=%@0&l=%G0&m=%4`&n=%:0");
    EXPECT_STREQ(CGI_get_value("a"), "%zz");
    EXPECT_STREQ(CGI_get_value("b"), "%4");
    EXPECT_STREQ(CGI_get_value("c"), "%");
    EXPECT_STREQ(CGI_get_value("d"), "%4g");
    EXPECT_STREQ(CGI_get_value("e"), "%A");
    EXPECT_STREQ(CGI_get_value("f"), "100% sure");
    EXPECT_STREQ(CGI_get_value("g"), "%");
    EXPECT_STREQ(CGI_get_value("%"), "h");
    EXPECT_STREQ(CGI_get_value("i"), "%-1");
    EXPECT_STREQ(CGI_get_value("j"), "% 1");
    EXPECT_STREQ(CGI_get_value("k"), "%@0");
    EXPECT_STREQ(CGI_get_value("l"), "%G0");
    EXPECT_STREQ(CGI_get_value("m"), "%4`");
    EXPECT_STREQ(CGI_get_value("n"), "%:0");
}

TEST_F(vextor, escape_does_not_reach_across_a_separator) {
    parse("a=%&41=b&c%=41");
    EXPECT_STREQ(CGI_get_value("a"), "%");
    EXPECT_STREQ(CGI_get_value("41"), "b");
    EXPECT_STREQ(CGI_get_value("c%"), "41");
}

TEST_F(vextor, decoded_nul_ends_a_value) {
    parse("a=one%00two&b=%00");
    EXPECT_STREQ(CGI_get_value("a"), "one");
    EXPECT_STREQ(CGI_get_value("b"), "");
}

TEST_F(vextor, name_with_a_nul_never_matches) {
    parse("kind%00x=wrong&%00=wrong&kind%00=wrong&kind=right");
    EXPECT_STREQ(CGI_get_value("kind"), "right");
    EXPECT_EQ(CGI_get_value(""), nullptr);
}

TEST_F(vextor, no_values_exist_before_a_query_is_saved) {
    CGI_set_query("a=1");
    EXPECT_EQ(CGI_get_value("a"), nullptr);
    CGI_save_env();
    EXPECT_STREQ(CGI_get_value("a"), "1");
    CGI_save_env();
    EXPECT_STREQ(CGI_get_value("a"), "1");
}

TEST_F(vextor, new_query_releases_the_old_one) {
    parse("a=1&b=2");
    CGI_set_query("a=3");
    EXPECT_EQ(CGI_get_value("a"), nullptr);
    CGI_save_env();
    EXPECT_STREQ(CGI_get_value("a"), "3");
    EXPECT_EQ(CGI_get_value("b"), nullptr);
}

TEST_F(vextor, query_is_copied) {
    std::string query = "a=1";
    CGI_set_query(query.c_str());
    query = "b=2";
    CGI_save_env();
    EXPECT_STREQ(CGI_get_value("a"), "1");
}

TEST_F(vextor, value_may_become_the_next_query) {
    parse("inner=a%3D1%26b%3D2");
    CGI_set_query(CGI_get_value("inner"));
    CGI_save_env();
    EXPECT_STREQ(CGI_get_value("b"), "2");
}

TEST_F(vextor, null_and_empty_queries_have_no_values) {
    parse("");
    EXPECT_EQ(CGI_get_value(""), nullptr);
    CGI_set_query(nullptr);
    CGI_save_env();
    EXPECT_EQ(CGI_get_value(""), nullptr);
    EXPECT_EQ(CGI_get_value("a"), nullptr);
}

TEST_F(vextor, cleanup_may_be_called_at_any_time) {
    CGI_cleanup();
    CGI_cleanup();
    CGI_save_env();
    EXPECT_EQ(CGI_get_value("a"), nullptr);
    parse("a=1");
    CGI_cleanup();
    EXPECT_EQ(CGI_get_value("a"), nullptr);
    CGI_save_env();
    EXPECT_EQ(CGI_get_value("a"), nullptr);
}

TEST_F(vextor, thousands_of_pairs_and_long_values_are_kept) {
    std::string query;
    for (int i = 0; i < 5000; i++) {
        query += "n" + std::to_string(i) + "=v" + std::to_string(i) + "&";
    }
    query += "long=" + std::string(100000, 'x');
    parse(query);
    EXPECT_STREQ(CGI_get_value("n0"), "v0");
    EXPECT_STREQ(CGI_get_value("n4999"), "v4999");
    EXPECT_EQ(std::string(CGI_get_value("long")), std::string(100000, 'x'));
}
