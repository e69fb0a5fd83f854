#include "tools/archiveview/source/archive_source.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/unit/archiveview/made_archive.h"
#include "tools/archiveview/limits.h"

using namespace archiveview;
using made::block_size;

namespace {

struct read_archive {
    std::vector<std::pair<std::string, std::string>> members;
    source_state state;
};

read_archive read_all(std::string_view bytes, size_t piece = 1000) {
    archive_source source(made::bytes_of(bytes, piece));
    read_archive all;
    source_member member;
    while (source.next(&member)) {
        std::string data;
        char buffer[700];
        for (size_t taken; (taken = source.read(buffer)) != 0;) {
            data.append(buffer, taken);
        }
        all.members.emplace_back(member.name, data);
    }
    all.state = source.state();
    return all;
}

std::string two_members() {
    return made::member("one", "first") + made::member("two", std::string(3000, 'x'));
}

}  // namespace

TEST(archive_source, gives_members_with_their_bytes) {
    for (const std::string& bytes : {two_members(), made::packed(two_members())}) {
        for (const size_t piece : {1, 511, 100000}) {
            const read_archive all = read_all(bytes, piece);
            ASSERT_EQ(all.members.size(), 2U);
            EXPECT_EQ(all.members[0].first, std::string(made::top) + "one");
            EXPECT_EQ(all.members[0].second, "first");
            EXPECT_EQ(all.members[1].second, std::string(3000, 'x'));
            EXPECT_EQ(all.state.end, source_end::whole);
            EXPECT_EQ(all.state.members, 2U);
            EXPECT_EQ(all.state.bytes, 3005U);
        }
    }
}

TEST(archive_source, says_whether_it_is_compressed) {
    EXPECT_FALSE(read_all(two_members()).state.is_compressed);
    EXPECT_TRUE(read_all(made::packed(two_members())).state.is_compressed);
}

TEST(archive_source, counts_bytes_of_members_that_are_not_read) {
    const std::string bytes = two_members();
    archive_source source(made::bytes_of(bytes));
    source_member member;
    while (source.next(&member)) {
    }
    EXPECT_EQ(source.state().bytes, 3005U);
    EXPECT_EQ(source.state().end, source_end::whole);
}

TEST(archive_source, is_cut_within_the_member_that_ends_early) {
    const std::string bytes = two_members();
    for (size_t cut = 2 * block_size + block_size; cut < bytes.size(); cut += 100) {
        const read_archive all = read_all(std::string_view(bytes).substr(0, cut));
        EXPECT_EQ(all.state.end, source_end::cut);
        EXPECT_EQ(all.state.cut_member, std::string(made::top) + "two");
        EXPECT_EQ(all.state.cut_member_bytes, std::min<size_t>(cut - 3 * block_size, 3000));
    }
}

TEST(archive_source, is_cut_within_a_header) {
    const std::string bytes = two_members();
    for (const size_t cut : {2 * block_size + 1, 3 * block_size - 1}) {
        const read_archive all = read_all(std::string_view(bytes).substr(0, cut));
        EXPECT_EQ(all.state.end, source_end::cut);
        EXPECT_EQ(all.state.cut_member, "");
        EXPECT_EQ(all.members.size(), 1U);
    }
}

TEST(archive_source, is_cut_without_the_trailer_of_its_compression) {
    const std::string bytes = made::packed(two_members());
    for (size_t left_out = 1; left_out <= 8; left_out++) {
        const read_archive all = read_all(std::string_view(bytes).substr(0, bytes.size() - left_out));
        EXPECT_EQ(all.state.end, source_end::cut);
        EXPECT_EQ(all.members.size(), 2U);
    }
}

TEST(archive_source, is_damaged_if_the_trailer_is_wrong) {
    for (const size_t from_end : {1, 4, 5, 8}) {
        std::string bytes = made::packed(two_members());
        bytes[bytes.size() - from_end] ^= 1;
        const source_state state = read_all(bytes).state;
        EXPECT_EQ(state.end, source_end::damaged);
        EXPECT_NE(state.reason.find("checksum"), std::string::npos);
    }
}

TEST(archive_source, is_damaged_by_garbage_between_members) {
    std::string bytes = two_members() + made::member("three", "x");
    bytes.replace(2 * block_size, block_size, std::string(block_size, 'g'));
    const read_archive all = read_all(bytes);
    EXPECT_EQ(all.state.end, source_end::damaged);
    EXPECT_EQ(all.members.size(), 1U);
    EXPECT_EQ(all.state.cut_member, "");
}

TEST(archive_source, is_damaged_by_what_follows_it) {
    EXPECT_EQ(read_all(made::packed(two_members()) + "x").state.end, source_end::damaged);
    EXPECT_EQ(read_all(two_members() + std::string(1024, '\0') + "x").state.end, source_end::damaged);
    EXPECT_EQ(read_all(two_members() + std::string(10240, '\0')).state.end, source_end::whole);
}

TEST(archive_source, is_damaged_by_what_follows_its_end_mark_however_it_is_read) {
    const std::string bytes = made::member("one", "first") + std::string(block_size, '\0') + "x" +
                              std::string(block_size - 1, '\0');
    for (const size_t piece : {1, 7, 511, 100000}) {
        EXPECT_EQ(read_all(bytes, piece).state.end, source_end::damaged) << piece;
    }
}

TEST(archive_source, replaces_bytes_of_names_that_are_not_printable) {
    const read_archive all = read_all(made::member("a\x1b[2J\xff", "x"));
    ASSERT_EQ(all.members.size(), 1U);
    EXPECT_EQ(all.members[0].first, std::string(made::top) + "a?[2J?");
}

TEST(archive_source, without_members_is_not_readable) {
    for (const std::string& bytes : {std::string(), std::string("text"), std::string(5000, 'x'),
                                     std::string(5000, '\0'), made::packed(""), made::packed("text")}) {
        const read_archive all = read_all(bytes);
        EXPECT_EQ(all.state.end, source_end::damaged);
        EXPECT_EQ(all.state.members, 0U);
        EXPECT_NE(all.state.reason, "");
    }
}

TEST(archive_source, ends_after_too_many_members) {
    std::string bytes;
    const std::string empty = made::member("x", "");
    for (uint64_t i = 0; i < member_limit + 2; i++) {
        bytes += empty;
    }
    const source_state state = read_all(bytes, bytes.size()).state;
    EXPECT_EQ(state.end, source_end::damaged);
    EXPECT_EQ(state.members, member_limit);
}

TEST(archive_source, passes_on_what_its_reader_throws) {
    const std::string bytes = two_members();
    for (const size_t good : {size_t{0}, size_t{600}, size_t{2000}}) {
        archive_source source([&, at = size_t{0}](std::span<char> to) mutable -> size_t {
            if (at >= good) {
                throw std::runtime_error("no disk");
            }
            const size_t count = std::min({to.size(), good - at, size_t{100}});
            memcpy(to.data(), bytes.data() + at, count);
            at += count;
            return count;
        });
        source_member member;
        EXPECT_THROW(
            {
                while (source.next(&member)) {
                }
            },
            std::runtime_error);
    }
}
