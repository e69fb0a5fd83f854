#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tools/dcore/options.h"

namespace {

const char* parse(std::vector<std::string> words, dcore_options& options) {
    static std::vector<std::string> kept;  // the options borrow from it
    kept = std::move(words);
    kept.insert(kept.begin(), "dcore");
    std::vector<char*> argv;
    for (std::string& word : kept) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    return options_parse(static_cast<int>(kept.size()), argv.data(), options);
}

}  // namespace

TEST(dcore_options, a_pid_alone_goes_to_standard_output) {
    dcore_options options;
    ASSERT_EQ(parse({"42"}, options), nullptr);
    EXPECT_EQ(options.pid, 42);
    EXPECT_EQ(options.file, nullptr);
}

TEST(dcore_options, a_file_is_named_before_the_pid) {
    dcore_options options;
    ASSERT_EQ(parse({"-c", "core.42", "42"}, options), nullptr);
    EXPECT_STREQ(options.file, "core.42");
    ASSERT_EQ(parse({"-ccore", "42"}, options), nullptr);
    EXPECT_STREQ(options.file, "core");
}

TEST(dcore_options, standard_output_has_names) {
    for (const char* name : {"/dev/stdout", "-"}) {
        dcore_options options;
        ASSERT_EQ(parse({"-c", name, "42"}, options), nullptr);
        EXPECT_EQ(options.file, nullptr) << name;
    }
}

TEST(dcore_options, what_is_wrong_is_said_and_changes_nothing) {
    const std::vector<std::vector<std::string>> wrong = {
        {},     {"-c"}, {"-c", "x"}, {"-x", "1"}, {"1", "2"},      {"0"},
        {"-1"}, {"1x"}, {""},        {" 1"},      {"99999999999"}, {"0x10"},
    };
    for (const auto& words : wrong) {
        dcore_options options;
        options.pid = 7;
        EXPECT_NE(parse(words, options), nullptr) << testing::PrintToString(words);
        EXPECT_EQ(options.pid, 7);
    }
}
