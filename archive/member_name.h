// Member names of which a part comes from outside and may be of any length.
#pragma once

#include <sys/types.h>

#include "archive/tar.h"

// The longest name of a member, the archive's prefix included, that readers agree on.
constexpr size_t longest_member_name = 99;

struct member_name {
    char text[longest_member_name + 1];
};

// "PROGRAM.PID/FILE". `program` is cut to what fits into the archive `t`. The cut leaves space for the
// longest file that a process has, so that all its files stand in the same folder.
member_name member_name_of_process(const tar_handle* t, const char* program, pid_t pid, const char* file);

// `folder` followed by `file`. A file name that does not fit is cut and ends in "~NUMBER", which tells it
// from others with the same beginning.
member_name member_name_in_folder(const tar_handle* t, const char* folder, const char* file,
                                  unsigned long long number);
