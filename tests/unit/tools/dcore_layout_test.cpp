#include <gtest/gtest.h>

#include <vector>

#include "tools/dcore/layout.h"

namespace {

constexpr uint64_t page = 4096;

struct plain_segment {
    uint64_t start, end, content;
    unsigned flags;
    bool operator==(const plain_segment&) const = default;
};

void PrintTo(const plain_segment& segment, std::ostream* out) {
    *out << std::hex << segment.start << "-" << segment.end << " " << segment.content << " " << segment.flags;
}

// In pages.
std::vector<plain_segment> segments_of(const core_layout& layout) {
    std::vector<plain_segment> segments;
    for (const core_segment& each : layout.segments) {
        segments.push_back({each.start() / page, each.end / page, each.content / page, each.flags()});
    }
    return segments;
}

void add_mapping(core_layout* layout, uint64_t from, uint64_t to, unsigned flags = PF_R) {
    layout_add_mapping(layout, from * page, to * page, flags);
}

void add_content(core_layout* layout, uint64_t from, uint64_t to) {
    layout_add_content(layout, from * page, to * page);
}

// Every second page of one mapping of `pages` pages.
core_layout scattered(uint64_t pages, size_t spare) {
    core_layout layout = layout_new(page);
    layout.spare_segments = spare;
    add_mapping(&layout, 100, 100 + pages);
    for (uint64_t i = 0; i < pages; i += 2) {
        add_content(&layout, 100 + i, 101 + i);
    }
    return layout;
}

}  // namespace

TEST(dcore_layout, a_mapping_without_content_is_one_segment) {
    core_layout layout = layout_new(page);
    add_mapping(&layout, 16, 20, PF_R | PF_X);
    EXPECT_EQ(segments_of(layout), (std::vector<plain_segment>{{16, 20, 0, PF_R | PF_X}}));
}

TEST(dcore_layout, each_range_with_content_begins_a_segment) {
    core_layout layout = layout_new(page);
    add_mapping(&layout, 16, 32, PF_R | PF_W);
    add_content(&layout, 18, 20);
    add_content(&layout, 25, 26);
    EXPECT_EQ(segments_of(layout),
              (std::vector<plain_segment>{
                  {16, 18, 0, PF_R | PF_W}, {18, 25, 2, PF_R | PF_W}, {25, 32, 1, PF_R | PF_W}}));
}

TEST(dcore_layout, adjacent_ranges_are_joined) {
    core_layout layout = layout_new(page);
    add_mapping(&layout, 16, 32);
    add_content(&layout, 16, 20);
    add_content(&layout, 20, 24);
    EXPECT_EQ(segments_of(layout), (std::vector<plain_segment>{{16, 32, 8, PF_R}}));
}

TEST(dcore_layout, adjacent_mappings_stay_apart) {
    core_layout layout = layout_new(page);
    add_mapping(&layout, 16, 20);
    add_content(&layout, 16, 20);
    add_mapping(&layout, 20, 24);
    add_content(&layout, 20, 24);
    EXPECT_EQ(segments_of(layout), (std::vector<plain_segment>{{16, 20, 4, PF_R}, {20, 24, 4, PF_R}}));
}

TEST(dcore_layout, scattered_pages_stay_apart_below_the_limit_of_segments) {
    core_layout layout = scattered(200, 100);
    EXPECT_EQ(layout.segments.size(), 100u);
    EXPECT_EQ(layout.merge_gap, 0u);
}

TEST(dcore_layout, neighbours_are_joined_above_the_limit_of_segments) {
    core_layout layout = scattered(4000, 100);
    EXPECT_LE(layout.segments.size(), 101u);
    EXPECT_EQ(layout.merge_gap, page);
    uint64_t covered = 100;
    for (const plain_segment& each : segments_of(layout)) {
        EXPECT_EQ(each.start, covered);
        EXPECT_LE(each.content, each.end - each.start);
        covered = each.end;
    }
    EXPECT_EQ(covered, 4100u);
    EXPECT_EQ(layout.segments.back().start() + layout.segments.back().content, 4099 * page);
}

TEST(dcore_layout, segments_of_different_mappings_are_never_joined) {
    core_layout layout = layout_new(page);
    layout.spare_segments = 0;
    for (uint64_t i = 0; i < 10; i++) {
        add_mapping(&layout, 100 + 10 * i, 110 + 10 * i);
        add_content(&layout, 101 + 10 * i, 102 + 10 * i);
        add_content(&layout, 108 + 10 * i, 109 + 10 * i);
    }
    ASSERT_EQ(layout.segments.size(), 10u);
    for (const plain_segment& each : segments_of(layout)) {
        EXPECT_EQ(each.end - each.start, 10u);
        EXPECT_EQ(each.content, 9u);
    }
}

TEST(dcore_layout_places, content_begins_on_a_page_and_lengths_add_up) {
    core_layout layout = layout_new(page);
    add_mapping(&layout, 16, 32);
    add_content(&layout, 18, 20);
    core_places places = layout_places(layout, 1000);
    EXPECT_EQ(places.notes, sizeof(core_ehdr) + 3 * sizeof(core_phdr));
    EXPECT_EQ(places.notes_length, 1000u);
    EXPECT_EQ(places.content, page);
    EXPECT_EQ(places.section, 0u);
    EXPECT_EQ(places.length, 3 * page);
    core_phdr notes = layout_notes_phdr(places);
    EXPECT_EQ(notes.p_type, static_cast<Elf32_Word>(PT_NOTE));
    EXPECT_EQ(notes.p_offset, places.notes);
    EXPECT_EQ(notes.p_filesz, 1000u);
}

TEST(dcore_layout_places, notes_that_end_on_a_page_need_no_padding) {
    core_layout layout = layout_new(page);
    uint64_t notes = 2 * page - sizeof(core_ehdr) - sizeof(core_phdr);
    EXPECT_EQ(layout_places(layout, notes).content, 2 * page);
    EXPECT_EQ(layout_places(layout, notes + 1).content, 3 * page);
}

TEST(dcore_layout_headers, a_segment_states_how_much_of_it_is_in_the_file) {
    core_layout layout = layout_new(page);
    add_mapping(&layout, 16, 32, PF_R | PF_W);
    add_content(&layout, 16, 20);
    core_phdr head = layout_phdr(layout, layout.segments[0], 0x5000);
    EXPECT_EQ(head.p_type, static_cast<Elf32_Word>(PT_LOAD));
    EXPECT_EQ(head.p_flags, static_cast<Elf32_Word>(PF_R | PF_W));
    EXPECT_EQ(head.p_offset, 0x5000u);
    EXPECT_EQ(head.p_vaddr, 16 * page);
    EXPECT_EQ(head.p_filesz, 4 * page);
    EXPECT_EQ(head.p_memsz, 16 * page);
    EXPECT_EQ(head.p_align, page);
}

TEST(dcore_layout_headers, a_section_header_counts_the_segments_if_the_elf_header_cannot) {
    for (uint64_t count : {65533u, 65534u, 70000u}) {
        core_layout layout = layout_new(page);
        for (uint64_t i = 0; i < count; i++) {
            add_mapping(&layout, 16 + 2 * i, 17 + 2 * i);
        }
        core_places places = layout_places(layout, 0);
        core_ehdr head = layout_ehdr(layout, places);
        if (count + 1 < PN_XNUM) {
            EXPECT_EQ(head.e_phnum, count + 1);
            EXPECT_EQ(head.e_shnum, 0);
            EXPECT_EQ(places.length, places.content);
        } else {
            EXPECT_EQ(head.e_phnum, PN_XNUM);
            EXPECT_EQ(head.e_shnum, 1);
            EXPECT_EQ(head.e_shoff, places.section);
            EXPECT_EQ(places.length, places.section + sizeof(core_shdr));
            EXPECT_EQ(layout_shdr(layout).sh_info, count + 1);
        }
    }
}

TEST(dcore_layout_files, store_the_name_that_neighbours_share_once) {
    core_layout layout = layout_new(page);
    layout_add_file(&layout, page, 2 * page, 0, "/a");
    layout_add_file(&layout, 2 * page, 3 * page, 3 * page, "/a");
    layout_add_file(&layout, 3 * page, 4 * page, 0, "/ab");
    layout_add_file(&layout, 4 * page, 5 * page, 0, "");
    EXPECT_EQ(layout.names, "/a/ab");
    ASSERT_EQ(layout.files.size(), 4u);
    EXPECT_EQ(layout.files[1].offset_pages, 3u);
    EXPECT_EQ(layout.names.substr(layout.files[1].name, layout.files[1].name_length), "/a");
    EXPECT_EQ(layout.names.substr(layout.files[2].name, layout.files[2].name_length), "/ab");
    EXPECT_EQ(layout.files[3].name_length, 0u);
}
