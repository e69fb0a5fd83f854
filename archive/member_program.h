// Archive members made of a program's output.
#pragma once

#include "archive/tar.h"

// A member made of the output of a program.
struct program_member {
    const char* temp_template;  // for temp_file_unlinked
    const char* const* argv;    // argv[0] is the program's absolute path; ends with null
    const char* name;
};

// Runs the program with standard output and standard error in a temporary file, and stores that file. If no
// temporary file can be made, there is no member. Returns what member_store returns.
int stream_program(tar_handle* t, int fd, const program_member& member);

// The oops log reader's output, as "oopslog", and the server report script's, as "serverreport.txt".
int stream_oopslog(tar_handle* t, int fd);
int stream_server_report(tar_handle* t, int fd);
