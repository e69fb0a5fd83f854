// Archive members and downloads that are the output of a program.
#pragma once

#include "archive/tar.h"

// Runs the oops log reader, and the server report script, into an unlinked temporary file in /tmp and stores
// that as "oopslog" and "serverreport.txt". No member when there is no temporary file. Return 0, or 1 when
// the output broke.
int stream_oopslog(tar_handle* t, int fd);
int stream_server_report(tar_handle* t, int fd);

// One such member.
struct program_member {
    const char* temp_template;
    const char* const* argv;  // argv[0] is the program's absolute path; ends with null
    const char* name;
};
int stream_program(tar_handle* t, int fd, const program_member& member);

// Writes the system's process list onto `fd`.
void stream_ps(int fd);
