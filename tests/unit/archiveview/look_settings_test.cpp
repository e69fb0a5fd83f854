#include "tools/archiveview/facts/look_settings.h"

#include <gtest/gtest.h>

#include "tests/unit/archiveview/looks.h"
#include "tools/archiveview/limits.h"

using namespace archiveview;

TEST(archiveview_look_settings, have_single_spaces_between_words) {
    const look l = look_of({{"sys/kernel/printk", "4\t4\t1\t7\n"},
                            {"sys/kernel/core_modes", "[file]\n[pipe]\n"},
                            {"sys/kernel/domainname", "\n"}});
    EXPECT_EQ(l.settings, (std::map<std::string, std::string>{{"sys/kernel/printk", "4 4 1 7"},
                                                              {"sys/kernel/core_modes", "[file] [pipe]"},
                                                              {"sys/kernel/domainname", ""}}));
}

TEST(archiveview_look_settings, that_are_cut_are_not_kept) {
    look l;
    EXPECT_TRUE(look_add(&l, "sys/vm/swappiness", "6"));
    EXPECT_TRUE(look_add(&l, "sys/vm/compact_memory", ""));
    EXPECT_TRUE(l.settings.empty());
}

TEST(archiveview_look_settings, long_text_is_no_setting) {
    look l;
    EXPECT_FALSE(look_add(&l, "sys/dev/info", std::string(setting_limit, 'x') + "\n"));
    EXPECT_FALSE(l.is_present);
}

TEST(archiveview_look_settings, files_that_change_by_themselves_have_a_reason) {
    for (const char* name :
         {"sys/kernel/random/uuid", "sys/kernel/random/entropy_avail", "sys/fs/file-nr", "sys/fs/inode-state",
          "sys/fs/dentry-state", "sys/fs/aio-nr", "sys/kernel/ns_last_pid", "sys/kernel/msg_next_id",
          "sys/net/netfilter/nf_conntrack_count", "sys/net/nf_conntrack_count"}) {
        EXPECT_NE(look_own_change_reason(name), "") << name;
    }
    for (const char* name :
         {"sys/fs/nr_open", "sys/fs/file-max", "sys/kernel/hostname", "sys/kernel/tainted",
          "sys/net/ipv4/ip_forward", "sys/kernel/randomize_va_space", "sys/vm/swappiness", ""}) {
        EXPECT_EQ(look_own_change_reason(name), "") << name;
    }
}
