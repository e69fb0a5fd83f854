#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "common/unique_fd.h"
#include "tools/dcore/proc_text.h"

namespace {

std::vector<std::string> lines_of(const std::string& text) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    unique_fd out(ends[0]);
    std::thread writer([&text, end = ends[1]] {
        unique_fd in(end);
        for (size_t at = 0; at < text.size(); at += 1000) {
            std::string part = text.substr(at, 1000);
            EXPECT_EQ(write(in.get(), part.data(), part.size()), static_cast<ssize_t>(part.size()));
        }
    });
    std::vector<std::string> lines;
    auto reader = std::make_unique<line_reader>(out.get());
    for (std::string_view line; reader->next(&line);) {
        lines.emplace_back(line);
    }
    writer.join();
    return lines;
}

}  // namespace

TEST(dcore_line_reader, returns_each_line_without_its_newline) {
    EXPECT_EQ(lines_of("one\n\nthree\n"), (std::vector<std::string>{"one", "", "three"}));
}

TEST(dcore_line_reader, returns_a_last_line_without_newline) {
    EXPECT_EQ(lines_of("one\ntwo"), (std::vector<std::string>{"one", "two"}));
    EXPECT_TRUE(lines_of("").empty());
}

TEST(dcore_line_reader, finds_lines_across_the_end_of_its_buffer) {
    std::string text;
    std::vector<std::string> want;
    for (int i = 0; i < 3000; i++) {
        want.push_back("line " + std::to_string(i) + std::string(static_cast<size_t>(i % 40), 'x'));
        text += want.back() + "\n";
    }
    EXPECT_EQ(lines_of(text), want);
}

TEST(dcore_line_reader, cuts_a_line_longer_than_its_buffer_and_continues) {
    std::string endless(100000, 'y');
    std::vector<std::string> lines = lines_of("one\n" + endless + "\ntwo\n");
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_GT(lines[1].size(), 16384u);
    EXPECT_LT(lines[1].size(), endless.size());
    EXPECT_EQ(lines[1].find_first_not_of('y'), std::string::npos);
    EXPECT_EQ(lines[2], "two");
}

TEST(dcore_take_number, removes_the_number_and_the_blanks_after_it) {
    std::string_view text = "7f00 \t12";
    uint64_t value = 0;
    EXPECT_TRUE(take_hex(&text, &value));
    EXPECT_EQ(value, 0x7f00u);
    EXPECT_TRUE(take_number(&text, &value));
    EXPECT_EQ(value, 12u);
    EXPECT_EQ(text, "");
}

TEST(dcore_take_number, leaves_other_text_and_large_numbers_alone) {
    for (std::string_view text : {"", "x1", " 1", "99999999999999999999"}) {
        std::string_view rest = text;
        uint64_t value = 5;
        EXPECT_FALSE(take_number(&rest, &value)) << text;
        EXPECT_EQ(rest, text);
    }
}

TEST(dcore_take_word, ends_at_a_blank) {
    std::string_view text = "rw-p  0000";
    EXPECT_EQ(take_word(&text), "rw-p");
    EXPECT_EQ(text, "0000");
    EXPECT_EQ(take_word(&text), "0000");
    EXPECT_EQ(take_word(&text), "");
}

TEST(dcore_proc_text, is_empty_for_a_missing_process) {
    EXPECT_EQ(proc_text(0x7fffffff, "stat"), "");
    EXPECT_FALSE(proc_text(getpid(), "stat").empty());
    EXPECT_EQ(proc_text(getpid(), "stat", 3).size(), 3u);
}
