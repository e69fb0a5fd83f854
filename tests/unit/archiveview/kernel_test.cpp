#include "tools/archiveview/facts/kernel.h"

#include <gtest/gtest.h>

#include <set>

#include "tools/archiveview/facts/log_text.h"
#include "tools/archiveview/limits.h"

using namespace archiveview;

namespace {

std::vector<log_line> log_of(std::string_view text) {
    kernel_facts facts;
    kernel_parse_log(&facts, text);
    return facts.log;
}

void expect_line(std::string_view text, int level, double seconds, std::string_view rest) {
    const log_line line = log_line_parse(text);
    EXPECT_EQ(line.level, level) << text;
    EXPECT_DOUBLE_EQ(line.seconds, seconds) << text;
    EXPECT_EQ(line.text, rest) << text;
}

}  // namespace

TEST(archiveview_log_line, has_level_time_and_text) {
    expect_line("<4>[  311.920044] epc   : 8019fe30", 4, 311.920044, "epc   : 8019fe30");
    expect_line("<0>[28179.846175]   indented", 0, 28179.846175, "  indented");
}

TEST(archiveview_log_line, level_is_without_the_facility) {
    expect_line("<30>[    1.000000] init[1]: hello", 6, 1, "init[1]: hello");
}

TEST(archiveview_log_line, may_lack_level_or_time) {
    expect_line("[  311.920044] text", -1, 311.920044, "text");
    expect_line("<6>text", 6, -1, "text");
    expect_line("text", -1, -1, "text");
    expect_line("", -1, -1, "");
}

TEST(archiveview_log_line, has_no_thread_or_processor_that_wrote_it) {
    expect_line("<6>[    0.004000][    T1] text", 6, 0.004, "text");
    expect_line("<6>[    0.004000][   C12] text", 6, 0.004, "text");
    expect_line("<6>[    0.004000] [venc] text", 6, 0.004, "[venc] text");
}

TEST(archiveview_log_line, brackets_with_something_else_belong_to_the_text) {
    expect_line("<x>text", -1, -1, "<x>text");
    expect_line("<6>[<8019fe30>] do_sys_open", 6, -1, "[<8019fe30>] do_sys_open");
    expect_line("<6>[12] text", 6, -1, "[12] text");
    expect_line("[nan.] [inf] text", -1, -1, "[nan.] [inf] text");
    expect_line("<6", -1, -1, "<6");
    expect_line("[  1.5", -1, -1, "[  1.5");
}

TEST(archiveview_log, has_a_line_for_each_that_is_not_empty) {
    const std::vector<log_line> log = log_of("<5>[    0.000000] Linux\n\n<3>[    1.500000] failed\n<6>cut");
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(log[0].text, "Linux");
    EXPECT_EQ(log[1].level, 3);
    EXPECT_EQ(log[2].text, "cut");
}

TEST(archiveview_log, keeps_the_newest_lines) {
    std::string text;
    for (size_t i = 0; i < log_line_limit + 5; i++) {
        text += std::to_string(i) + "\n";
    }
    for (const std::string& each : {text, text + "unfinished"}) {
        const std::vector<log_line> log = log_of(each);
        ASSERT_EQ(log.size(), log_line_limit);
        EXPECT_EQ(log.back().text, each == text ? std::to_string(log_line_limit + 4) : "unfinished");
    }
}

TEST(archiveview_log, longer_than_the_bound_loses_its_beginning) {
    const std::vector<log_line> log = log_of("first\n" + std::string(text_limit - 6, 'x') + "\nlast\n");
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].text, "last");
}

TEST(archiveview_taint, each_documented_bit_has_a_meaning_of_its_own) {
    constexpr unsigned documented = 19;
    kernel_facts facts;
    kernel_set_tainted(&facts, (uint64_t{1} << documented) - 1);
    EXPECT_EQ(std::set<std::string>(facts.taints.begin(), facts.taints.end()).size(), documented);
    for (const std::string& meaning : facts.taints) {
        EXPECT_FALSE(meaning.empty() || meaning.starts_with("bit ")) << meaning;
    }
}

TEST(archiveview_taint, has_the_meanings_of_the_bits_that_are_set) {
    kernel_facts facts;
    kernel_set_tainted(&facts, 0);
    EXPECT_TRUE(facts.taints.empty());
    kernel_set_tainted(&facts, (uint64_t{1} << 63) | (1 << 12) | 1 << 7);
    ASSERT_EQ(facts.taints.size(), 3u);
    EXPECT_NE(facts.taints[0].find("oops"), std::string::npos);
    EXPECT_NE(facts.taints[1].find("module"), std::string::npos);
    EXPECT_EQ(facts.taints[2], "bit 63 is set");
    EXPECT_EQ(facts.tainted, (uint64_t{1} << 63) | (1 << 12) | 1 << 7);
}
