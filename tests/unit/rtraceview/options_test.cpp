#include "tools/rtraceview/options.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/unit/support/command_line.h"

namespace {

std::string parsed(std::vector<std::string> words, view_options* options) {
    command_line line("rtraceview", std::move(words));
    return view_parse_options(line.argc(), line.argv(), options);
}

}  // namespace

TEST(rtraceview_options, name_a_file_and_a_format) {
    view_options options;
    EXPECT_EQ(parsed({"rtrace"}, &options), "");
    EXPECT_EQ(options.format, view_format::text);
    EXPECT_EQ(options.input, "rtrace");
    EXPECT_EQ(parsed({"--json", "-"}, &options), "");
    EXPECT_EQ(options.format, view_format::json);
    EXPECT_EQ(options.input, "-");
    EXPECT_EQ(parsed({"rtrace", "--csv"}, &options), "");
    EXPECT_EQ(options.format, view_format::csv);
    EXPECT_EQ(parsed({"--html", "page.html", "rtrace"}, &options), "");
    EXPECT_EQ(options.format, view_format::html);
    EXPECT_EQ(options.page, "page.html");
}

TEST(rtraceview_options, report_the_wrong_word) {
    view_options options;
    EXPECT_EQ(parsed({}, &options), "missing file");
    EXPECT_EQ(parsed({"a", "b"}, &options), "more than one file");
    EXPECT_EQ(parsed({"--html"}, &options), "missing value after '--html'");
    EXPECT_EQ(options.format, view_format::text);
    EXPECT_EQ(parsed({"--json", "--csv", "a"}, &options), "more than one format");
    EXPECT_EQ(parsed({"--wrong", "a"}, &options), "unknown option '--wrong'");
}

TEST(rtraceview_options, may_ask_for_help) {
    view_options options;
    EXPECT_EQ(parsed({"--help"}, &options), "");
    EXPECT_TRUE(options.wants_help);
}
