#include <gtest/gtest.h>

#include "tests/unit/archiveview/findings_facts.h"

namespace archiveview {
namespace {

archive_facts with_available_kb(uint64_t kb) {
    archive_facts facts = healthy_archive();
    facts.looks[1].memory_kb["MemAvailable"] = kb;
    return facts;
}

TEST(findings_memory_low, below_three_percent_it_is_critical) {
    EXPECT_EQ(verdict(with_available_kb(29000), "memory-low"), "0 critical");
    EXPECT_EQ(verdict(with_available_kb(31000), "memory-low"), "0 note");
    EXPECT_EQ(verdict(with_available_kb(101000), "memory-low"), "nothing");
}

TEST(findings_memory_low, a_process_with_much_of_it_is_named) {
    archive_facts facts = with_available_kb(90000);
    suspect_of(&facts)->resident_kb = 310000;
    EXPECT_EQ(verdict(facts, "memory-low"), "412 warning");
    suspect_of(&facts)->resident_kb = 290000;
    EXPECT_EQ(verdict(facts, "memory-low"), "0 note");
}

TEST(findings_memory_low, old_kernels_do_not_say_what_is_available) {
    archive_facts facts = healthy_archive();
    facts.looks[1].memory_kb = {
        {"MemTotal", 1000000}, {"MemFree", 9000}, {"Buffers", 10000}, {"Cached", 5000}};
    EXPECT_EQ(verdict(facts, "memory-low"), "0 critical");
    facts.looks[1].memory_kb["Cached"] = 500000;
    EXPECT_EQ(verdict(facts, "memory-low"), "nothing");
}

TEST(findings_memory_low, nothing_is_said_without_a_look) {
    archive_facts facts = with_available_kb(1000);
    facts.looks[0].is_present = facts.looks[1].is_present = false;
    EXPECT_EQ(verdict(facts, "memory-low"), "nothing");
}

TEST(findings_memory_low, a_process_that_grows_fast_will_use_it_up) {
    archive_facts facts = healthy_archive();
    suspect_of(&facts)->resident_kb = 90000;
    suspect_of(&facts)->resident_growth_kb = 50000;
    EXPECT_EQ(verdict(facts, "memory-low"), "412 warning");
    EXPECT_EQ(found(facts, "memory-low").text,
              "encoderd (412) grows by 4.9 MiB a second; at this rate the memory lasts 2 min.");
}

TEST(findings_memory_low, small_growth_is_nothing) {
    archive_facts facts = healthy_archive();
    suspect_of(&facts)->resident_kb = 90000;
    suspect_of(&facts)->resident_growth_kb = 15000;
    EXPECT_EQ(verdict(facts, "memory-low"), "nothing");
}

TEST(findings_memory_low, a_buffer_of_a_large_process_is_nothing) {
    archive_facts facts = healthy_archive();
    suspect_of(&facts)->resident_kb = 690000;
    suspect_of(&facts)->resident_growth_kb = 20000;
    EXPECT_EQ(verdict(facts, "memory-low"), "nothing");
}

TEST(findings_memory_low, growth_that_lasts_for_days_is_nothing) {
    archive_facts facts = healthy_archive();
    for (look& one : facts.looks) {
        one.memory_kb = {{"MemTotal", 900000000}, {"MemAvailable", 800000000}};
    }
    suspect_of(&facts)->resident_kb = 90000;
    suspect_of(&facts)->resident_growth_kb = 50000;
    EXPECT_EQ(verdict(facts, "memory-low"), "nothing");
}

TEST(findings_memory_low, the_memory_of_a_new_process_is_no_growth) {
    archive_facts facts = healthy_archive();
    suspect_of(&facts)->resident_kb = 90000;
    suspect_of(&facts)->resident_growth_kb = 90000;
    suspect_of(&facts)->in_first_look = false;
    EXPECT_EQ(verdict(facts, "memory-low"), "nothing");
}

TEST(findings_swap_in_use, used_swap_is_a_note) {
    archive_facts facts = healthy_archive();
    facts.looks[1].memory_kb["SwapTotal"] = 1000;
    facts.looks[1].memory_kb["SwapFree"] = 900;
    EXPECT_EQ(verdict(facts, "swap-in-use"), "0 note");
    facts.looks[1].memory_kb["SwapFree"] = 1000;
    EXPECT_EQ(verdict(facts, "swap-in-use"), "nothing");
}

TEST(findings_swap_in_use, without_swap_there_is_none) {
    EXPECT_EQ(verdict(healthy_archive(), "swap-in-use"), "nothing");
}

TEST(findings_swap_in_use, pages_that_go_in_and_out_while_memory_is_short_are_a_warning) {
    archive_facts facts = with_available_kb(90000);
    facts.looks[1].memory_kb["SwapTotal"] = 1000;
    facts.looks[0].vmstat = {{"pswpin", 0}, {"pswpout", 0}};
    facts.looks[1].vmstat = {{"pswpin", 6000}, {"pswpout", 5000}};
    EXPECT_EQ(verdict(facts, "swap-in-use"), "0 warning");
    facts.looks[1].memory_kb["MemAvailable"] = 500000;
    EXPECT_EQ(verdict(facts, "swap-in-use"), "0 note");
}

archive_facts with_slabs(const char* name, uint64_t before_objects, uint64_t after_objects) {
    archive_facts facts = healthy_archive();
    facts.looks[0].slabs = {{name, before_objects, 1024}};
    facts.looks[1].slabs = {{name, after_objects, 1024}};
    return facts;
}

TEST(findings_slab_growth, a_cache_that_grows_is_a_note) {
    EXPECT_EQ(verdict(with_slabs("kmalloc-1024", 10000, 19000), "slab-growth"), "0 note");
    EXPECT_EQ(verdict(with_slabs("kmalloc-1024", 10000, 17000), "slab-growth"), "nothing");
    EXPECT_EQ(verdict(with_slabs("kmalloc-1024", 100000, 110000), "slab-growth"), "nothing");
}

TEST(findings_slab_growth, a_cache_that_takes_a_tenth_of_the_memory_is_a_warning) {
    EXPECT_EQ(verdict(with_slabs("kmalloc-1024", 10000, 120000), "slab-growth"), "0 warning");
}

TEST(findings_slab_growth, caches_of_file_names_are_none) {
    EXPECT_EQ(verdict(with_slabs("dentry", 10000, 120000), "slab-growth"), "nothing");
    EXPECT_EQ(verdict(with_slabs("ext4_inode_cache", 10000, 120000), "slab-growth"), "nothing");
}

}  // namespace
}  // namespace archiveview
