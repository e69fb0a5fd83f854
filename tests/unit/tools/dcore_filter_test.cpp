#include <gtest/gtest.h>

#include "tools/dcore/filter.h"

namespace {

constexpr uint64_t everything = 0x1ff;
constexpr uint64_t large = 16 << 20;

core_mapping private_memory(uint64_t size = large) {
    core_mapping mapping;
    mapping.start = 0x10000000;
    mapping.end = mapping.start + size;
    mapping.readable = mapping.writable = mapping.has_details = true;
    return mapping;
}

core_mapping file(uint64_t written_kb, uint64_t size = large) {
    core_mapping mapping = private_memory(size);
    mapping.is_file = true;
    mapping.path = "/lib/libc.so.6";
    mapping.anonymous_kb = written_kb;
    return mapping;
}

core_mapping shared(bool deleted) {
    core_mapping mapping = private_memory();
    mapping.is_file = mapping.shared = true;
    mapping.is_deleted = deleted;
    return mapping;
}

// Checks the content for each of the kernel's bits alone. `bits` are those that give `content`.
void expect_bits(const core_mapping& mapping, uint64_t bits, core_content content,
                 core_content otherwise = core_content::none) {
    for (int bit = 0; bit < 9; bit++) {
        EXPECT_EQ(filter_choose(mapping, 1u << bit), bits >> bit & 1 ? content : otherwise) << "bit " << bit;
    }
}

}  // namespace

TEST(dcore_filter, private_memory_is_bit_0) {
    expect_bits(private_memory(), 1, core_content::touched);
}

TEST(dcore_filter, shared_memory_is_bit_1_and_shared_files_are_bit_3) {
    expect_bits(shared(true), 2, core_content::touched);
    expect_bits(shared(false), 8, core_content::touched);
}

TEST(dcore_filter, huge_pages_are_bits_5_and_6) {
    core_mapping mapping = private_memory();
    mapping.is_huge = true;
    expect_bits(mapping, 0x20, core_content::touched);
    mapping.shared = mapping.is_file = true;
    expect_bits(mapping, 0x40, core_content::touched);
}

TEST(dcore_filter, a_file_that_was_written_to_counts_as_private_memory) {
    EXPECT_EQ(filter_choose(file(4), 1), core_content::touched);
    EXPECT_EQ(filter_choose(file(4, 1 << 20), 1), core_content::whole);
    core_mapping swapped = file(0);
    swapped.swapped_kb = 4;
    EXPECT_EQ(filter_choose(swapped, 1), core_content::touched);
    EXPECT_EQ(filter_choose(file(0), 1), core_content::none);
}

TEST(dcore_filter, a_file_is_whole_with_bit_2) {
    EXPECT_EQ(filter_choose(file(0), 4), core_content::whole);
    EXPECT_EQ(filter_choose(file(4), 4), core_content::whole);
}

TEST(dcore_filter, the_head_of_a_file_is_bit_4) {
    EXPECT_EQ(filter_choose(file(0), 0x10), core_content::head);
    core_mapping later = file(0);
    later.offset = 4096;
    EXPECT_EQ(filter_choose(later, 0x10), core_content::none);
    core_mapping unreadable = file(0);
    unreadable.readable = false;
    EXPECT_EQ(filter_choose(unreadable, 0x10), core_content::none);
}

TEST(dcore_filter, without_details_a_writable_file_counts_as_written_to) {
    core_mapping mapping = file(0);
    mapping.has_details = false;
    EXPECT_EQ(filter_choose(mapping, 1), core_content::touched);
    mapping.writable = false;
    EXPECT_EQ(filter_choose(mapping, 1), core_content::none);
}

TEST(dcore_filter, memory_marked_not_to_be_dumped_has_no_content) {
    core_mapping mapping = private_memory();
    mapping.do_not_dump = true;
    EXPECT_EQ(filter_choose(mapping, everything), core_content::none);
}

TEST(dcore_filter, devices_have_no_segment) {
    core_mapping mapping = shared(false);
    mapping.is_device = mapping.do_not_dump = true;
    EXPECT_EQ(filter_choose(mapping, everything), core_content::left_out);
}

TEST(dcore_filter, the_kernels_code_is_always_whole) {
    for (const char* name : {"[vdso]", "[vsyscall]"}) {
        core_mapping mapping = private_memory();
        mapping.path = name;
        mapping.do_not_dump = true;
        EXPECT_EQ(filter_choose(mapping, 0), core_content::whole);
    }
}
