#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "tests/unit/support/command_line.h"
#include "tools/dcore/options.h"

namespace {

std::string parse(std::vector<std::string> words, dcore_options* options) {
    static std::optional<command_line> line;  // the options borrow from it
    line.emplace("dcore", std::move(words));
    return options_parse(line->argc(), line->argv(), options);
}

}  // namespace

TEST(dcore_options, select_standard_output_for_a_pid_alone) {
    dcore_options options;
    ASSERT_EQ(parse({"42"}, &options), "");
    EXPECT_EQ(options.pid, 42);
    EXPECT_EQ(options.file, nullptr);
}

TEST(dcore_options, accept_a_file_before_the_pid) {
    dcore_options options;
    ASSERT_EQ(parse({"-c", "core.42", "42"}, &options), "");
    EXPECT_STREQ(options.file, "core.42");
    ASSERT_EQ(parse({"-ccore", "42"}, &options), "");
    EXPECT_STREQ(options.file, "core");
}

TEST(dcore_options, accept_names_of_standard_output) {
    for (const char* name : {"/dev/stdout", "-"}) {
        dcore_options options;
        ASSERT_EQ(parse({"-c", name, "42"}, &options), "");
        EXPECT_EQ(options.file, nullptr) << name;
    }
}

TEST(dcore_options, are_unchanged_by_a_wrong_command_line) {
    const std::vector<std::vector<std::string>> wrong = {
        {},     {"-c"}, {"-c", "x"}, {"-x", "1"}, {"1", "2"},      {"0"},
        {"-1"}, {"1x"}, {""},        {" 1"},      {"99999999999"}, {"0x10"},
    };
    for (const auto& words : wrong) {
        dcore_options options;
        options.pid = 7;
        EXPECT_NE(parse(words, &options), "") << testing::PrintToString(words);
        EXPECT_EQ(options.pid, 7);
    }
}

TEST(dcore_options, name_the_wrong_word) {
    dcore_options options;
    EXPECT_EQ(parse({"-x", "1"}, &options), "unknown option '-x'");
    EXPECT_EQ(parse({"-c"}, &options), "missing file after '-c'");
    EXPECT_EQ(parse({"1x"}, &options), "'1x' is not a process id");
}
