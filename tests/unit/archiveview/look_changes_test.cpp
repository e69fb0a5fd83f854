#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "tests/unit/archiveview/looks.h"
#include "tools/archiveview/limits.h"

using namespace archiveview;

namespace {

using lines = std::vector<std::string>;
using counters = std::vector<named_counter>;

look after(double uptime_seconds) {
    look l;
    l.is_present = true;
    l.uptime_seconds = uptime_seconds;
    return l;
}

std::string rounded(double value) {
    const std::string text = std::to_string(std::llround(value * 10));
    return text.ends_with('0') ? text.substr(0, text.size() - 1) : text + "/10";
}

// "NAME VALUE UNIT" of the changes of one group.
lines changes_of(std::string_view group, const look& first, const look& second) {
    lines all;
    for (const change& each : look_changes(first, second)) {
        if (each.group == group) {
            all.push_back(each.name + ' ' + rounded(each.value) + ' ' + each.unit);
        }
    }
    return all;
}

// Two looks, five seconds apart, that differ in everything.
look early() {
    look l = after(100);
    l.processors = {{.user = 100, .system = 50, .idle = 1000}};
    l.context_switches = 1000;
    l.interrupts = {{"7", "timer", 100}};
    l.softirqs = {{"NET_RX", "", 50}};
    l.vmstat = {{"pgfault", 10}};
    l.memory_kb = {{"MemFree", 5000}};
    l.slabs = {{"dentry", 10, 100}};
    l.disks = {{.name = "mmcblk0", .reads = 5}};
    l.interfaces = {{.name = "eth0", .rx_bytes = 1000}};
    l.protocols = {{"Tcp.InSegs", 7}};
    l.settings = {{"sys/kernel/panic", "0"}};
    return l;
}

look late() {
    look l = after(105);
    l.processors = {{.user = 200, .system = 150, .idle = 1300}};
    l.context_switches = 2000;
    l.interrupts = {{"7", "timer", 600}};
    l.softirqs = {{"NET_RX", "", 100}};
    l.vmstat = {{"pgfault", 20}};
    l.memory_kb = {{"MemFree", 4000}};
    l.slabs = {{"dentry", 20, 100}};
    l.disks = {{.name = "mmcblk0", .reads = 10}};
    l.interfaces = {{.name = "eth0", .rx_bytes = 2000}};
    l.protocols = {{"Tcp.InSegs", 12}};
    l.settings = {{"sys/kernel/panic", "1"}};
    return l;
}

lines groups_of(const std::vector<change>& changes) {
    lines groups;
    for (const change& each : changes) {
        if (groups.empty() || groups.back() != each.group) {
            groups.push_back(each.group);
        }
    }
    return groups;
}

}  // namespace

TEST(archiveview_look_changes, come_in_groups) {
    EXPECT_EQ(groups_of(look_changes(early(), late())),
              (lines{"cpu", "interrupts", "softirqs", "vmstat", "memory", "slab", "disks", "interfaces",
                     "protocols", "settings"}));
}

TEST(archiveview_look_changes, equal_looks_have_none) {
    look second = early();
    EXPECT_TRUE(look_changes(early(), second).empty());
    second.uptime_seconds += 5;
    EXPECT_TRUE(look_changes(early(), second).empty());
    EXPECT_TRUE(look_changes({}, {}).empty());
}

TEST(archiveview_look_changes, missing_look_has_none) {
    EXPECT_TRUE(look_changes(early(), {}).empty());
    EXPECT_TRUE(look_changes({}, late()).empty());
}

TEST(archiveview_look_changes, counters_are_rates_over_the_difference_of_uptime) {
    const std::vector<change> all = look_changes(early(), late());
    const auto found = std::ranges::find(all, "interrupts", &change::group);
    ASSERT_NE(found, all.end());
    EXPECT_EQ(found->name, "7 timer");
    EXPECT_EQ(found->unit, "per_second");
    EXPECT_EQ(found->first, 100);
    EXPECT_EQ(found->second, 600);
    EXPECT_EQ(found->value, 100);
}

TEST(archiveview_look_changes, unknown_or_short_time_gives_no_rates) {
    const lines left = {"memory", "slab", "settings"};
    for (const auto& [from, to] : std::vector<std::pair<double, double>>{
             {0, 105}, {100, 0}, {0, 0}, {100, 100}, {100, 100.001}, {1e-300, 2e-300}}) {
        look first = early();
        look second = late();
        first.uptime_seconds = from;
        second.uptime_seconds = to;
        first.processors.clear();
        EXPECT_EQ(groups_of(look_changes(first, second)), left) << from << ' ' << to;
    }
}

TEST(archiveview_look_changes, restart_between_the_looks_gives_no_rates_and_no_shares) {
    look second = late();
    second.uptime_seconds = 20;
    EXPECT_EQ(groups_of(look_changes(early(), second)), (lines{"memory", "slab", "settings"}));
    EXPECT_EQ(look_busy_percent(early(), second), -1);
}

TEST(archiveview_look_changes, values_are_finite_whatever_the_counters_are) {
    look first = early();
    look second = late();
    second.uptime_seconds = first.uptime_seconds + 0.01;
    first.processors = {{.user = UINT64_MAX, .idle = 5}};
    second.processors = {{.user = 0, .system = UINT64_MAX, .idle = UINT64_MAX, .waiting = UINT64_MAX}};
    second.slabs = {{"dentry", UINT64_MAX, UINT64_MAX}};
    second.disks = {
        {.name = "mmcblk0", .reads = UINT64_MAX, .read_sectors = UINT64_MAX, .busy_ms = UINT64_MAX}};
    second.memory_kb["MemFree"] = UINT64_MAX;
    const std::vector<change> all = look_changes(first, second);
    EXPECT_FALSE(all.empty());
    for (const change& each : all) {
        EXPECT_TRUE(std::isfinite(each.value)) << each.name;
        EXPECT_TRUE(each.unit != "percent" || (each.value >= 0 && each.value <= 100.001)) << each.name;
    }
}

TEST(archiveview_look_changes, processors_have_shares_of_their_time) {
    EXPECT_EQ(changes_of("cpu", early(), late()),
              (lines{"idle 60 percent", "user 20 percent", "system 20 percent",
                     "context_switches 200 per_second"}));
}

TEST(archiveview_look_changes, each_of_several_processors_follows_the_sum) {
    look first = after(1);
    look second = after(2);
    first.processors = {{}, {}, {}};
    second.processors = {{.user = 50, .idle = 150}, {.idle = 100}, {.user = 50, .idle = 50}};
    second.forks = 3;
    EXPECT_EQ(changes_of("cpu", first, second),
              (lines{"idle 75 percent", "user 25 percent", "forks 3 per_second", "cpu0 idle 100 percent",
                     "cpu1 user 50 percent", "cpu1 idle 50 percent"}));
}

TEST(archiveview_look_changes, only_processor_is_not_listed_beside_the_sum) {
    look first = after(1);
    look second = after(2);
    first.processors = {{}, {}};
    second.processors = {{.stolen = 5}, {.stolen = 5}};
    EXPECT_EQ(changes_of("cpu", first, second), lines{"stolen 100 percent"});
}

TEST(archiveview_look_changes, time_that_the_kernel_corrected_downwards_does_not_count) {
    look first = after(1);
    look second = after(2);
    first.processors = {{.user = 10, .waiting = 50}};
    second.processors = {{.user = 20, .waiting = 40}};
    EXPECT_EQ(changes_of("cpu", first, second), lines{"user 100 percent"});
}

TEST(archiveview_look_changes, largest_of_a_group_is_first_whatever_its_sign) {
    look first = after(1);
    look second = after(2);
    first.memory_kb = {{"a", 100}, {"b", 100}, {"c", 100}, {"d", 100}};
    second.memory_kb = {{"a", 90}, {"b", 1100}, {"c", 100}, {"d", 50}};
    EXPECT_EQ(changes_of("memory", first, second), (lines{"b 1000 kb", "d -50 kb", "a -10 kb"}));
}

TEST(archiveview_look_changes, counter_of_32_bits_may_wrap_and_a_reset_one_is_left_out) {
    look first = after(1);
    look second = after(2);
    first.interfaces = {{.name = "eth0", .rx_bytes = 0xffffff00, .rx_packets = 5000}};
    second.interfaces = {{.name = "eth0", .rx_bytes = 0x100, .rx_packets = 4}};
    EXPECT_EQ(changes_of("interfaces", first, second), lines{"eth0 rx_bytes 512 bytes_per_second"});
}

TEST(archiveview_look_changes, what_only_one_look_has_is_left_out) {
    look first = after(1);
    look second = after(2);
    first.vmstat = {{"pgfault", 5}, {"gone", 5}};
    second.vmstat = {{"pgfault", 6}, {"came", 5}};
    second.slabs = {{"new", 10, 10}};
    second.settings = {{"sys/kernel/panic", "5"}};
    EXPECT_EQ(changes_of("vmstat", first, second), lines{"pgfault 1 per_second"});
    EXPECT_EQ(look_changes(first, second).size(), 1u);
}

TEST(archiveview_look_changes, entries_of_the_same_name_are_compared_in_their_order) {
    look first = after(1);
    look second = after(2);
    first.slabs = second.slabs = {{"vm_area", 10, 100}, {"vm_area", 500, 100}};
    EXPECT_TRUE(look_changes(first, second).empty());
    second.slabs[1].objects = 501;
    EXPECT_EQ(changes_of("slab", first, second), lines{"vm_area 100 bytes"});
}

TEST(archiveview_look_changes, vmstat_has_events_and_no_numbers_of_pages) {
    look first = after(1);
    look second = after(3);
    for (const char* name :
         {"nr_free_pages", "workingset_nodes", "nr_dirtied", "nr_vmscan_write", "pgpgin", "oom_kill"}) {
        first.vmstat[name] = 100;
        second.vmstat[name] = 102;
    }
    EXPECT_EQ(changes_of("vmstat", first, second),
              (lines{"pgpgin 1024 bytes_per_second", "nr_dirtied 1 per_second",
                     "nr_vmscan_write 1 per_second", "oom_kill 1 per_second"}));
}

TEST(archiveview_look_changes, disks_have_bytes_and_how_busy_they_were) {
    look first = after(1);
    look second = after(3);
    first.disks = {{.name = "vda"}, {.name = "vdb"}};
    second.disks = {
        {.name = "vda", .reads = 4, .read_sectors = 16, .writes = 2, .written_sectors = 8, .busy_ms = 500},
        {.name = "vdb", .busy_ms = 9000}};
    EXPECT_EQ(changes_of("disks", first, second),
              (lines{"vda read_bytes 4096 bytes_per_second", "vda written_bytes 2048 bytes_per_second",
                     "vdb busy 100 percent", "vda busy 25 percent", "vda reads 2 per_second",
                     "vda writes 1 per_second"}));
}

TEST(archiveview_look_changes, protocols_have_no_settings_and_no_numbers_of_connections) {
    look first = after(1);
    look second = after(2);
    for (const char* name :
         {"Tcp.CurrEstab", "Ip.DefaultTTL", "Tcp.RtoMin", "Tcp.InSegs", "IpExt.InOctets"}) {
        first.protocols[name] = 1;
        second.protocols[name] = 2;
    }
    EXPECT_EQ(changes_of("protocols", first, second),
              (lines{"IpExt.InOctets 1 bytes_per_second", "Tcp.InSegs 1 per_second"}));
}

TEST(archiveview_look_changes, settings_have_both_texts) {
    look first = after(1);
    look second = after(2);
    first.settings = {
        {"sys/kernel/panic", "0"}, {"sys/kernel/random/uuid", "a"}, {"sys/vm/swappiness", "60"}};
    second.settings = {
        {"sys/kernel/panic", "10"}, {"sys/kernel/random/uuid", "b"}, {"sys/vm/swappiness", "60"}};
    const std::vector<change> all = look_changes(first, second);
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].group, "settings");
    EXPECT_EQ(all[0].name, "sys/kernel/panic");
    EXPECT_EQ(all[0].first_text, "0");
    EXPECT_EQ(all[0].second_text, "10");
    EXPECT_EQ(all[0].unit, "");
}

TEST(archiveview_look_changes, group_has_a_bound_and_keeps_the_largest) {
    look first = after(1);
    look second = after(2);
    for (size_t i = 0; i < group_change_limit * 2; i++) {
        first.interrupts.push_back({std::to_string(i), "", 0});
        second.interrupts.push_back({std::to_string(i), "", i + 1});
    }
    const std::vector<change> all = look_changes(first, second);
    ASSERT_EQ(all.size(), group_change_limit);
    EXPECT_EQ(all.front().value, static_cast<double>(group_change_limit * 2));
    EXPECT_EQ(all.back().value, static_cast<double>(group_change_limit + 1));
}

TEST(archiveview_look_busy, is_the_share_of_time_that_was_neither_idle_nor_waiting) {
    look first = after(1);
    look second = after(2);
    first.processors = {{}};
    second.processors = {{.user = 10, .system = 20, .idle = 40, .waiting = 20, .interrupts = 5, .stolen = 5}};
    EXPECT_DOUBLE_EQ(look_busy_percent(first, second), 40);
}

TEST(archiveview_look_busy, is_unknown_without_two_looks_or_without_time) {
    EXPECT_EQ(look_busy_percent({}, late()), -1);
    EXPECT_EQ(look_busy_percent(early(), {}), -1);
    EXPECT_EQ(look_busy_percent(early(), early()), -1);
}
