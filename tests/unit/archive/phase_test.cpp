#include "archive/phase.h"

#include <gtest/gtest.h>
#include <unistd.h>

TEST(phase, begin_sets_the_limit_and_end_clears_it) {
    phase_begin();
    EXPECT_EQ(alarm(0), phase_seconds);
    phase_begin();
    phase_end();
    EXPECT_EQ(alarm(0), 0u);
}

TEST(phase, progress_restarts_the_limit) {
    alarm(20);
    phase_progress();
    EXPECT_EQ(alarm(0), phase_seconds);
}

TEST(phase, progress_outside_an_archive_sets_no_limit) {
    alarm(0);
    phase_progress();
    EXPECT_EQ(alarm(0), 0u);
}
