#include "common/fd_range.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <set>
#include <string>
#include <utility>

#include "tests/unit/support/children.h"
#include "tests/unit/support/failing_calls.h"

namespace {

constexpr int first_closed = 10;

// No gap is below `first_closed`, so a descriptor that the tested call opens is in the range to be closed.
bool is_gap(int fd) {
    return fd >= first_closed && fd % 3 == 0;
}

using closer = void (*)(unsigned first);

// In a child process, opens the descriptors from `low` to `high`, except for gaps, and calls `close_from` for
// those from `first_closed` on. Returns 0 if exactly the lower ones are still open.
int leaves_only_the_low_ones(closer close_from, int low, int high) {
    return run_in_child([=] {
        for (int fd = low; fd <= high; fd++) {
            if (is_gap(fd)) {
                close(fd);
            } else if (dup2(STDIN_FILENO, fd) != fd) {
                return 1;
            }
        }
        std::set<int> wanted = open_fds();
        if (wanted.count(high) != (is_gap(high) ? 0U : 1U)) {
            return 2;
        }
        wanted.erase(wanted.lower_bound(first_closed), wanted.end());
        close_from(first_closed);
        return open_fds() == wanted ? 0 : 3;
    });
}

std::string way_name(const testing::TestParamInfo<closer>& way) {
    return way.param == fd_range_close_from ? "from" : "listed";
}

class fd_range : public testing::TestWithParam<closer> {
protected:
    void SetUp() override { ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit_), 0); }
    rlimit limit_ = {};
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(both_ways, fd_range, testing::Values(fd_range_close_from, fd_range_close_listed),
                         way_name);

TEST_P(fd_range, closes_all_from_the_given_one) {
    EXPECT_TRUE(exited_with(leaves_only_the_low_ones(GetParam(), 3, 31), 0));
}

TEST_P(fd_range, closes_hundreds_with_gaps) {
    EXPECT_TRUE(exited_with(leaves_only_the_low_ones(GetParam(), 3, 1000), 0));
}

TEST_P(fd_range, closes_thousands_with_gaps) {
    if (limit_.rlim_cur < 9000) {
        GTEST_SKIP() << "only " << limit_.rlim_cur << " descriptors are allowed";
    }
    EXPECT_TRUE(exited_with(leaves_only_the_low_ones(GetParam(), 3, 8999), 0));
}

TEST_P(fd_range, closes_a_single_high_one) {
    closer close_from = GetParam();
    int high = static_cast<int>(limit_.rlim_cur < 4000 ? limit_.rlim_cur : 4000) - 1;
    int status = run_in_child([=] {
        close_from(3);
        if (dup2(STDIN_FILENO, high) != high) {
            return 1;
        }
        close_from(3);
        return open_fds() == std::set<int>{0, 1, 2} ? 0 : 2;
    });
    EXPECT_TRUE(exited_with(status, 0)) << status;
}

TEST_P(fd_range, does_nothing_if_none_is_open) {
    closer close_from = GetParam();
    int status = run_in_child([=] {
        close_from(3);
        std::set<int> before = open_fds();
        close_from(3);
        close_from(500);
        return open_fds() == before && before == std::set<int>{0, 1, 2} ? 0 : 1;
    });
    EXPECT_TRUE(exited_with(status, 0)) << status;
}

namespace {

constexpr int no_filters = 77;

// Runs fd_range_close_from without close_range(2) and with a system call `number` that fails with `error`.
// Returns 0 if exactly the descriptors below `first_closed` are still open. Each one is checked by itself,
// because the list of open descriptors cannot be read any more.
int closes_with_a_failing_call(long number, int error) {
    return run_in_child([=] {
        const int high = 300;
        for (int fd = 3; fd <= high; fd++) {
            if (dup2(STDIN_FILENO, fd) != fd) {
                return 1;
            }
        }
        if (!take_close_range_away() || !fail_calls({{number, error}})) {
            return no_filters;
        }
        fd_range_close_from(first_closed);
        for (int fd = 0; fd <= high; fd++) {
            if ((fcntl(fd, F_GETFD) >= 0) != (fd < first_closed)) {
                return 2;
            }
        }
        return 0;
    });
}

}  // namespace

TEST(fd_range_close_from, works_on_a_kernel_without_close_range) {
    int status = run_in_child([] {
        if (!take_close_range_away()) {
            return no_filters;
        }
        return WEXITSTATUS(leaves_only_the_low_ones(fd_range_close_from, 3, 301));
    });
    if (exited_with(status, no_filters)) {
        GTEST_SKIP() << "this kernel filters no system calls";
    }
    EXPECT_TRUE(exited_with(status, 0)) << status;
}

TEST(fd_range_close_from, works_if_descriptors_cannot_be_listed) {
    for (auto [number, error] :
         {std::pair<long, int>{SYS_openat, ENFILE}, {SYS_openat, ENOMEM}, {SYS_getdents64, ENOMEM}}) {
        int status = closes_with_a_failing_call(number, error);
        if (exited_with(status, no_filters)) {
            GTEST_SKIP() << "this kernel filters no system calls";
        }
        EXPECT_TRUE(exited_with(status, 0)) << number << ": " << status;
    }
}

TEST(fd_range_close_from, closes_descriptors_above_a_lowered_limit) {
    int status = run_in_child([] {
        const int high = 200;
        if (dup2(STDIN_FILENO, high) != high) {
            return 1;
        }
        rlimit lower = {};
        getrlimit(RLIMIT_NOFILE, &lower);
        lower.rlim_cur = 20;
        setrlimit(RLIMIT_NOFILE, &lower);
        if (!take_close_range_away() || !fail_calls({{SYS_openat, ENFILE}})) {
            return no_filters;
        }
        fd_range_close_from(first_closed);
        return fcntl(high, F_GETFD) < 0 ? 0 : 2;
    });
    if (exited_with(status, no_filters)) {
        GTEST_SKIP() << "this kernel filters no system calls";
    }
    EXPECT_TRUE(exited_with(status, 0)) << status;
}
