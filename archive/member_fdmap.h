// The list of a process's descriptors, which follows its core dump.
#pragma once

#include <sys/types.h>

#include "archive/tar.h"

// Stores the output of "/bin/ls -l" for the descriptors of `pid`, including its error messages, as member
// `name`. `fd` is the archive's descriptor. If no temporary file can be made, there is no member.
void proc_append_fdmap(tar_handle* t, const char* name, pid_t pid, int fd);
