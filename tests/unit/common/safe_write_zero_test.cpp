// safe_write where write(2) takes nothing, which no descriptor at hand does.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "common/safe_io.h"
#include "tests/unit/support/capture.h"

#ifdef __SANITIZE_THREAD__

// A write of our own would hide the calls from the sanitizer, which then delivers no signal to any test here.
TEST(safe_write, goes_on_after_writes_of_nothing) {
    GTEST_SKIP() << "the thread sanitizer needs the library's own write";
}

#else

namespace {

thread_local int writes_of_nothing = 0;       // so many further calls take nothing
thread_local size_t most_at_once = SIZE_MAX;  // and the others no more than this
thread_local int calls = 0;

}  // namespace

// Stands in for the C library's in this program.
extern "C" ssize_t write(int fd, const void* data, size_t size) {
    calls++;
    if (writes_of_nothing > 0) {
        writes_of_nothing--;
        return 0;
    }
    return syscall(SYS_write, fd, data, std::min(size, most_at_once));
}

TEST(safe_write, goes_on_after_writes_of_nothing) {
    for (int nothing : {1, 2, 1000}) {
        unique_fd file = memory_file();
        writes_of_nothing = nothing;
        calls = 0;
        EXPECT_EQ(safe_write(file.get(), "0123456789", 10), 10);
        EXPECT_EQ(calls, nothing + 1);
        EXPECT_EQ(content_of(file.get()), "0123456789");
    }
}

TEST(safe_write, writes_of_nothing_between_others_count_for_nothing) {
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
