// safe_write when write(2) returns 0. No descriptor of the test machine does that, so a function here does.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "common/safe_io.h"
#include "tests/unit/support/capture.h"

#ifdef __SANITIZE_THREAD__

// Our own write would hide the calls from the sanitizer, which would then deliver no signals to any test of
// this program.
TEST(safe_write, continues_after_writes_that_return_0) {
    GTEST_SKIP() << "the thread sanitizer needs the library's own write";
}

#else

namespace {

thread_local int writes_of_nothing = 0;       // the number of further calls that return 0
thread_local size_t most_at_once = SIZE_MAX;  // the most bytes that other calls write
thread_local int calls = 0;

}  // namespace

// Replaces the C library's function in this program.
extern "C" ssize_t write(int fd, const void* data, size_t size) {
    calls++;
    if (writes_of_nothing > 0) {
        writes_of_nothing--;
        return 0;
    }
    return syscall(SYS_write, fd, data, std::min(size, most_at_once));
}

TEST(safe_write, continues_after_writes_that_return_0) {
    for (int nothing : {1, 2, 1000}) {
        unique_fd file = memory_file();
        writes_of_nothing = nothing;
        calls = 0;
        EXPECT_EQ(safe_write(file.get(), "0123456789", 10), 10);
        EXPECT_EQ(calls, nothing + 1);
        EXPECT_EQ(content_of(file.get()), "0123456789");
    }
}

TEST(safe_write, writes_that_return_0_between_others_lose_nothing) {
    unique_fd file = memory_file();
    most_at_once = 3;
    std::string all;
    for (int i = 0; i < 5; i++) {
        writes_of_nothing = 1;
        EXPECT_EQ(safe_write(file.get(), "abcdefgh", 8), 8);
        all += "abcdefgh";
    }
    most_at_once = SIZE_MAX;
    EXPECT_EQ(content_of(file.get()), all);
}

#endif
