#include "archive/member_fdmap.h"

#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "archive/member_copy.h"
#include "common/padding.h"
#include "common/sys_run.h"
#include "common/temp_file.h"

namespace {

void list_onto(int fd, pid_t pid) {
    char program[] = "/bin/ls";
    char option[] = "-l";
    char path[30];
    snprintf(path, sizeof path, "/proc/%ld/fd", static_cast<long>(pid));
    char* const argv[] = {program, option, path, nullptr};
    (void)sys_run(program, argv, STDIN_FILENO, fd, fd, 0);
}

}  // namespace

void proc_append_fdmap(tar_handle* t, const char* name, pid_t pid, int fd) {
    unique_fd file = temp_file_unlinked("/tmp/.fdmapXXXXXX");
    if (!file) {
        return;
    }
    list_onto(file.get(), pid);
    struct stat status;
    if (fstat(file.get(), &status) < 0) {
        return;
    }
    int size = static_cast<int>(status.st_size);
    tar_addfile(t, name, size);
    lseek(file.get(), 0, SEEK_SET);
    int64_t copied = member_copy(file.get(), fd, size);
    if (copied >= 0 && stream_pad(fd, static_cast<int>(size - copied)) == 0) {
        tar_fakewrite(t, static_cast<size_t>(size));
    }
}
