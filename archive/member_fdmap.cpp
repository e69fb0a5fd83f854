#include "archive/member_fdmap.h"

#include <unistd.h>

#include "archive/manifest.h"
#include "archive/member_copy.h"
#include "common/proc_path.h"
#include "common/sys_run.h"
#include "common/temp_file.h"

namespace {

void list_descriptors(pid_t pid, int out_fd) {
    char program[] = "/bin/ls";
    char option[] = "-l";
    proc_path path(pid, "fd");
    char* const argv[] = {program, option, path.text, nullptr};
    (void)sys_run(program, argv, STDIN_FILENO, out_fd, out_fd, 0);
}

}  // namespace

void proc_append_fdmap(tar_handle* t, const char* name, pid_t pid, int /*fd*/) {
    unique_fd file = temp_file_unlinked("/tmp/.fdmapXXXXXX");
    if (!file) {
        manifest_note(t, name, errno);
        return;
    }
    list_descriptors(pid, file.get());
    if (lseek(file.get(), 0, SEEK_END) == 0) {
        manifest_note(t, name, ENODATA);
    }
    (void)member_store(t, name, file.get());  // the handle keeps a write error
}
