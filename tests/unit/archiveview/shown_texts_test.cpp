#include "tools/archiveview/shown_texts.h"

#include <gtest/gtest.h>

#include "tools/archiveview/limits.h"

using namespace archiveview;

namespace {

void add(shown_texts* texts, std::string_view name, std::string_view text, bool is_parsed = false) {
    texts->add(name, text, text.size(), is_parsed);
}

archive_summary summary_of(shown_texts* texts) {
    archive_summary summary;
    texts->move_to(&summary);
    return summary;
}

}  // namespace

TEST(shown_texts, keep_texts_in_order) {
    shown_texts texts;
    add(&texts, "one", "1\n");
    add(&texts, "two", "\t\x1b[1mbold\n", true);
    const archive_summary summary = summary_of(&texts);
    ASSERT_EQ(summary.texts.size(), 2U);
    EXPECT_EQ(summary.texts[0].name, "one");
    EXPECT_EQ(summary.texts[1].text, "\t\x1b[1mbold\n");
    EXPECT_TRUE(summary.not_examined.empty());
}

TEST(shown_texts, show_arguments_with_blanks_between_them) {
    shown_texts texts;
    add(&texts, "processes.X/4/cmdline", std::string_view("httpd\0-f\0", 9));
    EXPECT_EQ(summary_of(&texts).texts.at(0).text, "httpd -f ");
}

TEST(shown_texts, note_what_was_not_looked_at) {
    shown_texts texts;
    add(&texts, "binary", std::string_view("a\0b", 3));
    add(&texts, "large", std::string(shown_text_limit + 1, 'x'));
    add(&texts, "parsed and large", std::string(shown_text_limit + 1, 'x'), true);
    add(&texts, "just small enough", std::string(shown_text_limit, 'x'));
    const archive_summary summary = summary_of(&texts);
    ASSERT_EQ(summary.not_examined.size(), 2U);
    EXPECT_EQ(summary.not_examined[0].name, "binary");
    EXPECT_EQ(summary.not_examined[0].text, "not text");
    EXPECT_EQ(summary.not_examined[1].name, "large");
    ASSERT_EQ(summary.texts.size(), 1U);
}

TEST(shown_texts, note_a_parsed_member_of_which_the_end_was_not_read) {
    shown_texts texts;
    texts.add("strace.log", std::string(text_limit, 'x'), text_limit + 1, true);
    EXPECT_EQ(summary_of(&texts).not_examined.at(0).text, "only its first 8 MiB were read");
}

TEST(shown_texts, are_limited_in_all) {
    shown_texts texts;
    const std::string text(shown_text_limit, 'x');
    constexpr size_t fitting = shown_texts_limit / (shown_text_limit + 3);
    for (size_t i = 0; i < fitting + 5; i++) {
        add(&texts, "one", text);
    }
    const archive_summary summary = summary_of(&texts);
    EXPECT_EQ(summary.texts.size(), fitting);
    EXPECT_EQ(summary.not_examined.size(), 5U);
}

TEST(shown_texts, count_what_they_cannot_name) {
    shown_texts texts;
    for (size_t i = 0; i < skipped_limit + 7; i++) {
        texts.skip("one", "not text");
    }
    const archive_summary summary = summary_of(&texts);
    ASSERT_EQ(summary.not_examined.size(), skipped_limit + 1);
    EXPECT_EQ(summary.not_examined.back().name, "7 more");
}
