#include "tools/archiveview/facts/system_text.h"

#include <gtest/gtest.h>

#include "tests/unit/archiveview/looks.h"

using namespace archiveview;

namespace {

using lines = std::vector<std::string>;

constexpr std::string_view whole =
    "[system]\n"
    "host: camera-7\n"
    "kernel: Linux 3.18.44 #1 SMP Tue Mar 3 mips\n"
    "kernel command line: console=ttyS1 root=/dev/mtd: x\n"
    "uptime: 36008 s (0 d 10 h 0 min)\n"
    "load: 0.32 2.04 4.35 3/109 26\n"
    "local time: 2026-11-22 16:08:41 +0000 UTC\n"
    "UTC: 2026-11-22 16:08:41\n"
    "clock source: MIPS\n"
    "clock: not synchronised, estimated error 16000000 us, maximum error 16000000 us\n"
    "zarvo: 0.1\n"
    "options: debugar.cgi -n \n"
    "\n"
    "[memory]\n"
    "MemTotal:         126084 kB\n"
    "MemFree:           17980 kB\n"
    "\n"
    "[file systems]\n"
    "/dev/root / squashfs ro,relatime total_kib 9216 used_kib 9216 available_kib 0 inodes_free 5\n"
    "//nas/my\\040share /mnt/nas cifs rw not answering\n"
    "\n"
    "[interfaces]\n"
    "eth0 index 2 state up mtu 1500 mac 02:fc:00:00:00:01 rx_packets 24026 tx_packets 20911\n"
    "eth0 address 192.0.2.2/24\n"
    "eth0 address fe80::1/64\n"
    "\n"
    "[routes]\n"
    "0.0.0.0/0 via 192.0.2.1 device eth0\n"
    "\n"
    "[neighbours]\n"
    "192.0.2.1 device eth0 mac 02:fc:00:00:00:05 state reachable\n"
    "fd00::1 device eth0 state failed\n"
    "\n"
    "[errors]\n"
    "/proc/loadavg: Permission denied\n";

device_facts parsed(std::string_view text) {
    device_facts facts;
    system_text_parse(&facts, text);
    return facts;
}

}  // namespace

TEST(archiveview_system_text, names_the_device_and_its_kernel) {
    const device_facts facts = parsed(whole);
    EXPECT_EQ(facts.host, "camera-7");
    EXPECT_EQ(facts.kernel, "Linux 3.18.44 #1 SMP Tue Mar 3");
    EXPECT_EQ(facts.machine, "mips");
    EXPECT_EQ(facts.command_line, "console=ttyS1 root=/dev/mtd: x");
    EXPECT_EQ(facts.uptime_seconds, 36008);
    EXPECT_EQ(facts.load, "0.32 2.04 4.35 3/109 26");
    EXPECT_EQ(facts.clock, "not synchronised, estimated error 16000000 us, maximum error 16000000 us");
    EXPECT_EQ(facts.version, "0.1");
    EXPECT_EQ(facts.memory_kb, 126084u);
}

TEST(archiveview_system_text, has_addresses_routes_neighbours_and_errors) {
    const device_facts facts = parsed(whole);
    EXPECT_EQ(facts.addresses, (lines{"eth0 192.0.2.2/24", "eth0 fe80::1/64"}));
    EXPECT_EQ(facts.routes, lines{"0.0.0.0/0 via 192.0.2.1 device eth0"});
    EXPECT_EQ(facts.neighbours, (lines{"192.0.2.1 device eth0 mac 02:fc:00:00:00:05 state reachable",
                                       "fd00::1 device eth0 state failed"}));
    EXPECT_EQ(facts.errors, lines{"/proc/loadavg: Permission denied"});
}

TEST(archiveview_system_text, has_file_systems_with_their_sizes) {
    const device_facts facts = parsed(whole);
    ASSERT_EQ(facts.file_systems.size(), 2u);
    const file_system& root = facts.file_systems[0];
    EXPECT_EQ(root.folder, "/");
    EXPECT_EQ(root.type, "squashfs");
    EXPECT_TRUE(root.is_answering);
    EXPECT_EQ(root.total_kb, 9216u);
    EXPECT_EQ(root.used_kb, 9216u);
    EXPECT_EQ(root.available_kb, 0u);
    EXPECT_EQ(root.free_inodes, 5u);
    EXPECT_EQ(facts.file_systems[1].device, "//nas/my share");
    EXPECT_FALSE(facts.file_systems[1].is_answering);
    EXPECT_EQ(facts.file_systems[1].total_kb, 0u);
}

TEST(archiveview_system_text, that_is_cut_has_what_is_whole) {
    for (size_t length = 0; length <= whole.size(); length++) {
        const device_facts facts = parsed(whole.substr(0, length));
        EXPECT_TRUE(facts.memory_kb == 0 || facts.memory_kb == 126084) << length;
        EXPECT_TRUE(facts.host.empty() || facts.host == "camera-7") << length;
        EXPECT_LE(facts.addresses.size(), 2u);
    }
    EXPECT_EQ(parsed(whole.substr(0, whole.find("[memory]") + 20)).clock, parsed(whole).clock);
}

TEST(archiveview_system_text, ignores_unknown_sections_and_lines_without_a_name) {
    const device_facts facts =
        parsed("host: before\n[new]\nhost: a\n[system]\nnothing\nhost: b\nuptime: nan\n");
    EXPECT_EQ(facts.host, "b");
    EXPECT_EQ(facts.uptime_seconds, 0);
}

TEST(archiveview_device_look, fills_in_what_the_archive_does_not_tell_otherwise) {
    const look l = look_of({{"version", "Linux version 3.18.44 (b@h) (gcc version 4.9) #1 SMP Tue Mar 3\n"},
                            {"cmdline", "console=ttyS1\n"},
                            {"loadavg", "0.10 0.20 0.30 1/50 99\n"},
                            {"uptime", "12.50 3.00\n"},
                            {"cpuinfo", "system type\t: SoC\ncpu model\t: MIPS 24Kc\n"},
                            {"stat", "cpu  1 1 1 1\ncpu0 1 1 1 1\ncpu1 0 0 0 0\n"},
                            {"meminfo", "MemTotal: 4096 kB\n"},
                            {"sys/kernel/hostname", "camera-7\n"}});
    device_facts facts;
    device_add_look(&facts, l);
    EXPECT_EQ(facts.kernel, "Linux 3.18.44 #1 SMP Tue Mar 3");
    EXPECT_EQ(facts.machine, "SoC");
    EXPECT_EQ(facts.command_line, "console=ttyS1");
    EXPECT_EQ(facts.load, "0.10 0.20 0.30 1/50 99");
    EXPECT_EQ(facts.uptime_seconds, 12.5);
    EXPECT_EQ(facts.processor, "MIPS 24Kc");
    EXPECT_EQ(facts.processors, 2u);
    EXPECT_EQ(facts.memory_kb, 4096u);
    EXPECT_EQ(facts.host, "camera-7");
}

TEST(archiveview_device_look, leaves_what_is_known) {
    device_facts facts = parsed(whole);
    device_add_look(&facts, look_of({{"sys/kernel/hostname", "other\n"}, {"meminfo", "MemTotal: 1 kB\n"}}));
    EXPECT_EQ(facts.host, "camera-7");
    EXPECT_EQ(facts.memory_kb, 126084u);
    EXPECT_EQ(facts.processors, 0u);
    device_facts empty;
    device_add_look(&empty, {});
    EXPECT_EQ(empty.kernel, "");
}
