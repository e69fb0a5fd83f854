#include "archive/phase.h"

#include <gtest/gtest.h>
#include <unistd.h>

TEST(phase, begins_with_the_whole_limit_and_ends_with_none) {
    phase_begin();
    EXPECT_EQ(alarm(0), phase_seconds);
    phase_begin();
    phase_end();
    EXPECT_EQ(alarm(0), 0u);
}

TEST(phase, progress_starts_the_limit_anew) {
    alarm(20);
    phase_progress();
    EXPECT_EQ(alarm(0), phase_seconds);
}

TEST(phase, progress_outside_of_an_archive_sets_no_limit) {
    alarm(0);
    phase_progress();
    EXPECT_EQ(alarm(0), 0u);
}
