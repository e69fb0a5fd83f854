#include "common/heap_text.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/unit/support/memory_limit.h"

TEST(heap_text, takes_no_memory_while_it_is_empty) {
    heap_text text = {.limit = 1000};
    heap_text_end(&text);
    EXPECT_EQ(text.bytes.capacity, 0u);
    EXPECT_EQ(text.bytes.length, 0u);
    EXPECT_EQ(text.error, 0);
}

TEST(heap_text, grows_with_what_is_added) {
    heap_text text = {.limit = 100000};
    std::string all;
    for (int i = 0; i < 3000; i++) {
        heap_text_print(&text, "%s %d\n", "line", i);
        heap_text_add(&text, "end\n");
        all += "line " + std::to_string(i) + "\nend\n";
    }
    heap_text_end(&text);
    EXPECT_EQ(text.view(), all);
    EXPECT_EQ(text.error, 0);
}

TEST(heap_text, has_newlines_but_no_other_control_characters) {
    heap_text text = {.limit = 1000};
    heap_text_add(&text, std::string_view("a\0b\nc\033d\te", 9));
    heap_text_print(&text, "%s", "\r\xc3\xa9\n");
    EXPECT_EQ(text.view(), "a b\nc d e \xc3\xa9\n");
}

TEST(heap_text, print_is_cut_at_511_bytes) {
    heap_text text = {.limit = 10000};
    heap_text_print(&text, "%s", std::string(600, 'x').c_str());
    EXPECT_EQ(text.view(), std::string(511, 'x'));
}

TEST(heap_text, that_reaches_its_limit_is_cut_at_a_line_and_says_so) {
    heap_text text = {.limit = 100};
    heap_text_add(&text, "first\nsecond\n" + std::string(20, 'a') + "\n");
    heap_text_add(&text, std::string(66, 'b'));
    EXPECT_EQ(text.error, 0);
    heap_text_add(&text, "c");
    EXPECT_EQ(text.error, EFBIG);
    heap_text_add(&text, "");
    heap_text_end(&text);
    EXPECT_EQ(text.view(), "first\nsecond\n" + std::string(20, 'a') + "\ncut: File too large\n");
    EXPECT_LE(text.bytes.length, text.limit);
}

TEST(heap_text, drops_what_follows_a_piece_that_does_not_fit) {
    heap_text text = {.limit = 100};
    heap_text_add(&text, "first\n" + std::string(64, 'a'));
    heap_text_add(&text, std::string(31, 'b'));
    heap_text_add(&text, "c");
    EXPECT_EQ(text.bytes.length, 70u);
    heap_text_end(&text);
    EXPECT_EQ(text.view(), "first\ncut: File too large\n");
}

TEST(heap_text, may_fill_its_limit) {
    heap_text text = {.limit = 100};
    heap_text_add(&text, std::string(100, 'a'));
    heap_text_end(&text);
    EXPECT_EQ(text.view(), std::string(100, 'a'));
    heap_text_add(&text, "b");
    heap_text_end(&text);
    EXPECT_EQ(text.view(), "cut: File too large\n");
}

TEST(heap_text, without_memory_stays_empty) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    heap_text text = {.limit = 100000};
    {
        scoped_memory_shortage nothing_left;
        heap_text_add(&text, "text\n");
        heap_text_end(&text);
    }
    EXPECT_EQ(text.error, ENOMEM);
    EXPECT_EQ(text.view(), "");
}

TEST(heap_text, that_cannot_grow_keeps_its_beginning) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    heap_text text = {.limit = 100000};
    heap_text_add(&text, "first\n");
    {
        scoped_memory_shortage nothing_left;
        while (text.error == 0) {
            heap_text_print(&text, "next\n");
        }
        heap_text_end(&text);
    }
    const std::string all(text.view());
    EXPECT_EQ(text.error, ENOMEM);
    EXPECT_EQ(all.substr(0, 11), "first\nnext\n");
    EXPECT_TRUE(all.ends_with("next\ncut: Cannot allocate memory\n")) << all;
}
