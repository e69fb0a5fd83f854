#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <vector>

#include "tools/dcore/mappings.h"

TEST(dcore_mapping_head, has_every_field) {
    core_mapping mapping;
    ASSERT_TRUE(mapping_parse_head(
        "55e8383de000-55e8383df000 r-xp 00001000 fe:01 42                 /bin/a b", &mapping));
    EXPECT_EQ(mapping.start, 0x55e8383de000u);
    EXPECT_EQ(mapping.end, 0x55e8383df000u);
    EXPECT_EQ(mapping.offset, 0x1000u);
    EXPECT_TRUE(mapping.readable && !mapping.writable && mapping.executable && !mapping.shared);
    EXPECT_TRUE(mapping.is_file);
    EXPECT_EQ(mapping.path, "/bin/a b");
}

TEST(dcore_mapping_head, may_have_no_name) {
    core_mapping mapping;
    ASSERT_TRUE(mapping_parse_head("7ffd0000-7ffe0000 rw-s 00000000 00:00 0 ", &mapping));
    EXPECT_TRUE(mapping.writable && mapping.shared && !mapping.is_file);
    EXPECT_EQ(mapping.path, "");
    ASSERT_TRUE(mapping_parse_head("7ffd0000-7ffe0000 rw-p 00000000 00:00 0", &mapping));
}

TEST(dcore_mapping_head, recognizes_deleted_files) {
    core_mapping mapping;
    ASSERT_TRUE(mapping_parse_head("1000-2000 rw-s 00000000 00:01 7 /memfd:x (deleted)", &mapping));
    EXPECT_TRUE(mapping.is_file && mapping.is_deleted);
    ASSERT_TRUE(mapping_parse_head("1000-2000 rw-p 00000000 00:00 0 [heap]", &mapping));
    EXPECT_FALSE(mapping.is_file || mapping.is_deleted);
}

TEST(dcore_mapping_head, decodes_a_newline_in_a_name) {
    core_mapping mapping;
    ASSERT_TRUE(mapping_parse_head("1000-2000 r--p 00000000 00:01 7 /a\\012b", &mapping));
    EXPECT_EQ(mapping.path, "/a\nb");
}

TEST(dcore_mapping_head, rejects_other_lines) {
    for (const char* line :
         {"", "Size:                  4 kB", "VmFlags: rd ex mr mw me", "1000-2000", "2000-1000 rw-p 0 0:0 0",
          "1000-1000 rw-p 0 0:0 0", "1000-2000 rw-p", "1000-2000 rw 0 0:0 0", "1000-2000 rw-p x 0:0 0",
          "AnonHugePages: 0 kB", "1000-2000 rw-p 0 00:00", "fffffffffffffffff-2 rw-p 0 0 0"}) {
        core_mapping mapping;
        mapping.path = "kept";
        EXPECT_FALSE(mapping_parse_head(line, &mapping)) << line;
        EXPECT_EQ(mapping.path, "kept");
    }
}

TEST(dcore_mapping_detail, adds_up_memory_and_swap) {
    core_mapping mapping;
    for (const char* line :
         {"Rss:                  12 kB", "Anonymous:             8 kB", "Swap:                  4 kB",
          "SwapPss:               1 kB", "Size:                 99 kB"}) {
        mapping_add_detail(&mapping, line);
    }
    EXPECT_EQ(mapping.resident_kb, 12u);
    EXPECT_EQ(mapping.anonymous_kb, 8u);
    EXPECT_EQ(mapping.swapped_kb, 4u);
    EXPECT_FALSE(mapping.has_details);
}

TEST(dcore_mapping_detail, reads_the_flags) {
    struct {
        const char* line;
        bool device, do_not_dump, huge;
    } cases[] = {
        {"VmFlags: rd wr mr mw me ac ", false, false, false},
        {"VmFlags: rd mr mw me dd ", false, true, false},
        {"VmFlags: rd wr io de", true, false, false},
        {"VmFlags: rd pf dd", true, true, false},
        {"VmFlags: rd wr ht", false, false, true},
        {"VmFlags:", false, false, false},
        {"VmFlags: ddx iox", false, false, false},
    };
    for (const auto& each : cases) {
        core_mapping mapping;
        mapping_add_detail(&mapping, each.line);
        EXPECT_TRUE(mapping.has_details);
        EXPECT_EQ(mapping.is_device, each.device) << each.line;
        EXPECT_EQ(mapping.do_not_dump, each.do_not_dump) << each.line;
        EXPECT_EQ(mapping.is_huge, each.huge) << each.line;
    }
}

TEST(dcore_mapping_guess, recognizes_device_files_but_not_shared_memory) {
    for (auto [path, device] : {std::pair{"/dev/mem", true},
                                {"/dev/dri/card0", true},
                                {"[vvar]", true},
                                {"/dev/shm/x", false},
                                {"/dev/zero", false},
                                {"/bin/sh", false},
                                {"", false}}) {
        core_mapping mapping;
        mapping.path = path;
        mapping_guess_details(&mapping);
        EXPECT_EQ(mapping.is_device, device) << path;
    }
}

TEST(dcore_mappings_walk, finds_a_mapping_with_its_details) {
    size_t page = static_cast<size_t>(getpagesize());
    void* memory = mmap(nullptr, 4 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    ASSERT_EQ(madvise(memory, 4 * page, MADV_DONTDUMP), 0);
    *static_cast<char*>(memory) = 1;
    struct search {
        uint64_t address;
        core_mapping found;
        uint64_t last_end = 0;
        bool in_order = true;
    } search = {reinterpret_cast<uintptr_t>(memory), {}};
    size_t count = mappings_walk(
        getpid(),
        [](const core_mapping& mapping, void* cookie) {
            auto& wanted = *static_cast<struct search*>(cookie);
            wanted.in_order = wanted.in_order && mapping.start >= wanted.last_end;
            wanted.last_end = mapping.end;
            if (mapping.start <= wanted.address && wanted.address < mapping.end) {
                wanted.found = mapping;
            }
        },
        &search);
    munmap(memory, 4 * page);
    EXPECT_GT(count, 4u);
    EXPECT_TRUE(search.in_order);
    if (search.found.has_details) {
        EXPECT_TRUE(search.found.do_not_dump);
        EXPECT_EQ(search.found.resident_kb, page / 1024);
    }
    EXPECT_EQ(search.found.end - search.found.start, 4 * page);
}

TEST(dcore_mappings_walk, finds_nothing_for_a_missing_process) {
    EXPECT_EQ(mappings_walk(
                  0x7fffffff, [](const core_mapping&, void*) { ADD_FAILURE(); }, nullptr),
              0u);
}
