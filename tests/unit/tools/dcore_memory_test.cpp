#include <gtest/gtest.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <vector>

#include "tools/dcore/memory.h"
#include "tools/dcore/residence.h"

namespace {

const size_t page = static_cast<size_t>(getpagesize());

// Mapped pages, unmapped at the end. write() fills a page with its number, from 1 on.
struct own_pages {
    explicit own_pages(size_t pages, int flags = MAP_PRIVATE) : count(pages) {
        void* memory = mmap(nullptr, count * page, PROT_READ | PROT_WRITE, flags | MAP_ANONYMOUS, -1, 0);
        EXPECT_NE(memory, MAP_FAILED);
        start = static_cast<unsigned char*>(memory);
    }
    ~own_pages() { munmap(start, count * page); }
    void write(size_t first, size_t end) {
        for (size_t i = first; i < end; i++) {
            memset(start + i * page, static_cast<int>(i + 1), page);
        }
    }
    uint64_t address(size_t number = 0) const { return reinterpret_cast<uintptr_t>(start) + number * page; }

    size_t count;
    unsigned char* start;
};

std::vector<unsigned char> read_pieces(target_memory* memory, const std::vector<memory_piece>& pieces) {
    size_t total = 0;
    for (const memory_piece& piece : pieces) {
        total += piece.length;
    }
    std::vector<unsigned char> out(total, 0xee);
    memory_read(memory, pieces, out.data());
    return out;
}

using ranges = std::vector<std::pair<size_t, size_t>>;

struct range_list {
    const own_pages& pages;
    ranges found;
};

// The ranges in pages, with adjacent ones joined.
ranges walk(const own_pages& pages, bool shared, bool scan) {
    page_map map = residence_open(getpid());
    map.can_scan = scan;
    core_mapping mapping;
    mapping.start = pages.address();
    mapping.end = pages.address(pages.count);
    mapping.shared = shared;
    range_list list = {pages, {}};
    residence_walk(
        &map, mapping,
        [](uint64_t from, uint64_t to, void* cookie) {
            auto& all = *static_cast<range_list*>(cookie);
            size_t first = (from - all.pages.address()) / page, end = (to - all.pages.address()) / page;
            if (!all.found.empty() && all.found.back().second == first) {
                all.found.back().second = end;
            } else {
                all.found.emplace_back(first, end);
            }
        },
        &list);
    return list.found;
}

}  // namespace

class dcore_memory : public testing::TestWithParam<bool> {
protected:
    target_memory memory = memory_open(getpid());
    void SetUp() override {
        if (!GetParam()) {
            memory_use_file(&memory);
        }
    }
};
INSTANTIATE_TEST_SUITE_P(both, dcore_memory, testing::Bool(),
                         [](const auto& each) { return each.param ? "at_once" : "from_file"; });

TEST_P(dcore_memory, is_read_in_pieces) {
    own_pages pages(8);
    pages.write(0, 8);
    auto bytes = read_pieces(
        &memory, {{pages.address(3), page}, {pages.address(1) + 5, 2 * page - 5}, {pages.address(7), 1}});
    ASSERT_EQ(bytes.size(), 3 * page - 4);
    EXPECT_EQ(bytes[0], 4);
    EXPECT_EQ(bytes[page], 2);
    EXPECT_EQ(bytes[2 * page - 6], 2);
    EXPECT_EQ(bytes[2 * page - 5], 3);
    EXPECT_EQ(bytes[3 * page - 5], 8);
}

TEST_P(dcore_memory, becomes_zeros_where_it_is_unmapped) {
    own_pages pages(6);
    pages.write(0, 6);
    munmap(pages.start + 2 * page, page);
    munmap(pages.start + 4 * page, page);
    auto bytes = read_pieces(&memory, {{pages.address(), 6 * page}});
    for (size_t i = 0; i < 6; i++) {
        unsigned char want = i == 2 || i == 4 ? 0 : static_cast<unsigned char>(i + 1);
        EXPECT_EQ(bytes[i * page], want) << i;
        EXPECT_EQ(bytes[i * page + page - 1], want) << i;
    }
}

TEST_P(dcore_memory, can_have_more_pieces_than_one_call_reads) {
    own_pages pages(700);
    pages.write(0, 700);
    munmap(pages.start + 300 * page, page);
    std::vector<memory_piece> pieces;
    for (size_t i = 0; i < 700; i++) {
        pieces.push_back({pages.address(699 - i), 16});
    }
    auto bytes = read_pieces(&memory, pieces);
    for (size_t i = 0; i < 700; i++) {
        unsigned char want = i == 399 ? 0 : static_cast<unsigned char>(699 - i + 1);
        EXPECT_EQ(bytes[i * 16 + 15], want) << i;
    }
}

TEST_P(dcore_memory, is_read_although_the_process_may_not_read_it) {
    own_pages pages(2);
    pages.write(0, 2);
    mprotect(pages.start, 2 * page, PROT_NONE);
    auto bytes = read_pieces(&memory, {{pages.address(), 2 * page}});
    EXPECT_EQ(bytes[0], 1);
    EXPECT_EQ(bytes[2 * page - 1], 2);
}

TEST(dcore_memory_of_a_missing_process, is_zeros) {
    target_memory memory = memory_open(0x7fffffff);
    EXPECT_EQ(read_pieces(&memory, {{0x1000, 3}}), (std::vector<unsigned char>{0, 0, 0}));
}

class dcore_residence : public testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(both, dcore_residence, testing::Bool(),
                         [](const auto& each) { return each.param ? "scan" : "look"; });

TEST_P(dcore_residence, finds_written_pages) {
    own_pages pages(5000);
    madvise(pages.start, 5000 * page, MADV_NOHUGEPAGE);
    pages.write(3, 5);
    pages.write(2046, 2050);
    pages.write(4999, 5000);
    EXPECT_EQ(walk(pages, false, GetParam()), (ranges{{3, 5}, {2046, 2050}, {4999, 5000}}));
}

TEST_P(dcore_residence, finds_nothing_in_untouched_memory) {
    own_pages pages(100);
    EXPECT_TRUE(walk(pages, false, GetParam()).empty());
}

TEST_P(dcore_residence, finds_pages_of_shared_memory_that_others_wrote) {
    own_pages pages(100, MAP_SHARED);
    pages.write(10, 12);
    madvise(pages.start, 100 * page,
            MADV_DONTNEED);  // removes them from this process's tables, not from the memory
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root may open the file of a mapping";
    }
    EXPECT_EQ(walk(pages, true, GetParam()), (ranges{{10, 12}}));
}

TEST(dcore_residence_without_a_page_map, counts_every_page) {
    page_map map;
    core_mapping mapping;
    mapping.start = page;
    mapping.end = 4 * page;
    std::pair<uint64_t, uint64_t> found;
    residence_walk(
        &map, mapping,
        [](uint64_t from, uint64_t to, void* cookie) {
            *static_cast<std::pair<uint64_t, uint64_t>*>(cookie) = {from, to};
        },
        &found);
    EXPECT_EQ(found, std::make_pair(uint64_t{page}, uint64_t{4 * page}));
}
