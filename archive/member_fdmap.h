// The map of a process's descriptors, beside its core dump.
#pragma once

#include <sys/types.h>

#include "archive/tar.h"

// Stores what "/bin/ls -l" says of the descriptors of `pid`, its error messages included, as member `name`,
// `fd` is the archive's descriptor. No member when there is no temporary file.
void proc_append_fdmap(tar_handle* t, const char* name, pid_t pid, int fd);
