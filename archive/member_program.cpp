#include "archive/member_program.h"

#include <unistd.h>

#include "archive/manifest.h"
#include "archive/member_copy.h"
#include "common/sys_run.h"
#include "common/temp_file.h"

namespace {

constexpr const char* oopslog_argv[] = {"/usr/sbin/oopslog", "-r", "/dev/part/oops", nullptr};
constexpr program_member oopslog_member = {"/tmp/.oopslogXXXXXX", oopslog_argv, "oopslog"};

constexpr const char* report_argv[] = {"/usr/sbin/gen_serverreport.sh", nullptr};
constexpr program_member report_member = {"/tmp/.sreportXXXXXX", report_argv, "serverreport.txt"};

}  // namespace

int stream_program(tar_handle* t, int /*fd*/, const program_member& member) {
    unique_fd file = temp_file_unlinked(member.temp_template);
    if (!file) {
        manifest_note(t, member.name, errno);
        return 0;
    }
    // execve does not change the vector; its prototype lacks the const.
    char* const* argv = const_cast<char* const*>(member.argv);
    (void)sys_run(argv[0], argv, STDIN_FILENO, file.get(), file.get(), 0);
    if (lseek(file.get(), 0, SEEK_END) == 0) {
        manifest_note(t, member.name, ENODATA);
    }
    return member_store(t, member.name, file.get());
}

int stream_oopslog(tar_handle* t, int fd) {
    return stream_program(t, fd, oopslog_member);
}

int stream_server_report(tar_handle* t, int fd) {
    return stream_program(t, fd, report_member);
}
