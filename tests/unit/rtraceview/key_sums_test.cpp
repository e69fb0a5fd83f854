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

TEST(rtraceview_key_sums, accepts_pieces_of_any_size) {
    for (size_t piece = 1; piece < 60; piece++) {
        EXPECT_EQ(summed(smaps, piece), smaps_sums) << piece;
    }
}

TEST(rtraceview_key_sums, accepts_a_last_line_without_newline) {
    EXPECT_EQ(summed("MemFree: 12 kB"), (std::map<std::string, uint64_t>{{"MemFree", 12}}));
}

TEST(rtraceview_key_sums, skips_lines_without_a_number) {
    EXPECT_EQ(summed("State:\tS (sleeping)\nUid:\t0\t0\nA\nB:\n:\nC:1x\nlower: "
                     "1\nD:99999999999999999999\n"),
              (std::map<std::string, uint64_t>{{"Uid", 0}}));
}

TEST(rtraceview_key_sums, keeps_the_largest_page_size) {
    EXPECT_EQ(
        summed("Size: 8 kB\nKernelPageSize: 4 kB\nMMUPageSize: 4 kB\nSize: 2048 kB\nKernelPageSize: 2048 "
               "kB\nMMUPageSize: 4 kB\nSize: 4 kB\nKernelPageSize: 4 kB\n"),
        (std::map<std::string, uint64_t>{{"KernelPageSize", 2048}, {"MMUPageSize", 4}, {"Size", 2060}}));
}

TEST(rtraceview_key_sums, keeps_names_and_masks_as_text) {
    for (size_t piece : {size_t{1}, size_t{7}, SIZE_MAX}) {
        std::string_view text =
            "Name:\t 42\nUmask:\t0022\nSigIgn:\t0000000000001000\nCapEff:\t000001ffffffffff\n"
            "Cpus_allowed:\t3\nCpus_allowed_list:\t0-1\nThreads:\t2\n";
        key_sums sums;
        sums.begin();
        for (; !text.empty(); text.remove_prefix(std::min(piece, text.size()))) {
            sums.add(text.substr(0, piece));
        }
        std::map<std::string, std::string> texts;
        for (const key_sums::entry& entry : sums.entries()) {
            if (entry.rule == key_rule::text) {
                texts[entry.key] = entry.text;
            }
        }
        EXPECT_EQ(texts, (std::map<std::string, std::string>{{"Name", " 42"},
                                                             {"Umask", "0022"},
                                                             {"SigIgn", "0000000000001000"},
                                                             {"CapEff", "000001ffffffffff"},
                                                             {"Cpus_allowed", "3"},
                                                             {"Cpus_allowed_list", "0-1"}}));
        sums.begin();
        EXPECT_EQ(sums.entries()[0].text, "");
    }
}

TEST(rtraceview_key_sums, marks_numbers_in_kb) {
    key_sums sums;
    sums.begin();
    sums.add("VmRSS:\t  12 kB\nThreads:\t3\n");
    EXPECT_TRUE(sums.entries()[0].is_kb);
    EXPECT_FALSE(sums.entries()[1].is_kb);
}

TEST(rtraceview_key_sums, starts_from_zero_for_the_next_text) {
    key_sums sums;
    sums.begin();
    sums.add("A: 1\nB: 2\ncut o");
    sums.begin();
    sums.add("B: 5\nC: 6\n");
    EXPECT_EQ(sums_of(sums), (std::map<std::string, uint64_t>{{"B", 5}, {"C", 6}}));
}

TEST(rtraceview_key_sums, limits_keys_and_line_lengths) {
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
