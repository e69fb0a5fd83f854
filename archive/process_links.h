// The links of a process: its program, its working directory and its descriptors.
#pragma once

#include <limits.h>
#include <stddef.h>
#include <stdint.h>

#include "archive/member_file.h"

struct process_links {
    char text[member_read_bound];  // a line for each link: "fd/0 -> /dev/null"
    char target[PATH_MAX];
    size_t length;        // of the text
    int32_t descriptors;  // how many there are, even if the text was cut; -1: unknown
    int error;            // errno of the last failure other than a missing link; 0: none
};

// Reads the links in the folder `dir_fd` of a process. Control characters and backslashes in targets become
// \ooo. A text that would be too long is cut, and its last line says so.
void process_links_read(int dir_fd, process_links* links);
