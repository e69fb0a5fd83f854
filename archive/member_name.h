// Member names that contain a name from outside, which may have any length.
#pragma once

#include <sys/types.h>

#include "archive/tar.h"

// The longest member name, with the archive's prefix, that all tar readers accept.
constexpr size_t longest_member_name = 99;

struct member_name {
    char text[longest_member_name + 1];
};

// "PROGRAM.PID/FILE". `program` is cut so that the name fits in the archive `t`. The cut does not depend on
// `file`, so all files of a process are in the same folder.
member_name member_name_of_process(const tar_handle* t, const char* program, pid_t pid, const char* file);

// `folder` followed by `file`. A file name that does not fit is cut and ends in "~NUMBER", which keeps it
// distinct from others with the same beginning.
member_name member_name_in_folder(const tar_handle* t, const char* folder, const char* file,
                                  unsigned long long number);
