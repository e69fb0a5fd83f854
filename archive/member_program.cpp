#include "archive/member_program.h"

#include <unistd.h>

#include "archive/member_copy.h"
#include "common/sys_run.h"
#include "common/temp_file.h"

namespace {

constexpr const char* oopslog_argv[] = {"/usr/sbin/oopslog", "-r", "/dev/part/oops", nullptr};
constexpr program_member oopslog_member = {"/tmp/.oopslogXXXXXX", oopslog_argv, "oopslog"};

constexpr const char* report_argv[] = {"/usr/sbin/gen_serverreport.sh", nullptr};
constexpr program_member report_member = {"/tmp/.sreportXXXXXX", report_argv, "serverreport.txt"};

// Runs a program of the tables above with both its outputs on `fd` and waits for it.
void run_onto(const char* const* argv, int fd) {
    // execve does not write to the vector, its type is only older than const.
    (void)sys_run(argv[0], const_cast<char* const*>(argv), STDIN_FILENO, fd, fd, 0);
}

}  // namespace

int stream_program(tar_handle* t, int /*fd*/, const program_member& member) {
    unique_fd file = temp_file_unlinked(member.temp_template);
    if (!file) {
        return 0;
    }
    run_onto(member.argv, file.get());
    return member_store(t, member.name, file.get());
}

int stream_oopslog(tar_handle* t, int fd) {
    return stream_program(t, fd, oopslog_member);
}

int stream_server_report(tar_handle* t, int fd) {
    return stream_program(t, fd, report_member);
}
