#include "tools/archiveview/options.h"

#include <gtest/gtest.h>

#include <vector>

using namespace archiveview;

namespace {

struct parsed {
    std::string wrong;
    report_options options;
};

parsed parse(std::vector<std::string> words) {
    words.insert(words.begin(), "archiveview");
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    parsed result;
    result.wrong = parse_options(static_cast<int>(words.size()), argv.data(), &result.options);
    return result;
}

}  // namespace

TEST(archiveview_options, default_to_text) {
    const parsed result = parse({"debug.tgz"});
    EXPECT_EQ(result.wrong, "");
    EXPECT_EQ(result.options.format, report_format::text);
    EXPECT_EQ(result.options.input, "debug.tgz");
    EXPECT_EQ(result.options.page, "");
}

TEST(archiveview_options, name_the_format) {
    EXPECT_EQ(parse({"--json", "-"}).options.format, report_format::json);
    EXPECT_EQ(parse({"--json", "-"}).options.input, "-");
    EXPECT_EQ(parse({"-", "--html", "page"}).options.format, report_format::html);
    EXPECT_EQ(parse({"--html=page", "-"}).options.page, "page");
}

TEST(archiveview_options, ask_for_help) {
    EXPECT_TRUE(parse({"--help"}).options.wants_help);
    EXPECT_TRUE(parse({"-h"}).options.wants_help);
    EXPECT_EQ(parse({"--help"}).wrong, "");
}

TEST(archiveview_options, that_are_wrong_are_named) {
    EXPECT_EQ(parse({}).wrong, "missing file");
    EXPECT_EQ(parse({"a", "b"}).wrong, "more than one file");
    EXPECT_EQ(parse({"--odd", "a"}).wrong, "unknown option '--odd'");
    EXPECT_EQ(parse({"a", "--html"}).wrong, "missing value after '--html'");
    EXPECT_EQ(parse({"--json", "--html", "page", "a"}).wrong, "more than one format");
    EXPECT_EQ(parse({"--odd", "a"}).options.input, "");
}
