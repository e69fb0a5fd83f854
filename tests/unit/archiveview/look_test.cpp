#include "tools/archiveview/facts/look.h"

#include <gtest/gtest.h>

#include <cmath>

#include "tests/unit/archiveview/looks.h"
#include "tools/archiveview/limits.h"

using namespace archiveview;

TEST(archiveview_look, is_present_once_a_known_file_was_added) {
    look l;
    EXPECT_FALSE(look_add(&l, "kallsyms", "80000000 T _text\n"));
    EXPECT_FALSE(look_add(&l, "net/softnet_stat", "0\n"));
    EXPECT_FALSE(look_add(&l, "", "0\n"));
    EXPECT_FALSE(l.is_present);
    EXPECT_TRUE(look_add(&l, "uptime", "1.00 1.00\n"));
    EXPECT_TRUE(l.is_present);
}

TEST(archiveview_look, has_the_uptime_and_the_time_that_processors_were_idle) {
    const look l = look_of({{"uptime", "36013.44 13901.87\n"}});
    EXPECT_DOUBLE_EQ(l.uptime_seconds, 36013.44);
    EXPECT_DOUBLE_EQ(l.idle_seconds, 13901.87);
}

TEST(archiveview_look, uptime_that_is_cut_or_no_number_is_unknown) {
    for (const char* text :
         {"", "36013.4", "-5.00 1.00\n", "inf 1.00\n", "nan 1.00\n", "1e999 1.00\n", "x\n"}) {
        EXPECT_EQ(look_of({{"uptime", text}}).uptime_seconds, 0) << text;
    }
}

TEST(archiveview_look, has_the_first_line_of_files_that_are_one_text) {
    const look l = look_of({{"loadavg", "0.29 2.01 4.33 2/109 29\n"},
                            {"version", "Linux version 3.18.44 (b@h) (gcc) #1 SMP\nmore\n"},
                            {"cmdline", "console=ttyS1 ro"}});
    EXPECT_EQ(l.load, "0.29 2.01 4.33 2/109 29");
    EXPECT_EQ(l.version, "Linux version 3.18.44 (b@h) (gcc) #1 SMP");
    EXPECT_EQ(l.command_line, "console=ttyS1 ro");
}

TEST(archiveview_look, one_text_has_a_bound) {
    const look l = look_of({{"cmdline", std::string(line_limit * 3, 'x')}});
    EXPECT_EQ(l.command_line.size(), line_limit);
}

TEST(archiveview_look, file_that_is_added_again_replaces_the_first) {
    look l = look_of({{"meminfo", "MemFree: 7 kB\nDirty: 1 kB\n"}, {"modules", "a 1 0 - Live\n"}});
    EXPECT_TRUE(look_add(&l, "meminfo", "MemFree: 5 kB\n"));
    EXPECT_TRUE(look_add(&l, "modules", "b 1 0 - Live\n"));
    EXPECT_EQ(l.memory_kb, (std::map<std::string, uint64_t>{{"MemFree", 5}}));
    EXPECT_EQ(l.modules, std::vector<std::string>{"b 1 0 - Live"});
}
