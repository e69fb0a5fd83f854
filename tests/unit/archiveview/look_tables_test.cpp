#include <gtest/gtest.h>

#include "tests/unit/archiveview/looks.h"
#include "tools/archiveview/limits.h"

using namespace archiveview;

namespace {

constexpr std::string_view stat_text =
    "cpu  2132786 1939939 1607349 1390185 74802 5 15459 15698 7 3\n"
    "cpu0 1057603 968681 782538 743080 23392 2 5053 7518 7 0\n"
    "cpu2 1075183 971258 824811 647105 51410 3 10406 8180 0 3\n"
    "intr 97648294 0 0 1 16 0\n"
    "ctxt 553165520\n"
    "btime 1795327713\n"
    "processes 14191913\n"
    "procs_running 3\n"
    "procs_blocked 2\n"
    "softirq 82327607 0 3258775\n";

}  // namespace

TEST(archiveview_look_tables, processors_have_their_time_by_state) {
    const look l = look_of({{"stat", stat_text}});
    ASSERT_EQ(l.processors.size(), 4u);
    const cpu_ticks& all = l.processors[0];
    EXPECT_EQ(all.user, 2132786u + 1939939);
    EXPECT_EQ(all.system, 1607349u);
    EXPECT_EQ(all.idle, 1390185u);
    EXPECT_EQ(all.waiting, 74802u);
    EXPECT_EQ(all.interrupts, 5u + 15459);
    EXPECT_EQ(all.stolen, 15698u);
}

TEST(archiveview_look_tables, processor_that_is_off_has_no_time) {
    const look l = look_of({{"stat", stat_text}});
    ASSERT_EQ(l.processors.size(), 4u);
    EXPECT_EQ(l.processors[1].system, 782538u);
    EXPECT_EQ(l.processors[2].system, 0u);
    EXPECT_EQ(l.processors[3].system, 824811u);
}

TEST(archiveview_look_tables, stat_has_counts_of_switches_forks_and_processes) {
    const look l = look_of({{"stat", stat_text}});
    EXPECT_EQ(l.context_switches, 553165520u);
    EXPECT_EQ(l.boot_time, 1795327713u);
    EXPECT_EQ(l.forks, 14191913u);
    EXPECT_EQ(l.running, 3u);
    EXPECT_EQ(l.blocked, 2u);
}

TEST(archiveview_look_tables, old_kernel_has_four_states_of_a_processor) {
    const look l = look_of({{"stat", "cpu  10 1 20 300\ncpu0 10 1 20 300\nctxt 5\n"}});
    ASSERT_EQ(l.processors.size(), 2u);
    EXPECT_EQ(l.processors[0].user, 11u);
    EXPECT_EQ(l.processors[0].idle, 300u);
    EXPECT_EQ(l.processors[0].waiting, 0u);
}

TEST(archiveview_look_tables, line_that_is_cut_is_not_used) {
    const look l = look_of({{"stat", "cpu  10 1 20 300\ncpu0 10 1 2"},
                            {"meminfo", "MemTotal: 100 kB\nMemFree: 9 kB"},
                            {"vmstat", "pgfault 5\npgmajfault 1"},
                            {"slabinfo", "a 1 2 3 4\nb 1 2 3"},
                            {"diskstats", "8 0 sda 1 2 3 4 5 6 7 8 9 10 11\n8 1 sda1 1 2 3 4"},
                            {"mounts", "a /a ext4 rw 0 0\nb /b ext4 r"},
                            {"modules", "a 1 0 - Live 0x0\nb 1 0"}});
    EXPECT_EQ(l.processors.size(), 1u);
    EXPECT_EQ(l.memory_kb.size(), 1u);
    EXPECT_EQ(l.vmstat.size(), 1u);
    EXPECT_EQ(l.slabs.size(), 1u);
    EXPECT_EQ(l.disks.size(), 1u);
    EXPECT_EQ(l.mounts.size(), 1u);
    EXPECT_EQ(l.modules.size(), 1u);
}

TEST(archiveview_look_tables, processor_with_a_number_beyond_the_bound_is_ignored) {
    const look l = look_of({{"stat", "cpu  1 1 1 1\ncpu4000000000 1 1 1 1\ncpufreq 1 1 1 1\n"}});
    EXPECT_EQ(l.processors.size(), 1u);
}

TEST(archiveview_look_tables, memory_has_names_without_their_colon) {
    const look l =
        look_of({{"meminfo",
                  "MemTotal:       24684084 kB\nActive(anon):       1540 kB\nHugePages_Total:       4\n"
                  "Hugepagesize:       2048 kB\nDirectMap2M:     2064384 kB\n"}});
    const std::map<std::string, uint64_t> expected = {
        {"MemTotal", 24684084}, {"Active(anon)", 1540}, {"Hugepagesize", 2048}, {"DirectMap2M", 2064384}};
    EXPECT_EQ(l.memory_kb, expected);
}

TEST(archiveview_look_tables, vmstat_has_names_and_counts) {
    const look l = look_of({{"vmstat", "nr_free_pages 123\npgpgin 25490620\nbroken\nnegative -1\n"}});
    EXPECT_EQ(l.vmstat, (std::map<std::string, uint64_t>{{"nr_free_pages", 123}, {"pgpgin", 25490620}}));
}

TEST(archiveview_look_tables, slab_caches_have_all_objects_and_their_size) {
    const look l = look_of(
        {{"slabinfo",
          "slabinfo - version: 2.1\n"
          "# name            <active_objs> <num_objs> <objsize> <objperslab> <pagesperslab> : tunables\n"
          "bio-312               11     12    320   12    1 : tunables    0    0    0 : slabdata      1      "
          "1    0\n"
          "two words              3      4     96   42    1 : tunables    0    0    0 : slabdata      1      "
          "1    0\n"}});
    ASSERT_EQ(l.slabs.size(), 2u);
    EXPECT_EQ(l.slabs[0].name, "bio-312");
    EXPECT_EQ(l.slabs[0].objects, 12u);
    EXPECT_EQ(l.slabs[0].object_bytes, 320u);
    EXPECT_EQ(l.slabs[1].name, "two words");
    EXPECT_EQ(l.slabs[1].objects, 4u);
}

TEST(archiveview_look_tables, disks_of_old_and_new_kernels_have_the_same_counters) {
    const look l = look_of({{"diskstats",
                             "   8       0 sda 100 1 2000 30 400 5 6000 70 0 800 900\n"
                             "   8       1 sda1 100 2000 400 6000\n"
                             " 254       0 vda 100 1 2000 30 400 5 6000 70 0 800 900 1 2 3 4 5 6\n"
                             "   1       0 broken 1 2 3 4 5\n"}});
    ASSERT_EQ(l.disks.size(), 3u);
    for (const disk_counters& disk : l.disks) {
        EXPECT_EQ(disk.reads, 100u) << disk.name;
        EXPECT_EQ(disk.read_sectors, 2000u) << disk.name;
        EXPECT_EQ(disk.writes, 400u) << disk.name;
        EXPECT_EQ(disk.written_sectors, 6000u) << disk.name;
        EXPECT_EQ(disk.busy_ms, disk.name == "sda1" ? 0u : 800u) << disk.name;
    }
}

TEST(archiveview_look_tables, mounts_have_names_as_the_user_wrote_them) {
    const look l = look_of({{"mounts",
                             "/dev/mmcblk0p1 /media/my\\040card\\134x vfat ro,noatime 0 0\n"
                             "tmp\\04 /t\\9 tmpfs rw 0 0\nbroken\n"}});
    ASSERT_EQ(l.mounts.size(), 2u);
    EXPECT_EQ(l.mounts[0].device, "/dev/mmcblk0p1");
    EXPECT_EQ(l.mounts[0].folder, "/media/my card\\x");
    EXPECT_EQ(l.mounts[0].type, "vfat");
    EXPECT_EQ(l.mounts[0].options, "ro,noatime");
    EXPECT_EQ(l.mounts[1].device, "tmp\\04");
    EXPECT_EQ(l.mounts[1].folder, "/t\\9");
}

TEST(archiveview_look_tables, processor_is_known_on_x86_mips_and_arm) {
    const look x86 =
        look_of({{"cpuinfo",
                  "processor\t: 0\nvendor_id\t: G\ncpu family\t: 25\nmodel\t\t: 17\nmodel name\t: Some "
                  "CPU @ 2.0GHz\n\nprocessor\t: 1\nmodel name\t: Another\n"}});
    EXPECT_EQ(x86.processor, "Some CPU @ 2.0GHz");
    EXPECT_EQ(x86.machine, "");
    const look mips = look_of({{"cpuinfo",
                                "system type\t\t: Board SoC rev 2\nmachine\t\t\t: A board\nprocessor\t\t: "
                                "0\ncpu model\t\t: MIPS 24Kc V7.4\nBogoMIPS\t\t: 385.84\n"}});
    EXPECT_EQ(mips.processor, "MIPS 24Kc V7.4");
    EXPECT_EQ(mips.machine, "Board SoC rev 2");
    const look arm = look_of(
        {{"cpuinfo", "Processor\t: ARMv7 Processor rev 1 (v7l)\nprocessor\t: 0\nHardware\t: Some board\n"}});
    EXPECT_EQ(arm.processor, "ARMv7 Processor rev 1 (v7l)");
    EXPECT_EQ(arm.machine, "Some board");
}

TEST(archiveview_look_tables, tables_have_a_bound) {
    std::string counters;
    std::string slabs;
    for (size_t i = 0; i < counter_limit + 10; i++) {
        counters += "n" + std::to_string(i) + " 1\n";
        slabs += "n" + std::to_string(i) + " 1 1 1\n";
    }
    const look l = look_of({{"vmstat", counters}, {"slabinfo", slabs}});
    EXPECT_EQ(l.vmstat.size(), counter_limit);
    EXPECT_EQ(l.slabs.size(), counter_limit);
}
