#include "monitor/ehash.h"

#include <gtest/gtest.h>
#include <string.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

struct record {
    int number = 0;
    ehash_node node = {};
    int after = 0;
};

constexpr size_t offset = offsetof(record, node);

class ehash_table : public testing::Test {
protected:
    explicit ehash_table(uint32_t hint = 0) : table_(ehash_new(hint)) {}
    ~ehash_table() override { ehash_free(table_); }

    record* insert(const void* key, uint32_t length, int number = 0) {
        record& fresh = records_.emplace_back();
        fresh.number = number;
        EXPECT_EQ(ehash_insert_e(table_, key, length, &fresh.node), 0);
        return &fresh;
    }
    record* insert_text(const char* text, int number = 0) { return insert(text, 0, number); }
    record* lookup(const void* key, uint32_t length = 0) const {
        return static_cast<record*>(ehash_lookup_e(table_, key, length, offset));
    }
    record* next(ehash_iterator* at) const {
        return static_cast<record*>(ehash_iterate_e(table_, at, nullptr, nullptr, offset));
    }
    // The numbers of all records in the order of an iteration.
    std::vector<int> walk() const {
        std::vector<int> numbers;
        ehash_iterator at = {};
        while (record* found = next(&at)) {
            numbers.push_back(found->number);
        }
        return numbers;
    }

    ehash* table_;
    std::deque<record> records_;  // a deque, because records must not move
};

// Has two buckets; the last bit of a one-byte key selects the bucket.
class ehash_small_table : public ehash_table {
protected:
    ehash_small_table() : ehash_table(1) {}
};

uint32_t buckets_for(uint32_t hint) {
    ehash* table = ehash_new(hint);
    uint32_t buckets = table ? table->bucket_count : 0;
    ehash_free(table);
    return buckets;
}

}  // namespace

TEST(ehash_new, has_the_smallest_power_of_two_above_the_hint) {
    EXPECT_EQ(buckets_for(0), 16U);
    EXPECT_EQ(buckets_for(1), 2U);
    EXPECT_EQ(buckets_for(2), 4U);
    EXPECT_EQ(buckets_for(3), 4U);
    EXPECT_EQ(buckets_for(4), 8U);
    EXPECT_EQ(buckets_for(500), 512U);
    EXPECT_EQ(buckets_for(511), 512U);
    EXPECT_EQ(buckets_for(512), 1024U);
}

TEST(ehash_new, is_empty_and_has_a_null_after_the_last_bucket) {
    ehash* table = ehash_new(7);
    EXPECT_EQ(table->count, 0U);
    ASSERT_EQ(table->bucket_count, 8U);
    for (uint32_t i = 0; i <= 8; i++) {
        EXPECT_EQ(table->buckets[i], nullptr) << i;
    }
    ehash_free(table);
}

TEST(ehash_new, fails_if_the_number_of_buckets_overflows) {
    EXPECT_EQ(ehash_new(0x80000000U), nullptr);
    EXPECT_EQ(ehash_new(UINT32_MAX), nullptr);
}

TEST(ehash_free, accepts_null) {
    ehash_free(nullptr);
}

TEST(ehash_free, leaves_the_records_alone) {
    ehash* table = ehash_new(0);
    record kept = {7, {}, 8};
    ASSERT_EQ(ehash_insert_e(table, "key", 0, &kept.node), 0);
    ehash_free(table);
    EXPECT_EQ(kept.number, 7);
    EXPECT_EQ(kept.after, 8);
}

TEST_F(ehash_table, insert_copies_the_key_without_terminator) {
    char key[] = "abc";
    record* found = insert_text(key);
    key[0] = 'x';
    EXPECT_EQ(found->node.length, 3U);
    EXPECT_EQ(memcmp(found->node.key, "abc", 3), 0);
    EXPECT_NE(static_cast<void*>(found->node.key), static_cast<void*>(key));
    EXPECT_EQ(lookup("abc"), found);
    EXPECT_EQ(lookup("xbc"), nullptr);
    EXPECT_EQ(table_->count, 1U);
}

TEST_F(ehash_table, lookup_finds_nothing_in_an_empty_table) {
    EXPECT_EQ(lookup("a"), nullptr);
    EXPECT_EQ(lookup(""), nullptr);
}

TEST_F(ehash_table, text_and_its_bytes_are_the_same_key) {
    const char bytes[2] = {'o', 'k'};
    record* found = insert_text("ok");
    EXPECT_EQ(lookup(bytes, 2), found);
    ASSERT_EQ(ehash_remove(table_, &found->node), 0);
    found = insert(bytes, 2);
    EXPECT_EQ(lookup("ok"), found);
}

TEST_F(ehash_table, keys_of_given_length_may_hold_zero_bytes) {
    record* with = insert("a\0b", 3);
    record* without = insert("a", 1);
    EXPECT_EQ(lookup("a\0b", 3), with);
    EXPECT_EQ(lookup("a\0c", 3), nullptr);
    EXPECT_EQ(lookup("a\0b"), without);
}

TEST_F(ehash_table, a_prefix_is_another_key) {
    insert_text("abcd");
    EXPECT_EQ(lookup("abc"), nullptr);
    EXPECT_EQ(lookup("abcde"), nullptr);
}

TEST_F(ehash_table, the_empty_text_is_a_key_in_the_first_bucket) {
    record* found = insert_text("");
    EXPECT_EQ(found->node.length, 0U);
    EXPECT_EQ(table_->buckets[0], &found->node);
    EXPECT_EQ(lookup(""), found);
    EXPECT_EQ(ehash_remove(table_, &found->node), 0);
    EXPECT_EQ(lookup(""), nullptr);
}

TEST_F(ehash_table, bytes_are_unsigned_digits_in_base_65599) {
    struct {
        const char* key;
        uint32_t length;
        uint32_t hash;
    } const rows[] = {
        {"a", 1, 97},
        {"ab", 2, 97U * 65599 + 98},
        {"abc", 3, (97U * 65599 + 98) * 65599 + 99},
        {"\xff", 1, 255},
        {"\xff\x80\x01\x00", 4, ((255U * 65599 + 128) * 65599 + 1) * 65599},
    };
    for (const auto& row : rows) {
        record* found = insert(row.key, row.length);
        EXPECT_EQ(table_->buckets[row.hash & 15], &found->node) << row.hash;
    }
}

TEST_F(ehash_table, keys_of_any_length_are_hashed_byte_by_byte) {
    std::string key;
    for (int length = 1; length < 70; length++) {
        key += static_cast<char>(length * 37);
        uint32_t hash = 0;
        for (char byte : key) {
            hash = static_cast<unsigned char>(byte) + hash * 65599;
        }
        record* found = insert(key.data(), static_cast<uint32_t>(key.size()));
        EXPECT_EQ(table_->buckets[hash & 15], &found->node) << length;
    }
}

TEST_F(ehash_table, the_newer_of_two_equal_keys_is_found_until_it_is_removed) {
    record* older = insert_text("key", 1);
    record* newer = insert_text("key", 2);
    EXPECT_EQ(table_->count, 2U);
    EXPECT_EQ(lookup("key"), newer);
    EXPECT_EQ(ehash_remove(table_, &newer->node), 0);
    EXPECT_EQ(lookup("key"), older);
    EXPECT_EQ(ehash_remove(table_, &older->node), 0);
    EXPECT_EQ(lookup("key"), nullptr);
    EXPECT_EQ(table_->count, 0U);
}

TEST_F(ehash_small_table, removes_the_first_the_middle_and_the_last_of_a_chain) {
    record* last = insert_text("1", 1);
    record* middle = insert_text("3", 3);
    record* first = insert_text("5", 5);
    EXPECT_EQ(walk(), (std::vector<int>{5, 3, 1}));
    EXPECT_EQ(ehash_remove(table_, &middle->node), 0);
    EXPECT_EQ(walk(), (std::vector<int>{5, 1}));
    EXPECT_EQ(ehash_remove(table_, &first->node), 0);
    EXPECT_EQ(walk(), (std::vector<int>{1}));
    EXPECT_EQ(ehash_remove(table_, &last->node), 0);
    EXPECT_EQ(walk(), std::vector<int>{});
}

TEST_F(ehash_small_table, remove_of_an_unknown_node_is_minus_two_and_changes_nothing) {
    insert_text("1", 1);
    unsigned char key[] = {'3'};  // the same bucket
    record stranger = {3, {nullptr, key, 1}, 0};
    EXPECT_EQ(ehash_remove(table_, &stranger.node), -2);
    EXPECT_EQ(table_->count, 1U);
    EXPECT_EQ(stranger.node.key, key);
    EXPECT_EQ(stranger.node.length, 1U);
    EXPECT_EQ(walk(), std::vector<int>{1});
}

TEST_F(ehash_small_table, remove_of_an_unknown_node_with_an_equal_key_is_minus_two) {
    record* inside = insert_text("1", 1);
    unsigned char key[] = {'1'};
    record stranger = {3, {nullptr, key, 1}, 0};
    EXPECT_EQ(ehash_remove(table_, &stranger.node), -2);
    EXPECT_EQ(lookup("1"), inside);
}

TEST_F(ehash_small_table, a_second_remove_is_minus_two) {
    insert_text("2", 2);
    record* found = insert_text("1", 1);
    EXPECT_EQ(ehash_remove(table_, &found->node), 0);
    EXPECT_EQ(ehash_remove(table_, &found->node), -2);
    EXPECT_EQ(table_->count, 1U);
}

TEST_F(ehash_small_table, a_removed_node_keeps_its_successor) {
    record* second = insert_text("1", 1);
    record* first = insert_text("3", 3);
    EXPECT_EQ(ehash_remove(table_, &first->node), 0);
    EXPECT_EQ(first->node.next, &second->node);
}

TEST_F(ehash_table, iteration_of_an_empty_table_ends_at_once_and_again) {
    ehash_iterator at = {};
    EXPECT_EQ(next(&at), nullptr);
    EXPECT_EQ(next(&at), nullptr);
}

TEST_F(ehash_table, iteration_returns_each_record_once) {
    std::set<int> expected;
    for (int i = 0; i < 1000; i++) {
        insert(&i, sizeof i, i);
        expected.insert(i);
    }
    std::vector<int> seen = walk();
    EXPECT_EQ(seen.size(), 1000U);
    EXPECT_EQ(std::set<int>(seen.begin(), seen.end()), expected);
}

TEST_F(ehash_table, an_iteration_that_has_ended_stays_at_its_end) {
    insert_text("a");
    ehash_iterator at = {};
    EXPECT_NE(next(&at), nullptr);
    EXPECT_EQ(next(&at), nullptr);
    EXPECT_EQ(next(&at), nullptr);
}

TEST_F(ehash_table, iteration_reaches_the_last_bucket) {
    insert("\x0f", 1, 15);
    insert("\x10", 2, 16);  // two bytes, which hash to another bucket
    EXPECT_EQ(walk().size(), 2U);
    EXPECT_NE(table_->buckets[15], nullptr);
    EXPECT_EQ(table_->buckets[16], nullptr);
}

TEST_F(ehash_table, iteration_returns_keys_on_request) {
    insert_text("three");
    ehash_iterator at = {};
    const void* key = nullptr;
    uint32_t length = 0;
    ASSERT_NE(ehash_iterate_e(table_, &at, &key, &length, offset), nullptr);
    EXPECT_EQ(std::string(static_cast<const char*>(key), length), "three");
    at = {};
    length = 0;
    ASSERT_NE(ehash_iterate_e(table_, &at, nullptr, &length, offset), nullptr);
    EXPECT_EQ(length, 5U);
}

TEST_F(ehash_table, key_and_length_are_unchanged_at_the_end) {
    ehash_iterator at = {};
    const void* key = this;
    uint32_t length = 77;
    EXPECT_EQ(ehash_iterate_e(table_, &at, &key, &length, offset), nullptr);
    EXPECT_EQ(key, this);
    EXPECT_EQ(length, 77U);
}

TEST_F(ehash_table, the_record_just_returned_may_be_removed) {
    for (int i = 0; i < 100; i++) {
        insert(&i, sizeof i, i);
    }
    std::set<int> seen;
    ehash_iterator at = {};
    while (record* found = next(&at)) {
        EXPECT_TRUE(seen.insert(found->number).second);
        EXPECT_EQ(ehash_remove(table_, &found->node), 0);
    }
    EXPECT_EQ(seen.size(), 100U);
    EXPECT_EQ(table_->count, 0U);
}

TEST_F(ehash_table, agrees_with_a_map_over_many_random_steps) {
    std::mt19937 random(7);
    std::map<std::string, record*> expected;
    for (int step = 0; step < 20000; step++) {
        std::string key = std::to_string(random() % 300);
        auto known = expected.find(key);
        EXPECT_EQ(lookup(key.c_str()), known == expected.end() ? nullptr : known->second);
        if (known == expected.end()) {
            expected[key] = insert_text(key.c_str(), step);
        } else {
            EXPECT_EQ(ehash_remove(table_, &known->second->node), 0);
            expected.erase(known);
        }
        ASSERT_EQ(table_->count, expected.size());
    }
    EXPECT_EQ(walk().size(), expected.size());
}
