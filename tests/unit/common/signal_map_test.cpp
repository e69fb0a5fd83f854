#include "common/signal_map.h"

#include <gtest/gtest.h>

#include <climits>
#include <iterator>

TEST(signal_map, names_every_signal_in_the_numbering_of_mips) {
    constexpr const char* names[] = {
        "Invalid", "SIGHUP",  "SIGINT",  "SIGQUIT", "SIGILL",    "SIGTRAP", "SIGABRT", "SIGEMT",
        "SIGFPE",  "SIGKILL", "SIGBUS",  "SIGSEGV", "SIGSYS",    "SIGPIPE", "SIGALRM", "SIGTERM",
        "SIGUSR1", "SIGUSR2", "SIGCHLD", "SIGPWR",  "SIGWINCH",  "SIGURG",  "SIGPOLL", "SIGSTOP",
        "SIGTSTP", "SIGCONT", "SIGTTIN", "SIGTTOU", "SIGVTALRM", "SIGPROF", "SIGXCPU", "SIGXFSZ",
    };
    ASSERT_EQ(std::size(names), 32u);
    for (unsigned sig = 0; sig < std::size(names); sig++) {
        EXPECT_STREQ(signal_map_sig2name(sig), names[sig]) << sig;
    }
}

TEST(signal_map, numbers_do_not_depend_on_the_machine) {
    EXPECT_STREQ(signal_map_sig2name(16), "SIGUSR1");
    EXPECT_STREQ(signal_map_sig2name(18), "SIGCHLD");
    EXPECT_STREQ(signal_map_sig2name(23), "SIGSTOP");
}

TEST(signal_map, numbers_outside_the_table_are_invalid) {
    for (unsigned sig : {0U, 32U, 33U, 64U, 127U, 128U, 65536U, 2147483648U, UINT_MAX}) {
        EXPECT_STREQ(signal_map_sig2name(sig), "Invalid") << sig;
    }
}
