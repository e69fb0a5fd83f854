#include <gtest/gtest.h>

#include "tests/unit/archiveview/findings_facts.h"

namespace archiveview {
namespace {

archive_facts with_errors(uint64_t before, uint64_t after, uint64_t packets) {
    archive_facts facts = healthy_archive();
    facts.looks[0].interfaces = {{.name = "eth0", .rx_errors = before}};
    facts.looks[1].interfaces = {{.name = "eth0", .rx_packets = packets, .rx_errors = after}};
    return facts;
}

TEST(findings_interface_errors, a_counter_that_runs_is_a_warning) {
    EXPECT_EQ(verdict(with_errors(5, 105, 10000), "interface-errors"), "0 warning");
    EXPECT_EQ(verdict(with_errors(5, 104, 10000), "interface-errors"), "0 note");
    EXPECT_EQ(verdict(with_errors(5, 105, 10100), "interface-errors"), "0 note");
}

TEST(findings_interface_errors, old_errors_are_none) {
    EXPECT_EQ(verdict(with_errors(500, 500, 10), "interface-errors"), "nothing");
    EXPECT_EQ(verdict(with_errors(500, 0, 10), "interface-errors"), "nothing");
}

archive_facts with_mounts(const char* type, const char* before, const char* after) {
    archive_facts facts = healthy_archive();
    facts.looks[0].mounts = {{"/dev/mmcblk0p2", "/data", type, before}};
    facts.looks[1].mounts = {{"/dev/mmcblk0p2", "/data", type, after}};
    return facts;
}

TEST(findings_read_only_mount, one_that_became_read_only_is_critical) {
    EXPECT_EQ(verdict(with_mounts("ext4", "rw,relatime", "ro,relatime"), "read-only-mount"), "0 critical");
}

TEST(findings_read_only_mount, one_that_has_been_is_a_note) {
    EXPECT_EQ(verdict(with_mounts("ext4", "ro,relatime", "ro,relatime"), "read-only-mount"), "0 note");
}

TEST(findings_read_only_mount, one_that_can_be_written_is_none) {
    EXPECT_EQ(verdict(with_mounts("ext4", "rw,errors=remount-ro", "rw,errors=remount-ro"), "read-only-mount"),
              "nothing");
}

TEST(findings_read_only_mount, images_and_pseudo_file_systems_are_none) {
    for (const char* type : {"squashfs", "proc", "tmpfs", "overlay", "iso9660"}) {
        EXPECT_EQ(verdict(with_mounts(type, "ro", "ro"), "read-only-mount"), "nothing") << type;
    }
}

TEST(findings_disk_busy, a_disk_that_never_rests_is_a_note) {
    archive_facts facts = healthy_archive();
    facts.looks[0].disks = {{.name = "mmcblk0", .busy_ms = 1000}};
    facts.looks[1].disks = {{.name = "mmcblk0", .busy_ms = 10500}};
    EXPECT_EQ(verdict(facts, "disk-busy"), "0 note");
    facts.looks[1].disks[0].busy_ms = 9500;
    EXPECT_EQ(verdict(facts, "disk-busy"), "nothing");
}

TEST(findings_disk_busy, who_writes_most_is_named) {
    archive_facts facts = healthy_archive();
    facts.looks[0].disks = {{.name = "mmcblk0", .busy_ms = 1000}};
    facts.looks[1].disks = {{.name = "mmcblk0", .busy_ms = 10900}};
    trace_of(&facts)->descriptors[3] = {.text = "/data/video", .written_bytes = 2 << 20};
    EXPECT_EQ(verdict(facts, "disk-busy"), "412 note");
}

archive_facts with_clock_set_by(int64_t seconds) {
    archive_facts facts = healthy_archive();
    facts.looks[1].boot_time =
        static_cast<uint64_t>(static_cast<int64_t>(facts.looks[0].boot_time) + seconds);
    return facts;
}

TEST(findings_clock_jump, a_clock_that_was_set_is_a_warning) {
    EXPECT_EQ(verdict(with_clock_set_by(10), "clock-jump"), "0 warning");
    EXPECT_EQ(verdict(with_clock_set_by(-86400), "clock-jump"), "0 warning");
    EXPECT_EQ(found(with_clock_set_by(-86400), "clock-jump").text,
              "The clock was set back by 24 h between the looks.");
}

TEST(findings_clock_jump, a_small_correction_is_a_note) {
    EXPECT_EQ(verdict(with_clock_set_by(3), "clock-jump"), "0 note");
    EXPECT_EQ(verdict(with_clock_set_by(-1), "clock-jump"), "nothing");
}

TEST(findings_clock_jump, stamps_tell_it_less_surely) {
    archive_facts facts = healthy_archive();
    facts.looks[0].boot_time = facts.looks[1].boot_time = 0;
    facts.looks[0].stamp = "20261122-235958";
    facts.looks[1].stamp = "20261123-000009";
    EXPECT_EQ(verdict(facts, "clock-jump"), "nothing");
    facts.looks[1].stamp = "20261123-010008";
    EXPECT_EQ(verdict(facts, "clock-jump"), "0 note");
    facts.looks[1].stamp = "no stamp";
    EXPECT_EQ(verdict(facts, "clock-jump"), "nothing");
}

change setting(const char* name) {
    change one;
    one.group = "settings";
    one.name = name;
    one.first_text = "0\n";
    one.second_text = "1\n";
    return one;
}

TEST(findings_setting_changed, a_setting_with_another_value_is_a_note) {
    archive_facts facts = healthy_archive();
    facts.changes = {setting("sys/kernel/panic")};
    EXPECT_EQ(verdict(facts, "setting-changed"), "0 note");
    EXPECT_EQ(found(facts, "setting-changed").proof[0].text, "sys/kernel/panic: 0 became 1");
}

TEST(findings_setting_changed, counters_among_the_settings_are_none) {
    archive_facts facts = healthy_archive();
    facts.changes = {setting("sys/fs/file-nr"), setting("sys/kernel/random/uuid")};
    EXPECT_EQ(verdict(facts, "setting-changed"), "nothing");
}

}  // namespace
}  // namespace archiveview
