// Archive members made of files whose size can't be trusted, read whole into a bounded buffer.
#pragma once

#include "archive/tar.h"

// Bytes kept of a file when the caller names no other bound.
constexpr unsigned member_read_bound = 102400;

// How long one read waits for a file that has nothing to say yet, such as a FIFO; what came until then is the
// member. A driver that blocks although it is asked not to is left to the limit of the archive's phase.
constexpr int member_read_patience_ms = 2000;

// Stores the first `limit` (0: member_read_bound) bytes of the file `path` as member `name`. An empty file,
// a directory, a missing or unreadable one leave no member; what can't be read is reported with perror(path),
// but for directories and for the files in /proc/sys that nobody can read; what came before an error is
// dropped. `fd` is the archive's descriptor. Returns 0, or 1 when memory ran out.
int stream_file_unknownsize(tar_handle* t, int fd, const char* name, const char* path, unsigned limit);

// Stores each file of the directory `dir_path` (ends in '/') as `name_prefix` followed by its name, which is
// shortened where it does not fit (archive/member_name.h), in directory order, subdirectories not entered.
// Names in `skip_names` (ends with null; may be null itself) are passed over. Returns 0, or 1 when the
// directory can't be opened.
int stream_dir_unknownsize(tar_handle* t, int fd, const char* name_prefix, const char* dir_path,
                           const char* const* skip_names);
