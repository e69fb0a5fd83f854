// Archive members made of a program's output.
#pragma once

#include "archive/tar.h"

// Run the oops log reader or the server report script with output to an unlinked temporary file in /tmp, and
// store it as "oopslog" or "serverreport.txt". If no temporary file can be made, there is no member. Return
// 0, or 1 if a write failed.
int stream_oopslog(tar_handle* t, int fd);
int stream_server_report(tar_handle* t, int fd);

// One such member.
struct program_member {
    const char* temp_template;
    const char* const* argv;  // argv[0] is the program's absolute path; ends with null
    const char* name;
};
int stream_program(tar_handle* t, int fd, const program_member& member);
