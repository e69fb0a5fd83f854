#include <gtest/gtest.h>

#include "tests/unit/oops/flash_image.h"
#include "tools/archiveview/facts/kernel.h"
#include "tools/archiveview/limits.h"

using namespace archiveview;

namespace {

using counts = std::vector<uint32_t>;

kernel_facts parsed(std::string_view text) {
    kernel_facts facts;
    kernel_parse_oops(&facts, text);
    return facts;
}

counts counts_of(const kernel_facts& facts) {
    counts all;
    for (const oops_record& each : facts.oops) {
        all.push_back(each.count);
    }
    return all;
}

// What the applet prints of a ring whose pages have these counts.
std::string printed_ring(const counts& pages, int step) {
    flash_image image(pages.size());
    for (size_t i = 0; i < pages.size(); i++) {
        image.record(i, pages[i], "<1>[    1.000000] BUG: number " + std::to_string(pages[i]) + "\n");
    }
    const oops_newest newest = oops_find_newest(image.ring());
    return "Last log is at position " + std::to_string(newest.position) + " with count " +
           std::to_string(static_cast<int32_t>(newest.count)) + "\n" +
           printed(image.ring(), newest.position, step);
}

}  // namespace

TEST(archiveview_oops, records_are_in_the_order_of_their_making) {
    for (int step : {1, -1}) {
        const kernel_facts facts = parsed(printed_ring({9, 10, 6, 7, 8}, step));
        EXPECT_EQ(counts_of(facts), (counts{6, 7, 8, 9, 10}));
        ASSERT_EQ(facts.oops.size(), 5u);
        EXPECT_EQ(facts.oops[0].number, 1u);
        EXPECT_EQ(facts.oops[4].number, 5u);
        EXPECT_EQ(facts.oops[4].headline, "BUG: number 10");
        EXPECT_EQ(facts.oops_remark, "");
    }
}

TEST(archiveview_oops, counts_of_half_the_range_and_more_were_printed_as_negative_numbers) {
    EXPECT_EQ(counts_of(parsed(printed_ring({0x80000001, 0x7fffffff, 0x80000000}, -1))),
              (counts{0x7fffffff, 0x80000000, 0x80000001}));
}

TEST(archiveview_oops, counting_starts_again_at_0) {
    EXPECT_EQ(counts_of(parsed("Last log is at position 2 with count 1\n"
                               "Log Entry 0 (at position 1)\na\nLog Entry -2 (at position 0)\nb\n"
                               "Log Entry 1 (at position 2)\nc\n")),
              (counts{0xfffffffe, 0, 1}));
}

TEST(archiveview_oops, largest_count_is_the_newest_if_nothing_says_so) {
    EXPECT_EQ(counts_of(parsed("Log Entry 8 (at position 1)\na\nLog Entry 7 (at position 0)\nb\n")),
              (counts{7, 8}));
}

TEST(archiveview_oops, title_may_follow_a_record_that_is_cut) {
    const kernel_facts facts = parsed(
        "Last log is at position 1 with count 2\n"
        "Log Entry 1 (at position 0)\n<1>[  311.920044] BUG: one\n<4>[  311.92Log Entry 2 (at position 1)\n"
        "<1>[  400.000000] BUG: two\n");
    ASSERT_EQ(facts.oops.size(), 2u);
    EXPECT_TRUE(facts.oops[0].is_cut);
    ASSERT_EQ(facts.oops[0].lines.size(), 2u);
    EXPECT_EQ(facts.oops[0].lines[1].text, "[  311.92");
    EXPECT_FALSE(facts.oops[1].is_cut);
    EXPECT_EQ(facts.oops[1].headline, "BUG: two");
}

TEST(archiveview_oops, text_that_resembles_a_title_belongs_to_the_record) {
    const kernel_facts facts =
        parsed("Log Entry 1 (at position 0)\nLog Entry of x\nLog Entry 5 (at position\n");
    ASSERT_EQ(facts.oops.size(), 1u);
    EXPECT_EQ(facts.oops[0].lines.size(), 2u);
}

TEST(archiveview_oops, without_records_has_what_the_applet_said) {
    EXPECT_EQ(parsed("No logs present\n").oops_remark, "No logs present");
    EXPECT_EQ(parsed("open: No such file or directory\n").oops_remark, "open: No such file or directory");
    EXPECT_EQ(parsed("").oops_remark, "");
    EXPECT_TRUE(parsed("No logs present\n").oops.empty());
    EXPECT_EQ(parsed(std::string(line_limit * 2, 'x')).oops_remark.size(), line_limit);
}

TEST(archiveview_oops, newest_records_stay_within_the_bound) {
    std::string text = "Last log is at position 0 with count " + std::to_string(oops_limit + 10) + "\n";
    for (size_t i = oops_limit + 10; i > 0; i--) {
        text += "Log Entry " + std::to_string(i) + " (at position 0)\nx\n";
    }
    const kernel_facts facts = parsed(text);
    ASSERT_EQ(facts.oops.size(), oops_limit);
    EXPECT_EQ(facts.oops.back().count, oops_limit + 10);
    EXPECT_EQ(facts.oops.back().number, oops_limit);
}
