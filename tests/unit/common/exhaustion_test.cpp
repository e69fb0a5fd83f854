#include "common/exhaustion.h"

#include <unistd.h>

#include "tests/unit/support/few_fds.h"

TEST(exhaustion, includes_a_full_table_of_descriptors) {
    const few_fds_left none(0);
    EXPECT_EQ(dup(STDERR_FILENO), -1);
    EXPECT_TRUE(is_exhaustion(errno));
}

TEST(exhaustion, is_only_a_lack_of_descriptors_or_memory) {
    for (int error : {EMFILE, ENFILE, ENOBUFS, ENOMEM}) {
        EXPECT_TRUE(is_exhaustion(error)) << error;
    }
    for (int error : {0, EAGAIN, EINTR, ECONNABORTED, EBADF}) {
        EXPECT_FALSE(is_exhaustion(error)) << error;
    }
}
