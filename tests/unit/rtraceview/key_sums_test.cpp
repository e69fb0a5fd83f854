#include "tools/rtraceview/key_sums.h"

#include <gtest/gtest.h>

#include <map>

namespace {

std::map<std::string, uint64_t> sums_of(const key_sums& sums) {
    std::map<std::string, uint64_t> present;
    for (const key_sums::entry& entry : sums.entries()) {
        if (entry.is_present) {
            present[entry.key] = entry.sum;
        }
    }
    return present;
}

std::map<std::string, uint64_t> summed(std::string_view text, size_t piece = SIZE_MAX) {
    key_sums sums;
    sums.begin();
    for (; !text.empty(); text.remove_prefix(std::min(piece, text.size()))) {
        sums.add(text.substr(0, piece));
    }
    sums.finish();
    return sums_of(sums);
}

constexpr std::string_view smaps =
    "55a0-55b0 r-xp 00000000 08:01 1 /Bin: 5 kB\nSize:   8 kB\nRss:    4 kB\nVmFlags: rd ex\n"
    "7f00-7f10 rw-p 00000000 00:00 0\nSize:  16 kB\nRss:   12 kB\nVmFlags: rd wr\n";
const std::map<std::string, uint64_t> smaps_sums = {{"Rss", 16}, {"Size", 24}};

}  // namespace

TEST(rtraceview_key_sums, adds_up_the_numbers_of_each_key) {
    EXPECT_EQ(summed(smaps), smaps_sums);
}

TEST(rtraceview_key_sums, takes_pieces_of_any_size) {
    for (size_t piece = 1; piece < 60; piece++) {
        EXPECT_EQ(summed(smaps, piece), smaps_sums) << piece;
    }
}

TEST(rtraceview_key_sums, takes_a_last_line_without_newline) {
    EXPECT_EQ(summed("MemFree: 12 kB"), (std::map<std::string, uint64_t>{{"MemFree", 12}}));
}

TEST(rtraceview_key_sums, passes_over_what_is_no_number) {
    EXPECT_EQ(summed("Name:\tinit\nState:\tS (sleeping)\nUid:\t0\t0\nA\nB:\n:\nC:1x\nlower: "
                     "1\nD:99999999999999999999\n"),
              (std::map<std::string, uint64_t>{{"Uid", 0}}));
}

TEST(rtraceview_key_sums, knows_which_numbers_are_sizes) {
    key_sums sums;
    sums.begin();
    sums.add("VmRSS:\t  12 kB\nThreads:\t3\n");
    EXPECT_TRUE(sums.entries()[0].is_kb);
    EXPECT_FALSE(sums.entries()[1].is_kb);
}

TEST(rtraceview_key_sums, begins_anew_for_the_next_text) {
    key_sums sums;
    sums.begin();
    sums.add("A: 1\nB: 2\ncut o");
    sums.begin();
    sums.add("B: 5\nC: 6\n");
    EXPECT_EQ(sums_of(sums), (std::map<std::string, uint64_t>{{"B", 5}, {"C", 6}}));
}

TEST(rtraceview_key_sums, has_a_limit_of_keys_and_of_lines) {
    key_sums sums;
    sums.begin();
    for (size_t i = 0; i < key_sums::keys_limit + 10; i++) {
        sums.add("K" + std::to_string(i) + ": 1\n");
    }
    EXPECT_EQ(sums.entries().size(), key_sums::keys_limit);
    sums.add("L");
    for (int i = 0; i < 1000; i++) {
        sums.add(std::string(1000, 'x'));
    }
    sums.add("\nK1: 4\n");
    EXPECT_EQ(sums.entries()[1].sum, 5u);
}
