// Folders whose entries are named by numbers: the processes in /proc, and the threads of a process.
#pragma once

#include <sys/types.h>

#include "common/unique_fd.h"

// Opens the folder `path`, which is relative to the directory `dir_fd` (or AT_FDCWD).
unique_dir number_folder(int dir_fd, const char* path);

// The next entry whose name begins with a digit; null at the end.
const dirent* number_next(DIR* dir);

// Stores at most `capacity` numbers of the folder `path` in ascending order, those that come first in the
// folder. Returns how many, or -1 with errno set if the folder cannot be opened.
int number_list(int dir_fd, const char* path, pid_t* numbers, int capacity);
