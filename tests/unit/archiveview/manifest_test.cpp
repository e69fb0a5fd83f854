#include "tools/archiveview/facts/manifest.h"

#include <gtest/gtest.h>

using namespace archiveview;

namespace {

constexpr std::string_view text =
    "zarvo 0.1\n"
    "started 2026-03-04 05:06:07 +0100\n"
    "        bytes     seconds  member\n"
    "          312    0.000041  media.conf\n"
    "       512000    5.003112   odd: name/core\n"
    "        error              oopslog: No space left on device\n"
    "        error              a: b.4/core: No such process\n"
    "ended 2026-03-04 05:06:21 +0100\n"
    "members: 2, bytes: 512312, errors: 2\n"
    "complete\n";

}  // namespace

TEST(manifest, has_members_with_sizes_and_times) {
    const manifest_facts facts = manifest_parse(text);
    ASSERT_EQ(facts.list.size(), 2U);
    EXPECT_EQ(facts.list[0].name, "media.conf");
    EXPECT_EQ(facts.list[0].bytes, 312U);
    EXPECT_DOUBLE_EQ(facts.list[0].seconds, 0.000041);
    EXPECT_EQ(facts.list[1].name, " odd: name/core");
    EXPECT_EQ(facts.members, 2U);
    EXPECT_EQ(facts.bytes, 512312U);
    EXPECT_EQ(facts.started, "2026-03-04 05:06:07");
    EXPECT_TRUE(facts.is_complete);
    EXPECT_TRUE(facts.is_list_whole);
}

TEST(manifest, has_errors_with_their_reasons) {
    const manifest_facts facts = manifest_parse(text);
    ASSERT_EQ(facts.errors.size(), 2U);
    EXPECT_EQ(facts.errors[0].name, "oopslog");
    EXPECT_EQ(facts.errors[0].text, "No space left on device");
    EXPECT_EQ(facts.errors[1].name, "a: b.4/core");
    EXPECT_EQ(facts.errors[1].text, "No such process");
}

TEST(manifest, is_complete_only_with_its_whole_last_line) {
    for (size_t length = 0; length < text.size(); length++) {
        EXPECT_FALSE(manifest_parse(text.substr(0, length)).is_complete) << length;
    }
    EXPECT_FALSE(manifest_parse(std::string(text) + "more\n").is_complete);
}

TEST(manifest, says_that_its_list_is_not_whole) {
    EXPECT_FALSE(
        manifest_parse("the list above is not whole: No space left on device\ncomplete\n").is_list_whole);
}

TEST(manifest, ignores_lines_that_it_does_not_know) {
    const manifest_facts facts =
        manifest_parse("\n\n   \n12\n12 x\nmembers:\nerror\nerror x\nstarted\n-1 0.1  x\n");
    EXPECT_TRUE(facts.list.empty());
    EXPECT_TRUE(facts.errors.empty());
    EXPECT_EQ(facts.members, 0U);
}
