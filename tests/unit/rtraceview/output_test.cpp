#include "tools/rtraceview/output.h"

#include <gtest/gtest.h>

#include "tests/unit/rtraceview/bytes.h"

TEST(rtraceview_output, writes_numbers_without_an_exponent) {
    collected_text to;
    for (double number : {0.0, -3.0, 2.25, 0.00001, 1e15}) {
        to.out.write_number(number);
        to.out.write(' ');
    }
    EXPECT_EQ(to.all(), "0 -3 2.25 0.00001 1000000000000000 ");
}

TEST(rtraceview_output, quotes_csv_only_where_required) {
    collected_text to;
    for (const char* text : {"plain text", "a,b", "a\"b", "a\nb", ""}) {
        to.out.write_csv(text);
        to.out.write(';');
    }
    EXPECT_EQ(to.all(), "plain text;\"a,b\";\"a\"\"b\";\"a\nb\";;");
}

TEST(rtraceview_output, writes_times_in_utc_and_impossible_ones_in_milliseconds) {
    collected_text to;
    for (int64_t time_ms : {int64_t{0}, some_time_ms, int64_t{-1}, INT64_MAX}) {
        to.out.write_time(time_ms);
        to.out.write('\n');
    }
    EXPECT_EQ(to.all(), "1970-01-01 00:00:00.000\n2023-11-14 22:13:20.123\n-1 ms\n9223372036854775807 ms\n");
}

TEST(rtraceview_output, passes_large_output_on_before_it_is_flushed) {
    size_t passed = 0;
    text_output out([&passed](std::string_view text) { passed += text.size(); });
    out.write("x");
    EXPECT_EQ(passed, 0u);
    out.write(std::string(1 << 20, 'x'));
    EXPECT_EQ(passed, (1u << 20) + 1);
}
