#include <gtest/gtest.h>

#include "tools/webfront/report_shelf.h"

namespace {

using clock = webfront_report_shelf::clock;

std::shared_ptr<const std::string> page(const char* text) {
    return std::make_shared<const std::string>(text);
}

}  // namespace

TEST(webfront_report_shelf, finds_a_page_under_the_name_it_was_given) {
    webfront_report_shelf shelf;
    const std::string first = shelf.keep(page("first"));
    const std::string second = shelf.keep(page("second"));
    EXPECT_NE(first, second);
    EXPECT_GE(first.size(), 16U);
    ASSERT_TRUE(shelf.find(first));
    EXPECT_EQ(*shelf.find(first), "first");
    EXPECT_EQ(*shelf.find(second), "second");
}

TEST(webfront_report_shelf, finds_nothing_under_other_names) {
    webfront_report_shelf shelf;
    const std::string name = shelf.keep(page("x"));
    EXPECT_FALSE(shelf.find(""));
    EXPECT_FALSE(shelf.find(name.substr(1)));
    EXPECT_FALSE(shelf.find(name + "0"));
}

TEST(webfront_report_shelf, drops_the_oldest_page_when_it_is_full) {
    webfront_report_shelf shelf;
    const std::string oldest = shelf.keep(page("oldest"));
    const std::string next = shelf.keep(page("next"));
    for (size_t i = 1; i < webfront_kept_reports; i++) {
        shelf.keep(page("later"));
    }
    EXPECT_FALSE(shelf.find(oldest));
    EXPECT_TRUE(shelf.find(next));
}

TEST(webfront_report_shelf, drops_a_page_after_its_time) {
    webfront_report_shelf shelf;
    const clock::time_point now = clock::now();
    std::weak_ptr<const std::string> kept;
    std::string name;
    {
        const auto made = page("x");
        kept = made;
        name = shelf.keep(made, now);
    }
    EXPECT_TRUE(shelf.find(name, now + webfront_keep_time - std::chrono::seconds(1)));
    EXPECT_FALSE(shelf.find(name, now + webfront_keep_time));
    EXPECT_TRUE(kept.expired());
}
