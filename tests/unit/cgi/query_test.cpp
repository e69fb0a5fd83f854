#include "cgi/query.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

namespace {

std::vector<std::string> items_of(std::string_view list) {
    std::vector<std::string> found;
    for (query_item item; query_next_item(&list, &item);) {
        found.push_back(item.text);
    }
    return found;
}

using texts = std::vector<std::string>;

TEST(query_number, reads_decimal_digits) {
    EXPECT_EQ(query_number("0"), 0);
    EXPECT_EQ(query_number("7"), 7);
    EXPECT_EQ(query_number("00012"), 12);
    EXPECT_EQ(query_number("123456789"), 123456789);
}

TEST(query_number, accepts_leading_blanks_and_a_sign) {
    EXPECT_EQ(query_number("+5"), 5);
    EXPECT_EQ(query_number("-5"), -5);
    EXPECT_EQ(query_number("-1"), -1);
    EXPECT_EQ(query_number("-0"), 0);
    EXPECT_EQ(query_number(" \t\n\v\f\r42"), 42);
}

TEST(query_number, ignores_what_follows_the_digits) {
    EXPECT_EQ(query_number("12abc"), 12);
    EXPECT_EQ(query_number("12 "), 12);
    EXPECT_EQ(query_number("12,13"), 12);
    EXPECT_EQ(query_number("3.9"), 3);
    EXPECT_EQ(query_number("0x10"), 0);
}

TEST(query_number, is_invalid_without_a_digit) {
    for (const char* text : {"", " ", "abc", "-", "+", "- 5", "+-5", "--5", "x12", ",", "\xff"}) {
        EXPECT_EQ(query_number(text), -1) << '"' << text << '"';
    }
}

TEST(query_number, holds_32_bits_on_every_machine) {
    EXPECT_EQ(query_number("2147483647"), INT32_MAX);
    EXPECT_EQ(query_number("-2147483648"), INT32_MIN);
}

TEST(query_number, is_invalid_beyond_32_bits) {
    for (const char* text : {"2147483648", "-2147483649", "4294967295", "4294967296", "4294967338",
                             "-4294967254", "9223372036854775807", "9223372036854775808",
                             "-9223372036854775808", "-9223372036854775809", "99999999999999999999999999"}) {
        EXPECT_EQ(query_number(text), -1) << text;
    }
}

TEST(query_number, ignores_an_earlier_errno) {
    errno = ERANGE;
    EXPECT_EQ(query_number("0"), 0);
    errno = EINVAL;
    EXPECT_EQ(query_number("2147483647"), INT32_MAX);
}

TEST(query_limit, is_never_negative) {
    EXPECT_EQ(query_limit(nullptr), 0);
    EXPECT_EQ(query_limit(""), 0);
    EXPECT_EQ(query_limit("abc"), 0);
    EXPECT_EQ(query_limit("-5"), 0);
    EXPECT_EQ(query_limit("-2147483648"), 0);
    EXPECT_EQ(query_limit("2147483648"), 0);
    EXPECT_EQ(query_limit("0"), 0);
}

TEST(query_limit, returns_a_positive_number) {
    EXPECT_EQ(query_limit("30"), 30);
    EXPECT_EQ(query_limit(" 512000 bytes"), 512000);
    EXPECT_EQ(query_limit("2147483647"), INT32_MAX);
}

TEST(query_trimmed, removes_white_space_at_both_ends_only) {
    EXPECT_EQ(query_trimmed(" \t\n\v\f\rsys logd \t"), "sys logd");
    EXPECT_EQ(query_trimmed("syslogd"), "syslogd");
    EXPECT_EQ(query_trimmed(""), "");
    EXPECT_EQ(query_trimmed(" \t "), "");
    EXPECT_EQ(query_trimmed("\xc3\xa4 "), "\xc3\xa4");
}

TEST(query_next_item, cuts_a_list_at_its_commas) {
    EXPECT_EQ(items_of("1,42,syslogd"), (texts{"1", "42", "syslogd"}));
    EXPECT_EQ(items_of("one"), (texts{"one"}));
}

TEST(query_next_item, skips_empty_and_blank_items) {
    EXPECT_EQ(items_of("1,,  42"), (texts{"1", "42"}));
    EXPECT_EQ(items_of(",a, ,\t,b,"), (texts{"a", "b"}));
    EXPECT_EQ(items_of(""), texts{});
    EXPECT_EQ(items_of(",,,"), texts{});
    EXPECT_EQ(items_of("   "), texts{});
}

TEST(query_next_item, trims_items_and_keeps_blanks_inside) {
    EXPECT_EQ(items_of(" a b \t,\nc"), (texts{"a b", "c"}));
}

TEST(query_next_item, keeps_items_of_31_characters_and_skips_longer_ones) {
    std::string longest(31, 'x');
    std::string too_long(32, 'y');
    EXPECT_EQ(items_of(longest + "," + too_long + ",z"), (texts{longest, "z"}));
    EXPECT_EQ(items_of(std::string(500, 'y')), texts{});
    EXPECT_EQ(items_of(too_long + ","), texts{});
}

TEST(query_next_item, counts_blanks_before_it_trims) {
    EXPECT_EQ(items_of(std::string(31, ' ') + "a,b"), (texts{"b"}));
    EXPECT_EQ(items_of(std::string(30, ' ') + "a,b"), (texts{"a", "b"}));
    EXPECT_EQ(items_of("a" + std::string(31, ' ') + ",b"), (texts{"b"}));
}

TEST(query_next_item, keeps_bytes_beyond_ascii) {
    EXPECT_EQ(items_of("\xc3\xa4\xff,\xa0x"), (texts{"\xc3\xa4\xff", "\xa0x"}));
}

TEST(query_next_item, reads_no_byte_after_the_list) {
    std::string text = "ab,cd";
    EXPECT_EQ(items_of(std::string_view(text).substr(0, 4)), (texts{"ab", "c"}));
}

struct source_bit {
    const char* name;
    uint32_t bits;
};
constexpr source_bit sources[] = {
    {"smaps", 0x1},     {"status", 0x2},  {"smapstot", 0x4},      {"filenr", 0x8},    {"meminfo", 0x10},
    {"diskinfo", 0x20}, {"iostat", 0x40}, {"pagetypeinfo", 0x80}, {"pellora", 0x100}, {"event", 0x200},
    {"pidstat", 0x400}, {"all", 0x67b},   {"fast", 0x67c},
};

TEST(query_trace_bit, knows_every_source) {
    for (const source_bit& source : sources) {
        EXPECT_EQ(query_trace_bit(source.name), source.bits) << source.name;
    }
}

TEST(query_trace_bit, compares_exactly) {
    for (const char* name : {"", "smap", "smapss", "Smaps", "SMAPS", "alle", "fas", " all", "0x1"}) {
        EXPECT_EQ(query_trace_bit(name), 0u) << '"' << name << '"';
    }
}

TEST(query_trace_mask, of_one_name_is_its_bits) {
    for (const source_bit& source : sources) {
        EXPECT_EQ(query_trace_mask(source.name), source.bits) << source.name;
    }
}

TEST(query_trace_mask, adds_the_bits_of_a_list) {
    EXPECT_EQ(query_trace_mask("meminfo, iostat,bogus"), 0x50u);
    EXPECT_EQ(query_trace_mask("smaps,status"), 0x3u);
    EXPECT_EQ(query_trace_mask("smaps,smaps,smaps"), 0x1u);
    EXPECT_EQ(query_trace_mask("all,fast"), 0x67fu);
    EXPECT_EQ(query_trace_mask("pagetypeinfo,pellora,all,fast"), 0x7ffu);
}

TEST(query_trace_mask, without_a_known_source_is_fast) {
    EXPECT_EQ(query_trace_mask(nullptr), 0x67cu);
    for (const char* list : {"", ",", "bogus", "MemInfo", "mem info", "0", "bogus, ,nothing"}) {
        EXPECT_EQ(query_trace_mask(list), 0x67cu) << '"' << list << '"';
    }
}

TEST(query_trace_mask, skips_a_name_that_is_too_long) {
    EXPECT_EQ(query_trace_mask((std::string(40, 'x') + ",event").c_str()), 0x200u);
    EXPECT_EQ(query_trace_mask((std::string(32, ' ') + "smaps,event").c_str()), 0x200u);
}

}  // namespace
