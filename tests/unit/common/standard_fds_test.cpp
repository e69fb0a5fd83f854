#include "common/standard_fds.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "tests/unit/support/children.h"
#include "tests/unit/support/pipes.h"

namespace {

bool is_null_device(int fd) {
    struct stat null_device;
    struct stat info;
    return stat("/dev/null", &null_device) == 0 && fstat(fd, &info) == 0 && S_ISCHR(info.st_mode) &&
           info.st_rdev == null_device.st_rdev;
}

}  // namespace

TEST(standard_fds, that_are_closed_become_the_null_device) {
    const int status = run_in_child([] {
        const std::set<int> before = open_fds();
        for (int fd : {0, 1, 2}) {
            close(fd);
        }
        standard_fds_fill(O_RDWR);
        if (!is_null_device(0) || !is_null_device(1) || !is_null_device(2)) {
            return 1;
        }
        return open_fds() == before ? 0 : 2;
    });
    EXPECT_TRUE(exited_with(status, 0)) << WEXITSTATUS(status);
}

TEST(standard_fds, that_are_open_stay_as_they_are) {
    const int status = run_in_child([] {
        const test_pipe pipe;
        dup2(pipe.out.get(), 0);
        dup2(pipe.in.get(), 2);
        close(1);
        standard_fds_fill(O_RDWR);
        char byte = 'b';
        return is_null_device(1) && write(2, &byte, 1) == 1 && read(0, &byte, 1) == 1 ? 0 : 1;
    });
    EXPECT_TRUE(exited_with(status, 0));
}

TEST(standard_fds, are_opened_with_the_given_flags) {
    const int status = run_in_child([] {
        close(0);
        standard_fds_fill(O_WRONLY | O_CLOEXEC);
        char byte;
        return read(0, &byte, 1) == -1 && write(0, "b", 1) == 1 && is_cloexec(0) ? 0 : 1;
    });
    EXPECT_TRUE(exited_with(status, 0));
}
