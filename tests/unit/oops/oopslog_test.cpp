#include "oops/oopslog.h"

#include <gtest/gtest.h>

#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "tests/unit/oops/flash_image.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/command_line.h"
#include "tests/unit/support/temp_dir.h"

namespace {

using order = std::vector<int>;

// A page at the end of an allocation, so that the address sanitizer detects a read beyond it.
oops_page parse(const std::vector<uint8_t>& bytes) {
    return oops_page_parse(bytes.data());
}

std::vector<uint8_t> page_with(uint32_t count, uint32_t magic, std::string_view text, uint8_t filler = 0xff) {
    std::vector<uint8_t> bytes(flash_page_size, filler);
    set_little_endian(bytes.data(), count);
    set_little_endian(bytes.data() + 4, magic);
    std::copy(text.begin(), text.end(), bytes.begin() + 8);
    return bytes;
}

int run(std::vector<std::string> words) {
    words.insert(words.begin(), "oopslog");
    return call_applet(run_oopslog, std::move(words));
}

struct outcome {
    int status = -1;
    std::string out;
    std::string err;
};

outcome run_captured(const std::vector<std::string>& words) {
    outcome result;
    result.err = capture_stderr([&] { result.out = capture_stdout([&] { result.status = run(words); }); });
    return result;
}

void expect_usage(const std::vector<std::string>& words) {
    outcome result = run_captured(words);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "USAGE: oopslog [options] mtdblock-device\n\n");
    EXPECT_EQ(result.err, "");
}

}  // namespace

// A page.

TEST(oops_page_parse, numbers_are_little_endian) {
    std::vector<uint8_t> bytes(flash_page_size, 0xff);
    const uint8_t head[] = {0x78, 0x56, 0x34, 0x92, 0x00, 0x5d, 0x00, 0x5d, 'o', 'o', 'p', 's'};
    std::copy(std::begin(head), std::end(head), bytes.begin());
    std::vector<uint8_t> text(bytes);
    oops_page page = parse(text);
    EXPECT_EQ(page.count, 0x92345678u);
    EXPECT_TRUE(page.has_magic);
    EXPECT_FALSE(page.is_erased);
    EXPECT_EQ(page.text, "oops");
}

TEST(oops_page_parse, page_of_ones_is_erased_and_empty) {
    std::vector<uint8_t> bytes(flash_page_size, 0xff);
    oops_page page = parse(bytes);
    EXPECT_TRUE(page.is_erased);
    EXPECT_FALSE(page.has_magic);
    EXPECT_EQ(page.text, "");
}

TEST(oops_page_parse, page_of_zeros_is_not_a_record) {
    std::vector<uint8_t> bytes(flash_page_size, 0);
    oops_page page = parse(bytes);
    EXPECT_FALSE(page.is_erased);
    EXPECT_FALSE(page.has_magic);
    EXPECT_EQ(page.text.size(), flash_page_size - 8);
}

TEST(oops_page_parse, page_with_erased_count_is_erased_even_with_magic) {
    EXPECT_TRUE(parse(page_with(0xffffffff, right_magic, "x")).is_erased);
}

TEST(oops_page_parse, every_byte_of_the_magic_is_checked) {
    for (uint32_t wrong : {0x5d005d01u, 0x5d015d00u, 0x005d005du, 0x5d005du, 0xdd005d00u}) {
        EXPECT_FALSE(parse(page_with(1, wrong, "x")).has_magic) << std::hex << wrong;
    }
}

TEST(oops_page_parse, text_without_an_erased_byte_ends_with_the_page) {
    std::vector<uint8_t> bytes = page_with(1, right_magic, "", 'z');
    EXPECT_EQ(parse(bytes).text, std::string(4088, 'z'));
    bytes.back() = 0xff;
    EXPECT_EQ(parse(bytes).text, std::string(4087, 'z'));
}

TEST(oops_page_parse, zero_byte_does_not_end_the_text) {
    EXPECT_EQ(parse(page_with(1, right_magic, std::string_view("a\0b", 3))).text.size(), 3u);
}

// The newest record.

TEST(oops_find_newest, empty_ring_has_none) {
    EXPECT_EQ(oops_find_newest(flash_image(0).ring()).position, -1);
}

TEST(oops_find_newest, erased_ring_has_none) {
    EXPECT_EQ(oops_find_newest(flash_image(5).ring()).position, -1);
}

TEST(oops_find_newest, ring_of_zeros_has_none) {
    EXPECT_EQ(oops_find_newest(flash_image(5, 0).ring()).position, -1);
}

TEST(oops_find_newest, one_page_is_enough) {
    oops_newest newest = oops_find_newest(flash_image(1).record(0, 7, "x").ring());
    EXPECT_EQ(newest.position, 0);
    EXPECT_EQ(newest.count, 7u);
}

TEST(oops_find_newest, largest_count_wins_at_any_position) {
    for (size_t at = 0; at < 8; at++) {
        flash_image image(8);
        for (size_t page = 0; page < 8; page++) {
            image.record(page, page == at ? 0x80000001 : static_cast<uint32_t>(page + 1), "x");
        }
        oops_newest newest = oops_find_newest(image.ring());
        EXPECT_EQ(newest.position, static_cast<int64_t>(at));
        EXPECT_EQ(newest.count, 0x80000001u);
    }
}

TEST(oops_find_newest, first_of_equal_counts_wins) {
    flash_image image(4);
    image.record(1, 9, "x").record(3, 9, "x");
    EXPECT_EQ(oops_find_newest(image.ring()).position, 1);
}

TEST(oops_find_newest, zero_comes_after_the_last_count) {
    flash_image image(6);
    image.record(2, 0xfffffffd, "x").record(3, 0xfffffffe, "x").record(4, 0, "x");
    oops_newest newest = oops_find_newest(image.ring());
    EXPECT_EQ(newest.position, 4);
    EXPECT_EQ(newest.count, 0u);
}

TEST(oops_find_newest, counts_after_the_zero_are_newer) {
    flash_image image(6);
    image.record(2, 0xfffffffe, "x").record(3, 0, "x").record(4, 1, "x").record(5, 2, "x");
    EXPECT_EQ(oops_find_newest(image.ring()).position, 5);
}

TEST(oops_find_newest, zero_is_newer_only_than_the_last_count) {
    flash_image image(3);
    image.record(0, 0xfffffffd, "x").record(1, 0, "x");
    EXPECT_EQ(oops_find_newest(image.ring()).position, 0);
}

TEST(oops_find_newest, zero_is_newest_if_it_is_alone_or_first) {
    EXPECT_EQ(oops_find_newest(flash_image(3).record(1, 0, "x").ring()).position, 1);
    EXPECT_EQ(oops_find_newest(flash_image(3).record(0, 0, "x").record(1, 0, "x").ring()).position, 0);
}

TEST(oops_find_newest, ignores_wrong_magic_and_erased_counts) {
    flash_image image(4);
    image.record(0, 100, "x", 0x5d005d01).record(1, 3, "x").record(2, 0xffffffff, "x");
    EXPECT_EQ(oops_find_newest(image.ring()).position, 1);
}

TEST(oops_find_newest, ignores_unreadable_pages) {
    flash_image image(4);
    image.record(0, 1, "x").record(1, 5, "x").record(2, 3, "x").unreadable(1);
    EXPECT_EQ(oops_find_newest(image.ring()).position, 2);
}

// Printing.

TEST(oops_print_ring, prints_count_position_and_text_and_adds_no_newline) {
    flash_image image(2);
    image.record(0, 4, "first\n").record(1, 5, "second");
    EXPECT_EQ(printed(image.ring(), 1, 1),
              "Log Entry 4 (at position 0)\nfirst\nLog Entry 5 (at position 1)\nsecond");
}

TEST(oops_print_ring, forward_order_is_from_the_oldest_to_the_newest_record) {
    for (int newest = 0; newest < 8; newest++) {
        flash_image image(8);
        order expected;
        for (int i = 1; i <= 8; i++) {
            int position = (newest + i) % 8;
            image.record(static_cast<size_t>(position), static_cast<uint32_t>(100 + i), "x");
            expected.push_back(position);
        }
        EXPECT_EQ(oops_find_newest(image.ring()).position, newest);
        EXPECT_EQ(printed_positions(image.ring(), newest, 1), expected);
    }
}

TEST(oops_print_ring, backward_order_begins_before_the_newest_and_ends_with_it) {
    flash_image image(8);
    for (size_t page = 0; page < 8; page++) {
        image.record(page, static_cast<uint32_t>(page <= 2 ? 100 + page : 10 + page), "x");
    }
    EXPECT_EQ(printed_positions(image.ring(), 2, -1), (order{1, 0, 7, 6, 5, 4, 3, 2}));
}

TEST(oops_print_ring, one_page_is_printed_once_in_either_direction) {
    flash_image image(1);
    image.record(0, 1, "x");
    EXPECT_EQ(printed_positions(image.ring(), 0, 1), order{0});
    EXPECT_EQ(printed_positions(image.ring(), 0, -1), order{0});
}

TEST(oops_print_ring, skips_erased_foreign_and_unreadable_pages) {
    flash_image image(6);
    image.record(0, 1, "x").record(1, 2, "x", 0).record(2, 3, "x").record(3, 0xffffffff, "x");
    image.record(5, 4, "x").unreadable(2);
    EXPECT_EQ(printed_positions(image.ring(), 5, 1), (order{0, 5}));
    EXPECT_EQ(printed_positions(image.ring(), 5, -1), (order{0, 5}));
}

TEST(oops_print_ring, large_counts_are_printed_as_negative_numbers) {
    flash_image image(1);
    image.record(0, 0xfffffffe, "");
    EXPECT_EQ(printed(image.ring(), 0, 1), "Log Entry -2 (at position 0)\n");
}

TEST(oops_print_ring, unprintable_characters_except_white_space_become_dots) {
    std::string every;
    std::string expected;
    for (int code = 0; code < 0xff; code++) {
        every += static_cast<char>(code);
        bool white = code == ' ' || (code >= '\t' && code <= '\r');
        expected += white || (code > ' ' && code < 0x7f) ? static_cast<char>(code) : '.';
    }
    flash_image image(1);
    image.record(0, 1, every + "\xff hidden");
    EXPECT_EQ(printed(image.ring(), 0, 1), "Log Entry 1 (at position 0)\n" + expected);
}

TEST(oops_print_ring, full_page_is_printed_to_its_end) {
    flash_image image(2);
    image.record(0, 1, std::string(4088, 'a')).record(1, 2, std::string(4087, 'b'));
    EXPECT_EQ(printed(image.ring(), 1, 1), "Log Entry 1 (at position 0)\n" + std::string(4088, 'a') +
                                               "Log Entry 2 (at position 1)\n" + std::string(4087, 'b'));
}

TEST(oops_print_ring, random_flash_prints_the_same_records_in_both_directions) {
    std::mt19937 random(1);
    for (int round = 0; round < 50; round++) {
        size_t pages = 1 + random() % 9;
        flash_image image(pages);
        for (size_t page = 0; page < pages; page++) {
            std::string text(4088, '\0');
            for (char& letter : text) {
                letter = static_cast<char>(random());
            }
            image.record(page, static_cast<uint32_t>(random()), text, random() % 2 ? right_magic : 0);
        }
        oops_newest newest = oops_find_newest(image.ring());
        order forwards = newest.position < 0 ? order() : printed_positions(image.ring(), newest.position, 1);
        order backwards =
            newest.position < 0 ? order() : printed_positions(image.ring(), newest.position, -1);
        std::sort(forwards.begin(), forwards.end());
        std::sort(backwards.begin(), backwards.end());
        EXPECT_EQ(forwards, backwards);
        EXPECT_EQ(newest.position < 0, forwards.empty());
    }
}

// The applet.

TEST(run_oopslog, prints_the_usage_without_a_device) {
    expect_usage({});
    expect_usage({"-r"});
}

TEST(run_oopslog, words_other_than_the_option_are_device_names) {
    for (const char* name : {"-rfoo", "-x", "", "-R", "--", "-r "}) {
        outcome result = run_captured({name, "/dev/null"});
        EXPECT_EQ(result.status, 1) << name;
        EXPECT_EQ(result.out, "") << name;
        EXPECT_EQ(result.err, "open: No such file or directory\n") << name;
    }
}

TEST(run_oopslog, size_of_a_file_that_is_not_flash_cannot_be_read) {
    temp_dir folder;
    std::string file = folder.write_file("image", std::string(8192, 'x'));
    for (const std::string& name : {file, folder.path(), std::string("/dev/null")}) {
        outcome result = run_captured({"-r", name});
        EXPECT_EQ(result.status, 1) << name;
        EXPECT_EQ(result.out, "") << name;
        EXPECT_EQ(result.err, "MEMGETINFO: Inappropriate ioctl for device\n") << name;
    }
}
